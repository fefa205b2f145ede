#include "channel/ArgumentText.h"

namespace {

// The C locale's isspace and isalpha, whatever the locale: bytes from 128 up are neither.

bool isSpace(char byte) { return byte == ' ' || (byte >= '\t' && byte <= '\r'); }

bool isNameByte(char byte) {
  return byte == '_' || (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z');
}

}  // namespace

std::vector<std::string> splitArguments(std::string_view text) {
  std::vector<std::string> words;
  std::string word;
  bool quoted = false;
  bool escaped = false;
  const auto endWord = [&] {
    if (!word.empty()) words.push_back(std::move(word));
    word.clear();
  };
  for (const char byte : text) {
    if (escaped) {
      // Deliberate: the backslash stays in the word and the byte behind it is dropped. Hosts write
      // their argument texts for this rule.
      escaped = false;
      continue;
    }
    escaped = byte == '\\';
    if (byte == '"') {
      quoted = !quoted;
    } else if (!quoted && isSpace(byte)) {
      endWord();
    } else {
      word += byte;
    }
  }
  endWord();
  return words;
}

bool parseEnvironment(std::string_view text, std::vector<EnvironmentEntry> &entries) {
  enum class State { Between, Name, ValueStart, Value, QuotedValue };
  State state = State::Between;
  std::string name;
  std::string value;
  bool escaped = false;
  const auto emit = [&] {
    entries.emplace_back(std::move(name), std::move(value));
    name.clear();
    value.clear();
    state = State::Between;
  };

  for (const char byte : text) {
    switch (state) {
      case State::Between:
        if (isSpace(byte)) break;
        if (!isNameByte(byte)) return false;
        name = byte;
        state = State::Name;
        break;
      case State::Name:
        if (byte == '=') {
          value.clear();
          state = State::ValueStart;
        } else if (isNameByte(byte)) {
          name += byte;
        } else {
          return false;
        }
        break;
      case State::ValueStart:
        if (isSpace(byte)) {
          emit();
        } else if (byte == '"') {
          state = State::QuotedValue;
        } else {
          // Deliberate: a backslash in this first place is an ordinary byte of the value.
          value += byte;
          state = State::Value;
        }
        break;
      case State::Value:
      case State::QuotedValue: {
        const bool quoted = state == State::QuotedValue;
        if (escaped) {
          value += byte;
          escaped = false;
        } else if (byte == '\\') {
          escaped = true;
        } else if (byte == '"') {
          if (!quoted) return false;
          emit();
        } else if (isSpace(byte) && !quoted) {
          emit();
        } else {
          value += byte;
        }
        break;
      }
    }
  }
  if (state == State::Name || state == State::QuotedValue) return false;
  if (!name.empty()) emit();
  return true;
}

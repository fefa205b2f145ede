#include "channel/LaunchArguments.h"

namespace {

// The C locale's isspace, and its isalpha with "_", whatever the program's locale is.

bool isSpace(char byte) { return byte == ' ' || (byte >= '\t' && byte <= '\r'); }

bool isNameByte(char byte) {
  return byte == '_' || (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z');
}

/// Reads the entries of one environment text. Each function reads its part of the grammar from the
/// front of `rest`. A parse function returns false at a malformed entry.
class EnvironmentParser {
 public:
  explicit EnvironmentParser(std::string_view text) : rest(text) {}

  bool parse(std::vector<EnvironmentEntry> &entries) {
    for (skipSpace(); !rest.empty(); skipSpace()) {
      std::string name = parseName();
      std::string value;
      if (name.empty() || !take('=') || !parseValue(value)) return false;
      entries.emplace_back(std::move(name), std::move(value));
    }
    return true;
  }

 private:
  void skipSpace() {
    while (!rest.empty() && isSpace(rest.front())) rest.remove_prefix(1);
  }

  std::string parseName() {
    std::string name;
    while (!rest.empty() && isNameByte(rest.front())) name += takeByte();
    return name;
  }

  bool parseValue(std::string &value) {
    if (take('"')) return parseQuoted(value);
    if (rest.empty() || isSpace(rest.front())) return true;
    // Deliberate: a backslash in this first place is an ordinary byte of the value.
    value += takeByte();
    return parseUnquoted(value);
  }

  bool parseQuoted(std::string &value) {
    while (!rest.empty()) {
      if (take('"')) return true;
      takeValueByte(value);
    }
    return false;
  }

  bool parseUnquoted(std::string &value) {
    while (!rest.empty() && !isSpace(rest.front())) {
      if (take('"')) return false;
      takeValueByte(value);
    }
    return true;
  }

  /// A backslash at the end of the text has no byte to keep.
  void takeValueByte(std::string &value) {
    if (!take('\\') || !rest.empty()) value += takeByte();
  }

  /// Takes `byte` if it comes next.
  bool take(char byte) {
    if (!rest.starts_with(byte)) return false;
    rest.remove_prefix(1);
    return true;
  }

  char takeByte() {
    const char byte = rest.front();
    rest.remove_prefix(1);
    return byte;
  }

  std::string_view rest;
};

}  // namespace

std::vector<std::string> splitArguments(std::string_view text) {
  std::vector<std::string> words;
  std::string word;
  bool isQuoted = false;
  bool isEscaped = false;
  const auto endWord = [&] {
    if (!word.empty()) words.push_back(std::move(word));
    word.clear();
  };
  for (const char byte : text) {
    if (isEscaped) {
      // Deliberate: the backslash stays in the word, and the byte after it is dropped. Hosts write
      // their argument texts for this rule.
      isEscaped = false;
      continue;
    }
    isEscaped = byte == '\\';
    if (byte == '"') {
      isQuoted = !isQuoted;
    } else if (!isQuoted && isSpace(byte)) {
      endWord();
    } else {
      word += byte;
    }
  }
  endWord();
  return words;
}

bool parseEnvironment(std::string_view text, std::vector<EnvironmentEntry> &entries) {
  return EnvironmentParser(text).parse(entries);
}

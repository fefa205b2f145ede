// The texts of arguments and environments, compared with other ways to read them.

#include "channel/LaunchArguments.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Check.h"

namespace {

using Words = std::vector<std::string>;
using Entries = std::vector<EnvironmentEntry>;

constexpr std::string_view spaces = " \t\n\v\f\r";
constexpr std::string_view nameBytes = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_";

bool isSpace(char byte) { return spaces.find(byte) != std::string_view::npos; }

// --- Words: first the backslashes, then the quotes, then the white space
// ----------------------------

std::string withoutEscapedBytes(std::string text) {
  for (std::size_t at = text.find('\\'); at != std::string::npos; at = text.find('\\', at + 1))
    text.erase(at + 1, 1);
  return text;
}

constexpr int separator = -1;

/// The bytes, and a separator for each white space that is not quoted.
std::vector<int> withSeparators(const std::string &text) {
  std::vector<int> out;
  std::size_t quotes = 0;
  for (const char byte : text) {
    if (byte == '"') {
      ++quotes;
    } else {
      out.push_back(quotes % 2 == 0 && isSpace(byte) ? separator
                                                     : static_cast<unsigned char>(byte));
    }
  }
  return out;
}

Words expectedWords(const std::string &text) {
  Words words(1);
  for (const int byte : withSeparators(withoutEscapedBytes(text))) {
    if (byte == separator) {
      words.emplace_back();
    } else {
      words.back() += static_cast<char>(byte);
    }
  }
  std::erase(words, "");
  return words;
}

/// A text that splits into these words.
std::string joined(const Words &words) {
  std::string text;
  for (const std::string &word : words) {
    text += " \"";
    for (const char byte : word) {
      text += byte;
      if (byte == '\\') text += '"';  // dropped again
    }
    text += '"';
  }
  return text;
}

void checkWords(const std::string &text) {
  const Words words = splitArguments(text);
  check(words == expectedWords(text), "words are what the rules make them");
  for (const std::string &word : words) {
    check(!word.empty(), "no word is empty");
    check(word.find('"') == std::string::npos, "no word has a quote");
    check(text.find_first_of("\"") != std::string::npos ||
              word.find_first_of(spaces) == std::string::npos,
          "only quotes keep white space");
  }
  check(splitArguments(joined(words)) == words, "words survive joining");
}

// --- Environments: entry by entry
// -------------------------------------------------------------------

/// Takes entries from the front of a text.
class EntryReader {
 public:
  explicit EntryReader(std::string_view text) : rest(text) {}

  /// Fills `entries` up to the first mistake; false when there is one.
  bool readAll(Entries &entries) {
    for (;;) {
      rest.remove_prefix(std::min(rest.find_first_not_of(spaces), rest.size()));
      if (rest.empty()) return true;
      const std::size_t length = rest.find_first_not_of(nameBytes);
      if (length == 0 || length == std::string_view::npos || rest[length] != '=') return false;
      const std::string name(rest.substr(0, length));
      rest.remove_prefix(length + 1);
      const std::optional<std::string> value = readValue();
      if (!value) return false;
      entries.emplace_back(name, *value);
    }
  }

 private:
  std::optional<std::string> readValue() {
    if (rest.empty() || isSpace(rest[0])) return "";
    const char first = take();
    if (first == '"') return readQuoted();
    std::string value(1, first);
    while (!rest.empty() && !isSpace(rest[0])) {
      if (rest[0] == '"') return std::nullopt;
      takeByte(value);
    }
    return value;
  }
  std::optional<std::string> readQuoted() {
    std::string value;
    while (!rest.empty()) {
      if (rest[0] == '"') {
        take();
        return value;
      }
      takeByte(value);
    }
    return std::nullopt;
  }
  /// One byte of a value, which may have a backslash in front.
  void takeByte(std::string &value) {
    char byte = take();
    if (byte == '\\') {
      if (rest.empty()) return;
      byte = take();
    }
    value += byte;
  }
  char take() {
    const char byte = rest[0];
    rest.remove_prefix(1);
    return byte;
  }

  std::string_view rest;
};

std::string joined(const Entries &entries) {
  std::string text;
  for (const auto &[name, value] : entries) {
    text += name + "=\"";
    for (const char byte : value) {
      if (byte == '"' || byte == '\\') text += '\\';
      text += byte;
    }
    text += '"';
  }
  return text;
}

/// The entries of a text's beginning, but for the last one, which may go on behind it, are those of
/// the whole text.
void checkBeginning(std::string_view beginning, const Entries &entries) {
  Entries some;
  parseEnvironment(beginning, some);
  if (!some.empty()) some.pop_back();
  check(some.size() <= entries.size() && std::equal(some.begin(), some.end(), entries.begin()),
        "what follows changes no complete entry");
}

void checkEnvironment(const std::string &text) {
  Entries entries;
  const bool wellFormed = parseEnvironment(text, entries);
  Entries expected;
  check(EntryReader(text).readAll(expected) == wellFormed, "mistakes are noticed, nothing else is");
  check(entries == expected, "entries are what the rules make them");
  for (const auto &[name, value] : entries)
    check(!name.empty() && name.find_first_not_of(nameBytes) == std::string::npos,
          "names are letters and underscores");
  checkBeginning(std::string_view(text).substr(0, text.size() / 2), entries);

  Entries again{{"BEFORE", "x"}};
  check(parseEnvironment(joined(entries), again), "joined entries are well formed");
  check(again.front() == EnvironmentEntry("BEFORE", "x"), "entries are appended");
  again.erase(again.begin());
  check(again == entries, "entries survive joining");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  const std::string text(reinterpret_cast<const char *>(data), size);
  checkWords(text);
  checkEnvironment(text);
  return 0;
}

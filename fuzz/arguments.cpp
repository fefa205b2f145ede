// The argument and environment texts: a parsed text can be written and parsed again.

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "Check.h"
#include "channel/LaunchArguments.h"

namespace {

using Words = std::vector<std::string>;
using Entries = std::vector<EnvironmentEntry>;

constexpr std::string_view spaces = " \t\n\v\f\r";
constexpr std::string_view nameBytes = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_";

/// Returns a text that splits into these words.
std::string joined(const Words &words) {
  std::string text;
  for (const std::string &word : words) {
    text += " \"";
    for (const char byte : word) {
      text += byte;
      if (byte == '\\') text += '"';  // splitArguments drops this byte
    }
    text += '"';
  }
  return text;
}

void checkWords(const std::string &text) {
  const Words words = splitArguments(text);
  for (const std::string &word : words)
    check(!word.empty() && word.find('"') == std::string::npos, "no word is empty or has a quote");
  check(splitArguments(joined(words)) == words, "words survive joining");
  if (text.find_first_of("\"\\") != std::string::npos) return;
  std::istringstream stream(text);
  check(words == Words(std::istream_iterator<std::string>(stream), {}),
        "white space separates words as for the standard library");
}

std::string inQuotes(const EnvironmentEntry &entry) {
  std::string text = entry.first + "=\"";
  for (const char byte : entry.second) {
    if (byte == '"' || byte == '\\') text += '\\';
    text += byte;
  }
  return text + '"';
}

/// Returns the entry without quotes if possible. The first byte of a value cannot be escaped.
std::string unquoted(const EnvironmentEntry &entry) {
  const std::string &value = entry.second;
  if (value.empty()) return entry.first + '=';
  if (value[0] == '"' || spaces.find(value[0]) != std::string_view::npos) return inQuotes(entry);
  std::string text = entry.first + '=' + value[0];
  for (const char byte : value.substr(1)) (text += '\\') += byte;
  return text;
}

void checkParse(const std::string &text, const Entries &expected, bool isWellFormed) {
  Entries entries{{"BEFORE", ""}};
  check(parseEnvironment(text, entries) == isWellFormed, "exactly the mistakes are reported");
  check(entries.front() == EnvironmentEntry("BEFORE", ""), "entries are appended");
  entries.erase(entries.begin());
  check(entries == expected, "entries survive joining");
}

void checkEnvironment(const std::string &text) {
  Entries entries;
  parseEnvironment(text, entries);
  std::string allQuoted, allUnquoted;
  for (const EnvironmentEntry &entry : entries) {
    check(!entry.first.empty() && entry.first.find_first_not_of(nameBytes) == std::string::npos,
          "a name consists of letters and underscores");
    allQuoted += inQuotes(entry);
    allUnquoted += unquoted(entry) + '\n';
  }
  checkParse(allQuoted, entries, true);
  checkParse(allUnquoted, entries, true);
  for (const char *mistake : {"NAME", "=x", "1=x", "A1=x", "A=x\"y", "A=\"x", "A=\"x\\\""})
    for (const char *later : {"", " LATER=x"})
      checkParse(allUnquoted + mistake + later, entries, false);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  const std::string text(reinterpret_cast<const char *>(data), size);
  checkWords(text);
  checkEnvironment(text);
  return 0;
}

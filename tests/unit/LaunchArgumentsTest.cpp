#include "channel/LaunchArguments.h"

#include <gtest/gtest.h>

namespace {

using Words = std::vector<std::string>;
using Entries = std::vector<EnvironmentEntry>;

constexpr std::string_view spaces = " \t\n\v\f\r";
constexpr std::string_view nameBytes = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_";

TEST(LaunchArguments, CommandLinesAreSplit) {
  const std::pair<std::string, Words> rows[] = {
      {"", {}},
      {" \t\n\v\f\r", {}},
      {"  one  \"two three\"  four ", {"one", "two three", "four"}},
      {"a \"\" b", {"a", "b"}},
      {"x\"y z\"w", {"xy zw"}},
      {"\"never closed to the end ", {"never closed to the end "}},
      {"a\\\"b", {"a\\b"}},
      {"a\\ b", {"a\\b"}},
      {"a\\\\b c", {"a\\b", "c"}},
      {"\"a\\\"b c\" d", {"a\\b c", "d"}},
      {"end\\", {"end\\"}},
  };
  for (const auto &[text, words] : rows) EXPECT_EQ(splitArguments(text), words) << text;
}

TEST(LaunchArguments, EnvironmentsAreParsed) {
  struct Row {
    std::string text;
    Entries entries;
    bool isWellFormed;
  };
  const Row rows[] = {
      {"", {}, true},
      {"  \n", {}, true},
      {"A=1 B=\"x y\" C=", {{"A", "1"}, {"B", "x y"}, {"C", ""}}, true},
      {"A= B=2", {{"A", ""}, {"B", "2"}}, true},
      {"A=1 A=2", {{"A", "1"}, {"A", "2"}}, true},
      {"A=\"1\"BC=2", {{"A", "1"}, {"BC", "2"}}, true},
      {"A=\"\" B=\"\t\"", {{"A", ""}, {"B", "\t"}}, true},
      {"A=x\\ y", {{"A", "x y"}}, true},
      {"A=x\\\"y\\\\", {{"A", "x\"y\\"}}, true},
      {"A=\"x\\\"\\\\y\"", {{"A", "x\"\\y"}}, true},
      {"A=\\ y=1", {{"A", "\\"}, {"y", "1"}}, true},
      {"A=a=b", {{"A", "a=b"}}, true},
      {"A=x\\", {{"A", "x"}}, true},
      {"A=1 9B=2", {{"A", "1"}}, false},
      {"VAR1=x", {}, false},
      {"A=x\"y", {}, false},
      {"A=\"unterminated", {}, false},
      {"A=\"unterminated\\\"", {}, false},
      {"NAME", {}, false},
      {"A=1 B C=2", {{"A", "1"}}, false},
      {"A=1 =2", {{"A", "1"}}, false},
  };
  for (const Row &row : rows) {
    Entries entries;
    EXPECT_EQ(parseEnvironment(row.text, entries), row.isWellFormed) << row.text;
    EXPECT_EQ(entries, row.entries) << row.text;
  }
}

TEST(LaunchArguments, EveryByteIsOfItsClass) {
  for (int code = 0; code < 256; ++code) {
    const std::string byte(1, static_cast<char>(code));
    const bool isSpace = spaces.find(byte) != std::string_view::npos;
    const bool isNameByte = nameBytes.find(byte) != std::string_view::npos;
    EXPECT_EQ(splitArguments("a" + byte + "b").size(), isSpace ? 2u : 1u) << code;
    Entries entries{{"BEFORE", "stays"}};
    EXPECT_EQ(parseEnvironment(byte + "=x", entries), isNameByte) << code;
    EXPECT_EQ(parseEnvironment("x" + byte + "=x", entries), isNameByte || byte == "=") << code;
    EXPECT_EQ(entries.front(), EnvironmentEntry("BEFORE", "stays"));
    for (const char *before : {"A=", "A=x"}) {
      entries.clear();
      parseEnvironment(before + byte + "B=", entries);
      EXPECT_EQ(entries.size(), isSpace ? 2u : byte == "\"" ? 0u : 1u) << code;
    }
  }
}

}  // namespace

#include "channel/ArgumentText.h"

#include <gtest/gtest.h>

namespace {

using Words = std::vector<std::string>;
using Entries = std::vector<EnvironmentEntry>;

TEST(SplitArguments, Splits) {
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
      {"\xa0\x85 \xc3\xa9", {"\xa0\x85", "\xc3\xa9"}},
  };
  for (const auto &[text, words] : rows) EXPECT_EQ(splitArguments(text), words) << text;
}

TEST(ParseEnvironment, Parses) {
  struct Row {
    std::string text;
    Entries entries;
    bool wellFormed;
  };
  const Row rows[] = {
      {"", {}, true},
      {"  \n", {}, true},
      {"A=1 B=\"x y\" C=", {{"A", "1"}, {"B", "x y"}, {"C", ""}}, true},
      {"A= B=2", {{"A", ""}, {"B", "2"}}, true},
      {"_a_Z=1", {{"_a_Z", "1"}}, true},
      {"A=1 A=2", {{"A", "1"}, {"A", "2"}}, true},
      {"A=\"1\"B=2", {{"A", "1"}, {"B", "2"}}, true},
      {"A=\"\"", {{"A", ""}}, true},
      {"A=x\\ y", {{"A", "x y"}}, true},
      {"A=\"x\\\"\\\\y\"", {{"A", "x\"\\y"}}, true},
      {"A=\\ y=1", {{"A", "\\"}, {"y", "1"}}, true},
      {"A=a=b", {{"A", "a=b"}}, true},
      {"A=x\\", {{"A", "x"}}, true},
      {"A=1 9B=2", {{"A", "1"}}, false},
      {"VAR1=x", {}, false},
      {"A=x\"y", {}, false},
      {"A=\"unterminated", {}, false},
      {"NAME", {}, false},
      {"A=1 B C=2", {{"A", "1"}}, false},
      {"A=1 =2", {{"A", "1"}}, false},
      {"\xc3\xa9=1", {}, false},
  };
  for (const Row &row : rows) {
    Entries entries;
    EXPECT_EQ(parseEnvironment(row.text, entries), row.wellFormed) << row.text;
    EXPECT_EQ(entries, row.entries) << row.text;
  }
}

TEST(ParseEnvironment, AppendsToTheList) {
  Entries entries{{"A", "0"}};
  parseEnvironment("A=1", entries);
  EXPECT_EQ(entries, (Entries{{"A", "0"}, {"A", "1"}}));
}

}  // namespace

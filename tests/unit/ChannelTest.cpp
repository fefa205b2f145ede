#include <gtest/gtest.h>

#include <map>
#include <string>
#include <thread>
#include <vector>

#include "channel/LaunchArguments.h"
#include "channel/MessageChannel.h"

namespace {

using Words = std::vector<std::string>;
using Entries = std::vector<EnvironmentEntry>;

constexpr std::string_view spaces = " \t\n\v\f\r";
constexpr std::string_view nameBytes = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_";

TEST(LaunchArguments, CommandLinesAreSplit) {
  const std::pair<std::string, Words> rows[] = {
      {" \n", {}},
      {"  one  \"two three\"  x\"y z\"w \"\" ", {"one", "two three", "xy zw"}},
      {"\"never closed to the end ", {"never closed to the end "}},
      {"a\\\"b a\\ b a\\\\b end\\", {"a\\b", "a\\b", "a\\b", "end\\"}},
      {"\"a\\\"b c\" d", {"a\\b c", "d"}},
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
      {"  \n", {}, true},
      {"A=1 B=\"x y\" A= C=", {{"A", "1"}, {"B", "x y"}, {"A", ""}, {"C", ""}}, true},
      {"A=\"1\"BC=\"\"", {{"A", "1"}, {"BC", ""}}, true},
      {"A=x\\ y", {{"A", "x y"}}, true},
      {"A=x\\\"y\\\\", {{"A", "x\"y\\"}}, true},
      {"A=\"x\\\"\\\\y\"", {{"A", "x\"\\y"}}, true},
      {"A=\\ y=a=b", {{"A", "\\"}, {"y", "a=b"}}, true},
      {"A=x\\", {{"A", "x"}}, true},
      {"A=1 9B=2", {{"A", "1"}}, false},
      {"A=x\"y", {}, false},
      {"A=\"unterminated", {}, false},
      {"A=\"unterminated\\\"", {}, false},
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

TEST(MessageChannel, MessagesOfSeveralThreadsNeverMix) {
  constexpr std::size_t count = 25000;
  FILE *stream = std::tmpfile();
  MessageChannel channel(stream, stream, false);
  // Each thread sends texts of its own letter, each longer than the one before, up to 50 bytes.
  const auto message = [](char letter, std::size_t number) {
    return std::string(1 + number % 50, letter);
  };
  std::vector<std::thread> threads;
  for (char letter = 'a'; letter <= 'h'; ++letter)
    threads.emplace_back([&channel, &message, letter] {
      for (std::size_t number = 0; number < count; ++number)
        channel.writeMessage(message(letter, number));
    });
  for (std::thread &thread : threads) thread.join();
  std::rewind(stream);
  std::map<char, std::size_t> received;
  while (const auto text = channel.readMessage()) {
    const char letter = text->c_str()[0];
    ASSERT_EQ(*text, message(letter, received[letter]++));
  }
  EXPECT_EQ(received.size(), 8u);
  for (const auto &[letter, number] : received) EXPECT_EQ(number, count) << letter;
  std::fclose(stream);
}

}  // namespace

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "channel/LaunchArguments.h"
#include "channel/MessageChannel.h"

namespace {

using Words = std::vector<std::string>;
using Entries = std::vector<EnvironmentEntry>;

TEST(LaunchArguments, CommandLinesAreSplit) {
  const std::pair<std::string, Words> rows[] = {
      {" \n", {}},
      {"a\tb\nc\vd\fe\rf\bg\x0eh\xa0", {"a", "b", "c", "d", "e", "f\bg\x0eh\xa0"}},
      {"  one  \"two three\"  x\"y z\"w \"\" ", {"one", "two three", "xy zw"}},
      {"\"never closed to the end ", {"never closed to the end "}},
      {"a\\\"b a\\ b a\\\\b end\\", {"a\\b", "a\\b", "a\\b", "end\\"}},
      {"\"a\\\"b c\" d", {"a\\b c", "d"}},
  };
  for (const auto &[text, words] : rows) EXPECT_EQ(splitArguments(text), words) << text;
}

TEST(LaunchArguments, EnvironmentsAreParsed) {
  const std::tuple<std::string, Entries, bool> rows[] = {
      {"  \n", {}, true},
      {"A=1 B=\"x y\" A= C=", {{"A", "1"}, {"B", "x y"}, {"A", ""}, {"C", ""}}, true},
      {"A=\"1\"azAZ_=\"\"", {{"A", "1"}, {"azAZ_", ""}}, true},
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
  for (const auto &[text, wanted, isWellFormed] : rows) {
    Entries entries;
    EXPECT_EQ(parseEnvironment(text, entries), isWellFormed) << text;
    EXPECT_EQ(entries, wanted) << text;
  }
  Entries entries{{"BEFORE", "stays"}};
  for (const char byte : {'@', '[', '^', '`', '{', '0', '\xc1'})
    EXPECT_FALSE(parseEnvironment(std::string("A") + byte + "=x", entries)) << byte;
  EXPECT_EQ(entries, (Entries{{"BEFORE", "stays"}}));
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

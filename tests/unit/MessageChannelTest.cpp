#include "channel/MessageChannel.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

using std::string_literals::operator""s;

using Texts = std::vector<std::string>;

/// What a channel reads from these bytes.
Texts read(const std::string &bytes, bool consoleMode) {
  FILE *stream = std::tmpfile();
  std::fwrite(bytes.data(), 1, bytes.size(), stream);
  std::rewind(stream);
  MessageChannel channel(stream, stream, consoleMode);
  Texts texts;
  while (const auto text = channel.readMessage()) texts.push_back(*text);
  std::fclose(stream);
  return texts;
}

std::string frame(const std::string &text) {
  const auto length = static_cast<std::uint32_t>(text.size());
  return std::string(reinterpret_cast<const char *>(&length), sizeof length) + text;
}

TEST(MessageChannel, FramesAndLinesAreRead) {
  struct Row {
    bool consoleMode;
    std::string bytes;
    Texts texts;
  };
  const std::string large(200000, 'x'), longestLine(1023, 'x');
  const Row rows[] = {
      {false, "", {}},
      {false, frame("a") + frame("") + frame(large) + frame("b"), {"a", "", large, "b"}},
      {false, frame("up to\0here"s) + frame("a"), {"up to", "a"}},
      {false, frame("a") + frame("cut short").substr(0, 12), {"a"}},
      {false, frame("a") + "\1\0"s, {"a"}},
      {true, "", {}},
      {true, "a\n\nb", {"a\n", "\n", "b"}},
      {true, longestLine + "yz\na\n", {longestLine, "yz\n", "a\n"}},
      {true, "up to\0here\na\n"s, {"up to", "a\n"}},
      {true, "a\n\0b\nc\n"s, {"a\n"}},
  };
  for (const Row &row : rows) {
    std::string echo;
    for (const std::string &text : row.texts)
      if (row.consoleMode) echo += "INPUT: " + text + "\n";
    testing::internal::CaptureStdout();
    const Texts texts = read(row.bytes, row.consoleMode);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), echo);
    EXPECT_EQ(texts, row.texts) << row.bytes;
  }
}

TEST(MessageChannel, MessagesOfSeveralThreadsNeverMix) {
  constexpr int threadCount = 8, count = 25000;
  FILE *stream = std::tmpfile();
  MessageChannel channel(stream, stream, false);
  // Each thread sends texts of its own letter, each longer than the one before, up to 50 bytes.
  const auto message = [](char letter, int number) { return std::string(1 + number % 50, letter); };
  std::vector<std::thread> threads;
  for (char letter = 'a'; letter < 'a' + threadCount; ++letter)
    threads.emplace_back([&channel, &message, letter] {
      for (int number = 0; number < count; ++number) channel.writeMessage(message(letter, number));
    });
  for (std::thread &thread : threads) thread.join();
  std::rewind(stream);
  std::map<char, int> received;
  while (const auto text = channel.readMessage()) {
    const char letter = text->c_str()[0];
    ASSERT_EQ(*text, message(letter, received[letter]++));
  }
  EXPECT_EQ(received.size(), threadCount);
  for (const auto &[letter, number] : received) EXPECT_EQ(number, count) << letter;
  std::fclose(stream);
}

}  // namespace

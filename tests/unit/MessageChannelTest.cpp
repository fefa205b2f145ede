#include "channel/MessageChannel.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

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

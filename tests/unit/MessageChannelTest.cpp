#include "channel/MessageChannel.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

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

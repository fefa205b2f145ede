#pragma once

#include <cstddef>
#include <cstdio>
#include <mutex>
#include <optional>
#include <string>

#include "json/Json.h"

/// The two streams to the host and how messages are put on them.
///
/// In pipe mode a message, in either direction, is a frame: its length N as 4 bytes in this
/// machine's byte order, then N bytes of JSON text. In console mode a request is one line of at
/// most 1,023 bytes, echoed as "INPUT: " and the line, and an outgoing message is "OUTPUT: " and
/// its text without a line end.
///
/// The main thread reads. Any thread writes: every message leaves through writeMessage, whole.
class MessageChannel {
 public:
  /// A longer text does not fit a frame: its length has 32 bits.
  static constexpr std::size_t longestText = 0xffffffff;

  /// The streams stay the caller's and must outlive the channel.
  MessageChannel(FILE *input, FILE *output, bool consoleMode);
  MessageChannel(const MessageChannel &) = delete;
  MessageChannel &operator=(const MessageChannel &) = delete;

  /// The next request's text, or nothing at end of input. A text ends at its first zero byte. A
  /// frame that is cut short, or that claims 2 GiB or more, is the end of input too.
  std::optional<std::string> readMessage();

  /// Writes one message and flushes it. Messages of different threads never mix. A failure to write
  /// is not reported: a host that closed its end wants no more messages.
  void writeMessage(const std::string &text);

  void sendResponse(const Json &response);
  void sendError(const std::string &message);
  void sendOk(const std::optional<std::string> &message = std::nullopt);

 private:
  std::optional<std::string> readFrame();
  std::optional<std::string> readLine();

  FILE *const input;
  FILE *const output;
  const bool consoleMode;
  std::mutex writeMutex;
};

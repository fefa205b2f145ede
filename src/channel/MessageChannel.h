#pragma once

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <mutex>
#include <optional>
#include <string>

#include "json/Json.h"
#include "platform/ThreadSafety.h"

/// The two streams to the host, and the format of messages on them.
///
/// In pipe mode a message, in either direction, is a frame: its length N as 4 bytes in this
/// machine's byte order, then N bytes of JSON text. In console mode a request is one line of at
/// most 1,023 bytes, echoed as "INPUT: " and the line, and an outgoing message is "OUTPUT: " and
/// its text without a line end.
///
/// Only the main thread reads. Any thread may write: messages of different threads never mix.
class MessageChannel {
 public:
  /// In bytes. A longer text does not fit a frame, whose length has 32 bits.
  static constexpr std::size_t maxMessageSize = 0xffffffff;

  /// The caller keeps the streams. They must outlive the channel.
  MessageChannel(FILE *input, FILE *output, bool consoleMode);
  MessageChannel(const MessageChannel &) = delete;
  MessageChannel &operator=(const MessageChannel &) = delete;

  /// Returns the text of the next request, or nothing at the end of input. A text ends at its first
  /// zero byte. A frame that is cut short, or that claims 2 GiB or more, ends the input too.
  std::optional<std::string> readMessage();

  /// Writes one message and flushes it. Ignores failures: a host that closed its end wants no more
  /// messages.
  void writeMessage(const std::string &text);

  /// The same, but after announceResponse it leaves the message in the stream's buffer, from where
  /// the next message takes it along. So the host is woken once, not twice.
  void writeBeforeResponse(const std::string &text);

  /// Called by the main thread, which then sends a response within moments.
  void announceResponse() { responseFollows = true; }

  void sendResponse(const Json &response);
  void sendError(const std::string &message);
  void sendOk(const std::optional<std::string> &message = std::nullopt);

 private:
  std::optional<std::string> readFrame();
  std::optional<std::string> readLine();
  void append(const std::string &text) REQUIRES(writeMutex);

  FILE *const input;  ///< the main thread's
  const bool consoleMode;
  std::mutex writeMutex;  ///< held for one whole message
  FILE *const output GUARDED_BY(writeMutex);
  /// Set without the mutex. The event thread may still hold it: the host that it has woken may run
  /// first, and send the next request.
  std::atomic<bool> responseFollows = false;
};

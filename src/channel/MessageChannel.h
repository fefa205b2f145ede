#pragma once

#include <cstddef>
#include <cstdio>
#include <optional>
#include <string>

#include "json/Json.h"
#include "platform/Mutex.h"

/// The two streams to the host, and the format of messages on them.
///
/// In pipe mode a message, in either direction, is a frame: its length N as 4 bytes in this
/// machine's byte order, then N bytes of JSON text. In console mode a request is one line of at
/// most 1,023 bytes, and an outgoing message is "OUTPUT: " and its text without a line end. The
/// request is echoed as "INPUT: " and the line, always on standard output. An echo takes no lock,
/// so it may stand within a long event.
///
/// The descriptors may be non-blocking, and may become so at any time. Reads and writes wait all
/// the same, and no byte is lost or sent twice.
///
/// Only the main thread reads. Any thread may write: messages never mix with one another.
class MessageChannel {
 public:
  /// Of an outgoing message, in bytes. A longer text does not fit a frame, whose length has 32
  /// bits.
  static constexpr std::size_t maxOutgoingSize = 0xffffffff;

  /// The caller keeps the streams. They must outlive the channel.
  MessageChannel(FILE *input, FILE *output, bool consoleMode);

  /// Returns the text of the next request, or nothing at the end of input. A text ends at its first
  /// zero byte. A frame that is cut short, or that claims 2 GiB or more, ends the input too, and so
  /// does a console line that begins with a zero byte.
  std::optional<std::string> readMessage();

  /// In pipe mode waits for the next request for some 50 microseconds at most, without sleeping: a
  /// host that sends it by then need not wake this process. Call it when nothing else wants the
  /// processor. readMessage works with and without it.
  void stayAwake();

  /// Writes one message and flushes it. Ignores failures: a host that closed its end wants no more
  /// messages. The caller sees to it that the text has at most maxOutgoingSize bytes.
  void writeMessage(const std::string &text);

  /// Sends a response. The event thread sends its events by it too.
  void sendResponse(const Json &response);
  void sendError(const std::string &message);
  void sendOk(const std::optional<std::string> &message = std::nullopt);

 private:
  /// Returns false at the end of input, and when a read fails.
  bool readAll(char *bytes, std::size_t size);
  std::optional<std::string> readFrame();
  std::optional<std::string> readLine();

  FILE *const input;  ///< the main thread's
  const bool consoleMode;
  Mutex writeMutex;  ///< held for one whole message
  FILE *const output GUARDED_BY(writeMutex);
};

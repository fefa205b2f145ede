#include "channel/MessageChannel.h"

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string_view>
#include <thread>

#include "channel/Envelope.h"
#include "platform/Descriptors.h"
#include "platform/Log.h"

namespace {

/// A frame of this length or more is refused before any memory is allocated for it.
constexpr std::uint32_t incomingLengthLimit = 0x80000000;  // 2 GiB

/// A longer console line is several requests.
constexpr std::size_t longestLine = 1023;

/// A pipe's capacity. A frame up to this size is one write, and wakes the host once.
constexpr std::size_t singleWriteLimit = 65536;

/// How long stayAwake looks for a request.
constexpr std::chrono::microseconds awakeTime(50);

/// After a read or a write that has done less than it was asked for: whether the descriptor is
/// non-blocking and has nothing to read, or no room. Waits until it has.
///
/// The flag is shared with whoever else has the open file, the host or a shell, and may change at
/// any time. So it is neither changed nor asked for.
bool waitIfNonBlocking(FILE *stream, platform::Use use) {
  if (errno != EAGAIN && errno != EWOULDBLOCK) return false;
  std::clearerr(stream);
  while (!platform::isReady(fileno(stream), use, std::chrono::seconds(1))) continue;
  return true;
}

/// Writes to a stream without buffer, which counts exactly what it has written. Gives up, like the
/// stream, when a write fails.
void writeAll(FILE *stream, std::string_view bytes) {
  do {
    errno = 0;
    bytes.remove_prefix(std::fwrite(bytes.data(), 1, bytes.size(), stream));
  } while (!bytes.empty() && waitIfNonBlocking(stream, platform::Use::Write));
}

}  // namespace

MessageChannel::MessageChannel(FILE *input, FILE *output, bool consoleMode)
    : input(input), consoleMode(consoleMode), output(output) {
  // A stream loses what is in its buffer when a non-blocking descriptor has no room. A stream in
  // memory has no descriptor, and needs its buffer.
  if (fileno(output) >= 0) std::setvbuf(output, nullptr, _IONBF, 0);
}

std::optional<std::string> MessageChannel::readMessage() {
  return consoleMode ? readLine() : readFrame();
}

bool MessageChannel::readAll(char *bytes, std::size_t size) {
  for (std::size_t count = 0;;) {
    errno = 0;
    count += std::fread(bytes + count, 1, size - count, input);
    if (count == size) return true;
    // The stream's buffer is empty here, so there is nothing that a wait would not see.
    if (std::feof(input) || !waitIfNonBlocking(input, platform::Use::Read)) return false;
  }
}

std::optional<std::string> MessageChannel::readFrame() {
  std::uint32_t length = 0;
  if (!readAll(reinterpret_cast<char *>(&length), sizeof length)) return std::nullopt;
  if (length >= incomingLengthLimit) {
    LOG_RECORD("Refusing a message of %u bytes\n", length);
    return std::nullopt;
  }
  // Not initialised, so that a length without a payload takes no memory. libc++ has
  // std::make_unique_for_overwrite since version 16 only.
  const std::unique_ptr<char[]> buffer(new char[std::size_t{length} + 1]);
  if (!readAll(buffer.get(), length)) return std::nullopt;
  buffer[length] = '\0';
  return std::string(buffer.get());
}

std::optional<std::string> MessageChannel::readLine() {
  std::string line;
  char byte = 0;
  while (line.size() < longestLine && byte != '\n' && readAll(&byte, 1)) line += byte;
  line = line.c_str();  // up to a zero byte
  if (line.empty()) return std::nullopt;
  // Deliberate: without the lock, and always on standard output. The person sees at once what was
  // read, also while a message waits for room.
  writeAll(stdout, "INPUT: " + line + "\n");
  return line;
}

void MessageChannel::stayAwake() {
  if (consoleMode || platform::hasBufferedInput(input)) return;
  const auto end = std::chrono::steady_clock::now() + awakeTime;
  while (!platform::isReady(fileno(input), platform::Use::Read, std::chrono::milliseconds(0)) &&
         std::chrono::steady_clock::now() < end)
    std::this_thread::yield();
}

void MessageChannel::writeMessage(const std::string &text) {
  const auto length = static_cast<std::uint32_t>(text.size());
  const std::string_view bytes(text.data(), length);
  std::string start = "OUTPUT: ";
  if (!consoleMode) start.assign(reinterpret_cast<const char *>(&length), sizeof length);
  const bool isSingleWrite = start.size() + bytes.size() <= singleWriteLimit;
  if (isSingleWrite) start += bytes;
  const MutexLock lock(writeMutex);
  writeAll(output, start);
  if (!isSingleWrite) writeAll(output, bytes);
  std::fflush(output);
}

void MessageChannel::sendResponse(const Json &response) { writeMessage(response.dump()); }

void MessageChannel::sendError(const std::string &message) {
  sendResponse(errorResponse("sendError", message));
}

void MessageChannel::sendOk(const std::optional<std::string> &message) {
  sendResponse(okResponse(message));
}

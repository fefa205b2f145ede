#include "channel/MessageChannel.h"

#include <array>
#include <cstdint>
#include <memory>

#include "channel/Envelope.h"
#include "platform/Log.h"

namespace {

/// A frame of this length or more is refused before any memory is allocated for it.
constexpr std::uint32_t messageLengthLimit = 0x80000000;  // 2 GiB

/// Room for a console line of 1,023 bytes and its terminating zero.
constexpr std::size_t lineBufferSize = 1024;

/// A pipe's capacity. A message of usual size is one write, and wakes the host once.
constexpr std::size_t outputBufferSize = 65536;

}  // namespace

MessageChannel::MessageChannel(FILE *input, FILE *output, bool consoleMode)
    : input(input), consoleMode(consoleMode), output(output) {
  if (!consoleMode) std::setvbuf(output, nullptr, _IOFBF, outputBufferSize);
}

std::optional<std::string> MessageChannel::readMessage() {
  return consoleMode ? readLine() : readFrame();
}

std::optional<std::string> MessageChannel::readFrame() {
  std::uint32_t length = 0;
  if (std::fread(&length, sizeof length, 1, input) != 1) return std::nullopt;
  if (length >= messageLengthLimit) {
    LOG_RECORD("Refusing a message of %u bytes\n", length);
    return std::nullopt;
  }
  // Not initialised, so that a length without a payload takes no memory.
  const auto buffer = std::make_unique_for_overwrite<char[]>(std::size_t{length} + 1);
  for (std::size_t count = 0; count < length;) {
    const std::size_t more = std::fread(buffer.get() + count, 1, length - count, input);
    if (more == 0) return std::nullopt;
    count += more;
  }
  buffer[length] = '\0';
  return std::string(buffer.get());
}

std::optional<std::string> MessageChannel::readLine() {
  const auto buffer = std::make_unique<std::array<char, lineBufferSize>>();
  char *const line = buffer->data();
  // At the end of input fgets does not change the line, which stays empty.
  line[0] = '\0';
  if (std::fgets(line, lineBufferSize, input) == nullptr || line[0] == '\0') return std::nullopt;
  std::string text(line);
  std::printf("INPUT: %s\n", line);
  return text;
}

void MessageChannel::writeMessage(const std::string &text) {
  const auto length = static_cast<std::uint32_t>(text.size());
  const MutexLock lock(writeMutex);
  if (consoleMode) {
    std::fputs("OUTPUT: ", output);
  } else {
    std::fwrite(&length, sizeof length, 1, output);
  }
  std::fwrite(text.data(), 1, length, output);
  std::fflush(output);
}

void MessageChannel::sendResponse(const Json &response) { writeMessage(response.dump()); }

void MessageChannel::sendError(const std::string &message) {
  sendResponse(errorResponse("sendError", message));
}

void MessageChannel::sendOk(const std::optional<std::string> &message) {
  sendResponse(okResponse(message));
}

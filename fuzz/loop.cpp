// The request loop, with any bytes, in a session without a process. Each text must get the response
// of handleRequest, in a frame or a line.

#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "Check.h"
#include "NoProcess.h"
#include "session/DebugSession.h"

namespace {

using Texts = std::vector<std::string>;

/// Replaces the stream's content, and rewinds the stream.
void setContents(FILE *stream, const std::string &bytes) {
  std::rewind(stream);
  check(ftruncate(fileno(stream), 0) == 0 &&
            std::fwrite(bytes.data(), 1, bytes.size(), stream) == bytes.size() &&
            std::fflush(stream) == 0,
        "a temporary file can be written");
  std::rewind(stream);
}

/// Returns the bytes written since. Uses pread, because standard output is not open for reading.
std::string written(FILE *stream) {
  std::fflush(stream);
  std::string bytes(static_cast<std::size_t>(std::ftell(stream)), '\0');
  check(pread(fileno(stream), bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()),
        "a temporary file can be read");
  return bytes;
}

/// A session and its streams, for all runs. LLDB takes milliseconds to create a debugger, and never
/// frees one.
struct Runner {
  FILE *const input = noProcess::makeStream();
  FILE *const output;
  DebugSession session;
  const bool consoleMode;

  Runner(FILE *output, bool consoleMode)
      : output(output), session(input, output, consoleMode), consoleMode(consoleMode) {}

  void run(const std::string &bytes, const Texts &texts);
};

/// Never destroyed: LLDB is not either.
Runner *frames;
Runner *console;

std::string frame(const std::string &text) {
  const auto length = static_cast<std::uint32_t>(text.size());
  return std::string(reinterpret_cast<const char *>(&length), sizeof length) + text;
}

Json expectedResponse(DebugSession &session, const std::string &text) {
  std::string error;
  const Json request = Json::parse(text, error);
  if (request.type() == JsonType::Null)
    return Json::object{{"message", "Cannot decode JSON: " + error}, {"status", "error"}};
  Json::object members = session.handleRequest(request).objectItems();
  const Json &id = request["id"];
  if (id.type() != JsonType::Null) members["id"] = id.uint64Value();
  return members;
}

/// Sends `bytes`. The session must read exactly `texts` from them.
void Runner::run(const std::string &bytes, const Texts &texts) {
  for (const std::string &text : texts) {
    std::string error;
    if (noProcess::reachesOutside(Json::parse(text, error))) return;
  }
  std::string expected;
  for (const std::string &text : texts) {
    const std::string response = expectedResponse(session, text).dump();
    expected += consoleMode ? "INPUT: " + text + "\nOUTPUT: " + response : frame(response);
  }
  setContents(input, bytes);
  setContents(output, "");
  session.run();
  check(written(output) == expected, "each text gets one complete response");
}

/// Sends each line as a frame, so that a change in a line does not break the lengths. The input
/// ends after `cut` bytes, or continues with a length that is refused.
void checkFrames(const std::string &lines, std::size_t cut) {
  std::string bytes;
  Texts texts;
  for (std::size_t start = 0; start <= lines.size();) {
    const std::size_t end = std::min(lines.find('\n', start), lines.size());
    const std::string text = lines.substr(start, end - start);
    bytes += frame(text);
    if (bytes.size() <= cut) texts.push_back(text.c_str());  // up to its first zero byte
    start = end + 1;
  }
  if (cut < bytes.size()) {
    bytes.resize(cut);
  } else {
    bytes += "\xff\xff\xff\xff" + frame("null");
  }
  frames->run(bytes, texts);
}

/// Sends the lines to a session in console mode. The C library splits them.
void checkConsole(const std::string &bytes) {
  static FILE *const stream = noProcess::makeStream();
  setContents(stream, bytes);
  Texts texts;
  char line[1024];
  while (std::fgets(line, sizeof line, stream) != nullptr && line[0] != '\0') texts.push_back(line);
  console->run(bytes, texts);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  noProcess::start();
  frames = new Runner(noProcess::makeStream(), false);
  // The console echoes to standard output, so its messages go there too. libFuzzer reports on
  // standard error.
  FILE *const file = noProcess::makeStream();
  check(dup2(fileno(file), STDOUT_FILENO) >= 0, "standard output can be redirected");
  console = new Runner(stdout, true);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  // The choices come from the end of the data, so that a seed begins with the text.
  FuzzedDataProvider input(data, size);
  const bool isConsole = input.ConsumeIntegralInRange(0, 3) == 0;
  const std::size_t cut = input.ConsumeIntegralInRange<std::size_t>(0, 0xffff);
  const std::string bytes = input.ConsumeRemainingBytesAsString();
  isConsole ? checkConsole(bytes) : checkFrames(bytes, cut);
  return 0;
}

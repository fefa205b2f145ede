// Bytes that a host might send, through the request loop of a session without process. What must
// come back is known to the byte.

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Check.h"
#include "NoProcess.h"
#include "session/DebugSession.h"

namespace {

/// How the input becomes what the host sends; its first byte chooses.
enum class Kind { Frames, Lines, FramedLines };

// --- What the loop must do
// --------------------------------------------------------------------------

constexpr std::uint32_t refusedLength = 0x80000000;

/// The little-endian length at the front of a frame.
std::uint32_t frameLength(std::string_view bytes) {
  std::uint32_t length = 0;
  for (std::size_t index = 4; index-- > 0;)
    length = length << 8 | static_cast<unsigned char>(bytes[index]);
  return length;
}

std::string lengthBytes(std::uint32_t length) {
  std::string bytes;
  for (int shift = 0; shift < 32; shift += 8) bytes += static_cast<char>(length >> shift & 0xff);
  return bytes;
}

std::string frame(std::string_view text) {
  return lengthBytes(static_cast<std::uint32_t>(text.size())).append(text);
}

/// As the C library sees it.
std::string upToZero(std::string_view text) { return std::string(text.substr(0, text.find('\0'))); }

/// The texts of the frames. What is cut short, or claims 2 GiB, ends the input.
std::vector<std::string> textsOfFrames(std::string_view bytes) {
  std::vector<std::string> texts;
  while (bytes.size() >= 4) {
    const std::uint32_t length = frameLength(bytes);
    bytes.remove_prefix(4);
    if (length >= refusedLength || length > bytes.size()) break;
    texts.push_back(upToZero(bytes.substr(0, length)));
    bytes.remove_prefix(length);
  }
  return texts;
}

/// The lines, each with its line end; a longer one than the console takes is several. One that
/// begins with a zero byte ends the input.
std::vector<std::string> textsOfLines(std::string_view bytes) {
  constexpr std::size_t longestLine = 1023;
  std::vector<std::string> texts;
  while (!bytes.empty() && bytes[0] != '\0') {
    const std::size_t lineEnd = std::min(bytes.find('\n'), bytes.size() - 1);
    const std::size_t size = std::min(lineEnd + 1, longestLine);
    texts.push_back(upToZero(bytes.substr(0, size)));
    bytes.remove_prefix(size);
  }
  return texts;
}

std::string expectedResponse(const std::string &text) {
  std::string parseError;
  const Json request = Json::parse(text, parseError);
  if (request.type() == JsonType::Null)
    return R"({"message": )" + Json("Cannot decode JSON: " + parseError).dump() +
           R"(, "status": "error"})";
  Json::object members = noProcess::response(request).objectItems();
  const Json &id = request["id"];
  if (id.type() != JsonType::Null) members["id"] = Json(id.uint64Value());
  return Json(std::move(members)).dump();
}

std::string expectedOutput(const std::vector<std::string> &texts, bool consoleMode) {
  std::string output;
  for (const std::string &text : texts) {
    const std::string response = expectedResponse(text);
    output += consoleMode ? "INPUT: " + text + "\nOUTPUT: " + response : frame(response);
  }
  return output;
}

// --- What it does
// -----------------------------------------------------------------------------------

/// A session, and the streams that it keeps for all its runs: LLDB takes milliseconds to make a
/// debugger, and never forgets one.
struct Runner {
  FILE *const input = noProcess::makeStream();
  FILE *const output;
  DebugSession session;

  Runner(FILE *output, bool consoleMode) : output(output), session(input, output, consoleMode) {}

  std::string run(const std::string &bytes) {
    noProcess::fill(input, bytes);
    noProcess::fill(output, "");
    session.run();
    return noProcess::written(output);
  }
};

/// Never destroyed, as LLDB is not either.
Runner *frames;
Runner *lines;

/// The console's echo goes to standard output, so its messages must too; the fuzzer reports on
/// standard error.
FILE *redirectedOutput() {
  FILE *const file = noProcess::makeStream();
  check(dup2(fileno(file), STDOUT_FILENO) >= 0, "standard output can be redirected");
  return stdout;
}

/// Splits at line ends, so that a change in a text does not ruin the lengths.
std::string framedLines(std::string_view bytes) {
  std::string out;
  while (!bytes.empty()) {
    const std::size_t size = std::min(bytes.find('\n'), bytes.size());
    out += frame(bytes.substr(0, size));
    bytes.remove_prefix(std::min(size + 1, bytes.size()));
  }
  return out;
}

/// Makes shorter what claims more than a megabyte, yet not so much that it is refused: no input is
/// that long, so it is cut short just the same, and AddressSanitizer takes a tenth of a second for
/// a gigabyte.
std::string withoutLongClaims(std::string bytes) {
  constexpr std::uint32_t megabyte = 0x100000;
  for (std::size_t at = 0; at + 4 <= bytes.size();) {
    std::uint32_t length = frameLength(std::string_view(bytes).substr(at));
    if (length > megabyte && length < refusedLength) {
      length = megabyte;
      bytes.replace(at, 4, lengthBytes(length));
    }
    at += std::size_t{length} + 4;
  }
  return bytes;
}

/// Whether the loop would do something that has no place in a test of arbitrary bytes: run LLDB's
/// "platform shell", for one. Decoded, because JSON can write a name in many ways.
bool isDangerous(const std::vector<std::string> &texts) {
  return std::any_of(texts.begin(), texts.end(), [](const std::string &text) {
    std::string error;
    return noProcess::reachesOutside(Json::parse(text, error));
  });
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  noProcess::start();
  frames = new Runner(noProcess::makeStream(), false);
  lines = new Runner(redirectedOutput(), true);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  if (size == 0) return 0;
  const Kind kind{data[0] % 3};
  std::string bytes(reinterpret_cast<const char *>(data) + 1, size - 1);
  if (kind == Kind::Frames) bytes = withoutLongClaims(std::move(bytes));
  if (kind == Kind::FramedLines) bytes = framedLines(bytes);
  const bool consoleMode = kind == Kind::Lines;
  const std::vector<std::string> texts = consoleMode ? textsOfLines(bytes) : textsOfFrames(bytes);
  if (isDangerous(texts)) return 0;
  const std::string output = (consoleMode ? lines : frames)->run(bytes);
  check(output == expectedOutput(texts, consoleMode), "each request gets its one response, whole");
  return 0;
}

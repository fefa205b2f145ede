#pragma once

#include <string>

// Texts that go through lldb-helper's pipes, as it writes them.

inline unsigned char memoryByte(std::size_t at) {
  return static_cast<unsigned char>(static_cast<unsigned>(at) * 2654435761u >> 24);
}

/// The answer to a read of `bytes` bytes of memory.
inline std::string memoryAnswer(std::size_t bytes = 1 << 20) {
  std::string text = R"({"memory": [)";
  for (std::size_t at = 0; at < bytes; ++at) {
    if (at > 0) text += ", ";
    text += std::to_string(memoryByte(at));
  }
  return text += R"(], "status": "ok"})";
}

/// A call stack of `frames` frames.
inline std::string stackAnswer(std::size_t frames = 10000) {
  std::string text = R"({"callstack": [)";
  for (std::size_t at = 0; at < frames; ++at) {
    if (at > 0) text += ", ";
    text +=
        R"-({"filename": "libexample.so.6", "function": "example::descend(int, token const&)", )-";
    text += "\"pc\": " + std::to_string(0x7ffff7a00000 + at * 48);
    text += R"(, "uuid": "6374AF2D-A869-4C4C-3CD0-7620417EB0DE-659209EB"})";
  }
  return text += R"(], "status": "ok"})";
}

/// A request of usual size.
inline std::string smallRequest() {
  return R"({"address": 140737353854976, "command": "readMemory", "id": 12345, "length": 64})";
}

/// A request that sends `bytes` bytes to the program.
inline std::string inputRequest(std::size_t bytes = 65536) {
  std::string text = R"({"command": "sendToApplication", "data": [)";
  for (std::size_t at = 0; at < bytes; ++at)
    text += (at > 0 ? ", " : "") + std::to_string(memoryByte(at));
  return text + R"(], "id": 12345})";
}

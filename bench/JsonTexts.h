#pragma once

#include <string>

// The three kinds of text that go through lldb-helper's pipes, as it writes them.

/// The answer to a read of `bytes` bytes of memory.
inline std::string memoryAnswer(std::size_t bytes = 1 << 20) {
  std::string text = R"({"memory": [)";
  for (std::size_t at = 0; at < bytes; ++at) {
    if (at > 0) text += ", ";
    text += std::to_string(static_cast<unsigned>(at) * 2654435761u >> 24);
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

#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

/// A program under measurement and two pipes to it. Every failure throws std::runtime_error.
class Child {
 public:
  /// How the program gets its ends of the pipes.
  enum class Pipes {
    StandardStreams,  ///< as its standard input and output
    Arguments,        ///< as two descriptor numbers, its last two arguments
  };

  Child(std::vector<std::string> command, Pipes pipes);
  /// Kills the program and waits for it.
  ~Child();
  Child(const Child &) = delete;
  Child &operator=(const Child &) = delete;

  void write(std::string_view bytes);

  /// Returns exactly `count` bytes, valid until the next read.
  std::string_view read(std::size_t count);
  /// Returns the bytes up to and including the next line feed, valid until the next read.
  std::string_view readLine();

  /// The most memory the program has used so far, in bytes.
  std::size_t peakMemory() const;

 private:
  /// Appends to what has been read, in a buffer for at least `room` unread bytes.
  void fill(std::size_t room);

  pid_t process = -1;
  int input = -1;   ///< what the program writes
  int output = -1;  ///< what the program reads
  // Never cleared: a byte of an answer is written once, by the system.
  std::unique_ptr<char[]> buffer;
  std::size_t capacity = 0, begin = 0, end = 0;  ///< unread from begin to end
};

/// Message frames of lldb-helper's pipe mode.
std::string frame(std::string_view text);
std::string_view readFrame(Child &child);

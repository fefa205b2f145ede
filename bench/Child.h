#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <string_view>
#include <vector>

/// A program under measurement and two pipes to it. Every failure throws std::runtime_error.
class Child {
 public:
  /// How the program gets its ends of the pipes: as its standard input and output, or as two
  /// descriptor numbers, its last two arguments.
  enum class Pipes { StandardStreams, Arguments };

  Child(std::vector<std::string> command, Pipes pipes);
  /// Kills the program and waits for it.
  ~Child();
  Child(const Child &) = delete;
  Child &operator=(const Child &) = delete;

  void write(std::string_view bytes);

  // What these return is valid until the next read.

  std::string_view read(std::size_t count);
  /// Returns the next line with its line feed.
  std::string_view readLine();
  /// Returns the next message of lldb-helper's pipe mode.
  std::string_view readFrame();

  /// The most memory the program has used so far, in bytes.
  double peakMemory() const;

 private:
  pid_t process = -1;
  int output = -1;         ///< what the program reads
  FILE *input = nullptr;   ///< what the program writes
  char *buffer = nullptr;  ///< what was read last; getline() may move it
  std::size_t capacity = 0;
  std::array<char, 65536> block;  ///< input's: a pipe's capacity, so that one call reads a message
};

/// A message for lldb-helper's pipe mode.
std::string frame(std::string_view text);

/// The addresses of a program's symbols. The program is linked to run at them.
std::map<std::string, std::uint64_t> symbolsOf(const std::string &program);

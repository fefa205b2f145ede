#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/Host.h"

/// What the tests know about the programs they debug without asking the program under test.

/// The address of a symbol as the file has it, from its symbol table.
std::uint64_t fileAddress(const std::string &file, const std::string &symbol);

/// What the flood program writes in so many lines, as its terminal shows it.
std::string floodOf(int lines);

/// A mapping of a file in a process, as /proc/PID/maps tells it.
struct Mapping {
  std::uint64_t start, end, offset;
  std::string permissions, file;
};
std::vector<Mapping> mappings(pid_t pid);

/// Where the process's mapping of `file` begins less the offset that is mapped there.
std::uint64_t imageBase(pid_t pid, const std::string &file);

/// Memory as the kernel shows it.
std::string peek(pid_t pid, std::uint64_t address, std::size_t size);

/// A figure of /proc/PID/status in KiB, VmHWM for example.
long statusFigure(pid_t pid, const std::string &name);

/// How many threads of a process have this name.
int countThreads(pid_t pid, const std::string &name);

/// Whether this was built with a sanitizer, as the program is then: memory limits and peaks mean
/// nothing there, and what is not checked because of it says so.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool isSanitized = true;
#else
constexpr bool isSanitized = false;
#endif

/// A program that a test runs itself, without the program under test. Ends with the object.
class Running {
 public:
  explicit Running(std::vector<std::string> commandLine);
  ~Running();
  Running(const Running &) = delete;
  Running &operator=(const Running &) = delete;

  /// The next line it writes to its standard output.
  std::string line();
  bool isAlive();
  /// The letter in /proc/PID/stat: R, S, T, t, Z.
  char state();
  pid_t pid() const { return child; }

 private:
  pid_t child;
  int output;
};

/// A TCP port of the loopback interface that nobody listens on.
int freePort();
void awaitListener(int port);

// Registers by their names on this processor.
#if defined(__aarch64__)
constexpr const char *pcRegister = "pc";
constexpr const char *plainRegister = "x19";
constexpr const char *vectorRegister = "v0";
#else
constexpr const char *pcRegister = "rip";
constexpr const char *plainRegister = "rbx";
constexpr const char *vectorRegister = "xmm0";
#endif

const json ok{{"status", "ok"}};

inline json errorMessage(const std::string &message) {
  return {{"message", message}, {"status", "error"}};
}

/// A session at work on one of the tests' programs: launched, stopped at its entry, or later at a
/// breakpoint.
class Debugged : public Host {
 public:
  explicit Debugged(const std::string &name, const std::string &arguments = "");

  /// The run-time address of a symbol of the program.
  std::uint64_t addressOf(const std::string &symbol);
  /// Sets a breakpoint on a symbol and returns the answer.
  json breakAt(const std::string &symbol);
  /// Continues to the next stop.
  void resume();
  /// Breaks at a symbol and goes there.
  void goTo(const std::string &symbol);
  /// Makes a step and waits for its stop.
  void step(const char *command);

  std::uint64_t pc();
  /// The name of the innermost frame's function.
  std::string function();
  json registers() { return ask("getRegisters")["registers"]; }
  json stack() { return ask("getCallstack")["callstack"]; }
  pid_t inferiorPid();

  const std::string file;
  /// The file that has the symbols, where `file` has none.
  std::string symbolFile;
};

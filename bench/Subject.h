#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <regex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

/// A debugger under measurement. Each action returns when its result has arrived in this process,
/// as text or as LLDB's values.
///
/// A subject debugs one program at a time, from launch to deleteProcess. Failures throw
/// std::runtime_error.
class Subject {
 public:
  explicit Subject(const char *name) : name(name) {}
  virtual ~Subject() = default;

  virtual void launch(const std::string &program, const std::vector<std::string> &arguments) = 0;
  virtual void deleteProcess() = 0;
  /// Makes the subject ready for the next launch. Not part of the deletion.
  virtual void afterDeletion() {}
  /// There is at most one breakpoint at a time.
  virtual void breakAt(std::uint64_t address) = 0;
  virtual void removeBreakpoints() = 0;
  /// Runs to the next stop.
  virtual void resume() = 0;
  virtual void step() = 0;
  /// Runs to the program's end. Returns when all output has arrived. Does nothing in gdb, which
  /// leaves the output to the terminal.
  virtual void runToExit() {}

  virtual void readMemory(std::uint64_t address, std::size_t size) = 0;
  virtual void readRegisters() = 0;
  virtual void readStack() = 0;
  virtual void listThreads() = 0;
  /// `waits`: each request waits for the response to the one before it, if there are several.
  virtual void listModules(bool waits) = 0;
  /// A request that takes next to no time to answer. The floor has none.
  virtual void roundTrip() {}

  // The result of the last action of its kind, read when the clock has stopped. The texts of all
  // subjects are the same. A subject that has no such text returns an empty one.

  virtual std::string bytes() = 0;
  virtual std::string output() { return ""; }
  /// The program counters, each with a space behind it.
  virtual std::string stack() = 0;
  virtual std::string programCounter() = 0;
  virtual std::string threadCount() = 0;
  virtual std::string libraryCount() = 0;
  /// All registers.
  virtual std::string registers() { return ""; }

  /// rsp's value, from the floor.
  virtual std::uint64_t stackPointer() { return 0; }
  /// The most memory that the subject's process has used so far, in bytes. 0 for the floor.
  virtual double peakMemory() { return 0; }

  const std::string name;
};

/// LLDB used plainly: default settings, in this process, without a protocol. The measure for the
/// others.
std::unique_ptr<Subject> makeFloor();
/// Others start a program, and return when it has answered a request.
std::unique_ptr<Subject> makeHelper(const std::string &program);
std::unique_ptr<Subject> makeLldbDap(const std::string &program);
std::unique_ptr<Subject> makeGdb(const std::string &program);

// How the subjects read what debuggers write.

/// Where a JSON message says what it is: members come in alphabetical order, so large ones are
/// before it.
inline std::string_view endOf(std::string_view message) {
  return message.substr(message.size() - std::min<std::size_t>(message.size(), 128));
}

inline bool contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

/// The number that follows each `key`, in decimal digits with a space behind. "0x" may precede it.
inline std::string numbersAfter(std::string_view key, std::string_view text) {
  std::string numbers;
  for (std::size_t at = 0; (at = text.find(key, at)) != text.npos;)
    numbers += std::to_string(std::strtoull(text.data() + (at += key.size()), nullptr, 0)) + " ";
  return numbers;
}

/// The bytes whose hexadecimal digits follow `key`, up to a quotation mark.
inline std::string bytesAfter(std::string_view key, std::string_view text) {
  std::string bytes;
  for (std::size_t at = text.find(key) + key.size(); text.at(at) != '"'; at += 2)
    bytes += static_cast<char>(std::stoi(std::string(text.substr(at, 2)), nullptr, 16));
  return bytes;
}

/// How many different parts of a text match a regular expression.
inline std::string countOf(const char *pattern, std::string_view text) {
  const std::regex regex(pattern);
  std::set<std::string> found;
  for (std::cregex_iterator at(text.begin(), text.end(), regex), end; at != end; ++at)
    found.insert(at->str());
  return std::to_string(found.size());
}

/// Those libraries in a list of modules that the benchmark's program has opened.
constexpr char library[] = "libbench[0-9]+";

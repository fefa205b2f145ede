#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// A debugger under measurement. Each action returns when its result has arrived in this process,
/// as text or as LLDB's values. The accessors read the result, when the clock has stopped.
///
/// A subject debugs one program at a time, from launch to deleteProcess. Failures throw
/// std::runtime_error.
class Subject {
 public:
  virtual ~Subject() = default;

  virtual std::string name() const = 0;

  virtual void launch(const std::string &program, const std::vector<std::string> &arguments) = 0;
  virtual void deleteProcess() = 0;
  /// Makes the subject ready for the next launch. Not part of the deletion.
  virtual void afterDeletion() {}
  virtual void breakAt(std::uint64_t address) = 0;
  virtual void removeBreakpoints() = 0;
  /// Runs to the next stop.
  virtual void resume() = 0;
  virtual void step() = 0;
  /// Runs to the program's end. Returns when all output has arrived.
  virtual void runToExit() = 0;

  virtual void readMemory(std::uint64_t address, std::size_t size) = 0;
  virtual void readRegisters() = 0;
  virtual void readStack() = 0;
  virtual void listThreads() = 0;
  /// `waits`: each request waits for the response to the one before it, if there are several.
  virtual void listModules(bool waits) = 0;
  /// A request that takes next to no time to answer.
  virtual void roundTrip() {}

  /// Whether the subject reports a program's output. gdb leaves it to the terminal.
  virtual bool showsOutput() const { return true; }

  // The result of the last action of its kind.

  virtual std::string bytes() = 0;
  virtual std::string output() = 0;
  virtual std::vector<std::uint64_t> stack() = 0;
  virtual std::size_t threads() = 0;
  /// How many of the libraries that the benchmark's program has opened are in the list.
  virtual std::size_t benchLibraries() = 0;
  /// rip's value.
  virtual std::uint64_t programCounter() = 0;
  /// rsp's value, from the floor.
  virtual std::uint64_t stackPointer() { return 0; }
  /// All registers. Empty where the subject's form of them is another than the floor's.
  virtual std::string registers() { return ""; }

  /// The most memory that the subject's process has used so far, in bytes. 0 for the floor.
  virtual std::size_t peakMemory() { return 0; }
};

/// LLDB used plainly: default settings, in this process, without a protocol. The measure for the
/// others.
std::unique_ptr<Subject> makeFloor();
std::unique_ptr<Subject> makeHelper(const std::string &program);
std::unique_ptr<Subject> makeLldbDap(const std::string &program);
std::unique_ptr<Subject> makeGdb(const std::string &program);

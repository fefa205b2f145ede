#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// A debugger under measurement. Each action is one job's work and returns when its outcome has
/// arrived in this process, as text or as LLDB's values; the clock runs meanwhile. What the outcome
/// says is worked out by the accessors, when the clock has stopped.
///
/// A subject debugs one program after the other: launch, at most one program at a time, ends with
/// deleteProcess. Failures throw std::runtime_error.
class Subject {
 public:
  virtual ~Subject() = default;

  virtual std::string name() const = 0;

  virtual void launch(const std::string &program, const std::vector<std::string> &arguments) = 0;
  virtual void deleteProcess() = 0;
  /// What a subject needs to be ready for the next launch; not part of the deletion.
  virtual void afterDeletion() {}
  virtual void breakAt(std::uint64_t address) = 0;
  virtual void removeBreakpoints() = 0;
  /// To the next stop.
  virtual void resume() = 0;
  virtual void step() = 0;
  /// To the program's end. All output has arrived then.
  virtual void runToExit() = 0;

  virtual void readMemory(std::uint64_t address, std::size_t size) = 0;
  virtual void readRegisters() = 0;
  virtual void readStack() = 0;
  virtual void listModules() = 0;
  /// A question that costs next to nothing to answer.
  virtual void roundTrip() {}

  /// Whether the subject shows a program's output at all; gdb leaves it to the terminal.
  virtual bool showsOutput() const { return true; }

  /// Of the last action of its kind.
  virtual std::string bytes() = 0;
  virtual std::string output() = 0;
  virtual std::vector<std::uint64_t> stack() = 0;
  /// How many of the libraries that the benchmark's program has opened are in the list.
  virtual std::size_t benchLibraries() = 0;
  /// rip's value.
  virtual std::uint64_t programCounter() = 0;
  /// All registers, where the floor shows them too; else empty.
  virtual std::string registers() { return ""; }

  /// The most memory that the subject's process has used so far, in bytes; 0 for the floor.
  virtual std::size_t peakMemory() { return 0; }
};

/// The same calls on LLDB as lldb-helper makes, in this process and without a protocol: what the
/// others are measured by.
std::unique_ptr<Subject> makeFloor();
std::unique_ptr<Subject> makeHelper(const std::string &program);
std::unique_ptr<Subject> makeLldbDap(const std::string &program);
std::unique_ptr<Subject> makeGdb(const std::string &program);

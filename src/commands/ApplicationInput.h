#pragma once

#include <lldb/API/LLDB.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

/// Feeds a process's standard input from a thread of its own, because writing waits as long as the
/// program does not read, and requests must not.
///
/// Nor may LLDB wait: while it writes to the program's terminal it neither reads the program's
/// output nor reports its stops (LLDB 22 holds a lock meanwhile, and tries again and again where
/// the terminal is full). So it is only asked to write what there is room for.
class ApplicationInput {
 public:
  /// Starts the thread; throws std::system_error when there can be none.
  explicit ApplicationInput(lldb::SBProcess process);

  /// Gives up what has not been written, within milliseconds. Called when the process is gone.
  ~ApplicationInput();
  ApplicationInput(const ApplicationInput &) = delete;
  ApplicationInput &operator=(const ApplicationInput &) = delete;

  /// Whether this is the process that is written to.
  bool isFor(lldb::SBProcess other) const { return other.GetUniqueID() == processId; }

  /// Queues the bytes. Texts are written in the order of the calls.
  void write(std::string bytes);

 private:
  struct Queue;
  static void run(std::shared_ptr<Queue> queue, lldb::SBProcess process);
  static void put(const Queue &queue, lldb::SBProcess &process, std::string_view text);

  const std::uint32_t processId;
  std::shared_ptr<Queue> queue;
  std::thread thread;
};

#pragma once

#include <lldb/API/LLDB.h>

#include <memory>
#include <string>
#include <string_view>
#include <thread>

/// Feeds a process's standard input from a thread of its own, because LLDB's writing waits as long
/// as the program does not read, and requests must not.
class ApplicationInput {
 public:
  /// Starts the thread; throws std::system_error when there can be none.
  explicit ApplicationInput(lldb::SBProcess process);

  /// Gives up what has not been written, within milliseconds. Called when the process is gone.
  ~ApplicationInput();
  ApplicationInput(const ApplicationInput &) = delete;
  ApplicationInput &operator=(const ApplicationInput &) = delete;

  /// Queues the bytes. Texts are written in the order of the calls.
  void write(std::string bytes);

 private:
  struct Queue;
  static void run(std::shared_ptr<Queue> queue, lldb::SBProcess process);
  static void put(const Queue &queue, lldb::SBProcess &process, std::string_view text);

  std::shared_ptr<Queue> queue;
  std::thread thread;
};

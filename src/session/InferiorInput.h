#pragma once

#include <lldb/API/LLDB.h>

#include <memory>
#include <string>
#include <string_view>
#include <thread>

/// Writes to a process's standard input from a thread of its own. A write waits while the program
/// does not read, and requests must not wait for it.
///
/// LLDB must not wait either. While LLDB writes to the program's pty it neither reads the program's
/// output nor reports its stops: LLDB 22 holds a lock during the write, and tries until the pty
/// has room. So LLDB is asked to write only when the pty has room for a byte. A longer text than
/// 256 bytes goes byte by byte. A shorter one goes at once, which keeps an escape sequence whole,
/// although the pty may lack room for all of it. A remote stub has no pty here, and nothing is
/// checked.
///
/// For the main thread only.
class InferiorInput {
 public:
  /// Starts the thread. Throws std::system_error if that fails.
  explicit InferiorInput(lldb::SBProcess process);

  /// Drops what has not been written, and ends the thread within milliseconds. Call it when the
  /// process is gone. A thread that LLDB holds for two seconds is left running.
  ~InferiorInput();

  /// Whether the bytes go to this process.
  bool isFor(lldb::SBProcess other) { return other.GetUniqueID() == process.GetUniqueID(); }

  /// Queues the bytes. Texts are written in the order of the calls.
  void write(std::string bytes);

 private:
  class Queue;
  static void run(std::shared_ptr<Queue> queue, lldb::SBProcess process);
  static void writeWhenReady(const Queue &queue, lldb::SBProcess &process, std::string_view text);

  /// Outlives the thread's copy, so that LLDB does not destroy the process on that thread, unless
  /// the thread was left running.
  lldb::SBProcess process;
  std::shared_ptr<Queue> queue;
  std::thread thread;
};

#pragma once

#include <lldb/API/LLDB.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

/// How far the event thread is with the state changes of the process, and which of them are the
/// host's. The main thread and the event thread share it; it locks for itself.
///
/// LLDB's own state of a process cannot say this. It moves when an event is taken from the
/// listener, which is before the event is handled. And it says "stopped" where LLDB has resumed the
/// process already: such a stop is marked as restarted, and is no stop. LLDB makes them of forks,
/// of signals that are set not to stop, and of breakpoints whose condition is false.
class PublicState {
 public:
  /// For the main thread, while there is no event thread: nothing has been handled.
  void reset();

  // For the event thread, for each state in this order.

  /// The state has been taken from the listener. A process that stands may be resumed from here on:
  /// the host has the stop before its request arrives, or did not wait for it.
  void taken(lldb::StateType state, bool isRestarted);

  /// Whether the host should be sent this state of the process with this unique id. Every state
  /// but: a restarted stop, the running state that only repeats what the host was sent last, and a
  /// hidden stop.
  bool isForHost(lldb::StateType state, bool isRestarted, std::uint32_t processId);

  /// The state has been handled: it was sent, or is not the host's.
  void handled(bool isRestarted);

  // For the main thread.

  /// Returns once a state has been handled, or `bound` has passed.
  void awaitFirst(std::chrono::milliseconds bound);

  /// From here on no stop of this process is the host's: the host asked for its end.
  void hideStopsOf(std::uint32_t processId) { hiddenProcess = processId; }

  /// The host, or LLDB's command line, is about to resume a process: stops are the host's.
  void showStops() { hiddenProcess = noProcess; }

  /// Whether the process runs: the last state taken is no stop, or the host has resumed it since.
  bool isRunning() const { return running; }

  /// The main thread resumes the process, or has failed to.
  void setRunning(bool runs) { running = runs; }

 private:
  static constexpr std::uint32_t noProcess = 0xffffffff;

  std::mutex mutex;
  std::condition_variable changed;
  bool anyHandled = false;                            ///< guarded by the mutex
  lldb::StateType lastForHost = lldb::eStateInvalid;  ///< the event thread's
  std::atomic<std::uint32_t> hiddenProcess = noProcess;
  std::atomic<bool> running = false;
};

#pragma once

#include <lldb/API/LLDB.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

/// Which state changes of the process the event thread has taken and reported, and which of them
/// the host receives. The main thread and the event thread share it. It locks for itself.
///
/// LLDB's public state cannot answer this. It changes when an event is taken from the listener,
/// before the event is reported. And it is "stopped" after a stop that LLDB has resumed already.
/// The event of such a stop is marked as restarted. LLDB restarts after forks, after signals that
/// are set not to stop, and at breakpoints whose condition is false.
class PublicState {
 public:
  /// Forgets everything. For the main thread, while no event thread runs.
  void reset();

  // For the event thread, once for each state, in this order.

  /// Records that the state was taken from the listener. From here on a stopped process may be
  /// resumed: a host that waits for the stop has it before it sends its request.
  void taken(lldb::StateType state, bool isRestarted);

  /// Whether the host receives this state of the process with this unique id. It receives every
  /// state except a restarted stop, a hidden stop, and a running state right after another one.
  bool isForHost(lldb::StateType state, bool isRestarted, std::uint32_t processId);

  /// Records that the state was sent, or is not for the host.
  void handled(bool isRestarted);

  // For the main thread.

  /// Returns when a state has been handled, or after `bound`.
  void waitForFirst(std::chrono::milliseconds bound);

  /// Hides every later stop of this process from the host: the host asked for the process's end.
  void hideStopsOf(std::uint32_t processId) { hiddenProcess = processId; }

  /// Ends the hiding. Called before the host or LLDB's command line resumes a process.
  void showStops() { hiddenProcess = noProcess; }

  /// Whether the process runs: the last state taken is no stop, or the host has resumed the process
  /// since.
  bool isRunning() const { return running; }

  /// Records that the main thread resumes the process, or failed to.
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

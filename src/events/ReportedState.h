#pragma once

#include <lldb/API/LLDB.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <optional>

#include "platform/Mutex.h"

/// What the event thread and the main thread share about the process: which of LLDB's states the
/// host receives, whether the process runs, and which thread the host has stepped.
///
/// LLDB's own state does not show whether the process runs. After a resume it stays "stopped" until
/// the next event is taken. It is also "stopped" after a stop that LLDB has resumed already. And it
/// changes while LLDB still hands the event over: LLDB 22 hangs if another thread resumes then.
///
/// The event of a stop that LLDB has resumed is marked as restarted. LLDB restarts after forks,
/// after signals that are set not to stop, and at breakpoints whose condition is false.
class ReportedState {
 public:
  /// Forgets everything. For the main thread, while no event thread runs.
  void reset();

  // For the event thread.

  /// Takes in a state of the process with this unique id. Returns whether the host receives it. The
  /// host receives every state except a restarted stop, a hidden stop, and a running state right
  /// after another one.
  ///
  /// Call it before the message is sent. A host that receives a stop may resume at once, and the
  /// process must not count as running then. After a stop that the host receives the stepped thread
  /// is to be selected; forgetStepped waits until endSelection.
  bool take(lldb::StateType state, bool isRestarted, std::uint32_t processId);

  /// Takes the thread that the host has stepped, when the step has ended or something else stopped
  /// the process. Nothing if there is none.
  std::optional<std::uint64_t> takeStepped();

  /// Call it after each stop that the host receives, when LLDB's selection of a thread is final.
  void endSelection();

  /// Takes the stop that was hidden, if the process has not left that state since.
  bool takeHiddenStop();

  /// Ends waitForFirstState, unless all states so far were restarted stops. Call it after the
  /// message is sent.
  void setHandled();

  // For the main thread.

  /// Returns when the first state has been handled, or after `bound`.
  void waitForFirstState(std::chrono::milliseconds bound);

  /// Hides every stop of this process that is taken in from now on, also one that happened before:
  /// the host has asked for the process's end.
  void hideStopsOf(std::uint32_t processId) { hiddenProcess = processId; }

  /// Ends the hiding. Call it before the host or LLDB's command line resumes a process.
  void showStops() { hiddenProcess = noProcess; }

  /// Records that the host steps this thread, which is to be selected when the process stops.
  void setStepped(std::uint64_t threadId);

  /// Forgets it: something else chooses the thread from now on. If a stop has been taken in, waits
  /// for the event thread's selection first, for at most `bound`.
  void forgetStepped(std::chrono::milliseconds bound);

  /// Whether the process runs: the last state taken in is running, stepping or a restarted stop, or
  /// the main thread has resumed the process since.
  bool isRunning() const { return running; }

  /// How many states have been taken in, restarted stops included. Wraps around.
  std::uint32_t takenCount() const { return taken; }

  /// Records that the main thread resumes the process, or that it failed to.
  void setRunning(bool runs) { running = runs; }

 private:
  /// The part of `take` for a state that is no restarted stop.
  bool takeForHost(lldb::StateType state, std::uint32_t processId);

  static constexpr std::uint32_t noProcess = 0xffffffff;

  // The event thread's.
  lldb::StateType lastForHost = lldb::eStateInvalid;
  bool anyTaken = false;       ///< any state but a restarted stop
  bool hasHiddenStop = false;  ///< the last state, but for restarted stops, is hidden

  std::atomic<std::uint32_t> hiddenProcess = noProcess;  ///< written by the main thread
  /// Written by the event thread for each state, and by the main thread when it resumes. The main
  /// thread resumes after the stop has been taken in, and a stopped process has no state queued. A
  /// resume by LLDB's command line may leave a state queued while the host resumes: the value may
  /// be wrong until the next state.
  std::atomic<bool> running = false;
  std::atomic<std::uint32_t> taken = 0;  ///< written by the event thread

  Mutex mutex;  ///< nobody holds it during a call into LLDB
  std::condition_variable_any changed;
  bool isFirstHandled GUARDED_BY(mutex) = false;
  std::optional<std::uint64_t> steppedThread GUARDED_BY(mutex);
  bool isSelecting GUARDED_BY(mutex) = false;
};

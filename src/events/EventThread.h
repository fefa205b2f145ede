#pragma once

#include <lldb/API/LLDB.h>

#include <atomic>
#include <optional>
#include <thread>

#include "events/EventMonitor.h"

/// The event thread: reports what happens to one target's process, by an EventMonitor. At most one
/// runs at a time. All members are for the main thread.
class EventThread {
 public:
  explicit EventThread(lldb::SBDebugger debugger);
  /// Deliberate: does not join. Unless end() has, the program ends through std::terminate, also if
  /// requestEnd has made the thread return. The abnormal end shows a host that it forgot
  /// deleteProcess.
  ~EventThread() = default;

  /// Begins to listen to `target` and its process, and starts the thread, which misses no event and
  /// no request to end. The thread must not run already. `channel` and `reportedState` must outlive
  /// it. Throws std::system_error, and no longer listens, when no thread can be started.
  void start(lldb::SBTarget target, MessageChannel &channel, ReportedState &reportedState);

  /// Ends a running thread and joins it.
  void end();

  /// Asks a running thread to end. Does not wait for it. The thread ends after its current event,
  /// or within a second if there is none.
  void requestEnd() { stopEventThread = true; }

  /// Has the thread report the last stop, if that stop was hidden and no other state has come
  /// since.
  void reportHiddenStop() { ownBroadcaster.BroadcastEventByType(EventMonitor::hiddenStopBit); }

  /// Whether the thread was started, and end() has not joined it. Also true after requestEnd.
  bool isStarted() const { return thread.joinable(); }

 private:
  lldb::SBDebugger debugger;
  /// Of this program's own events for the thread.
  lldb::SBBroadcaster ownBroadcaster{"lldb-helper.event-thread"};
  std::atomic<bool> stopEventThread = false;  ///< written here, read by the thread
  std::optional<EventMonitor> monitor;        ///< the thread's while it runs
  std::thread thread;                         ///< after what it uses, so that it is destroyed first
};

#pragma once

#include <lldb/API/LLDB.h>

#include <atomic>
#include <thread>

#include "channel/MessageChannel.h"
#include "events/PublicState.h"

/// The event thread. It runs an EventMonitor for one target. At most one event thread runs at a
/// time. All members are for the main thread.
///
/// The functions that wait give up after two seconds. By then the host does not read, or the
/// process does not stop, and LLDB's own limits apply.
///
/// A process that LLDB's command line launches after a refused connection has no event thread. Then
/// nothing waits, and these functions take LLDB's events themselves and drop them, so that LLDB's
/// public state follows the process.
class EventThread {
 public:
  /// `channel` must outlive the object.
  EventThread(lldb::SBDebugger debugger, MessageChannel &channel);
  /// Deliberate: does not join a running thread, so the program ends through std::terminate. The
  /// abnormal end shows a host that it forgot deleteProcess.
  ~EventThread() = default;
  EventThread(const EventThread &) = delete;
  EventThread &operator=(const EventThread &) = delete;

  /// Stops a running thread, starts one for `target` and its process, and returns when it listens.
  /// Throws std::system_error when no thread can be started.
  void start(lldb::SBTarget target);

  /// Ends a running thread and joins it.
  void stop();

  /// Asks the thread to end after its current event, within a second. Does not wait for it.
  void requestStop() { stopRequested = true; }

  bool isRunning() const { return thread.joinable(); }

  /// Returns when the first state of the process has been sent to the host.
  void waitForFirstState();

  /// Returns when no state change of `process` waits in the listener. `process` may be invalid.
  void waitForPendingStateEvents(lldb::SBProcess process);

  /// Whether `process` may be resumed: not while it runs. Waits for a stop whose event is being
  /// taken.
  ///
  /// LLDB may accept a second resume: after a restarted stop it can have lost its record that the
  /// process runs. It then keeps that resume for the next stop, and the process never stops again.
  bool mayResume(lldb::SBProcess process);

  /// Records that the main thread resumes the process, or failed to.
  void setResumed(bool resumed);

  /// Reports stops to the host again. Called before LLDB's command line runs, which may resume.
  void showStops() { publicState.showStops(); }

  /// Stops `process` so that LLDB can end it, and hides its stops, because the host asked for its
  /// end. Called before SBProcess::Kill, Detach and Destroy.
  ///
  /// These go by LLDB's public state. Right after a resume that is still "stopped": they free what
  /// LLDB's own thread uses, and LLDB 22 crashes. Right after a stop it is still "running": LLDB 14
  /// to 22 wait 20 seconds for a stop that has happened.
  void halt(lldb::SBProcess process);

 private:
  bool isResumed(lldb::SBProcess &process) const;

  /// Takes and drops all queued events if no thread runs.
  void takeEvents();

  lldb::SBDebugger debugger;
  MessageChannel &channel;
  /// Its events end the thread's wait for an event early.
  lldb::SBBroadcaster wakeupBroadcaster{"lldb-helper.wakeup"};
  PublicState publicState;
  std::atomic<bool> stopRequested = false;  ///< cleared by a new thread before start returns
  std::thread thread;
};

/// Whether LLDB has queued a state change of `process` that nobody has taken.
bool isStateChangePending(lldb::SBProcess process, lldb::SBListener listener);

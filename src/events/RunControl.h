#pragma once

#include <lldb/API/LLDB.h>

#include <cstdint>

#include "events/EventThread.h"
#include "events/ReportedState.h"

/// What the main thread does before it resumes the process or ends it, that is, kills it or
/// detaches from it: it waits until the event thread has taken in the states that LLDB has queued.
/// All members are for the main thread.
///
/// Each wait gives up after two seconds. It lasts that long only if the host does not read or the
/// process does not stop. haltProcess has two waits. What the caller does next may wait once more,
/// inside LLDB (docs/reliability.md has LLDB's times).
///
/// A refused connection leaves a target without process and without an event thread. LLDB's command
/// line may launch a process there. waitForQueuedStates, mayResume and haltProcess then take LLDB's
/// events themselves and drop them, so that LLDB's state follows the process. Only haltProcess
/// waits then. They do not use ReportedState::isRunning then: nobody takes states in.
class RunControl {
 public:
  /// The references must outlive the object.
  RunControl(lldb::SBDebugger debugger, EventThread &eventThread, ReportedState &reportedState);

  /// Returns when the first state of the process has been sent to the host.
  void waitForFirstState();

  /// Waits while a state change of `process` is queued, while one that this call has seen queued is
  /// not taken in, and while LLDB's "stopped" is not up to date. It is up to date when the event
  /// thread has taken the stop in, and LLDB has not resumed the process since.
  ///
  /// Does not wait for a running process to stop. A stop whose event LLDB has just removed from the
  /// queue when this call begins looks the same for a moment: LLDB's state is still "running". A
  /// Kill then waits LLDB's 20 seconds, so a command that ends the process calls haltProcess
  /// first. The message of the last state may still be on its way. `process` may be invalid.
  void waitForQueuedStates(lldb::SBProcess process);

  /// Whether the main thread may resume `process`. True when ReportedState says that the process
  /// does not run. Otherwise LLDB's state decides:
  ///
  /// - "running": false.
  /// - "stopped": one of the two is late. Either the stop's event has been taken and the stop is
  ///   not taken in yet. Or the event of a running state is not taken yet, after a resume by the
  ///   host, or by LLDB after a restarted stop. Waits until they agree. True after a vain wait: a
  ///   refusal would last for ever if ReportedState were wrong.
  /// - any other, such as "exited": true. LLDB refuses the resume with its own error. LLDB shows a
  ///   process that steps as "running".
  ///
  /// Also true when there is no event thread.
  ///
  /// LLDB may accept a second resume: after a restarted stop it can have lost its record that the
  /// process runs. It then holds that resume for the next stop, and the process never stops again.
  bool mayResume(lldb::SBProcess process);

  /// Call it with true before the main thread resumes the process, and with false when that failed.
  /// Records it, forgets the stepped thread, and before a resume ends the hiding of stops.
  void setResumed(bool resumed);

  /// For a step of this thread in place of setResumed(true). The thread is selected at the stop.
  void setStepped(std::uint64_t threadId);

  /// Leaves the selection of a thread to the caller, or to LLDB's command line, which comes next.
  void forgetStepped();

  /// Tells the host after all that the process has stopped: LLDB could not end it. Call it after
  /// haltProcess.
  void reportHiddenStop();

  /// Stops `process` so that LLDB can end it, and hides its stops, because the host asked for its
  /// end. Call it before SBProcess::Kill, Detach and Destroy, which the caller tries also if the
  /// process has not stopped in time.
  ///
  /// Kill, Detach and Destroy believe LLDB's state of the process, which comes late:
  ///
  /// - Right after a resume it is still "stopped". They free what LLDB's state thread uses
  ///   (docs/concurrency.md), and LLDB 22 crashes.
  /// - Right after a stop it is still "running". LLDB 14 to 22 wait 20 seconds for the stop, which
  ///   has happened.
  ///
  /// A Kill never returns if the event thread selects the stepped thread meanwhile. So the stepped
  /// thread is forgotten first (docs/concurrency.md).
  void haltProcess(lldb::SBProcess process);

 private:
  /// Whether the process runs, or the stop that it has reached is not taken in yet. Looks at
  /// both signs of that: ReportedState, and whether LLDB has a selected thread
  /// (docs/concurrency.md).
  bool processRuns(lldb::SBProcess &process) const;

  /// Takes and drops all queued events if there is no event thread.
  void dropEventsWithoutThread();

  lldb::SBDebugger debugger;
  EventThread &eventThread;
  ReportedState &reportedState;
};

#pragma once

#include <lldb/API/LLDB.h>

#include <atomic>
#include <thread>

#include "channel/MessageChannel.h"
#include "events/PublicState.h"

/// The event thread: at most one at a time, for one target. It runs an EventMonitor. For the main
/// thread only.
///
/// What waits here waits for the event thread, and gives up after two seconds: then the host does
/// not read, or the process does not stop, and LLDB's own bounds hold. A process that LLDB's
/// command line has launched after a refused connection has no event thread: nobody is waited for
/// then, and LLDB's events are taken here, unreported, so that its state follows the process.
class EventThread {
 public:
  /// `channel` must outlive the object.
  EventThread(lldb::SBDebugger debugger, MessageChannel &channel);
  /// Deliberate: a thread that runs is not joined, so destroying the object under one ends the
  /// program through std::terminate. A host sees from the abnormal end that it forgot
  /// deleteProcess.
  ~EventThread() = default;
  EventThread(const EventThread &) = delete;
  EventThread &operator=(const EventThread &) = delete;

  /// Starts a thread for `target` and its process, in place of a running one, and returns once it
  /// listens. Throws std::system_error when there can be none.
  void start(lldb::SBTarget target);

  /// Ends the thread, if there is one, and waits for it.
  void stop();

  /// Has the thread end after the event in hand, within a second. Does not wait for it.
  void requestStop() { stopRequested = true; }

  bool isRunning() const { return thread.joinable(); }

  /// Returns when the host has been sent the first state of the process.
  void awaitFirstState();

  /// Returns when every state change of `process`, which may be invalid, has been taken from the
  /// listener.
  void awaitStates(lldb::SBProcess process);

  /// Whether `process` may be resumed. Not while it runs, also where LLDB would try: after a stop
  /// that LLDB resumed by itself it can have lost its record of that, and a second resume is kept
  /// back and strands the process at its next stop. A stop that is just being taken is awaited.
  bool mayResume(lldb::SBProcess process);

  /// The main thread resumes the process, or has failed to.
  void setResumed(bool resumed);

  /// LLDB's command line is about to do what it likes, resume a process too: stops are the host's.
  void showStops() { publicState.showStops(); }

  /// Stands `process` still, so that LLDB can end it, and hides its stops: the host asked for its
  /// end. Called before SBProcess::Kill, Detach and Destroy, which go by LLDB's state of the
  /// process. Right after a resume that still says "stopped", and they free what LLDB's own thread
  /// works with, which ends the program (seen with LLDB 22); right after a stop it says
  /// "running", and they wait 20 seconds for a stop that has been (14 to 22).
  void halt(lldb::SBProcess process);

 private:
  bool isResumed(lldb::SBProcess &process) const;

  /// Takes what LLDB has queued, where there is no thread to do it.
  void takeEvents();

  lldb::SBDebugger debugger;
  MessageChannel &channel;
  lldb::SBBroadcaster wakeup{"lldb-helper.wakeup"};  ///< its events only end a wait early
  PublicState publicState;
  std::atomic<bool> stopRequested = false;  ///< cleared by a new thread before start returns
  std::thread thread;
};

/// Whether LLDB has queued a state change of `process` that nobody has taken yet.
bool stateChangeIsQueued(lldb::SBProcess process, lldb::SBListener listener);

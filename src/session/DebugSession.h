#pragma once

#include <lldb/API/LLDB.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "channel/ArgumentText.h"
#include "channel/MessageChannel.h"
#include "json/Json.h"

/// The one session: the channel to the host, LLDB's debugger, and at most one target and process.
///
/// Two threads. The main thread reads requests, one at a time, and runs everything declared here.
/// The event thread (EventMonitor) tells the host what happens to the process; it exists from a
/// launch, attach or connection to the next one or to deleteProcess, and works on its own copies of
/// the LLDB handles. LLDB's debugger is asynchronous: commands that resume or stop the process
/// return at once and what comes of them arrives as events. LLDB's own idea of the process state
/// moves only when the event thread takes an event from the debugger's listener, so nobody else may
/// take any.
///
/// The session owns the debugger, the target, the process, the stored launch settings and the event
/// thread's handle. The streams belong to main. Destroying the session neither kills nor detaches
/// an inferior; a host sends deleteProcess first.
class DebugSession {
 public:
  /// In console mode requests and messages are lines for a person, else frames (MessageChannel).
  DebugSession(FILE *input, FILE *output, bool consoleMode);
  /// Deliberate: a running event thread is not joined, so destroying the session under one ends the
  /// program through std::terminate. A host sees from the abnormal end that it forgot
  /// deleteProcess.
  virtual ~DebugSession();
  DebugSession(const DebugSession &) = delete;
  DebugSession &operator=(const DebugSession &) = delete;

  /// Answers requests until the end of input. Every request gets exactly one response.
  void run();

  /// The response to one decoded request; never null. Exceptions of a handler pass through.
  Json handleRequest(const Json &request);

  // Handlers, named as their commands. docs/protocol.md says what each takes, answers and leaves.

  // A process to debug.
  Json prepareExecutable(const std::string &path, bool is64Bits, const std::string &triple,
                         const std::string &workingDirectory,
                         std::vector<EnvironmentEntry> environment,
                         std::vector<std::string> arguments);
  Json createProcess();
  Json detach();
  Json deleteProcess();

  // Its state.
  Json hasProcess();
  Json getProcessState();
  Json continueExecution();
  Json stopExecution();
  Json breakExecution();

 private:
  /// The process that LLDB holds for the current target; invalid when there is no target or it has
  /// no process. Handlers ask here each time rather than trust `process`.
  lldb::SBProcess currentProcess();

  /// LLDB's target for `executablePath` and `triple`; invalid, and `error` filled, when there is
  /// none.
  lldb::SBTarget buildTarget(lldb::SBError &error);

  /// Leaves the session without target, and takes the target out of LLDB's own list, which would
  /// keep it for ever.
  void discardTarget();

  /// What the inferior of a launch gets: the program's own environment, then the requested entries.
  std::vector<std::string> launchEnvironment() const;

  lldb::SBProcess launchTarget(lldb::SBError &error);

  /// Whether LLDB has queued a state change of `process` that nobody has taken yet.
  bool stateChangeIsQueued();

  /// Sleeps until LLDB has finished attaching to `process`.
  void waitWhileAttaching();

  /// Gives `process` a new event thread, in place of a running one, and returns once it listens.
  void startEventThread();

  /// Ends the event thread, if there is one, and waits for it.
  void endEventThread();

  /// Waits, within bounds, until the event thread has reported the first state change.
  void waitForFirstState();

  MessageChannel channel;

  // Main thread only.
  lldb::SBDebugger debugger;  ///< made by the constructor, never replaced
  lldb::SBTarget target;      ///< invalid when there is none
  lldb::SBProcess process;    ///< as of the last command that refreshed it; may be a dead one

  // What the next launch uses; the later command's values replace the earlier one's wholesale.
  std::string workingDirectory;
  std::vector<EnvironmentEntry> environment;
  std::vector<std::string> arguments;
  std::string executablePath;
  std::string triple = "x86_64-apple-macosx";  ///< empty: LLDB's choice
  bool is64Bits = true;                        ///< only logged

  // The event thread.
  lldb::SBBroadcaster wakeup{"lldb-helper.wakeup"};  ///< its events only end a wait early
  std::future<void> firstStateReported;              ///< belongs to the current event thread
  std::unique_ptr<std::thread> eventThread;          ///< null when there is none
  std::atomic<bool> stopEventThread;  ///< set by the main thread, cleared by a new event thread
};

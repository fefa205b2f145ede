#pragma once

#include <lldb/API/LLDB.h>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "channel/LaunchArguments.h"
#include "channel/MessageChannel.h"
#include "events/EventThread.h"
#include "events/ReportedState.h"
#include "events/RunControl.h"
#include "json/Json.h"
#include "session/InferiorInput.h"
#include "session/RegisterReader.h"

/// The one session: the channel to the host, LLDB's debugger, and at most one target and process.
///
/// Everything declared here is for the main thread, which reads requests one at a time. The session
/// has three other threads. EventThread reports events from a launch, attach or connection until
/// the target is deleted. InferiorInput writes to the program's input. ConnectionBound watches an
/// attempt to connect. docs/concurrency.md has what they share.
///
/// LLDB's debugger is asynchronous: LLDB's functions that resume or interrupt the process return at
/// once, and their results arrive as events. LLDB's state of the process changes only when an event
/// is taken from the debugger's listener. Only the event thread takes events while there is one
/// (RunControl).
///
/// The streams belong to main. Destroying the session neither kills nor detaches an inferior:
/// docs/reliability.md says what its debug server does to it when this program ends. A host sends
/// deleteProcess first.
class DebugSession {
 public:
  /// In console mode requests and messages are lines for a person. Otherwise they are frames. See
  /// MessageChannel.
  DebugSession(FILE *input, FILE *output, bool consoleMode);
  /// Deliberate: does not join a running event thread, so the program ends through std::terminate.
  /// The abnormal end shows a host that it forgot deleteProcess.
  /// Virtual for code outside this repository that derives from the class.
  virtual ~DebugSession();

  /// Answers requests until the end of input. Every request gets exactly one response, or the "EOF"
  /// message when something outside its handler fails: memory that runs out. If that is the memory
  /// for a frame's text, the text stays unread and is taken for frames: the session is lost.
  void run();

  /// Returns the response to one decoded request: what the handler returns. Answers a command that
  /// lacks what it needs with the error that its row names. Exceptions of a handler pass through.
  Json handleRequest(const Json &request);

  // The handlers, named as their commands. docs/protocol.md describes the arguments, the response
  // and the effect of each. Only handleRequest calls them, and only if the session has what the
  // command's row says that it needs (channel/Dispatcher.cpp). `process` is the target's by then.

  // A process to debug.
  Json prepareExecutable(const std::string &path, bool is64Bits, const std::string &triple,
                         const std::string &workingDirectory,
                         std::vector<EnvironmentEntry> environment,
                         std::vector<std::string> arguments);
  Json createProcess();
  Json attachToProcess(std::uint64_t pid, const std::string &executable, bool is64Bits,
                       const std::string &triple);
  Json connectRemote(bool is64Bits, const std::string &triple, const std::string &url,
                     const std::string &plugin, const std::string &file);
  Json detach();
  Json deleteProcess();

  // Its state. stopExecution kills the process, breakExecution interrupts it. Neither waits for the
  // result: the exit or the stop arrives as an event.
  Json hasProcess();
  Json getProcessState();
  Json continueExecution();
  Json stopExecution();
  Json breakExecution();

  // Threads. Registers, steps and the call stack belong to the selected one.
  Json getThreadIDList();
  Json selectThreadID(std::uint64_t id);

  // Registers, of the selected frame.
  Json getRegisters();
  Json setRegister(const std::string &name, const std::string &value);

  // Breakpoints and steps. The result of a step arrives as events.
  Json setBreakpointAtVirtualAddress(std::uint64_t address);
  Json removeBreakpoint(std::int32_t id);
  Json removeAllBreakpoints();
  Json stepInstruction();
  Json stepOver();
  Json stepOut();

  // Memory.
  Json readMemory(std::uint64_t address, std::int64_t length);
  Json writeByte(std::uint64_t address, std::uint8_t byte);

  // The call stack of the selected thread.
  Json getCallstack();
  Json selectFrame(std::uint32_t index);

  // LLDB's own command line, and the inferior's standard input.
  Json executeCommand(const std::string &commandLine);
  Json completeCommand(const std::string &commandLine, std::uint32_t position);
  Json sendToApplication(const Json::array &data);

  // Modules: the executable and every loaded library.
  Json moduleCount();
  Json moduleAtIndex(std::uint32_t index);
  Json moduleForFile(const std::string &file);

 private:
  /// Whether the session has `process` from createProcess or attachToProcess, so that LLDB's own
  /// debug server runs it. False for a process of connectRemote or of LLDB's command line: false is
  /// always safe.
  bool hasOwnServer();

  /// Creates LLDB's target for `executablePath` and `triple`. Returns an invalid target and fills
  /// `error` on failure.
  lldb::SBTarget buildTarget(lldb::SBError &error);

  /// The same for a connection. The path may be empty, or name a file of another architecture.
  lldb::SBTarget buildRemoteTarget();

  /// Leaves the session without a target: ends the input thread, and removes the target from LLDB's
  /// list, which would keep it for ever. LLDB drops the target's process with it, that of a failed
  /// launch for example. A process that runs must be ended before. Does not end the event thread.
  /// If one still runs, the next startEventThread or giveUpConnection ends it.
  void discardTarget();

  /// Leaves the session without a target after LLDB's command line has deleted it. `itsProcess` was
  /// the target's process. It is invalid if there was no target, or one without process. Ends the
  /// event thread, if one runs. Changes nothing if there was no target.
  void forgetTarget(const lldb::SBProcess &itsProcess);

  /// Starts the event thread for `target`, in place of a running one. There is one if LLDB's
  /// command line has taken the last target's process away, as "process connect" with an unknown
  /// plug-in does. When no thread can be started, nobody would report on the process: kills it if
  /// it was launched, detaches from it otherwise, discards the target, and throws
  /// std::system_error.
  void startEventThread();

  /// Reports the hidden stop of the process to the host, if the process is stopped. Call it when
  /// LLDB has failed to end a process that haltProcess has stopped: the host believes that it runs.
  void reportStopAfterFailedEnd();

  /// Ends the event thread after it has reported what LLDB has queued of this process's states.
  void endReports(const lldb::SBProcess &itsProcess);

  /// Launches `target` with the settings of the next launch, stopped at its entry. LLDB may return
  /// a valid process with a failing `error`.
  lldb::SBProcess launchTarget(lldb::SBError &error);

  /// What all steps do: has `begin` step the selected thread, if the process may be resumed.
  Json step(const std::function<void(lldb::SBThread &, lldb::SBError &)> &begin);

  /// Sets `target` and `process` to those of a connection that may not be complete yet. Without one
  /// `process` stays invalid.
  lldb::SBError openConnection(const std::string &plugin, const std::string &url);

  /// Ends what openConnection has begun. Leaves a target without process, or no target if LLDB
  /// creates none for the file.
  void giveUpConnection();

  /// Waits until LLDB has attached to `process`, without a bound. Then waits until the first state,
  /// mostly a stop, has been sent to the host, for at most two seconds. So the host's next request
  /// acts on the real state. Needs the event thread.
  void waitUntilStarted();

  MessageChannel channel;

  lldb::SBDebugger debugger;  ///< created by the constructor, never replaced
  lldb::SBTarget target;      ///< invalid when there is no target
  /// The target's process, which may have ended. handleRequest fetches it before each command, and
  /// the commands that start a process replace it. It is stale after discardTarget and after a line
  /// of LLDB's command line, until the next request.
  lldb::SBProcess process;

  // The settings of the next launch. prepareExecutable replaces all of them. attachToProcess and
  // connectRemote replace the executable, the triple and is64Bits, and keep the others.
  std::string workingDirectory;
  std::vector<EnvironmentEntry> environment;
  std::vector<std::string> arguments;
  std::string executablePath;
  /// LLDB's name for a kind of machine. If it is empty, LLDB chooses.
  /// Deliberate: the first value is the same on every machine. A createProcess before any
  /// preparation fails, because there is no path, and hosts know the error that comes with this
  /// triple. The first command that brings an executable replaces it.
  std::string triple = "x86_64-apple-macosx";
  /// As the host gave it last. LLDB goes by the triple.
  /// Deliberate: nothing reads it. A debugger or a core file shows in it what the host asked for.
  bool is64Bits = true;

  /// LLDB's unique id of the last process of createProcess or attachToProcess. 0: none yet.
  std::uint32_t processOfOwnServer = 0;
  RegisterReader registerReader;
  std::unique_ptr<InferiorInput> inferiorInput;  ///< null until a process gets input

  ReportedState reportedState;
  EventThread eventThread;  ///< after the members that it uses while it runs
  RunControl runControl;
};

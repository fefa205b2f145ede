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
#include "commands/ApplicationInput.h"
#include "events/EventThread.h"
#include "json/Json.h"
#include "session/RegisterNames.h"

/// The one session: the channel to the host, LLDB's debugger, and at most one target and process.
///
/// Two threads. The main thread reads requests, one at a time, and runs everything declared here.
/// The event thread (EventThread) tells the host what happens to the process; it exists from a
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
  Json attachToProcess(std::uint64_t pid, const std::string &executable, bool is64Bits,
                       const std::string &triple);
  Json connectRemote(bool is64Bits, const std::string &triple, const std::string &url,
                     const std::string &plugin, const std::string &file);
  Json detach();
  Json deleteProcess();

  // Its state.
  Json hasProcess();
  Json getProcessState();
  Json continueExecution();
  Json stopExecution();
  Json breakExecution();

  // Threads. The selected one is what registers, steps and the call stack are about.
  Json getThreadIDList();
  Json selectThreadID(std::uint64_t id);

  // Registers, of the selected frame.
  Json getRegisters();
  Json setRegister(const std::string &name, const std::string &value);

  // Breakpoints and steps. A step's result arrives as events.
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
  /// The process that LLDB holds for the current target; invalid when there is no target or it has
  /// no process. Handlers ask here each time rather than trust `process`.
  lldb::SBProcess currentProcess();

  /// LLDB's target for `executablePath` and `triple`; invalid, and `error` filled, when there is
  /// none.
  lldb::SBTarget buildTarget(lldb::SBError &error);

  /// The same for a connection, in which the file may be missing or of another architecture.
  lldb::SBTarget buildRemoteTarget();

  /// Leaves the session without target, and takes the target out of LLDB's own list, which would
  /// keep it for ever.
  void discardTarget();

  /// Follows LLDB, which has deleted the target with this process by itself: the event thread ends
  /// with its target, and the session has none.
  void forgetTarget(const lldb::SBProcess &itsProcess);

  /// What the inferior of a launch gets: the program's own environment, then the requested entries.
  std::vector<std::string> launchEnvironment() const;

  lldb::SBProcess launchTarget(lldb::SBError &error);

  Json step(const char *command,
            const std::function<void(lldb::SBThread &, lldb::SBError &)> &begin);

  /// A module with its top-level sections: where they lie in the file and in memory.
  Json describeModule(lldb::SBModule &module);

  /// Connects through LLDB's command line, the only road to a kernel's debug stub.
  void connectThroughInterpreter(const std::string &plugin, const std::string &url);

  /// Runs one command line and logs it. Its result is not looked at.
  void interpret(const std::string &commandLine);

  /// Returns when LLDB has finished attaching to `process` and follows its stop, so that the host's
  /// next request acts on the state that the process is really in. Needs the event thread.
  void waitUntilSettled();

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

  RegisterNames registerNames;
  std::unique_ptr<ApplicationInput> applicationInput;  ///< null until the process is sent something

  EventThread eventThread;  ///< the last member: while it runs nothing else may go
};

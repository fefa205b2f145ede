// connectRemote: a process that a remote debug server holds.

#include <algorithm>
#include <chrono>
#include <system_error>
#include <thread>

#include "channel/Envelope.h"
#include "events/StateName.h"
#include "platform/Descriptors.h"
#include "platform/Log.h"
#include "session/ConnectionBound.h"
#include "session/DebugSession.h"
#include "session/LldbError.h"
#include "session/LldbSettings.h"

namespace {

/// The plug-in for kernels' debug stubs, which only LLDB's command line can load.
constexpr char kernelPlugin[] = "kdp-remote";

std::string inQuotes(const std::string &text) {
  // Deliberate: quotes in the text stay as they are. LLDB's command line interprets them, and a
  // host escapes them for it.
  return "\"" + text + "\"";
}

/// Logs one line of LLDB's command line and runs it. Ignores the result.
void runLoggedCommand(lldb::SBDebugger &debugger, const std::string &commandLine) {
  LOG_RECORD("%{public}s\n", commandLine.c_str());
  lldb::SBCommandReturnObject result;
  constexpr bool addToHistory = false;
  debugger.GetCommandInterpreter().HandleCommand(commandLine.c_str(), result, addToHistory);
}

/// How long a connection may take: sixty times as long as LLDB waits for one packet, and at least a
/// minute. LLDB exchanges some twenty packets. With its default of five seconds the time is five
/// minutes. A person with a slow link sets LLDB's packet-timeout, and so this time too.
std::chrono::seconds timeToConnect(lldb::SBDebugger &debugger) {
  return std::max<std::chrono::seconds>(60 * packetTimeout(debugger), std::chrono::minutes(1));
}

/// Gives the connection a second to complete, in ten steps, whatever state the process reaches.
/// Hosts find the ten records in the log (platform/Log.h).
void watchFirstSecond(lldb::SBProcess &process) {
  for (int step = 0; step < 10; ++step) {
    LOG_RECORD("step %{public}d: %{public}s\n", step, stateName(process.GetState()).c_str());
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
}

}  // namespace

Json DebugSession::connectRemote(bool is64Bits, const std::string &triple, const std::string &url,
                                 const std::string &plugin, const std::string &file) {
  this->is64Bits = is64Bits;
  this->triple = triple;
  executablePath = file;

  const ConnectionBound bound(timeToConnect(debugger));
  discardTarget();
  const lldb::SBError error = openConnection(plugin, url);
  watchFirstSecond(process);

  // LLDB may return a valid process although no server answered. That process stays unloaded. A
  // process that a server holds has left that state, or the event for it is queued.
  const bool answered = process.IsValid() && (process.GetState() != lldb::eStateUnloaded ||
                                              isStateChangeQueued(process, debugger.GetListener()));
  if (answered && !bound.wasReached()) {
    try {
      startEventThread();
    } catch (const std::system_error &) {
      // startEventThread has discarded the target. After every failed connection one stays, without
      // process, as giveUpConnection leaves it.
      target = buildRemoteTarget();
      throw;
    }
    waitUntilStarted();
    if (!bound.wasReached()) return okResponse();
  }
  if (error.Fail()) LOG_RECORD("Cannot connect: %{public}s\n", errorText(error).c_str());
  giveUpConnection();
  return errorResponse(__func__, "cannot connect to remote, invalid process");
}

lldb::SBError DebugSession::openConnection(const std::string &plugin, const std::string &url) {
  lldb::SBError error;
  if (!platform::isSafeToOpen(executablePath)) {
    error.SetErrorString("the file is a pipe, a terminal or a device without end");
  } else if (plugin == kernelPlugin) {
    runLoggedCommand(debugger, "target create " + inQuotes(executablePath));
    runLoggedCommand(debugger, "process connect --plugin " + plugin + " " + inQuotes(url));
    target = debugger.GetSelectedTarget();
    process = target.GetProcess();
  } else {
    lldb::SBListener listener = debugger.GetListener();
    target = buildRemoteTarget();
    process = target.ConnectRemote(listener, url.c_str(), plugin.c_str(), error);
  }
  return error;
}

void DebugSession::giveUpConnection() {
  eventThread.end();
  if (!process.IsValid()) return;
  // LLDB drops a process only with its target, and the next attempt must not find one.
  discardTarget();
  target = buildRemoteTarget();
  process = lldb::SBProcess();
}

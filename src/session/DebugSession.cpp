#include "session/DebugSession.h"

#include <chrono>
#include <system_error>
#include <utility>

#include "channel/Envelope.h"
#include "platform/Descriptors.h"
#include "platform/Log.h"
#include "session/LldbSettings.h"

namespace {

using namespace std::chrono_literals;

constexpr char nullDevice[] = "/dev/null";

/// Keeps LLDB's prompts and its commands' output off the standard streams. In console mode these
/// are the channel: a prompt would read the next requests, or wait for ever for a silent host.
void redirectLldbToDevNull(lldb::SBDebugger &debugger) {
  constexpr bool handOver = true;
  debugger.SetInputFileHandle(std::fopen(nullDevice, "re"), handOver);
  debugger.SetOutputFileHandle(std::fopen(nullDevice, "we"), handOver);
  debugger.SetErrorFileHandle(std::fopen(nullDevice, "we"), handOver);
}

/// Restores the selected platform at the end of the scope. Otherwise one foreign triple makes every
/// later local launch fail.
class PlatformGuard {
 public:
  explicit PlatformGuard(lldb::SBDebugger &debugger)
      : debugger(debugger), platform(debugger.GetSelectedPlatform()) {}
  ~PlatformGuard() { debugger.SetSelectedPlatform(platform); }
  PlatformGuard(const PlatformGuard &) = delete;

 private:
  lldb::SBDebugger &debugger;
  lldb::SBPlatform platform;
};

}  // namespace

DebugSession::DebugSession(FILE *input, FILE *output, bool consoleMode)
    : channel(input, output, consoleMode),
      debugger(lldb::SBDebugger::Create()),
      registerReader(debugger),
      eventThread(debugger),
      runControl(debugger, eventThread, reportedState) {
  redirectLldbToDevNull(debugger);
  changeSettings(debugger);
  debugger.SetAsync(true);
}

DebugSession::~DebugSession() = default;

Json DebugSession::prepareExecutable(const std::string &path, bool is64Bits,
                                     const std::string &triple, const std::string &workingDirectory,
                                     std::vector<EnvironmentEntry> environment,
                                     std::vector<std::string> arguments) {
  LOG_RECORD("Preparing executable %{public}s, %{public}s", path.c_str(),
             is64Bits ? "64bit" : "32bit");
  executablePath = path;
  this->triple = triple;
  this->is64Bits = is64Bits;
  this->workingDirectory = workingDirectory;
  this->environment = std::move(environment);
  this->arguments = std::move(arguments);
  return okResponse();
}

bool DebugSession::hasOwnServer() { return processOfOwnServer == process.GetUniqueID(); }

lldb::SBTarget DebugSession::buildTarget(lldb::SBError &error) {
  if (!platform::isSafeToOpen(executablePath)) {
    error.SetErrorString(("'" + executablePath + "' is not a file").c_str());
    return lldb::SBTarget();
  }
  constexpr const char *platformName = nullptr;
  constexpr bool addDependentModules = false;
  const PlatformGuard guard(debugger);
  return debugger.CreateTarget(executablePath.c_str(), triple.c_str(), platformName,
                               addDependentModules, error);
}

lldb::SBTarget DebugSession::buildRemoteTarget() {
  if (!platform::isSafeToOpen(executablePath)) return lldb::SBTarget();
  const PlatformGuard guard(debugger);
  return debugger.CreateTargetWithFileAndArch(executablePath.c_str(),
                                              triple.empty() ? nullptr : triple.c_str());
}

void DebugSession::discardTarget() {
  inferiorInput.reset();
  if (target.IsValid()) debugger.DeleteTarget(target);
  target = lldb::SBTarget();
}

void DebugSession::startEventThread() {
  LOG_RECORD("Restarting event thread\n");
  eventThread.end();
  reportedState.reset();
  try {
    eventThread.start(target, channel, reportedState);
  } catch (const std::system_error &) {
    runControl.haltProcess(process);
    process.Destroy();
    discardTarget();
    throw;
  }
}

void DebugSession::endReports(const lldb::SBProcess &itsProcess) {
  runControl.waitForQueuedStates(itsProcess);
  eventThread.end();
}

void DebugSession::waitUntilStarted() {
  while (process.GetState() == lldb::eStateAttaching) std::this_thread::sleep_for(100ms);
  // LLDB's state of the process is "stopped" only after the event of the stop is taken. A process
  // that is resumed before that never stops again.
  runControl.waitForFirstState();
}

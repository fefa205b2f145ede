#include "session/DebugSession.h"

#include <chrono>
#include <optional>
#include <utility>

#include "channel/Envelope.h"
#include "events/EventMonitor.h"
#include "platform/Log.h"
#include "session/StateLag.h"

namespace {

using namespace std::chrono_literals;

/// LLDB queues the stop at entry before a launch returns, so it is reported within milliseconds
/// unless the host does not read its pipe.
constexpr auto firstStateBound = 2s;

constexpr char nullDevice[] = "/dev/null";

/// LLDB's prompts and command output must not touch the channel, which in console mode is on the
/// standard streams: a prompt would swallow the next requests and hang on a silent host.
void keepFromStandardStreams(lldb::SBDebugger &debugger) {
  constexpr bool handOver = true;
  debugger.SetInputFileHandle(std::fopen(nullDevice, "re"), handOver);
  debugger.SetOutputFileHandle(std::fopen(nullDevice, "we"), handOver);
  debugger.SetErrorFileHandle(std::fopen(nullDevice, "we"), handOver);
}

/// While one lives, the triple of a new target chooses that target's platform. LLDB would go on
/// with it: after one target of another platform it launches nothing here any more.
class PlatformGuard {
 public:
  explicit PlatformGuard(lldb::SBDebugger &debugger)
      : debugger(debugger), platform(debugger.GetSelectedPlatform()) {}
  ~PlatformGuard() { debugger.SetSelectedPlatform(platform); }
  PlatformGuard(const PlatformGuard &) = delete;
  PlatformGuard &operator=(const PlatformGuard &) = delete;

 private:
  lldb::SBDebugger &debugger;
  lldb::SBPlatform platform;
};

}  // namespace

DebugSession::DebugSession(FILE *input, FILE *output, bool consoleMode)
    : channel(input, output, consoleMode), debugger(lldb::SBDebugger::Create()) {
  keepFromStandardStreams(debugger);
  debugger.GetListener().StartListeningForEvents(wakeup, EventMonitor::wakeupBit);
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

lldb::SBProcess DebugSession::currentProcess() {
  return target.IsValid() ? target.GetProcess() : lldb::SBProcess();
}

lldb::SBTarget DebugSession::buildTarget(lldb::SBError &error) {
  constexpr const char *platformName = nullptr;
  constexpr bool addDependentModules = false;
  const PlatformGuard guard(debugger);
  return debugger.CreateTarget(executablePath.c_str(), triple.c_str(), platformName,
                               addDependentModules, error);
}

lldb::SBTarget DebugSession::buildRemoteTarget() {
  const PlatformGuard guard(debugger);
  return debugger.CreateTargetWithFileAndArch(executablePath.c_str(),
                                              triple.empty() ? nullptr : triple.c_str());
}

void DebugSession::discardTarget() {
  debugger.DeleteTarget(target);
  target = lldb::SBTarget();
}

void DebugSession::startEventThread() {
  LOG_RECORD("Restarting event thread\n");
  endEventThread();
  std::optional<lldb::StateType> silentState;
  // Deliberate: LLDB 14 sends no event for the stop at entry, and hosts wait for one.
  if (!stateChangeIsQueued(process, debugger.GetListener()) &&
      process.GetState() != lldb::eStateAttaching)
    silentState = process.GetState();
  EventMonitor::Milestones milestones;
  std::future<void> listening = milestones.listening.get_future();
  firstStateReported = milestones.firstStateReported.get_future();
  eventThread = std::make_unique<std::thread>(
      [this, silentState, milestones = std::move(milestones)]() mutable {
        EventMonitor(debugger, target, channel, stopEventThread, stopsAreHidden,
                     std::move(milestones), silentState)
            .run();
      });
  // A stop requested before the thread has cleared the flag would be lost, so wait for it.
  listening.wait();
}

void DebugSession::endEventThread() {
  if (!eventThread) return;
  stopEventThread = true;
  wakeup.BroadcastEventByType(EventMonitor::wakeupBit);
  eventThread->join();
  eventThread.reset();
}

void DebugSession::waitUntilSettled() {
  while (process.GetState() == lldb::eStateAttaching) std::this_thread::sleep_for(100ms);
  // LLDB follows a stop only when it is taken from the listener; resuming before that would strand
  // the process.
  firstStateReported.wait_for(firstStateBound);
}

#include "events/EventMonitor.h"

#include <string>
#include <string_view>

#include "events/ModuleDescription.h"
#include "events/StateName.h"
#include "json/HexDigits.h"
#include "platform/Log.h"

namespace {

/// The changes of breakpoints are left out. No message is sent for them, and each would wake the
/// thread while the host waits for the response to setBreakpointAtVirtualAddress.
constexpr std::uint32_t targetEvents =
    lldb::SBTarget::eBroadcastBitModulesLoaded | lldb::SBTarget::eBroadcastBitModulesUnloaded;
constexpr std::uint32_t processEvents = lldb::SBProcess::eBroadcastBitStateChanged |
                                        lldb::SBProcess::eBroadcastBitSTDOUT |
                                        lldb::SBProcess::eBroadcastBitSTDERR;

constexpr std::uint32_t waitSeconds = 1;

/// The most output that one message carries, in bytes.
constexpr std::size_t outputPiece = 256;

/// Two lowercase hexadecimal digits for each byte: output may be any bytes, JSON text may not.
std::string hexText(std::string_view bytes) {
  std::string text;
  text.reserve(2 * bytes.size());
  for (const char byte : bytes) appendHex(text, static_cast<unsigned char>(byte));
  return text;
}

const char *textOrEmpty(const char *text) { return text != nullptr ? text : ""; }

/// The description of a module that LLDB has placed in memory.
///
/// Deliberate: null when its load address is below its file address. So a host never receives a
/// slide that wraps around in this event.
Json describeLoadedModule(lldb::SBModule module, lldb::SBTarget target) {
  const lldb::SBFileSpec file = module.GetFileSpec();
  const ImageBase base = imageBase(module, target);
  if (base.loadAddress < base.fileAddress) return Json();
  return Json(Json::object{{"directory", textOrEmpty(file.GetDirectory())},
                           {"file", textOrEmpty(file.GetFilename())},
                           {"fileAddress", base.fileAddress},
                           {"loadAddress", base.loadAddress},
                           {"slide", base.slide()}});
}

}  // namespace

EventMonitor::EventMonitor(lldb::SBDebugger debugger, lldb::SBTarget target,
                           MessageChannel &channel, const std::atomic<bool> &stopEventThread,
                           ReportedState &reportedState)
    : target(target),
      process(target.GetProcess()),
      listener(debugger.GetListener()),
      channel(channel),
      stopEventThread(stopEventThread),
      reportedState(reportedState) {}

void EventMonitor::startListening() {
  listener.StartListeningForEvents(target.GetBroadcaster(), targetEvents);
  listener.StartListeningForEvents(process.GetBroadcaster(), processEvents);
  // Deliberate: hosts wait for the state that the process begins with, and LLDB 14 sends no event
  // for the stop at entry. Later LLDBs have queued that event by now, and it is reported when it is
  // taken. A process that is still being attached to sends one when it stops.
  const lldb::StateType state = process.GetState();
  if (state != lldb::eStateAttaching && !isStateChangeQueued(process, listener))
    unreportedInitialState = state;
}

void EventMonitor::stopListening() {
  listener.StopListeningForEvents(target.GetBroadcaster(), targetEvents);
  listener.StopListeningForEvents(process.GetBroadcaster(), processEvents);
}

void EventMonitor::run() {
  if (unreportedInitialState) reportState(*unreportedInitialState, false);
  while (!stopEventThread) {
    if (listener.WaitForEvent(waitSeconds, event)) handleEvent();
  }
}

/// The listener also receives events of earlier processes and of other targets; they are ignored. A
/// newer process in this target replaces the current one.
void EventMonitor::handleEvent() {
  const std::uint32_t type = event.GetType();
  if (lldb::SBProcess::EventIsProcessEvent(event)) {
    lldb::SBProcess source = lldb::SBProcess::GetProcessFromEvent(event);
    const std::uint32_t sourceId = source.GetUniqueID(), currentId = process.GetUniqueID();
    const bool isNewer = sourceId > currentId && source.GetTarget() == target;
    if (isNewer) process = source;
    if (isNewer || sourceId == currentId) handleProcessEvent(type);
  } else if (lldb::SBTarget::EventIsTargetEvent(event)) {
    if (lldb::SBTarget::GetTargetFromEvent(event) != target) return;
    if (type == lldb::SBTarget::eBroadcastBitModulesLoaded) reportModulesLoaded();
    // Deliberate: the list is always empty. Hosts ask for the modules that remain.
    if (type == lldb::SBTarget::eBroadcastBitModulesUnloaded)
      send("moduleUnloaded", {{"modules", Json::array{}}});
  } else if (type == hiddenStopBit) {
    reportHiddenStop();
  }
}

void EventMonitor::handleProcessEvent(std::uint32_t type) {
  switch (type) {
    case lldb::SBProcess::eBroadcastBitSTDERR:
      return reportOutput("stderr", &lldb::SBProcess::GetSTDERR);
    case lldb::SBProcess::eBroadcastBitSTDOUT:
      return reportOutput("stdout", &lldb::SBProcess::GetSTDOUT);
    case lldb::SBProcess::eBroadcastBitStateChanged:
      return reportState(lldb::SBProcess::GetStateFromEvent(event),
                         lldb::SBProcess::GetRestartedFromEvent(event));
    default: return;
  }
}

/// LLDB merges output events: after a full buffer there may be more output and no further event, so
/// this reads until a short read. LLDB queues the last output before the exit.
void EventMonitor::reportOutput(const char *type, OutputReader read) {
  std::size_t length = outputPiece;
  while (length == outputPiece) {
    char bytes[outputPiece];
    length = (process.*read)(bytes, outputPiece);
    if (length > 0) send(type, {{"output", hexText({bytes, length})}});
  }
}

/// The log records every state. The host receives those that it can act on.
void EventMonitor::reportState(lldb::StateType state, bool isRestarted) {
  const bool isForHost = reportedState.take(state, isRestarted, process.GetUniqueID());
  LOG_RECORD("State changed to %{public}s", stateName(state).c_str());
  if (state == lldb::eStateStopped && isForHost) selectSteppedThread();
  if (isForHost) sendState(state);
  reportedState.setHandled();
}

void EventMonitor::sendState(lldb::StateType state) {
  Json::object members{{"inferior_state", static_cast<std::int32_t>(state)},
                       {"state_desc", stateName(state)}};
  if (state == lldb::eStateExited) members["exit_status"] = process.GetExitStatus();
  send("state", std::move(members));
}

void EventMonitor::reportHiddenStop() {
  if (reportedState.takeHiddenStop()) sendState(lldb::eStateStopped);
}

void EventMonitor::selectSteppedThread() {
  if (const auto id = reportedState.takeStepped()) {
    lldb::SBThread thread = process.GetThreadByID(*id);
    const bool hasReason = thread.GetStopReason() > lldb::eStopReasonNone;
    if (hasReason && process.GetSelectedThread().GetThreadID() != *id)
      process.SetSelectedThread(thread);
  }
  reportedState.endSelection();
}

void EventMonitor::reportModulesLoaded() {
  Json::array modules;
  const std::uint32_t count = lldb::SBTarget::GetNumModulesFromEvent(event);
  for (std::uint32_t index = 0; index < count; ++index) {
    Json module =
        describeLoadedModule(lldb::SBTarget::GetModuleAtIndexFromEvent(index, event), target);
    if (module.type() != JsonType::Null) modules.push_back(std::move(module));
  }
  send("moduleLoaded", {{"modules", std::move(modules)}});
}

void EventMonitor::send(const char *type, Json::object members) {
  members["status"] = "event";
  members["type"] = type;
  channel.sendResponse(Json(std::move(members)));
}

bool isStateChangeQueued(lldb::SBProcess process, lldb::SBListener listener) {
  lldb::SBEvent event;
  return listener.PeekAtNextEventForBroadcasterWithType(
      process.GetBroadcaster(), lldb::SBProcess::eBroadcastBitStateChanged, event);
}

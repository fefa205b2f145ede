// Breakpoints at addresses, and steps of the selected thread.

#include <cstdio>

#include "channel/Envelope.h"
#include "session/DebugSession.h"

namespace {

/// The text of one location: its load address, or LLDB's invalid address, in lowercase hexadecimal
/// digits.
std::string locationText(lldb::SBBreakpointLocation location) {
  char text[48];
  std::snprintf(text, sizeof text, "load addr: %llx",
                static_cast<unsigned long long>(location.GetLoadAddress()));
  return text;
}

}  // namespace

Json DebugSession::setBreakpointAtVirtualAddress(std::uint64_t address) {
  lldb::SBBreakpoint breakpoint = target.BreakpointCreateByAddress(address);
  if (!breakpoint.IsValid()) return errorResponse(__func__, "cannot create breakpoint");
  Json::object members{{"bkpt_id", std::int32_t{breakpoint.GetID()}}};
  for (std::uint32_t index = 0; index < breakpoint.GetNumLocations(); ++index)
    members["bl" + std::to_string(index)] = locationText(breakpoint.GetLocationAtIndex(index));
  return okResponseWith(std::move(members));
}

Json DebugSession::removeBreakpoint(std::int32_t id) {
  // Deliberate: an unknown id is no error. Hosts remove breakpoints that LLDB may have removed.
  target.BreakpointDelete(id);
  return okResponse();
}

Json DebugSession::removeAllBreakpoints() {
  if (!target.DeleteAllBreakpoints())
    return errorResponse(__func__, "cannot remove all breakpoints");
  return okResponse();
}

/// Calls `begin` to step the selected thread of a stopped process.
///
/// Deliberate: answers "ok" also when no step begins: no thread is selected, the process runs, or
/// LLDB refuses. Hosts wait for a step's events, not for its response, and without a step there is
/// no running event.
Json DebugSession::step(const std::function<void(lldb::SBThread &, lldb::SBError &)> &begin) {
  // LLDB returns no valid thread while it knows that the process runs. After a restarted stop it
  // may return a valid one although the process runs. A step would queue a plan in that thread, and
  // LLDB 14 to 19 show stale registers at the next stop.
  if (!process.GetSelectedThread().IsValid() || !runControl.mayResume(process)) return okResponse();
  runControl.forgetStepped();  // the event thread may be selecting the thread of the step before
  lldb::SBThread thread = process.GetSelectedThread();
  lldb::SBError error;
  runControl.setStepped(thread.GetThreadID());
  begin(thread, error);
  if (error.Fail()) runControl.setResumed(false);
  return okResponse();
}

Json DebugSession::stepInstruction() {
  constexpr bool overCalls = false;
  return step([](lldb::SBThread &thread, lldb::SBError &error) {
    thread.StepInstruction(overCalls, error);
  });
}

Json DebugSession::stepOver() {
  constexpr bool overCalls = true;
  return step([](lldb::SBThread &thread, lldb::SBError &error) {
    thread.StepInstruction(overCalls, error);
  });
}

Json DebugSession::stepOut() {
  return step([](lldb::SBThread &thread, lldb::SBError &error) { thread.StepOut(error); });
}

// Breakpoints at addresses, and steps of the selected thread.

#include <cstdio>
#include <functional>

#include "channel/Envelope.h"
#include "session/DebugSession.h"

namespace {

/// What a host is told of one location: its address in the process, or LLDB's invalid address, as
/// lowercase hexadecimal digits.
std::string locationText(lldb::SBBreakpointLocation location) {
  char text[48];
  std::snprintf(text, sizeof text, "load addr: %llx",
                static_cast<unsigned long long>(location.GetLoadAddress()));
  return text;
}

}  // namespace

Json DebugSession::setBreakpointAtVirtualAddress(std::uint64_t address) {
  if (!target.IsValid()) return errorResponse("setBreakpointAtVirtualAddress", "no target");
  lldb::SBBreakpoint breakpoint = target.BreakpointCreateByAddress(address);
  if (!breakpoint.IsValid())
    return errorResponse("setBreakpointAtVirtualAddress", "cannot create breakpoint");
  Json::object members{{"bkpt_id", std::int32_t{breakpoint.GetID()}}};
  for (std::uint32_t index = 0; index < breakpoint.GetNumLocations(); ++index)
    members["bl" + std::to_string(index)] = locationText(breakpoint.GetLocationAtIndex(index));
  return okResponseWith(std::move(members));
}

Json DebugSession::removeBreakpoint(std::int32_t id) {
  if (!target.IsValid()) return errorResponse("removeBreakpoint", "no target");
  // Deliberate: a breakpoint that is not there is removed as well as one that is.
  target.BreakpointDelete(id);
  return okResponse();
}

Json DebugSession::removeAllBreakpoints() {
  if (!target.IsValid()) return errorResponse("removeAllBreakpoints", "no target");
  if (!target.DeleteAllBreakpoints())
    return errorResponse("removeAllBreakpoints", "cannot remove all breakpoints");
  return okResponse();
}

/// Has `begin` step the selected thread of a stopped process. A step that cannot begin, because no
/// thread is selected or the process runs, is answered "ok" like any other: what tells the host is
/// that no stopped event follows.
Json DebugSession::step(const char *command,
                        const std::function<void(lldb::SBThread &, lldb::SBError &)> &begin) {
  lldb::SBProcess current = currentProcess();
  if (!current.IsValid()) return errorResponse(command, "no process");
  lldb::SBThread thread = current.GetSelectedThread();
  // A running process has no valid thread. A thread that LLDB would step all the same, because it
  // has not noticed yet that the process runs, must not be: the step is noted beside whatever
  // LLDB's own thread does, and LLDB 14 to 19 show the next stop with the registers of an earlier
  // one.
  if (!thread.IsValid() || !eventThread.mayResume(current)) return okResponse();
  lldb::SBError error;
  eventThread.setResumed(true);
  begin(thread, error);
  if (error.Fail()) eventThread.setResumed(false);
  return okResponse();
}

Json DebugSession::stepInstruction() {
  constexpr bool overCalls = false;
  return step("stepInstruction", [](lldb::SBThread &thread, lldb::SBError &error) {
    thread.StepInstruction(overCalls, error);
  });
}

Json DebugSession::stepOver() {
  constexpr bool overCalls = true;
  return step("stepOver", [](lldb::SBThread &thread, lldb::SBError &error) {
    thread.StepInstruction(overCalls, error);
  });
}

Json DebugSession::stepOut() {
  return step("stepOut",
              [](lldb::SBThread &thread, lldb::SBError &error) { thread.StepOut(error); });
}

// Breakpoints at addresses, and steps of the selected thread.

#include <cstdio>

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

/// The selected thread of a process that is stopped. Of a running one none, which LLDB steps
/// without doing anything: a real one's step is noted although the process runs, beside whatever
/// LLDB's own thread does with it, and LLDB 14 to 19 show the next stop with the registers of an
/// earlier one.
lldb::SBThread threadToStep(lldb::SBProcess &process) {
  lldb::SBThread thread = process.GetSelectedThread();
  return thread.IsValid() ? thread : lldb::SBThread();
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

// A step that LLDB cannot begin, because no thread is selected or the process runs, is answered
// "ok" like any other: what tells the host is that no stopped event follows.

Json DebugSession::stepInstruction() {
  lldb::SBProcess current = currentProcess();
  if (!current.IsValid()) return errorResponse("stepInstruction", "no process");
  constexpr bool stepOverCalls = false;
  threadToStep(current).StepInstruction(stepOverCalls);
  return okResponse();
}

Json DebugSession::stepOver() {
  lldb::SBProcess current = currentProcess();
  if (!current.IsValid()) return errorResponse("stepOver", "no process");
  constexpr bool stepOverCalls = true;
  threadToStep(current).StepInstruction(stepOverCalls);
  return okResponse();
}

Json DebugSession::stepOut() {
  lldb::SBProcess current = currentProcess();
  if (!current.IsValid()) return errorResponse("stepOut", "no process");
  threadToStep(current).StepOut();
  return okResponse();
}

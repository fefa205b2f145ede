// The commands that query, resume, interrupt, kill, detach or delete the process.

#include "channel/Envelope.h"
#include "events/StateName.h"
#include "session/DebugSession.h"
#include "session/Outcome.h"

namespace {

/// LLDB's own words for a process that runs.
constexpr char runsAlready[] = "resume request failed - process already running";

}  // namespace

Json DebugSession::detach() {
  lldb::SBProcess current = currentProcess();
  if (!current.IsValid()) return errorResponse("detach", "no process");
  // Deliberate: target and event thread stay, so that the host learns of the detached state as an
  // event. The next run needs a deleteProcess first.
  eventThread.halt(current);
  current.Detach();
  return okResponse();
}

Json DebugSession::deleteProcess() {
  lldb::SBProcess current = currentProcess();
  if (!current.IsValid()) return errorResponse("deleteProcess", "no process");
  eventThread.halt(current);
  eventThread.stop();
  current.Destroy();
  applicationInput.reset();
  discardTarget();
  return okResponse();
}

Json DebugSession::hasProcess() {
  if (!currentProcess().IsValid()) return errorResponse("hasProcess", "no process");
  return okResponse();
}

Json DebugSession::getProcessState() {
  if (!target.IsValid()) return errorResponse("getProcessState", "no target");
  process = target.GetProcess();
  if (!process.IsValid()) return errorResponse("getProcessState", "no process");
  const lldb::StateType state = process.GetState();
  return okResponseWith(
      {{"state", static_cast<std::int32_t>(state)}, {"state-string", stateName(state)}});
}

Json DebugSession::continueExecution() {
  if (!target.IsValid()) return errorResponse("continueExecution", "no target");
  process = target.GetProcess();
  if (!process.IsValid()) return errorResponse("continueExecution", "no process");
  if (!eventThread.mayResume(process)) return errorResponse("continueExecution", runsAlready);
  eventThread.setResumed(true);
  const lldb::SBError error = process.Continue();
  if (error.Fail()) eventThread.setResumed(false);
  return error.Success() ? okResponse() : errorResponse("continueExecution", errorText(error));
}

Json DebugSession::stopExecution() {
  process = currentProcess();
  if (!process.IsValid()) return errorResponse("stopExecution", "no process");
  eventThread.halt(process);
  process.Kill();
  return okResponse();
}

Json DebugSession::breakExecution() {
  process = currentProcess();
  if (!process.IsValid()) return errorResponse("breakExecution", "no process");
  process.SendAsyncInterrupt();
  return okResponse();
}

// The commands that query, resume, interrupt, kill, detach or delete the process.

#include "channel/Envelope.h"
#include "events/StateName.h"
#include "session/DebugSession.h"
#include "session/LldbError.h"

namespace {

/// LLDB's own message for a process that runs.
constexpr char runsAlready[] = "resume request failed - process already running";

}  // namespace

Json DebugSession::detach() {
  if (!refreshProcess().IsValid()) return errorResponse("detach", "no process");
  // Deliberate: the target and the event thread stay, so that the host receives the detached state
  // as an event. A host sends deleteProcess before the next run.
  eventThread.halt(process);
  process.Detach();
  return okResponse();
}

Json DebugSession::deleteProcess() {
  if (!refreshProcess().IsValid()) return errorResponse("deleteProcess", "no process");
  eventThread.halt(process);
  eventThread.waitForPendingStateEvents(process);  // the exit, if stopExecution came right before
  eventThread.stop();
  process.Destroy();
  inferiorInput.reset();
  discardTarget();
  return okResponse();
}

Json DebugSession::hasProcess() {
  if (!refreshProcess().IsValid()) return errorResponse("hasProcess", "no process");
  return okResponse();
}

Json DebugSession::getProcessState() {
  if (!target.IsValid()) return errorResponse("getProcessState", "no target");
  if (!refreshProcess().IsValid()) return errorResponse("getProcessState", "no process");
  const lldb::StateType state = process.GetState();
  return okResponseWith(
      {{"state", static_cast<std::int32_t>(state)}, {"state-string", stateName(state)}});
}

Json DebugSession::continueExecution() {
  if (!target.IsValid()) return errorResponse("continueExecution", "no target");
  if (!refreshProcess().IsValid()) return errorResponse("continueExecution", "no process");
  if (!eventThread.mayResume(process)) return errorResponse("continueExecution", runsAlready);
  eventThread.setResumed(true);
  const lldb::SBError error = process.Continue();
  if (error.Fail()) eventThread.setResumed(false);
  return error.Success() ? okResponse() : errorResponse("continueExecution", errorText(error));
}

Json DebugSession::stopExecution() {
  if (!refreshProcess().IsValid()) return errorResponse("stopExecution", "no process");
  eventThread.halt(process);
  process.Kill();
  return okResponse();
}

Json DebugSession::breakExecution() {
  if (!refreshProcess().IsValid()) return errorResponse("breakExecution", "no process");
  process.SendAsyncInterrupt();
  return okResponse();
}

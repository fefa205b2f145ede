// The commands that query, resume, interrupt, kill, detach or delete the process.

#include "channel/Envelope.h"
#include "events/StateName.h"
#include "session/DebugSession.h"
#include "session/LldbError.h"

namespace {

/// Deliberate: always this text, which hosts know. LLDB is not asked, and may word its own
/// otherwise: after a restarted stop it may accept the resume (RunControl::mayResume).
constexpr char runsAlready[] = "resume request failed - process already running";

}  // namespace

Json DebugSession::detach() {
  // Deliberate: the target and the event thread stay, so that the host receives the detached state
  // as an event. A host sends deleteProcess before the next run.
  runControl.haltProcess(process);
  if (process.Detach().Fail()) reportStopAfterFailedEnd();
  return okResponse();
}

void DebugSession::reportStopAfterFailedEnd() {
  if (process.GetState() == lldb::eStateStopped) runControl.reportHiddenStop();
}

Json DebugSession::deleteProcess() {
  runControl.haltProcess(process);
  endReports(process);  // the exit is one of them, if stopExecution came right before
  process.Destroy();
  discardTarget();
  return okResponse();
}

void DebugSession::forgetTarget(const lldb::SBProcess &itsProcess) {
  endReports(itsProcess);
  discardTarget();
}

Json DebugSession::hasProcess() { return okResponse(); }  // its row needs a process

Json DebugSession::getProcessState() {
  const lldb::StateType state = process.GetState();
  return okResponseWith(
      {{"state", static_cast<std::int32_t>(state)}, {"state-string", stateName(state)}});
}

Json DebugSession::continueExecution() {
  if (!runControl.mayResume(process)) return errorResponse(__func__, runsAlready);
  runControl.setResumed(true);
  const lldb::SBError error = process.Continue();
  if (error.Fail()) runControl.setResumed(false);
  return error.Success() ? okResponse() : errorResponse(__func__, errorText(error));
}

Json DebugSession::stopExecution() {
  runControl.haltProcess(process);
  if (process.Kill().Fail()) reportStopAfterFailedEnd();
  return okResponse();
}

Json DebugSession::breakExecution() {
  process.SendAsyncInterrupt();
  return okResponse();
}

#include "events/RunControl.h"

#include <chrono>
#include <functional>
#include <optional>
#include <thread>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto bound = 2s;
constexpr auto pollPeriod = 100us;

/// How often haltProcess interrupts the process. LLDB drops an interrupt that arrives while it
/// resumes the process after a restarted stop.
constexpr auto interruptPeriod = 100ms;

void waitWhile(const std::function<bool()> &holds) {
  const auto end = Clock::now() + bound;
  while (holds() && Clock::now() < end) std::this_thread::sleep_for(pollPeriod);
}

/// Whether LLDB returns no valid thread. It returns none in the time between a resume and the
/// taking of the next stop's event.
bool hasNoThread(lldb::SBProcess &process) { return !process.GetSelectedThread().IsValid(); }

/// Whether the process runs as far as LLDB shows: its state is running, or it is a "stopped" that
/// is not up to date.
bool seemsToRun(lldb::SBProcess &process) {
  switch (process.GetState()) {  // read once: it may change
    case lldb::eStateRunning:
    case lldb::eStateStepping: return true;
    case lldb::eStateStopped: return hasNoThread(process);
    default: return false;
  }
}

}  // namespace

RunControl::RunControl(lldb::SBDebugger debugger, EventThread &eventThread,
                       ReportedState &reportedState)
    : debugger(debugger), eventThread(eventThread), reportedState(reportedState) {}

void RunControl::waitForFirstState() {
  if (eventThread.isStarted()) reportedState.waitForFirstState(bound);
}

void RunControl::dropEventsWithoutThread() {
  lldb::SBEvent event;
  while (!eventThread.isStarted() && debugger.GetListener().GetNextEvent(event)) continue;
}

void RunControl::waitForQueuedStates(lldb::SBProcess process) {
  dropEventsWithoutThread();
  if (!eventThread.isStarted()) return;
  lldb::SBListener listener = debugger.GetListener();
  std::optional<std::uint32_t> takenWhileQueued;
  waitWhile([&] {
    const std::uint32_t taken = reportedState.takenCount();
    if (isStateChangeQueued(process, listener)) takenWhileQueued = taken;
    // LLDB removes an event from the queue before it changes its state of the process. So a state
    // that was queued is awaited until it is taken in.
    if (takenWhileQueued == taken) return true;
    const bool isStopped = process.GetState() == lldb::eStateStopped;
    return isStopped && (reportedState.isRunning() || hasNoThread(process));
  });
}

bool RunControl::mayResume(lldb::SBProcess process) {
  dropEventsWithoutThread();
  if (!eventThread.isStarted()) return true;
  for (const auto end = Clock::now() + bound; Clock::now() < end;
       std::this_thread::sleep_for(pollPeriod)) {
    const lldb::StateType state = process.GetState();
    if (!reportedState.isRunning()) return true;
    // If the process has ended, the attempt to resume it shows LLDB's reason.
    if (state != lldb::eStateStopped) return state != lldb::eStateRunning;
  }
  return true;
}

void RunControl::setResumed(bool resumed) {
  forgetStepped();
  if (resumed) reportedState.showStops();
  reportedState.setRunning(resumed);
}

void RunControl::setStepped(std::uint64_t threadId) {
  setResumed(true);
  reportedState.setStepped(threadId);
}

void RunControl::forgetStepped() { reportedState.forgetStepped(bound); }

void RunControl::reportHiddenStop() {
  reportedState.showStops();
  eventThread.reportHiddenStop();
}

bool RunControl::processRuns(lldb::SBProcess &process) const {
  return (eventThread.isStarted() && reportedState.isRunning()) || seemsToRun(process);
}

void RunControl::haltProcess(lldb::SBProcess process) {
  reportedState.hideStopsOf(process.GetUniqueID());
  forgetStepped();
  dropEventsWithoutThread();
  if (!processRuns(process)) return;
  auto nextInterrupt = Clock::now();
  waitWhile([&] {
    if (Clock::now() >= nextInterrupt) {
      process.SendAsyncInterrupt();
      nextInterrupt = Clock::now() + interruptPeriod;
    }
    dropEventsWithoutThread();
    return processRuns(process);
  });
}

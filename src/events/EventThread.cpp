#include "events/EventThread.h"

#include <chrono>
#include <functional>
#include <future>
#include <optional>

#include "events/EventMonitor.h"
#include "platform/Log.h"

namespace {

using namespace std::chrono_literals;

constexpr auto bound = 2s;
constexpr auto pause = 100us;

/// LLDB drops an interrupt that arrives while it resumes the process after a restarted stop.
constexpr auto interruptPeriod = 100ms;

void waitWhile(const std::function<bool()> &holds) {
  const auto end = std::chrono::steady_clock::now() + bound;
  while (holds() && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(pause);
}

/// LLDB returns no valid thread from a resume until the event of the next stop is taken.
bool hasNoThread(lldb::SBProcess &process) { return !process.GetSelectedThread().IsValid(); }

bool runsForLldb(lldb::SBProcess &process) {
  switch (process.GetState()) {  // read once: it may change
    case lldb::eStateRunning:
    case lldb::eStateStepping: return true;
    case lldb::eStateStopped: return hasNoThread(process);
    default: return false;
  }
}

}  // namespace

bool isStateChangePending(lldb::SBProcess process, lldb::SBListener listener) {
  lldb::SBEvent event;
  return listener.PeekAtNextEventForBroadcasterWithType(
      process.GetBroadcaster(), lldb::SBProcess::eBroadcastBitStateChanged, event);
}

EventThread::EventThread(lldb::SBDebugger debugger, MessageChannel &channel)
    : debugger(debugger), channel(channel) {
  this->debugger.GetListener().StartListeningForEvents(wakeupBroadcaster, EventMonitor::wakeupBit);
}

void EventThread::start(lldb::SBTarget target) {
  LOG_RECORD("Restarting event thread\n");
  stop();
  publicState.reset();
  lldb::SBProcess process = target.GetProcess();
  std::optional<lldb::StateType> unreportedInitialState;
  // Deliberate: LLDB 14 sends no event for the stop at entry, but hosts wait for one.
  if (!isStateChangePending(process, debugger.GetListener()) &&
      process.GetState() != lldb::eStateAttaching)
    unreportedInitialState = process.GetState();
  std::promise<void> listening;
  std::future<void> listens = listening.get_future();
  thread = std::thread(
      [this, target, unreportedInitialState, listening = std::move(listening)]() mutable {
        EventMonitor(debugger, target, channel, stopRequested, publicState, unreportedInitialState)
            .run(listening);
      });
  // The thread clears stopRequested before it listens. A request made earlier would be lost.
  listens.wait();
}

void EventThread::stop() {
  if (!isRunning()) return;
  stopRequested = true;
  wakeupBroadcaster.BroadcastEventByType(EventMonitor::wakeupBit);
  thread.join();
}

void EventThread::waitForFirstState() {
  if (isRunning()) publicState.waitForFirst(bound);
}

void EventThread::takeEvents() {
  lldb::SBEvent event;
  while (!isRunning() && debugger.GetListener().GetNextEvent(event)) continue;
}

void EventThread::waitForPendingStateEvents(lldb::SBProcess process) {
  takeEvents();
  if (!isRunning()) return;
  lldb::SBListener listener = debugger.GetListener();
  waitWhile([&] {
    const bool isStopped = process.GetState() == lldb::eStateStopped;
    return (isStopped && (publicState.isRunning() || hasNoThread(process))) ||
           isStateChangePending(process, listener);
  });
}

bool EventThread::mayResume(lldb::SBProcess process) {
  takeEvents();
  if (!isRunning()) return true;
  bool runs = false;
  lldb::StateType state = lldb::eStateInvalid;
  waitWhile([&] {
    state = process.GetState();
    runs = publicState.isRunning();
    return runs && state == lldb::eStateStopped;
  });
  return !runs || state != lldb::eStateRunning;
}

void EventThread::setResumed(bool resumed) {
  if (resumed) publicState.showStops();
  publicState.setRunning(resumed);
}

bool EventThread::isResumed(lldb::SBProcess &process) const {
  return (isRunning() && publicState.isRunning()) || runsForLldb(process);
}

void EventThread::halt(lldb::SBProcess process) {
  publicState.hideStopsOf(process.GetUniqueID());
  takeEvents();
  if (!isResumed(process)) return;
  auto nextInterrupt = std::chrono::steady_clock::now();
  waitWhile([&] {
    if (std::chrono::steady_clock::now() >= nextInterrupt) {
      process.SendAsyncInterrupt();
      nextInterrupt = std::chrono::steady_clock::now() + interruptPeriod;
    }
    takeEvents();
    return isResumed(process);
  });
}

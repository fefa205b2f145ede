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

/// LLDB drops an interrupt that comes while it resumes a process by itself.
constexpr auto interruptPeriod = 100ms;

void waitWhile(const std::function<bool()> &holds) {
  const auto end = std::chrono::steady_clock::now() + bound;
  while (holds() && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(pause);
}

/// LLDB hands out no valid thread from the resume itself until the event of the next stop is taken.
bool hasNoThread(lldb::SBProcess &process) { return !process.GetSelectedThread().IsValid(); }

bool runsForLldb(lldb::SBProcess &process) {
  switch (process.GetState()) {  // once: it may move meanwhile
    case lldb::eStateRunning:
    case lldb::eStateStepping: return true;
    case lldb::eStateStopped: return hasNoThread(process);
    default: return false;
  }
}

}  // namespace

bool stateChangeIsQueued(lldb::SBProcess process, lldb::SBListener listener) {
  lldb::SBEvent event;
  return listener.PeekAtNextEventForBroadcasterWithType(
      process.GetBroadcaster(), lldb::SBProcess::eBroadcastBitStateChanged, event);
}

EventThread::EventThread(lldb::SBDebugger debugger, MessageChannel &channel)
    : debugger(debugger), channel(channel) {
  this->debugger.GetListener().StartListeningForEvents(wakeup, EventMonitor::wakeupBit);
}

void EventThread::start(lldb::SBTarget target) {
  LOG_RECORD("Restarting event thread\n");
  stop();
  publicState.reset();
  lldb::SBProcess process = target.GetProcess();
  std::optional<lldb::StateType> silentState;
  // Deliberate: LLDB 14 sends no event for the stop at entry, and hosts wait for one.
  if (!stateChangeIsQueued(process, debugger.GetListener()) &&
      process.GetState() != lldb::eStateAttaching)
    silentState = process.GetState();
  std::promise<void> listening;
  std::future<void> listens = listening.get_future();
  thread = std::thread([this, target, silentState, listening = std::move(listening)]() mutable {
    EventMonitor(debugger, target, channel, stopRequested, publicState, silentState).run(listening);
  });
  // A stop requested before the thread has cleared the flag would be lost, so wait for it.
  listens.wait();
}

void EventThread::stop() {
  if (!isRunning()) return;
  stopRequested = true;
  wakeup.BroadcastEventByType(EventMonitor::wakeupBit);
  thread.join();
}

void EventThread::awaitFirstState() {
  if (isRunning()) publicState.awaitFirst(bound);
}

void EventThread::takeEvents() {
  lldb::SBEvent event;
  while (!isRunning() && debugger.GetListener().GetNextEvent(event)) continue;
}

void EventThread::awaitStates(lldb::SBProcess process) {
  takeEvents();
  if (!isRunning()) return;
  lldb::SBListener listener = debugger.GetListener();
  waitWhile([&] {
    const bool isStopped = process.GetState() == lldb::eStateStopped;
    return (isStopped && (publicState.isRunning() || hasNoThread(process))) ||
           stateChangeIsQueued(process, listener);
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

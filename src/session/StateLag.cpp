#include "session/StateLag.h"

#include <chrono>
#include <functional>
#include <thread>

namespace {

using namespace std::chrono_literals;

constexpr auto bound = 2s;
constexpr auto pause = 100us;

void waitWhile(const std::function<bool()> &holds) {
  const auto end = std::chrono::steady_clock::now() + bound;
  while (holds() && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(pause);
}

/// LLDB hands out no valid thread from the resume itself until the event of the next stop is taken.
bool hasNoThread(lldb::SBProcess &process) { return !process.GetSelectedThread().IsValid(); }

bool isResumed(lldb::SBProcess &process) {
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

void awaitQueuedStates(lldb::SBProcess process, lldb::SBListener listener) {
  waitWhile([&] {
    return (process.GetState() == lldb::eStateStopped && hasNoThread(process)) ||
           stateChangeIsQueued(process, listener);
  });
}

Halt::Halt(lldb::SBProcess process, std::atomic<bool> &stopsAreHidden)
    : stopsAreHidden(stopsAreHidden) {
  stopsAreHidden = true;
  if (!isResumed(process)) return;
  process.SendAsyncInterrupt();
  waitWhile([&] { return isResumed(process); });
}

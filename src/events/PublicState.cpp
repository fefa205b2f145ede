#include "events/PublicState.h"

void PublicState::reset() {
  const std::lock_guard lock(mutex);
  anyHandled = false;
  lastForHost = lldb::eStateInvalid;
  running = false;
  showStops();
}

void PublicState::taken(lldb::StateType state, bool isRestarted) {
  running = isRestarted || state == lldb::eStateRunning || state == lldb::eStateStepping;
}

bool PublicState::isForHost(lldb::StateType state, bool isRestarted, std::uint32_t processId) {
  if (isRestarted) return false;
  if (state == lldb::eStateRunning && lastForHost == state) return false;
  // A hidden stop is a stop all the same: the run after it, should there be one, is news.
  lastForHost = state;
  return state != lldb::eStateStopped || hiddenProcess != processId;
}

void PublicState::handled(bool isRestarted) {
  if (isRestarted) return;
  const std::lock_guard lock(mutex);
  anyHandled = true;
  changed.notify_all();
}

void PublicState::awaitFirst(std::chrono::milliseconds bound) {
  std::unique_lock lock(mutex);
  changed.wait_for(lock, bound, [this] { return anyHandled; });
}

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
  // A hidden stop counts: the host receives the running state after it.
  lastForHost = state;
  return state != lldb::eStateStopped || hiddenProcess != processId;
}

void PublicState::handled(bool isRestarted) {
  if (isRestarted) return;
  const std::lock_guard lock(mutex);
  anyHandled = true;
  changed.notify_all();
}

void PublicState::waitForFirst(std::chrono::milliseconds bound) {
  std::unique_lock lock(mutex);
  changed.wait_for(lock, bound, [this] { return anyHandled; });
}

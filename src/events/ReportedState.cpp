#include "events/ReportedState.h"

void ReportedState::reset() {
  const std::lock_guard lock(mutex);
  isFirstHandled = false;
  anyTaken = false;
  lastForHost = lldb::eStateInvalid;
  running = false;
  showStops();
}

bool ReportedState::take(lldb::StateType state, bool isRestarted, std::uint32_t processId) {
  running = isRestarted || state == lldb::eStateRunning || state == lldb::eStateStepping;
  if (isRestarted) return false;
  anyTaken = true;
  if (state == lldb::eStateRunning && lastForHost == state) return false;
  // A hidden stop counts: the host receives the running state after it.
  lastForHost = state;
  return state != lldb::eStateStopped || hiddenProcess != processId;
}

void ReportedState::setHandled() {
  if (!anyTaken) return;
  const std::lock_guard lock(mutex);
  isFirstHandled = true;
  changed.notify_all();
}

void ReportedState::waitForFirst(std::chrono::milliseconds bound) {
  std::unique_lock lock(mutex);
  changed.wait_for(lock, bound, [this] { return isFirstHandled; });
}

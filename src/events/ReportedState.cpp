#include "events/ReportedState.h"

void ReportedState::reset() {
  const MutexLock lock(mutex);
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
  const MutexLock lock(mutex);
  isFirstHandled = true;
  changed.notify_all();
}

void ReportedState::waitForFirst(std::chrono::milliseconds bound) {
  const auto end = std::chrono::steady_clock::now() + bound;
  const MutexLock lock(mutex);
  while (!isFirstHandled && changed.wait_until(mutex, end) == std::cv_status::no_timeout) continue;
}

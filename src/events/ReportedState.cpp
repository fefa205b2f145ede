#include "events/ReportedState.h"

#include <utility>

void ReportedState::reset() {
  const MutexLock lock(mutex);
  isFirstHandled = false;
  anyTaken = false;
  hasHiddenStop = false;
  steppedThread.reset();
  lastForHost = lldb::eStateInvalid;
  running = false;
  showStops();
}

bool ReportedState::take(lldb::StateType state, bool isRestarted, std::uint32_t processId) {
  const bool isForHost = !isRestarted && takeForHost(state, processId);
  if (isForHost && state == lldb::eStateStopped) {
    const MutexLock lock(mutex);
    isSelecting = true;
  }
  // Last: from here on the main thread may resume, and it waits for the selection first.
  running = isRestarted || state == lldb::eStateRunning || state == lldb::eStateStepping;
  ++taken;
  return isForHost;
}

bool ReportedState::takeForHost(lldb::StateType state, std::uint32_t processId) {
  anyTaken = true;
  hasHiddenStop = state == lldb::eStateStopped && hiddenProcess == processId;
  if (state == lldb::eStateRunning && lastForHost == state) return false;
  // A hidden stop counts: the host receives the running state after it.
  lastForHost = state;
  return !hasHiddenStop;
}

std::optional<std::uint64_t> ReportedState::takeStepped() {
  const MutexLock lock(mutex);
  return std::exchange(steppedThread, std::nullopt);
}

void ReportedState::endSelection() {
  const MutexLock lock(mutex);
  isSelecting = false;
  changed.notify_all();
}

bool ReportedState::takeHiddenStop() { return std::exchange(hasHiddenStop, false); }

void ReportedState::setHandled() {
  if (!anyTaken) return;
  const MutexLock lock(mutex);
  isFirstHandled = true;
  changed.notify_all();
}

void ReportedState::waitForFirstState(std::chrono::milliseconds bound) {
  const auto end = std::chrono::steady_clock::now() + bound;
  const MutexLock lock(mutex);
  while (!isFirstHandled && changed.wait_until(mutex, end) == std::cv_status::no_timeout) continue;
}

void ReportedState::setStepped(std::uint64_t threadId) {
  const MutexLock lock(mutex);
  steppedThread = threadId;
}

void ReportedState::forgetStepped(std::chrono::milliseconds bound) {
  const auto end = std::chrono::steady_clock::now() + bound;
  const MutexLock lock(mutex);
  while (isSelecting && changed.wait_until(mutex, end) == std::cv_status::no_timeout) continue;
  steppedThread.reset();
}

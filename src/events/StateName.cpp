#include "events/StateName.h"

#include <iterator>

namespace {

/// Indexed by lldb::StateType.
constexpr const char *stateNames[] = {
    "eStateInvalid",   "eStateUnloaded", "eStateConnected", "eStateAttaching",
    "eStateLaunching", "eStateStopped",  "eStateRunning",   "eStateStepping",
    "eStateCrashed",   "eStateDetached", "eStateExited",    "eStateSuspended",
};
static_assert(std::size(stateNames) == lldb::eStateSuspended + 1);

}  // namespace

std::string stateName(lldb::StateType state) {
  const auto index = static_cast<std::size_t>(state);
  return index < std::size(stateNames) ? stateNames[index] : "eStateUnknown";
}

#pragma once

#include <lldb/API/LLDB.h>

#include <string>

/// LLDB's name of a process state: "eStateInvalid" to "eStateSuspended". "eStateUnknown" for a
/// number that LLDB does not define.
std::string stateName(lldb::StateType state);

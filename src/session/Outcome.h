#pragma once

#include <lldb/API/LLDB.h>

#include <string>

// What LLDB's calls came to.

/// LLDB's text of an error, or nothing where it has none.
std::string errorText(const lldb::SBError &error);

/// Whether launching or attaching failed. LLDB may hand out a process that looks valid; what tells
/// it is the error together with a state from before the first instruction.
bool neverRan(lldb::SBProcess &process, const lldb::SBError &error);

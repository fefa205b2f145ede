#pragma once

#include <lldb/API/LLDB.h>

#include <string>

/// LLDB's text of an error. Empty when LLDB has no text.
std::string errorText(const lldb::SBError &error);

/// Whether a launch or an attach failed.
///
/// LLDB may return a valid process after a failure. The error together with a state from before the
/// start identifies it.
bool failedToStart(lldb::SBProcess &process, const lldb::SBError &error);

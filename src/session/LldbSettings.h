#pragma once

#include <lldb/API/LLDB.h>

/// Changes those of LLDB's settings that make it hang, or read more than it needs to. A person sees
/// them with "settings show" and changes them with "settings set". An LLDB that does not know a
/// setting goes on without it.
void changeSettings(lldb::SBDebugger &debugger);

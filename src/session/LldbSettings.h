#pragma once

#include <lldb/API/LLDB.h>

// LLDB's settings for loading modules, reading registers and unwinding. A person sees them with
// "settings show" and changes them with "settings set". An LLDB that does not know a setting goes
// on without it.

/// Has LLDB load the modules of a process one after the other, not each on a thread of its pool.
/// Otherwise two processes that load the same module at the same time may wait for each other
/// forever: a thread of the pool that reads the module's symbols waits for the pool, and there it
/// may begin the same module again. LLDB 14 to 19 have no such setting, and load one by one.
void loadModulesOneByOne(lldb::SBDebugger &debugger);

/// Has LLDB read all registers of a thread by one packet, not one packet for each.
void readRegistersAtOnce(lldb::SBDebugger &debugger);

/// Has LLDB unwind a stack without asking each language's runtime for a plan at each frame. Only
/// the Swift runtime has plans, for asynchronous functions, so an LLDB that knows Swift goes on
/// asking.
void unwindWithoutLanguageRuntimes(lldb::SBDebugger &debugger);

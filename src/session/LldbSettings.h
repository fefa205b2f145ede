#pragma once

#include <lldb/API/LLDB.h>

// LLDB's settings for loading modules and for reading registers and memory. A person sees them with
// "settings show" and changes them with "settings set". An LLDB that does not know a setting goes
// on without it.

/// Has LLDB load the modules of a process one after the other, not each on a thread of its pool.
/// Otherwise two processes that load the same module at the same time may wait for each other
/// forever: a thread of the pool that reads the module's symbols waits for the pool, and there it
/// may begin the same module again. LLDB 14 to 19 have no such setting, and load one by one.
void loadModulesOneByOne(lldb::SBDebugger &debugger);

/// Has LLDB read all registers of a thread by one packet, not one packet for each.
void readRegistersAtOnce(lldb::SBDebugger &debugger);

/// Has LLDB read the memory of the selected process in pieces of 1024 bytes, not 512, from its next
/// stop on: a stack is unwound in fewer packets. 2048 would make each stop dearer than it makes a
/// stack cheaper. LLDB leaves out a piece that crosses the end of a mapping, so the size must
/// divide the smallest page. A debugger's size that is not LLDB's default is a person's, and stays.
///
/// Not for connections: one may be slow, and its memory may hold a device's registers.
void readMemoryInLargePieces(lldb::SBDebugger &debugger);

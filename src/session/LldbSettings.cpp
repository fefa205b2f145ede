#include "session/LldbSettings.h"

#include <cstring>

void changeSettings(lldb::SBDebugger &debugger) {
  const auto set = [name = debugger.GetInstanceName()](const char *setting, const char *value) {
    lldb::SBDebugger::SetInternalVariable(setting, value, name);
  };
  // LLDB loads modules on a pool of threads, and two processes that load the same module at the
  // same time may wait for each other forever: a thread of the pool that reads the module's symbols
  // waits for the pool, and there it may begin the same module again. LLDB 14 to 19 have no such
  // setting, and load one by one.
  set("target.parallel-module-load", "false");
  // One packet reads all registers of a thread, not one packet each.
  set("plugin.process.gdb-remote.use-g-packet-for-reading", "true");
  // LLDB asks each language's runtime for a plan at each frame. Only the Swift runtime has plans,
  // for asynchronous functions. The version of an LLDB with Swift has a line "Swift version ...".
  if (std::strstr(lldb::SBDebugger::GetVersionString(), "Swift") == nullptr)
    set("target.process.disable-language-runtime-unwindplans", "true");
}

#pragma once

#include <lldb/API/LLDB.h>

#include <chrono>
#include <cstddef>
#include <string>

/// Changes those of LLDB's settings that make it hang, or read more than it needs to. A person sees
/// them with "settings show" and changes them with "settings set". An LLDB that does not know a
/// setting goes on without it.
void changeSettings(lldb::SBDebugger &debugger);

/// LLDB's patience with a debug server: how long it waits for the answer to one packet. A day if a
/// person has set more than that.
std::chrono::seconds packetTimeout(lldb::SBDebugger &debugger);

/// Switches LLDB's memory cache off while the object lives, if a read of `size` bytes could leave
/// bytes in the cache that go stale.
///
/// LLDB keeps memory that it has read in lines of 512 bytes (target.process.memory-cache-line-size)
/// until the process runs. A larger read stays as a block of its own. When two such blocks overlap,
/// a write drops only one of them, and the next read finds the old bytes in the other.
class UncachedRead {
 public:
  UncachedRead(lldb::SBDebugger &debugger, lldb::SBTarget &target, std::size_t size);
  /// Gives the setting the value that it had.
  ~UncachedRead();
  UncachedRead(const UncachedRead &) = delete;
  UncachedRead &operator=(const UncachedRead &) = delete;

 private:
  lldb::SBDebugger &debugger;
  /// LLDB's settings of a process are those of the selected target's process, and a person may have
  /// selected another target.
  lldb::SBTarget selected;
  std::string before;  ///< the setting's value. Empty: it was not changed
};

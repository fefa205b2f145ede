#pragma once

#include <lldb/API/LLDB.h>

#include <cstdint>

#include "json/Json.h"

// What several messages say about a module. For any thread.

/// The section whose load address locates a module, the one at index 1: __TEXT on macOS, after
/// __PAGEZERO. A module may have no such section. Then `section` is invalid, and both addresses are
/// LLDB's invalid address.
struct ImageBase {
  lldb::SBSection section;
  std::uint64_t fileAddress;
  std::uint64_t loadAddress;
  /// Deliberate: may wrap around, as the host's own arithmetic on addresses does.
  std::uint64_t slide() const { return loadAddress - fileAddress; }
};

ImageBase imageBase(lldb::SBModule module, lldb::SBTarget target);

/// Adds "uuid" and "filename" to `members`, those of the two that LLDB knows.
void addModuleName(Json::object &members, lldb::SBModule module);

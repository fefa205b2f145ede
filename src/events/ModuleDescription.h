#pragma once

#include <lldb/API/LLDB.h>

#include <cstdint>

#include "json/Json.h"

// What several messages say about a module. For any thread.

/// The section that locates a module for hosts: the one at index 1.
///
/// Deliberate: hosts know the addresses of this section, whatever it is. In an executable of macOS
/// it is __TEXT, after __PAGEZERO. Elsewhere it is the second segment or section: mostly not where
/// the module begins, but with the module's slide. A module may have no such section. Then
/// `section` is invalid, and both addresses are LLDB's invalid address.
struct ImageBase {
  lldb::SBSection section;
  std::uint64_t fileAddress;
  std::uint64_t loadAddress;
  /// Deliberate: wraps around if the module lies below its addresses in the file, as the host's own
  /// arithmetic on addresses does. Only attachToProcess shows that: moduleLoaded leaves such a
  /// module out.
  std::uint64_t slide() const { return loadAddress - fileAddress; }
};

ImageBase imageBase(lldb::SBModule module, lldb::SBTarget target);

/// Adds "uuid" and "filename" to `members`, those of the two that LLDB knows.
void addModuleName(Json::object &members, lldb::SBModule module);

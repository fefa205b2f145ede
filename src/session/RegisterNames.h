#pragma once

#include <lldb/API/LLDB.h>

#include <cstdint>
#include <string>
#include <vector>

/// Keeps the names of a process's registers. Asking LLDB for each name at each stop takes a tenth
/// of getRegisters' time. For the main thread only.
class RegisterNames {
 public:
  /// Returns the names of the registers in `set`, the set number `index` of a frame of `process`.
  /// The name of a register that getRegisters leaves out is empty. The reference is valid until the
  /// next call.
  ///
  /// Asks LLDB again for another process, and when the set's size or its first name has changed, as
  /// after an exec into a program for another processor.
  const std::vector<std::string> &of(lldb::SBProcess process, std::uint32_t index,
                                     lldb::SBValue set);

 private:
  struct Set {
    std::string firstName;
    std::vector<std::string> names;
  };

  std::uint32_t processId = 0;  ///< LLDB's unique id of a process begins with 1
  std::vector<Set> sets;
};

#pragma once

#include <lldb/API/LLDB.h>

#include <cstdint>
#include <string>
#include <vector>

/// The names of a process's registers. To ask LLDB for each name again at each stop would take a
/// tenth of getRegisters' time. For the main thread only.
class RegisterNames {
 public:
  /// The names in `set`, which is the set number `index` of a frame of `process`. The name of a
  /// register that getRegisters leaves out is empty. The reference is valid until the next call.
  ///
  /// Asks LLDB for the names again when they can be others: for another process, and after an exec
  /// into a program for another processor. Then the set's size or its first name differs.
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

#pragma once

#include <lldb/API/LLDB.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "json/Json.h"

/// Reads the registers of a frame as texts. For the main thread only.
///
/// A register's text is the text of its SBValue. If that has none, it is "0x" and the bytes, the
/// last one in memory first, or "<error>" if the bytes cannot be read. LLDB takes 8 microseconds to
/// make an SBValue, and there are more than a hundred. LLDB 18 and later format all registers at
/// once in a tenth of the time, through an SBFormat. A formatted text is used in place of the
/// value's text if all of this holds:
///
/// - The formatted text is a number, or a vector of numbers, in hexadecimal digits. A vector is
///   rewritten as "0x" and its bytes.
/// - The two texts of this register were equal once in this process. They are compared at the first
///   read at which the register has both. A register whose texts differed is not compared again:
///   they may agree by chance.
/// - LLDB's own debug server runs the process. Other servers may describe a register as an address,
///   and LLDB adds a description of the address to the value's text only.
/// - The machine is little-endian.
/// - All "type formats" of LLDB are now as they were at the start. They change the texts of values
///   only. A person's command line changes them, and so may the commands of a breakpoint or a stop
///   hook, at any later stop. So they are compared at each read, which takes a few microseconds.
class RegisterReader {
 public:
  explicit RegisterReader(lldb::SBDebugger &debugger);

  /// Returns the texts of the registers of `frame`, a frame of `process`. Leaves out ymm, zmm and
  /// registers without a name. If several sets have a register of one name, the last one's text is
  /// kept. An invalid frame has no registers.
  /// `hasOwnServer`: whether LLDB's own debug server runs the process.
  Json::object read(lldb::SBProcess process, lldb::SBFrame frame, bool hasOwnServer);

 private:
  struct Register {
    std::string name;
    std::optional<bool> isFormattedAsItsValue;
  };
  using Set = std::vector<Register>;

  /// A "type format", and what decides for which types it holds.
  struct TypeFormat {
    std::string category;
    bool isCategoryEnabled;
    std::uint32_t languageCount;  ///< of the category
    std::string typeName;
    bool isRegularExpression;
    lldb::Format format;
    std::uint32_t options;
    std::string enumeration;  ///< the type whose names are shown, if there is one
    bool operator==(const TypeFormat &) const = default;
  };

  /// Returns those of all categories, in LLDB's order. Categories without formats change no text.
  std::vector<TypeFormat> currentFormats();

  bool isFormattedTextUsable(lldb::SBProcess &process, bool hasOwnServer);
  bool areNamesCurrent(lldb::SBValueList &values) const;
  void findNames(lldb::SBValueList &values);

  lldb::SBDebugger debugger;
  const std::vector<TypeFormat> initialFormats;
  std::uint32_t processOfSets = 0;  ///< LLDB's unique id, which begins with 1
  std::vector<Set> sets;
  /// Returns a line for each register of `sets` that is not left out. The line is empty if the
  /// register has no value. Null: LLDB 14 to 17, or a format that LLDB does not understand.
  std::function<std::string(lldb::SBFrame &)> formatRegisters;
};

#pragma once

#include <lldb/API/LLDB.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "json/Json.h"

/// Reads the registers of a frame as texts. For the main thread only.
///
/// A register's text is the text of its SBValue. LLDB takes 8 microseconds to make one, and there
/// are more than a hundred. LLDB's command "register read --all" prints all of them in an eighth of
/// the time. A register is read from that listing if its text there is the value's text:
///
/// - The listing has hexadecimal digits for it.
/// - The listing had the value's text when the two were compared, once in the process's life.
/// - The machine is little-endian, and nobody has added or deleted a "type format". That changes
/// the
///   texts of values only.
///
/// All registers are read as values while LLDB keeps a transcript of commands, because listings
/// would fill it. LLDB 14 to 18 always keep one.
class RegisterReader {
 public:
  explicit RegisterReader(lldb::SBDebugger &debugger);

  /// Returns the texts of all registers of `frame`, a frame of `process`. If several register sets
  /// have the same name, the last one's text is kept. An invalid frame has no registers.
  ///
  /// `mayRunCommand`: no other thread uses LLDB's command line now.
  Json::object read(lldb::SBProcess process, lldb::SBFrame frame, bool mayRunCommand);

 private:
  struct Register {
    std::string name;
    std::optional<bool> isListedAsItsValue;
  };
  /// A line of LLDB's listing. The views end with the listing.
  struct Line {
    std::string_view name, value;
  };
  using Texts = std::vector<Json::object::value_type>;

  bool isListingUsable(lldb::SBProcess &process);
  static bool haveNames(const std::vector<Register> &registers, const std::vector<Line> &lines);
  static void findRegisters(lldb::SBValue &set, std::vector<Register> &registers);
  static void appendTexts(Texts &texts, lldb::SBValue &set, std::vector<Register> &registers,
                          const std::vector<Line> &lines);
  static std::vector<std::vector<Line>> linesBySet(std::string_view listing);

  lldb::SBDebugger debugger;
  const std::size_t initialTypeFormats;
  std::uint32_t processId = 0;  ///< of `sets`; LLDB's unique id of a process begins with 1
  std::vector<std::vector<Register>> sets;
};

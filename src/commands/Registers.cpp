// The registers of the selected thread's selected frame, as texts.

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "channel/Envelope.h"
#include "json/HexDigits.h"
#include "session/DebugSession.h"
#include "session/LldbError.h"

namespace {

/// Returns "0x" and the register's bytes, the last byte in memory first. On a little-endian machine
/// that is how the number is written. For registers that LLDB does not print as one value.
std::string registerValueToHex(lldb::SBValue value) {
  lldb::SBData data = value.GetData();
  std::string text = "0x";
  // Reads even when there are zero bytes: a register that LLDB cannot recover in an outer frame has
  // no bytes, and only the read fails.
  std::size_t end = data.GetByteSize();
  do {
    unsigned char piece[64];
    const std::size_t count = std::min(end, sizeof piece);
    end -= count;
    lldb::SBError error;
    data.ReadRawData(error, end, piece, count);
    if (!error.Success()) return "<error>";
    for (std::size_t at = count; at > 0; --at) appendHex(text, piece[at - 1]);
  } while (end > 0);
  return text;
}

/// Appends the registers of one set, each under its name. A register without a name is left out.
///
/// A register has neither a dynamic type nor synthetic children. Looking for them takes a third of
/// the time.
void appendRegisters(std::vector<Json::object::value_type> &registers, lldb::SBValue set,
                     const std::vector<std::string> &names) {
  constexpr bool canBeSynthetic = false;
  set.SetPreferSyntheticValue(canBeSynthetic);  // holds for its children too
  for (std::uint32_t index = 0; index < names.size(); ++index) {
    if (names[index].empty()) continue;
    lldb::SBValue value = set.GetChildAtIndex(index, lldb::eNoDynamicValues, canBeSynthetic);
    const char *text = value.GetValue();
    registers.emplace_back(names[index],
                           text != nullptr ? Json(text) : Json(registerValueToHex(value)));
  }
}

}  // namespace

Json DebugSession::getRegisters() {
  if (!refreshProcess().IsValid()) return errorResponse("getRegisters", "no process");
  lldb::SBValueList sets = process.GetSelectedThread().GetSelectedFrame().GetRegisters();
  std::vector<Json::object::value_type> registers;
  for (std::uint32_t index = 0; index < sets.GetSize(); ++index) {
    lldb::SBValue set = sets.GetValueAtIndex(index);
    appendRegisters(registers, set, registerNames.of(process, index, set));
  }
  // A name that several sets have keeps the last set's value.
  return okResponseWith({{"registers", Json::object(std::move(registers))}});
}

Json DebugSession::setRegister(const std::string &name, const std::string &value) {
  if (!refreshProcess().IsValid()) return errorResponse("setRegister", "no process");
  lldb::SBValue found = process.GetSelectedThread().GetSelectedFrame().FindRegister(name.c_str());
  if (!found.IsValid()) return errorResponse("setRegister", "register not found");
  lldb::SBError error;
  if (!found.SetValueFromCString(value.c_str(), error))
    return errorResponse("setRegister", "cannot set the register value: " + errorText(error));
  return okResponse();
}

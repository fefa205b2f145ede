// The registers of the selected thread's selected frame, as texts.

#include <algorithm>
#include <string_view>

#include "channel/Envelope.h"
#include "json/HexDigits.h"
#include "session/DebugSession.h"
#include "session/Outcome.h"

namespace {

/// Deliberate: the wide vector registers stay out. They hold the xmm registers, which are there,
/// and would double the answer.
bool isLeftOut(std::string_view name) { return name.starts_with("ymm") || name.starts_with("zmm"); }

/// "0x" and the register's bytes, the last one in memory first: on a little-endian machine, as the
/// number would be written. For registers that LLDB does not print as one value.
std::string registerValueToHex(lldb::SBValue value) {
  lldb::SBData data = value.GetData();
  std::string text = "0x";
  // A register that LLDB cannot recover in an outer frame has no bytes, and reading them fails: so
  // zero bytes are read too.
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

/// Adds one set's registers. A name that is there already takes the later set's value.
///
/// A register has neither a dynamic type nor synthetic children. To look for them would cost a
/// third of the time.
void addRegisters(Json::object &registers, lldb::SBValue set) {
  constexpr bool canBeSynthetic = false;
  set.SetPreferSyntheticValue(canBeSynthetic);
  const std::uint32_t count = set.GetNumChildren();
  for (std::uint32_t index = 0; index < count; ++index) {
    lldb::SBValue value = set.GetChildAtIndex(index, lldb::eNoDynamicValues, canBeSynthetic);
    value.SetPreferSyntheticValue(canBeSynthetic);
    const char *name = value.GetName();
    if (name == nullptr || isLeftOut(name)) continue;
    const char *text = value.GetValue();
    registers[name] = text != nullptr ? Json(text) : Json(registerValueToHex(value));
  }
}

}  // namespace

Json DebugSession::getRegisters() {
  process = currentProcess();
  if (!process.IsValid()) return errorResponse("getRegisters", "no process");
  lldb::SBValueList sets = process.GetSelectedThread().GetSelectedFrame().GetRegisters();
  Json::object registers;
  for (std::uint32_t index = 0; index < sets.GetSize(); ++index)
    addRegisters(registers, sets.GetValueAtIndex(index));
  return okResponseWith({{"registers", std::move(registers)}});
}

Json DebugSession::setRegister(const std::string &name, const std::string &value) {
  lldb::SBProcess current = currentProcess();
  if (!current.IsValid()) return errorResponse("setRegister", "no process");
  lldb::SBValue found = current.GetSelectedThread().GetSelectedFrame().FindRegister(name.c_str());
  if (!found.IsValid()) return errorResponse("setRegister", "register not found");
  lldb::SBError error;
  if (!found.SetValueFromCString(value.c_str(), error))
    return errorResponse("setRegister", "cannot set the register value: " + errorText(error));
  return okResponse();
}

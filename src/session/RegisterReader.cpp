#include "session/RegisterReader.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "json/HexDigits.h"

namespace {

constexpr bool canBeSynthetic = false;

/// Deliberate: the wide vector registers are left out. They contain the xmm registers, which hosts
/// show, and would double the response.
bool isLeftOut(const std::string &name) {
  return name.starts_with("ymm") || name.starts_with("zmm");
}

std::string nameAt(lldb::SBValue &set, std::uint32_t index) {
  const char *name = set.GetChildAtIndex(index, lldb::eNoDynamicValues, canBeSynthetic).GetName();
  return name != nullptr ? name : "";
}

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

/// A register has neither a dynamic type nor synthetic children. Looking for them takes a third of
/// the time.
std::string valueText(lldb::SBValue &set, std::uint32_t index) {
  lldb::SBValue value = set.GetChildAtIndex(index, lldb::eNoDynamicValues, canBeSynthetic);
  const char *text = value.GetValue();
  return text != nullptr ? text : registerValueToHex(value);
}

bool isHex(std::string_view text) {
  return text.size() > 2 && text.starts_with("0x") &&
         text.substr(2).find_first_not_of("0123456789abcdef") == text.npos;
}

/// Returns the text that getRegisters has for what a listing has after a register's name. Empty if
/// it is neither a number, alone or with two spaces and a description, nor a vector of numbers:
///
///     0x0000000000401136  steps`leaf + 4 at steps.c:8
///     {0x01 0x00 0x5a 0xff}
///
/// One space and a description are a part of the value.
std::string textFromListing(std::string_view printed) {
  if (!printed.starts_with('{')) {
    const std::string_view number = printed.substr(0, printed.find(' '));
    const std::string_view rest = printed.substr(number.size());
    return isHex(number) && (rest.empty() || rest.starts_with("  ")) ? std::string(number) : "";
  }
  if (!printed.ends_with('}')) return "";
  printed = printed.substr(1, printed.size() - 2);
  std::string text = "0x";
  while (!printed.empty()) {
    const std::size_t space = printed.rfind(' ');
    const std::string_view item = space == printed.npos ? printed : printed.substr(space + 1);
    if (!isHex(item)) return "";
    text += item.substr(2);
    printed = printed.substr(0, space == printed.npos ? 0 : space);
  }
  return text;
}

void printRegisters(lldb::SBDebugger &debugger, const lldb::SBFrame &frame,
                    lldb::SBCommandReturnObject &listing) {
  lldb::SBExecutionContext context(frame);
  constexpr bool addToHistory = false;
  debugger.GetCommandInterpreter().HandleCommand("register read --all", context, listing,
                                                 addToHistory);
}

std::size_t countTypeFormats(lldb::SBDebugger &debugger) {
  std::size_t count = 0;
  for (std::uint32_t index = 0; index < debugger.GetNumCategories(); ++index)
    count += debugger.GetCategoryAtIndex(index).GetNumFormats();
  return count;
}

}  // namespace

RegisterReader::RegisterReader(lldb::SBDebugger &debugger)
    : debugger(debugger), initialTypeFormats(countTypeFormats(this->debugger)) {}

Json::object RegisterReader::read(lldb::SBProcess process, lldb::SBFrame frame,
                                  bool mayRunCommand) {
  if (processId != process.GetUniqueID()) sets.clear();
  processId = process.GetUniqueID();
  lldb::SBValueList values = frame.GetRegisters();
  const std::uint32_t count = values.GetSize();
  lldb::SBCommandReturnObject listing;
  if (count > 0 && mayRunCommand && isListingUsable(process))
    printRegisters(debugger, frame, listing);
  std::vector<std::vector<Line>> lines =
      linesBySet(listing.GetOutput() != nullptr ? listing.GetOutput() : "");
  lines.resize(count);
  sets.resize(count);
  Texts texts;
  for (std::uint32_t index = 0; index < count; ++index) {
    lldb::SBValue set = values.GetValueAtIndex(index);
    set.SetPreferSyntheticValue(canBeSynthetic);  // holds for its children too
    if (!haveNames(sets[index], lines[index])) findRegisters(set, sets[index]);
    appendTexts(texts, set, sets[index], lines[index]);
  }
  return Json::object(std::move(texts));
}

bool RegisterReader::isListingUsable(lldb::SBProcess &process) {
  lldb::SBStringList keepsTranscript = lldb::SBDebugger::GetInternalVariableValue(
      "interpreter.save-transcript", debugger.GetInstanceName());
  return keepsTranscript.GetSize() == 1 &&
         std::strcmp(keepsTranscript.GetStringAtIndex(0), "false") == 0 &&
         process.GetByteOrder() == lldb::eByteOrderLittle &&
         countTypeFormats(debugger) == initialTypeFormats;
}

/// A register set begins with its name and a colon. Its registers are lines of spaces, a name,
/// " = " and a value.
std::vector<std::vector<RegisterReader::Line>> RegisterReader::linesBySet(
    std::string_view listing) {
  std::vector<std::vector<Line>> sets;
  while (!listing.empty()) {
    const std::size_t length = std::min(listing.find('\n'), listing.size());
    std::string_view line = listing.substr(0, length);
    listing.remove_prefix(std::min(length + 1, listing.size()));
    if (line.ends_with(':')) sets.emplace_back();
    line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
    const std::size_t equals = line.find(" = ");
    if (equals != line.npos && !sets.empty())
      sets.back().push_back({line.substr(0, equals), line.substr(equals + std::strlen(" = "))});
  }
  return sets;
}

bool RegisterReader::haveNames(const std::vector<Register> &registers,
                               const std::vector<Line> &lines) {
  return !registers.empty() &&
         std::equal(registers.begin(), registers.end(), lines.begin(), lines.end(),
                    [](const Register &one, const Line &line) { return one.name == line.name; });
}

/// Asks LLDB for the names only where the set's size or its first name has changed, as after an
/// exec into a program for another processor. The names take a tenth of the time.
void RegisterReader::findRegisters(lldb::SBValue &set, std::vector<Register> &registers) {
  const std::uint32_t count = set.GetNumChildren();
  if (registers.size() == count && count > 0 && registers[0].name == nameAt(set, 0)) return;
  registers.clear();
  for (std::uint32_t at = 0; at < count; ++at) registers.push_back({nameAt(set, at), {}});
}

void RegisterReader::appendTexts(Texts &texts, lldb::SBValue &set, std::vector<Register> &registers,
                                 const std::vector<Line> &lines) {
  auto line = lines.begin();
  for (std::uint32_t index = 0; index < registers.size(); ++index) {
    auto &[name, isListedAsItsValue] = registers[index];
    const auto found = std::find_if(line, lines.end(), [&name = name](const Line &candidate) {
      return candidate.name == name;
    });
    if (found != lines.end()) line = found + 1;
    if (name.empty() || isLeftOut(name)) continue;
    std::string text = found != lines.end() ? textFromListing(found->value) : "";
    if (text.empty() || !isListedAsItsValue.value_or(false)) {
      std::string value = valueText(set, index);
      if (!text.empty()) isListedAsItsValue = value == text;
      text = std::move(value);
    }
    texts.emplace_back(name, std::move(text));
  }
}

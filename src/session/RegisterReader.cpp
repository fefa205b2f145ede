#include "session/RegisterReader.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

#include "json/HexDigits.h"

namespace {

constexpr bool canBeSynthetic = false;

/// Deliberate: the wide vector registers are left out. They contain the xmm registers, which hosts
/// show, and would double the response.
///
/// So is a register without a name.
bool isLeftOut(const std::string &name) {
  return name.empty() || name.starts_with("ymm") || name.starts_with("zmm");
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

constexpr std::string_view prefix = "0x";

bool isHex(std::string_view text) {
  return text.size() > prefix.size() && text.starts_with(prefix) &&
         text.find_first_not_of("0123456789abcdef", prefix.size()) == text.npos;
}

/// Returns getRegisters' text for a register that LLDB has formatted as a number or as a vector:
/// "0x0000000000401136", "{0x01 0x00 0x5a 0xff}". Empty for every other text.
std::string textFromFormatted(std::string_view formatted) {
  if (isHex(formatted)) return std::string(formatted);
  if (!formatted.starts_with('{') || !formatted.ends_with('}')) return "";
  std::string_view items = formatted.substr(1, formatted.size() - 2);
  std::string text(prefix);
  while (!items.empty()) {
    const std::string_view item = items.substr(0, items.find(' '));
    if (!isHex(item)) return "";
    text.insert(prefix.size(), item.substr(prefix.size()));  // the first in memory stands last
    items.remove_prefix(std::min(item.size() + 1, items.size()));
  }
  return text;
}

bool hasEmptyLine(std::string_view text) {
  return text.starts_with('\n') || text.find("\n\n") != text.npos;
}

/// Removes the first line of a text, and returns it without its end.
std::string_view takeLine(std::string_view &text) {
  const std::string_view line = text.substr(0, text.find('\n'));
  text.remove_prefix(std::min(line.size() + 1, text.size()));
  return line;
}

/// Returns what a function writes to a stream. The text does not come from SBStream::GetData: LLDB
/// keeps every text that it has returned there for good.
template <typename Write>
std::string writtenText(Write write) {
  char *data = nullptr;
  std::size_t size = 0;
  FILE *const file = open_memstream(&data, &size);
  if (file == nullptr) throw std::bad_alloc();
  {
    lldb::SBStream stream;
    constexpr bool ownsFile = false;
    stream.RedirectToFileHandle(file, ownsFile);
    write(stream);
  }
  std::fclose(file);
  const std::unique_ptr<char, void (*)(void *)> owner(data, std::free);
  return std::string(data, size);
}

/// Returns a function that formats a frame. Null for a format that LLDB does not understand, and
/// with LLDB 14 to 17, which declare no SBFormat.
template <typename Format>
std::function<std::string(lldb::SBFrame &)> makeFormatter(const std::string &text) {
  if constexpr (requires(lldb::SBError error) { Format(text.c_str(), error); }) {
    lldb::SBError error;
    const Format format(text.c_str(), error);
    if (error.Fail()) return nullptr;
    return [format](auto &frame) {
      return writtenText(
          [&](lldb::SBStream &stream) { frame.GetDescriptionWithFormat(format, stream); });
    };
  }
  return nullptr;
}

std::string textOf(const char *text) { return text != nullptr ? text : ""; }

}  // namespace

namespace lldb {
class SBFormat;  // LLDB 14 to 17 do not declare it
}

RegisterReader::RegisterReader(lldb::SBDebugger &debugger)
    : debugger(debugger), initialFormats(currentFormats()) {}

Json::object RegisterReader::read(lldb::SBProcess process, lldb::SBFrame frame, bool hasOwnServer) {
  lldb::SBValueList values = frame.GetRegisters();
  if (processOfSets != process.GetUniqueID() || values.GetSize() != sets.size()) findNames(values);
  processOfSets = process.GetUniqueID();
  const bool usesFormatted = isFormattedTextUsable(process, hasOwnServer);
  std::string formatted = usesFormatted ? formatRegisters(frame) : "";
  // An empty line has two causes: the name is of the program before an exec, or LLDB cannot recover
  // the register in an outer frame. Only the first makes the names stale. Without formatted text
  // nothing hints at it, so the names are always compared.
  if ((!usesFormatted || hasEmptyLine(formatted)) && !areNamesCurrent(values)) {
    findNames(values);
    formatted.clear();
  }

  std::vector<Json::object::value_type> texts;
  std::string_view lines = formatted;
  for (std::uint32_t index = 0; index < sets.size(); ++index) {
    lldb::SBValue set = values.GetValueAtIndex(index);
    set.SetPreferSyntheticValue(canBeSynthetic);  // holds for its children too
    for (std::uint32_t at = 0; at < sets[index].size(); ++at) {
      auto &[name, isFormattedAsItsValue] = sets[index][at];
      if (isLeftOut(name)) continue;
      std::string text = textFromFormatted(takeLine(lines));
      if (text.empty() || isFormattedAsItsValue != true) {
        std::string value = valueText(set, at);
        if (!text.empty() && !isFormattedAsItsValue.has_value())
          isFormattedAsItsValue = value == text;
        text = std::move(value);
      }
      texts.emplace_back(name, std::move(text));
    }
  }
  return Json::object(std::move(texts));
}

bool RegisterReader::isFormattedTextUsable(lldb::SBProcess &process, bool hasOwnServer) {
  return formatRegisters && hasOwnServer && process.GetByteOrder() == lldb::eByteOrderLittle &&
         currentFormats() == initialFormats;
}

std::vector<RegisterReader::TypeFormat> RegisterReader::currentFormats() {
  std::vector<TypeFormat> formats;
  for (std::uint32_t index = 0; index < debugger.GetNumCategories(); ++index) {
    lldb::SBTypeCategory category = debugger.GetCategoryAtIndex(index);
    const std::uint32_t count = category.GetNumFormats();
    for (std::uint32_t at = 0; at < count; ++at) {
      lldb::SBTypeNameSpecifier type = category.GetTypeNameSpecifierForFormatAtIndex(at);
      lldb::SBTypeFormat format = category.GetFormatAtIndex(at);
      formats.push_back({textOf(category.GetName()), category.GetEnabled(),
                         category.GetNumLanguages(), textOf(type.GetName()), type.IsRegex(),
                         format.GetFormat(), format.GetOptions(), textOf(format.GetTypeName())});
    }
  }
  return formats;
}

/// Compares the sets' sizes and first names only. All names take a tenth of getRegisters' time.
bool RegisterReader::areNamesCurrent(lldb::SBValueList &values) const {
  for (std::uint32_t index = 0; index < sets.size(); ++index) {
    lldb::SBValue set = values.GetValueAtIndex(index);
    const Set &known = sets[index];
    if (set.GetNumChildren() != known.size()) return false;
    if (!known.empty() && nameAt(set, 0) != known[0].name) return false;
  }
  return true;
}

void RegisterReader::findNames(lldb::SBValueList &values) {
  sets.assign(values.GetSize(), {});
  std::string format;
  for (std::uint32_t index = 0; index < sets.size(); ++index) {
    lldb::SBValue set = values.GetValueAtIndex(index);
    for (std::uint32_t at = 0, count = set.GetNumChildren(); at < count; ++at) {
      const std::string name = nameAt(set, at);
      sets[index].push_back({name, {}});
      // The braces leave out a register without a value. Otherwise the format would end there.
      if (!isLeftOut(name)) format += "{${frame.reg." + name + "}}\\n";
    }
  }
  formatRegisters = makeFormatter<lldb::SBFormat>(format);
}

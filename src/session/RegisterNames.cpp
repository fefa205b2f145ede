#include "session/RegisterNames.h"

namespace {

/// Deliberate: the wide vector registers are left out. They contain the xmm registers, which hosts
/// show, and would double the response.
bool isLeftOut(const std::string &name) {
  return name.starts_with("ymm") || name.starts_with("zmm");
}

std::string nameAt(lldb::SBValue &set, std::uint32_t index) {
  constexpr bool canBeSynthetic = false;
  const char *name = set.GetChildAtIndex(index, lldb::eNoDynamicValues, canBeSynthetic).GetName();
  return name != nullptr ? name : "";
}

}  // namespace

const std::vector<std::string> &RegisterNames::of(lldb::SBProcess process, std::uint32_t index,
                                                  lldb::SBValue set) {
  if (processId != process.GetUniqueID()) sets.clear();
  processId = process.GetUniqueID();
  if (sets.size() <= index) sets.resize(index + 1);
  auto &[firstName, names] = sets[index];
  const std::uint32_t count = set.GetNumChildren();
  const std::string first = nameAt(set, 0);
  if (names.size() == count && firstName == first) return names;

  firstName = first;
  names.clear();
  for (std::uint32_t at = 0; at < count; ++at) {
    const std::string name = nameAt(set, at);
    names.push_back(isLeftOut(name) ? "" : name);
  }
  return names;
}

// The images of the process and where their sections lie.

#include "channel/Envelope.h"
#include "events/ModuleDescription.h"
#include "session/DebugSession.h"

namespace {

Json describeSection(lldb::SBSection section, lldb::SBTarget &target) {
  const std::uint64_t loadAddress = section.GetLoadAddress(target);
  Json::object members;
  members["byteSize"] = std::uint64_t{section.GetByteSize()};
  members["fileAddr"] = std::uint64_t{section.GetFileAddress()};
  members["fileByteSize"] = std::uint64_t{section.GetFileByteSize()};
  // LLDB's invalid address, all bits set, if the section is not in memory.
  members["loadAddr"] = loadAddress;
  if (const char *name = section.GetName()) members["name"] = name;
  return Json(std::move(members));
}

/// A module with its top-level sections: where they lie in the file and in memory.
Json describeModule(lldb::SBModule &module, lldb::SBTarget &target) {
  Json::object members{{"is_valid", module.IsValid()}};
  addModuleName(members, module);
  const std::size_t count = module.GetNumSections();
  Json::array sections;
  sections.reserve(count);
  for (std::size_t index = 0; index < count; ++index)
    sections.push_back(describeSection(module.GetSectionAtIndex(index), target));
  members["sections"] = std::move(sections);
  return Json(std::move(members));
}

}  // namespace

Json DebugSession::moduleCount() {
  return okResponseWith({{"count", static_cast<std::int32_t>(target.GetNumModules())}});
}

Json DebugSession::moduleAtIndex(std::uint32_t index) {
  if (index >= target.GetNumModules()) return errorResponse(__func__, "index out of range");
  lldb::SBModule module = target.GetModuleAtIndex(index);
  if (!module.IsValid()) return errorResponse(__func__, "cannot get module");
  return okResponseWith({{"module", describeModule(module, target)}});
}

Json DebugSession::moduleForFile(const std::string &file) {
  constexpr bool resolve = true;
  lldb::SBModule module = target.FindModule(lldb::SBFileSpec(file.c_str(), resolve));
  if (!module.IsValid()) return errorResponse(__func__, "can't find module");
  return okResponseWith({{"module", describeModule(module, target)}});
}

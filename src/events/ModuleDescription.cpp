#include "events/ModuleDescription.h"

ImageBase imageBase(lldb::SBModule module, lldb::SBTarget target) {
  constexpr std::size_t index = 1;
  lldb::SBSection section = module.GetSectionAtIndex(index);
  return {section, section.GetFileAddress(), section.GetLoadAddress(target)};
}

void addModuleName(Json::object &members, lldb::SBModule module) {
  if (const char *uuid = module.GetUUIDString()) members["uuid"] = uuid;
  const lldb::SBFileSpec file = module.GetFileSpec();
  const char *name = file.IsValid() ? file.GetFilename() : nullptr;
  if (name != nullptr) members["filename"] = name;
}

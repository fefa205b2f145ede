// The frames of the selected thread.

#include "channel/Envelope.h"
#include "session/DebugSession.h"

namespace {

/// Caches the last module's name and UUID: LLDB formats the UUID at every call, and neighbouring
/// frames mostly belong to the same module.
class ModuleNames {
 public:
  /// Adds the name and the UUID of `module`, if it has them. `module` may be invalid.
  void addTo(Json::object &members, lldb::SBModule module) {
    // Not "module != last": both of LLDB's comparisons are false for an invalid module.
    if (!(module == last)) {
      last = module;
      uuid = name = Json();
      if (module.IsValid()) ask(module);
    }
    if (uuid.type() != JsonType::Null) members["uuid"] = uuid;
    if (name.type() != JsonType::Null) members["filename"] = name;
  }

 private:
  void ask(lldb::SBModule &module) {
    if (const char *text = module.GetUUIDString()) uuid = text;
    const lldb::SBFileSpec file = module.GetFileSpec();
    const char *text = file.IsValid() ? file.GetFilename() : nullptr;
    if (text != nullptr) name = text;
  }

  lldb::SBModule last;
  Json uuid;
  Json name;
};

/// The members of a frame. Only its program counter is always there.
Json frameToJson(lldb::SBFrame frame, ModuleNames &names) {
  Json::object members;
  names.addTo(members, frame.GetModule());
  if (const char *function = frame.GetFunctionName()) members["function"] = function;
  members["pc"] = std::uint64_t{frame.GetPC()};
  return Json(std::move(members));
}

}  // namespace

Json DebugSession::getCallstack() {
  if (!refreshProcess().IsValid()) return errorResponse("getCallstack", "no process");
  lldb::SBThread thread = process.GetSelectedThread();
  const std::uint32_t count = thread.GetNumFrames();
  ModuleNames names;
  Json::array frames;
  frames.reserve(count);
  for (std::uint32_t index = 0; index < count; ++index)
    frames.push_back(frameToJson(thread.GetFrameAtIndex(index), names));
  return okResponseWith({{"callstack", std::move(frames)}});
}

Json DebugSession::selectFrame(std::uint32_t index) {
  if (!refreshProcess().IsValid()) return errorResponse("selectFrame", "no process");
  // Deliberate: an index past the last frame is no error. LLDB keeps its selection. Hosts
  // take the index from getCallstack.
  process.GetSelectedThread().SetSelectedFrame(index);
  return okResponse();
}

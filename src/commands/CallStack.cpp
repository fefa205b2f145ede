// The frames of the selected thread.

#include "channel/Envelope.h"
#include "session/DebugSession.h"

namespace {

/// What the frames of one module have in common. Neighbouring frames mostly lie in the same one,
/// and LLDB makes a UUID's text anew each time it is asked: so it is asked once.
class ModuleNames {
 public:
  /// Adds what is known of `module`, which may be none.
  void addTo(Json::object &members, lldb::SBModule module) {
    // Not "module != last": where a module is invalid LLDB's comparisons are both false.
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

/// What is known of a frame; its program counter always is.
Json frameToJson(lldb::SBFrame frame, ModuleNames &names) {
  Json::object members;
  names.addTo(members, frame.GetModule());
  if (const char *function = frame.GetFunctionName()) members["function"] = function;
  members["pc"] = std::uint64_t{frame.GetPC()};
  return Json(std::move(members));
}

}  // namespace

Json DebugSession::getCallstack() {
  lldb::SBProcess current = currentProcess();
  if (!current.IsValid()) return errorResponse("getCallstack", "no process");
  lldb::SBThread thread = current.GetSelectedThread();
  const std::uint32_t count = thread.GetNumFrames();
  ModuleNames names;
  Json::array frames;
  frames.reserve(count);
  for (std::uint32_t index = 0; index < count; ++index)
    frames.push_back(frameToJson(thread.GetFrameAtIndex(index), names));
  return okResponseWith({{"callstack", std::move(frames)}});
}

Json DebugSession::selectFrame(std::uint32_t index) {
  lldb::SBProcess current = currentProcess();
  if (!current.IsValid()) return errorResponse("selectFrame", "no process");
  // Deliberate: an index past the last frame is no error; LLDB keeps its selection then.
  current.GetSelectedThread().SetSelectedFrame(index);
  return okResponse();
}

// The frames of the selected thread.

#include "channel/Envelope.h"
#include "session/DebugSession.h"

namespace {

/// What is known of a frame; its program counter always is.
Json frameToJson(lldb::SBFrame frame) {
  Json::object members;
  lldb::SBModule module = frame.GetModule();
  if (module.IsValid()) {
    if (const char *uuid = module.GetUUIDString()) members["uuid"] = uuid;
    const lldb::SBFileSpec file = module.GetFileSpec();
    const char *name = file.IsValid() ? file.GetFilename() : nullptr;
    if (name != nullptr) members["filename"] = name;
  }
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
  Json::array frames;
  frames.reserve(count);
  for (std::uint32_t index = 0; index < count; ++index)
    frames.push_back(frameToJson(thread.GetFrameAtIndex(index)));
  return okResponseWith({{"callstack", std::move(frames)}});
}

Json DebugSession::selectFrame(std::uint32_t index) {
  lldb::SBProcess current = currentProcess();
  if (!current.IsValid()) return errorResponse("selectFrame", "no process");
  // Deliberate: an index past the last frame is no error; LLDB keeps its selection then.
  current.GetSelectedThread().SetSelectedFrame(index);
  return okResponse();
}

// The frames of the selected thread.

#include <utility>

#include "channel/Envelope.h"
#include "events/ModuleDescription.h"
#include "session/DebugSession.h"

namespace {

/// The names of the frames' modules. Neighbouring frames mostly belong to the same section of a
/// module, so LLDB is asked only where the section changes.
class ModuleNames {
 public:
  explicit ModuleNames(lldb::SBTarget &target) : target(target) {}

  /// Adds the name and the UUID of the module of `frame`, if there is one and it has them.
  void addTo(Json::object &members, lldb::SBFrame &frame, std::uint64_t pc) {
    // LLDB looks up the module of a calling frame at the byte before its program counter.
    if (pc <= start || pc >= end) ask(frame);
    for (const auto &[key, text] : name) members[key] = text;
  }

 private:
  /// A frame without a module has no names, and a section without bytes: the next frame asks too.
  void ask(lldb::SBFrame &frame) {
    name = {};
    addModuleName(name, frame.GetModule());
    lldb::SBSection section = frame.GetPCAddress().GetSection();
    start = section.GetLoadAddress(target);
    end = start + section.GetByteSize();
  }

  lldb::SBTarget &target;
  std::uint64_t start = 0, end = 0;  ///< the section's addresses in memory
  Json::object name;                 ///< "uuid" and "filename", as far as they are known
};

/// The members of a frame. Only its program counter is always there.
Json frameToJson(lldb::SBFrame frame, ModuleNames &names) {
  const std::uint64_t pc = frame.GetPC();
  Json::object members;
  names.addTo(members, frame, pc);
  if (const char *function = frame.GetFunctionName()) members["function"] = function;
  members["pc"] = pc;
  return Json(std::move(members));
}

}  // namespace

Json DebugSession::getCallstack() {
  lldb::SBThread thread = process.GetSelectedThread();
  const std::uint32_t count = thread.GetNumFrames();
  ModuleNames names(target);
  Json::array frames;
  frames.reserve(count);
  for (std::uint32_t index = 0; index < count; ++index)
    frames.push_back(frameToJson(thread.GetFrameAtIndex(index), names));
  return okResponseWith({{"callstack", std::move(frames)}});
}

Json DebugSession::selectFrame(std::uint32_t index) {
  // Deliberate: an index past the last frame is no error. LLDB keeps its selection. Hosts
  // take the index from getCallstack.
  process.GetSelectedThread().SetSelectedFrame(index);
  return okResponse();
}

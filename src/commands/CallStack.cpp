// The frames of the selected thread.

#include <algorithm>
#include <vector>

#include "channel/Envelope.h"
#include "events/ModuleDescription.h"
#include "session/DebugSession.h"

namespace {

/// Unwinds the stack of `thread`, and has LLDB read it in few packets. LLDB's unwinder reads word
/// by word, through a cache that it fills in pieces of 512 bytes, by a packet for each. A larger
/// read stays in that cache as one piece until the process runs or the memory is written.
void unwind(lldb::SBProcess &process, lldb::SBThread &thread) {
  constexpr std::uint32_t frameCount = 32;  // that are unwound between two looks at the memory
  constexpr std::size_t smallestSize = 512, firstSize = 2048, largestSize = 65536;
  std::vector<std::uint8_t> bytes;
  std::size_t size = firstSize;
  lldb::SBFrame frame = thread.GetFrameAtIndex(0);
  std::uint64_t readEnd = frame.GetSP();
  std::uint64_t lastEnd = readEnd;
  for (std::uint32_t index = 0; frame.IsValid(); index += frameCount) {
    const std::uint64_t frameEnd = frame.GetCFA();
    // The next frames are taken to be as large as the last ones.
    if (frameEnd + (frameEnd - lastEnd) >= readEnd) {
      bytes.resize(size);
      lldb::SBError ignored;  // the unwinder reads what it needs
      // The stack may end here. LLDB 14 to 19 read nothing then, LLDB 22 reads up to the end.
      while (process.ReadMemory(readEnd, bytes.data(), size, ignored) == 0 && size > smallestSize)
        size /= 2;
      readEnd += size;
      if (size == bytes.size()) size = std::min(2 * size, largestSize);
    }
    lastEnd = frameEnd;
    frame = thread.GetFrameAtIndex(index + frameCount);
  }
}

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
  void ask(lldb::SBFrame &frame) {
    name = {};
    start = end = 0;
    lldb::SBModule module = frame.GetModule();
    if (!module.IsValid()) return;
    addModuleName(name, module);
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
  // A connection may be slow, and its memory may hold a device's registers.
  if (hasOwnServer()) unwind(process, thread);
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

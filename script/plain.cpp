// A plug-in for LLDB's command line, for script/compare: "plugin load", then "plain WHAT". Asks the
// selected target with the plainest calls, in the same process as lldb-helper. Prints a line for
// each answer, with tabs between its parts.
//
//   plain registers FRAME   name, text
//   plain stack             pc, function, module
//   plain threads           id, stop reason
//   plain modules           file, UUID, then each section's name and four numbers
//   plain selected          thread's id, frame's index
#include <lldb/API/LLDB.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

std::string part(const char *text) { return std::string("\t") + (text != nullptr ? text : "-"); }
std::string part(uint64_t number) { return "\t" + std::to_string(number); }

/// The bytes as a number, as getRegisters has it for a register that is no single value.
std::string bytesOf(lldb::SBValue value) {
  lldb::SBData data = value.GetData();
  std::vector<uint8_t> bytes(data.GetByteSize());
  lldb::SBError error;
  data.ReadRawData(error, 0, bytes.data(), bytes.size());
  if (error.Fail()) return "<error>";
  std::string text = "0x";
  for (auto byte = bytes.rbegin(); byte != bytes.rend(); ++byte) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", *byte);
    text += digits;
  }
  return text;
}

std::string registers(lldb::SBThread thread, uint32_t index) {
  std::string lines;
  lldb::SBValueList sets = thread.GetFrameAtIndex(index).GetRegisters();
  for (uint32_t set = 0; set < sets.GetSize(); ++set) {
    lldb::SBValue values = sets.GetValueAtIndex(set);
    for (uint32_t at = 0; at < values.GetNumChildren(); ++at) {
      lldb::SBValue value = values.GetChildAtIndex(at);
      const std::string name = value.GetName() != nullptr ? value.GetName() : "";
      if (name.empty() || name.rfind("ymm", 0) == 0 || name.rfind("zmm", 0) == 0) continue;
      const char *text = value.GetValue();
      lines += name + "\t" + (text != nullptr ? text : bytesOf(value)) + "\n";
    }
  }
  return lines;
}

std::string stack(lldb::SBThread thread) {
  std::string lines;
  for (uint32_t index = 0; index < thread.GetNumFrames(); ++index) {
    lldb::SBFrame frame = thread.GetFrameAtIndex(index);
    lldb::SBModule module = frame.GetModule();
    lines += std::to_string(frame.GetPC()) + part(frame.GetFunctionName()) +
             part(module.IsValid() ? module.GetFileSpec().GetFilename() : nullptr) + "\n";
  }
  return lines;
}

std::string threads(lldb::SBProcess process) {
  std::string lines;
  for (uint32_t index = 0; index < process.GetNumThreads(); ++index) {
    lldb::SBThread thread = process.GetThreadAtIndex(index);
    lines += std::to_string(thread.GetThreadID()) + part(uint64_t{thread.GetStopReason()}) + "\n";
  }
  return lines;
}

std::string modules(lldb::SBTarget target) {
  std::string lines;
  for (uint32_t index = 0; index < target.GetNumModules(); ++index) {
    lldb::SBModule module = target.GetModuleAtIndex(index);
    const char *file = module.GetFileSpec().GetFilename();
    lines += (file != nullptr ? file : "-") + part(module.GetUUIDString());
    for (size_t at = 0; at < module.GetNumSections(); ++at) {
      lldb::SBSection section = module.GetSectionAtIndex(at);
      lines += part(section.GetName()) + part(section.GetFileAddress()) +
               part(section.GetLoadAddress(target)) + part(section.GetByteSize()) +
               part(section.GetFileByteSize());
    }
    lines += "\n";
  }
  return lines;
}

class Plain : public lldb::SBCommandPluginInterface {
 public:
  bool DoExecute(lldb::SBDebugger debugger, char **words,
                 lldb::SBCommandReturnObject &result) override {
    lldb::SBTarget target = debugger.GetSelectedTarget();
    lldb::SBProcess process = target.GetProcess();
    lldb::SBThread thread = process.GetSelectedThread();
    const std::string what = words != nullptr && words[0] != nullptr ? words[0] : "";
    const char *frame = !what.empty() && words[1] != nullptr ? words[1] : "0";
    std::string text;
    if (what == "registers")
      text = registers(thread, static_cast<uint32_t>(std::strtoul(frame, nullptr, 0)));
    if (what == "stack") text = stack(thread);
    if (what == "threads") text = threads(process);
    if (what == "modules") text = modules(target);
    if (what == "selected")
      text = std::to_string(thread.GetThreadID()) +
             part(uint64_t{thread.GetSelectedFrame().GetFrameID()}) + "\n";
    result.AppendMessage(text.c_str());
    result.SetStatus(lldb::eReturnStatusSuccessFinishResult);
    return true;
  }
};

}  // namespace

namespace lldb {
bool PluginInitialize(SBDebugger debugger) {
  return debugger.GetCommandInterpreter()
      .AddCommand("plain", new Plain, "answers of plain calls")
      .IsValid();
}
}  // namespace lldb

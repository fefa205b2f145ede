#include "session/LldbSettings.h"

#include <cstring>

namespace {

constexpr char parallelModules[] = "target.parallel-module-load";
constexpr char registersAtOnce[] = "plugin.process.gdb-remote.use-g-packet-for-reading";
constexpr char noRuntimePlans[] = "target.process.disable-language-runtime-unwindplans";

}  // namespace

void loadModulesOneByOne(lldb::SBDebugger &debugger) {
  lldb::SBDebugger::SetInternalVariable(parallelModules, "false", debugger.GetInstanceName());
}

void readRegistersAtOnce(lldb::SBDebugger &debugger) {
  lldb::SBDebugger::SetInternalVariable(registersAtOnce, "true", debugger.GetInstanceName());
}

void unwindWithoutLanguageRuntimes(lldb::SBDebugger &debugger) {
  // The version of an LLDB with Swift has a line "Swift version ...".
  if (std::strstr(lldb::SBDebugger::GetVersionString(), "Swift") != nullptr) return;
  lldb::SBDebugger::SetInternalVariable(noRuntimePlans, "true", debugger.GetInstanceName());
}

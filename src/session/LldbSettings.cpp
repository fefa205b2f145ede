#include "session/LldbSettings.h"

#include <cstring>

namespace {

constexpr char parallelModules[] = "target.parallel-module-load";
constexpr char registersAtOnce[] = "plugin.process.gdb-remote.use-g-packet-for-reading";
constexpr char pieceSize[] = "target.process.memory-cache-line-size";
constexpr char defaultSize[] = "512";
constexpr char largeSize[] = "1024";

}  // namespace

void loadModulesOneByOne(lldb::SBDebugger &debugger) {
  lldb::SBDebugger::SetInternalVariable(parallelModules, "false", debugger.GetInstanceName());
}

void readRegistersAtOnce(lldb::SBDebugger &debugger) {
  lldb::SBDebugger::SetInternalVariable(registersAtOnce, "true", debugger.GetInstanceName());
}

void readMemoryInLargePieces(lldb::SBDebugger &debugger) {
  const char *instance = debugger.GetInstanceName();
  lldb::SBStringList values = lldb::SBDebugger::GetInternalVariableValue(pieceSize, instance);
  const char *size = values.GetStringAtIndex(0);
  // LLDB sets the selected process's own value where there is such a process.
  if (size != nullptr && std::strcmp(size, defaultSize) == 0)
    lldb::SBDebugger::SetInternalVariable(pieceSize, largeSize, instance);
}

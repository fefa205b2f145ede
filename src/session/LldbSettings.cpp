#include "session/LldbSettings.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

constexpr char packetPatience[] = "plugin.process.gdb-remote.packet-timeout";
constexpr char cacheLineSize[] = "target.process.memory-cache-line-size";
constexpr char withoutCache[] = "target.process.disable-memory-cache";

/// The value as "settings show" prints it. Empty if this LLDB does not know the setting.
std::string valueOf(const char *setting, lldb::SBDebugger &debugger) {
  lldb::SBStringList values =
      lldb::SBDebugger::GetInternalVariableValue(setting, debugger.GetInstanceName());
  const char *text = values.GetSize() > 0 ? values.GetStringAtIndex(0) : nullptr;
  return text != nullptr ? text : "";
}

std::uint64_t numberOf(const char *setting, lldb::SBDebugger &debugger) {
  return std::strtoull(valueOf(setting, debugger).c_str(), nullptr, 0);
}

}  // namespace

void changeSettings(lldb::SBDebugger &debugger) {
  const auto set = [name = debugger.GetInstanceName()](const char *setting, const char *value) {
    lldb::SBDebugger::SetInternalVariable(setting, value, name);
  };
  // LLDB 22 loads the modules of all its processes on one pool of threads. A thread that reads a
  // module's symbols waits for the pool, and does the pool's other work meanwhile. That may be the
  // same module again, for another process, and then neither ends. LLDB's command line can start
  // such a second process. LLDB 14 to 19 have no such setting, and load one by one.
  set("target.parallel-module-load", "false");
  // One packet reads all registers of a thread, not one packet each.
  set("plugin.process.gdb-remote.use-g-packet-for-reading", "true");
  // LLDB asks each language's runtime for a plan at each frame. Only the Swift runtime has plans,
  // for asynchronous functions. The version of an LLDB with Swift has a line "Swift version ...".
  if (std::strstr(lldb::SBDebugger::GetVersionString(), "Swift") == nullptr)
    set("target.process.disable-language-runtime-unwindplans", "true");
}

std::chrono::seconds packetTimeout(lldb::SBDebugger &debugger) {
  constexpr std::chrono::seconds longest = std::chrono::days(1);
  const auto limit = static_cast<std::uint64_t>(longest.count());
  return std::chrono::seconds(std::min(numberOf(packetPatience, debugger), limit));
}

UncachedRead::UncachedRead(lldb::SBDebugger &debugger, lldb::SBTarget &target, std::size_t size)
    : debugger(debugger), selected(debugger.GetSelectedTarget()) {
  if (selected != target) debugger.SetSelectedTarget(target);
  if (size > numberOf(cacheLineSize, debugger)) before = valueOf(withoutCache, debugger);
  if (!before.empty())
    lldb::SBDebugger::SetInternalVariable(withoutCache, "true", debugger.GetInstanceName());
}

UncachedRead::~UncachedRead() {
  if (!before.empty())
    lldb::SBDebugger::SetInternalVariable(withoutCache, before.c_str(), debugger.GetInstanceName());
  if (selected != debugger.GetSelectedTarget()) debugger.SetSelectedTarget(selected);
}

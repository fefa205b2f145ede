// attachToProcess: a running local process and its executable.

#include <limits>

#include "channel/Envelope.h"
#include "events/ModuleDescription.h"
#include "platform/Log.h"
#include "platform/Process.h"
#include "session/DebugSession.h"
#include "session/LldbError.h"

namespace {

/// Where the executable lies. Empty when it has no image base section.
Json::object executableLoadInfo(lldb::SBTarget target) {
  if (target.GetNumModules() == 0) return {};
  ImageBase base = imageBase(target.FindModule(target.GetExecutable()), target);
  if (!base.section.IsValid()) return {};
  const char *name = base.section.GetName();
  return {{"sectionName", name != nullptr ? name : ""},
          {"fileAddr", base.fileAddress},
          {"loadAddr", base.loadAddress},
          {"aslrSlide", base.slide()}};
}

/// The reason to refuse this process number. Null when LLDB may attach to it.
///
/// LLDB attaches to another process when the number is 0 (to any process with the executable's
/// name) or does not fit a pid_t (to the one whose number the low bits are). It never returns when
/// it attaches to this program. A debug server of this program is no program to debug either.
const char *whyNotAttach(std::uint64_t pid) {
  if (pid == 0 || pid > static_cast<std::uint64_t>(std::numeric_limits<pid_t>::max()))
    return "No such process";
  if (platform::isOwnProcess(static_cast<pid_t>(pid))) return "It is a part of this debugger";
  return nullptr;
}

}  // namespace

Json DebugSession::attachToProcess(std::uint64_t pid, const std::string &executable, bool is64Bits,
                                   const std::string &triple) {
  this->is64Bits = is64Bits;
  this->triple = triple;
  executablePath = executable;

  if (const char *reason = whyNotAttach(pid))
    return errorResponse(__func__, std::string("cannot attach to process: ") + reason);
  lldb::SBError error;
  target = buildTarget(error);
  // With an empty target LLDB finds the executable of a running process itself.
  if (!target.IsValid()) target = debugger.CreateTarget("");
  if (!target.IsValid()) return errorResponse(__func__, "cannot build target: " + errorText(error));

  lldb::SBListener listener = debugger.GetListener();
  LOG_RECORD("About to attach to process %{public}llu", static_cast<unsigned long long>(pid));
  error.Clear();
  process = target.AttachToProcessWithID(listener, pid, error);
  if (failedToStart(process, error)) {
    discardTarget();
    return errorResponse(__func__, "cannot attach to process: " + errorText(error));
  }
  processOfOwnServer = process.GetUniqueID();
  startEventThread();
  waitUntilStarted();
  return okResponseWith(executableLoadInfo(target));
}

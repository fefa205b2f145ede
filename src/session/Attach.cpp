// attachToProcess: a running local process and its executable.

#include <limits>

#include "channel/Envelope.h"
#include "events/EventMonitor.h"
#include "platform/Log.h"
#include "platform/Process.h"
#include "session/DebugSession.h"
#include "session/Outcome.h"
#include "session/ReadSettings.h"

namespace {

/// Where the executable lies: file and load address of the section by which modules are placed.
/// Empty when the target's modules do not tell.
Json::object executablePlace(lldb::SBTarget target) {
  constexpr std::size_t placingSection = EventMonitor::placingSection;
  if (target.GetNumModules() == 0) return {};
  lldb::SBModule module = target.FindModule(target.GetExecutable());
  if (!module.IsValid() || module.GetNumSections() <= placingSection) return {};
  lldb::SBSection section = module.GetSectionAtIndex(placingSection);
  const char *name = section.GetName();
  const std::uint64_t fileAddress = section.GetFileAddress();
  const std::uint64_t loadAddress = section.GetLoadAddress(target);
  return {{"sectionName", name != nullptr ? name : ""},
          {"fileAddr", fileAddress},
          {"loadAddr", loadAddress},
          // Deliberate: may wrap around, as the host's own arithmetic on addresses does.
          {"aslrSlide", loadAddress - fileAddress}};
}

/// Why LLDB must not be asked to attach to this number; null where it may. It takes 0 for any
/// process of the executable's name, and cuts off what does not fit a process's number: somebody
/// else is attached to then. It waits for ever for this program, or for the server that attaches,
/// to stop itself.
const char *whyNotAttach(std::uint64_t pid) {
  if (pid == 0 || pid > static_cast<std::uint64_t>(std::numeric_limits<pid_t>::max()))
    return "No such process";
  if (platform::isOwnProcess(static_cast<pid_t>(pid))) return "It is a part of this debugger";
  return nullptr;
}

}  // namespace

Json DebugSession::attachToProcess(std::uint64_t pid, const std::string &executable, bool is64Bits,
                                   const std::string &triple) {
  if (target.IsValid()) return errorResponse("attachToProcess", "process already exists");
  this->is64Bits = is64Bits;
  this->triple = triple;
  executablePath = executable;

  if (const char *reason = whyNotAttach(pid))
    return errorResponse("attachToProcess", std::string("cannot attach to process: ") + reason);
  lldb::SBError error;
  target = buildTarget(error);
  // LLDB finds the executable of a running process by itself.
  if (!target.IsValid()) target = debugger.CreateTarget("");
  if (!target.IsValid())
    return errorResponse("attachToProcess", "cannot build target: " + errorText(error));

  lldb::SBListener listener = debugger.GetListener();
  LOG_RECORD("About to attach to process %{public}llu", static_cast<unsigned long long>(pid));
  error.Clear();
  process = target.AttachToProcessWithID(listener, pid, error);
  if (neverRan(process, error)) {
    discardTarget();
    return errorResponse("attachToProcess", "cannot attach to process: " + errorText(error));
  }
  readMemoryInLargePieces(debugger);
  eventThread.start(target);
  waitUntilSettled();
  return okResponseWith(executablePlace(target));
}

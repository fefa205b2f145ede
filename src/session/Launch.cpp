// createProcess: from the stored launch settings to a process stopped at its entry.

#include <string>
#include <vector>

#include "channel/Envelope.h"
#include "events/StateName.h"
#include "platform/Log.h"
#include "platform/Process.h"
#include "session/DebugSession.h"
#include "session/LldbError.h"

namespace {

/// The texts as a null-terminated array of C strings. Valid as long as `texts`.
std::vector<const char *> cStrings(const std::vector<std::string> &texts) {
  std::vector<const char *> pointers;
  pointers.reserve(texts.size() + 1);
  for (const std::string &text : texts) pointers.push_back(text.c_str());
  pointers.push_back(nullptr);
  return pointers;
}

/// The environment of a launch: lldb-helper's own entries, then the requested ones. A name that is
/// in both stays in both places, and LLDB decides: 14 to 22 keep the first value.
std::vector<std::string> launchEnvironment(const std::vector<EnvironmentEntry> &requested) {
  std::vector<std::string> entries = platform::initialEnvironment();
  for (const auto &[name, value] : requested) entries.push_back(name + "=" + value);
  return entries;
}

}  // namespace

Json DebugSession::createProcess() {
  lldb::SBError error;
  target = buildTarget(error);
  if (!target.IsValid()) return errorResponse(__func__, "cannot build target: " + errorText(error));

  process = launchTarget(error);
  if (failedToStart(process, error)) {
    discardTarget();
    return errorResponse(__func__, "cannot create process: " + errorText(error));
  }

  processOfOwnServer = process.GetUniqueID();
  startEventThread();
  LOG_RECORD("Starting to wait for process to change state");
  LOG_RECORD("Process current state %s\n", stateName(process.GetState()).c_str());
  waitUntilStarted();
  LOG_RECORD("Process is ready with final state %s\n", stateName(process.GetState()).c_str());

  if (process.GetState() == lldb::eStateExited)
    return errorResponse(__func__, "process has exited");
  return okResponse();
}

lldb::SBProcess DebugSession::launchTarget(lldb::SBError &error) {
  const auto argumentVector = cStrings(arguments);
  LOG_RECORD("Building launchinfo\n");
  const std::vector<std::string> entries = launchEnvironment(environment);
  const auto environmentVector = cStrings(entries);

  lldb::SBLaunchInfo launchInfo(const_cast<const char **>(argumentVector.data()));
  constexpr bool append = false;
  launchInfo.SetEnvironmentEntries(const_cast<const char **>(environmentVector.data()), append);
  launchInfo.SetWorkingDirectory(workingDirectory.c_str());
  const std::uint32_t fixedAddresses =
      platform::canDisableAslr() ? lldb::eLaunchFlagDisableASLR : lldb::eLaunchFlagNone;
  launchInfo.SetLaunchFlags(lldb::eLaunchFlagStopAtEntry | fixedAddresses);

  LOG_RECORD("About to launch target\n");
  error.Clear();
  return target.Launch(launchInfo, error);
}

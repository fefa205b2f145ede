#include "session/LldbError.h"

std::string errorText(const lldb::SBError &error) {
  const char *text = error.GetCString();
  return text != nullptr ? text : "";
}

bool failedToStart(lldb::SBProcess &process, const lldb::SBError &error) {
  if (!process.IsValid()) return true;
  if (error.Success()) return false;
  switch (process.GetState()) {
    case lldb::eStateInvalid:
    case lldb::eStateUnloaded:
    case lldb::eStateConnected:
    case lldb::eStateAttaching:
    case lldb::eStateLaunching: return true;
    default: return false;
  }
}

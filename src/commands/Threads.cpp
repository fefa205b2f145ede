// The process's threads and why each is stopped.

#include <iterator>

#include "channel/Envelope.h"
#include "session/DebugSession.h"

namespace {

/// Indexed by lldb::StopReason.
constexpr const char *stopReasonNames[] = {
    "Invalid",   "None", "Trace",         "Breakpoint",     "Watchpoint",      "Signal",
    "Exception", "Exec", "Plan Complete", "Thread Exiting", "Instrumentation",
};
static_assert(std::size(stopReasonNames) == lldb::eStopReasonInstrumentation + 1);

/// Deliberate: LLDB's other reasons, such as a fork, have no name here. All supported LLDBs have
/// some. Hosts know these eleven.
const char *stopReasonName(lldb::StopReason reason) {
  const auto index = static_cast<std::uint32_t>(reason);
  return index < std::size(stopReasonNames) ? stopReasonNames[index] : "<unknown>";
}

}  // namespace

Json DebugSession::getThreadIDList() {
  const std::uint32_t count = process.GetNumThreads();
  Json::array threads;
  threads.reserve(count);
  for (std::uint32_t index = 0; index < count; ++index) {
    lldb::SBThread thread = process.GetThreadAtIndex(index);
    threads.push_back(Json::object{{"thread-id", std::uint64_t{thread.GetThreadID()}},
                                   {"state", stopReasonName(thread.GetStopReason())}});
  }
  return okResponseWith({{"threads", std::move(threads)}});
}

Json DebugSession::selectThreadID(std::uint64_t id) {
  lldb::SBThread thread = process.GetThreadByID(id);
  if (!thread.IsValid()) return errorResponse(__func__, "no thread " + std::to_string(id));
  runControl.forgetStepped();
  process.SetSelectedThread(thread);
  return okResponse();
}

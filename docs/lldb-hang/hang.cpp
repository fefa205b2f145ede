// LLDB only, without lldb-helper: one thread takes LLDB's events, another one continues the process
// and selects its threads. Hangs in some runs, in SBProcess::SetSelectedThread and in
// SBListener::WaitForEvent, each at a lock of LLDB's. docs/reliability.md has the figures.
//
// Build: g++ -std=c++20 -I/usr/lib/llvm-22/include hang.cpp /usr/lib/llvm-22/lib/liblldb.so -o hang
// Run:   ./hang ./program        with LLDB_DEBUGSERVER_PATH=/usr/lib/llvm-22/bin/lldb-server

#include <lldb/API/LLDB.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <thread>

int main(int, char **argv) {
  lldb::SBDebugger::Initialize();
  lldb::SBDebugger debugger = lldb::SBDebugger::Create();
  debugger.SetAsync(true);

  std::atomic<int> stops = 0;
  std::atomic<bool> hasExited = false;
  std::thread events([&, listener = debugger.GetListener()]() mutable {
    for (lldb::SBEvent event;;) {
      if (!listener.WaitForEvent(1, event) || !lldb::SBProcess::EventIsProcessEvent(event))
        continue;
      const lldb::StateType state = lldb::SBProcess::GetStateFromEvent(event);
      if (state == lldb::eStateStopped) ++stops;
      if (state == lldb::eStateExited) hasExited = true;
    }
  });
  alarm(30);  // ends a run that hangs: "Alarm clock"

  lldb::SBError error;
  lldb::SBTarget target = debugger.CreateTarget(argv[1], "", nullptr, false, error);
  lldb::SBLaunchInfo info(nullptr);
  info.SetLaunchFlags(lldb::eLaunchFlagStopAtEntry);
  lldb::SBProcess process = target.Launch(info, error);
  for (int continued = 0; !hasExited;) {
    if (continued != stops) {
      continued = stops;
      process.Continue();
    }
    for (std::uint32_t index = 0; index < process.GetNumThreads(); ++index)
      process.SetSelectedThread(process.GetThreadAtIndex(index));
  }
  std::puts("ended");
  std::fflush(stdout);
  _exit(0);
}

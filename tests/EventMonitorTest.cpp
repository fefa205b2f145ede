// Starting and stopping the event thread, without a process to slow it down.

#include "events/EventMonitor.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

TEST(EventMonitor, AStopRequestedOnceItListensIsNotLost) {
  lldb::SBDebugger::Initialize();
  {
    lldb::SBDebugger debugger = lldb::SBDebugger::Create();
    lldb::SBBroadcaster wakeup("wakeup");
    debugger.GetListener().StartListeningForEvents(wakeup, EventMonitor::wakeupBit);
    FILE *stream = std::tmpfile();
    MessageChannel channel(stream, stream, false);
    std::atomic<bool> stop = true;  // as the thread before left it
    const std::atomic<bool> stopsAreHidden = false;
    for (int round = 0; round < 500; ++round) {
      EventMonitor::Milestones milestones;
      std::future<void> listening = milestones.listening.get_future();
      std::promise<void> ending;
      std::future<void> ended = ending.get_future();
      std::thread thread([&] {
        EventMonitor(debugger, lldb::SBTarget(), channel, stop, stopsAreHidden,
                     std::move(milestones))
            .run();
        ending.set_value();
      });
      listening.wait();
      stop = true;
      wakeup.BroadcastEventByType(EventMonitor::wakeupBit);
      const auto outcome = ended.wait_for(std::chrono::seconds(60));
      EXPECT_EQ(outcome, std::future_status::ready) << round;
      stop = true;
      thread.join();
      if (outcome != std::future_status::ready) break;
    }
    std::fclose(stream);
  }
  lldb::SBDebugger::Terminate();
}

}  // namespace

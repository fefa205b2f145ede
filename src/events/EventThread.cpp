#include "events/EventThread.h"

#include <system_error>

EventThread::EventThread(lldb::SBDebugger debugger) : debugger(debugger) {
  this->debugger.GetListener().StartListeningForEvents(
      ownBroadcaster, EventMonitor::wakeupBit | EventMonitor::hiddenStopBit);
}

void EventThread::start(lldb::SBTarget target, MessageChannel &channel,
                        ReportedState &reportedState) {
  stopEventThread = false;
  monitor.emplace(debugger, target, channel, stopEventThread, reportedState);
  monitor->startListening();
  try {
    thread = std::thread([this] { monitor->run(); });
  } catch (const std::system_error &) {
    monitor->stopListening();
    throw;
  }
}

void EventThread::end() {
  if (!isStarted()) return;
  stopEventThread = true;
  ownBroadcaster.BroadcastEventByType(EventMonitor::wakeupBit);
  thread.join();
  monitor.reset();
}

#pragma once

#include <lldb/API/LLDB.h>

#include <atomic>
#include <cstdint>
#include <optional>

#include "channel/MessageChannel.h"
#include "events/ReportedState.h"

/// Takes LLDB's events for one target and its process, and reports them to the host as messages
/// with "status": "event". The main thread constructs it and begins to listen, then the event
/// thread runs it.
///
/// The monitor copies its LLDB handles when it is constructed. A process that LLDB's command line
/// starts in the same target replaces the monitor's. The monitor shares four things with the main
/// thread: the channel's writer, which any thread may use, the flag that ends it, the reported
/// state, and the debugger's listener, at which the main thread only looks.
class EventMonitor {
 public:
  /// The types of this program's own events. One ends a wait for events early, and does nothing
  /// else. The other has a stop reported that was hidden.
  static constexpr std::uint32_t wakeupBit = 1, hiddenStopBit = 2;

  /// The references must outlive the monitor.
  EventMonitor(lldb::SBDebugger debugger, lldb::SBTarget target, MessageChannel &channel,
               const std::atomic<bool> &stopEventThread, ReportedState &reportedState);

  /// Has LLDB queue the events from now on.
  void startListening();

  /// Undoes startListening.
  void stopListening();

  /// Reports the events until `stopEventThread` is set. For the event thread.
  void run();

 private:
  void handleEvent();
  void handleProcessEvent(std::uint32_t type);

  using OutputReader = std::size_t (lldb::SBProcess::*)(char *, std::size_t) const;

  /// Sends one message for each read of at most 256 bytes, until a read returns fewer.
  void reportOutput(const char *type, OutputReader read);
  void reportState(lldb::StateType state, bool isRestarted);
  void sendState(lldb::StateType state);

  /// Reports the process's last stop, which was hidden because the process was to end there.
  void reportHiddenStop();

  /// Selects the thread that the host has stepped, if it stopped for a reason: LLDB selects another
  /// thread at a stop, and the host goes on with the one that it chose.
  void selectSteppedThread();
  void reportModulesLoaded();

  /// Adds "status" and "type" to `members` and sends them.
  void send(const char *type, Json::object members);

  lldb::SBTarget target;
  lldb::SBProcess process;
  lldb::SBListener listener;
  lldb::SBEvent event;
  MessageChannel &channel;
  const std::atomic<bool> &stopEventThread;
  ReportedState &reportedState;
  /// The state that the process reached without an event from LLDB, if there is such a state.
  std::optional<lldb::StateType> unreportedInitialState;
};

/// Whether LLDB has queued a state change of `process` that nobody has taken.
bool isStateChangeQueued(lldb::SBProcess process, lldb::SBListener listener);

#pragma once

#include <lldb/API/LLDB.h>

#include <atomic>

// LLDB's state of a process moves when an event is taken from the listener, so behind a resume it
// says "stopped" for a while, and behind the next stop "running". A kill that LLDB begins meanwhile
// goes wrong: in the first gap it frees what its own thread is working with and the program crashes
// (seen with LLDB 22), in the second it waits 20 seconds for a stop that has been (14 to 22).
//
// For the main thread. What waits here needs the event thread, and gives up after two seconds: then
// the host does not read, or the process does not stop, and LLDB's own bounds hold.

/// Whether LLDB has queued a state change of `process` that nobody has taken yet.
bool stateChangeIsQueued(lldb::SBProcess process, lldb::SBListener listener);

/// Returns when LLDB's state of `process`, which may be invalid, is behind by no event.
void awaitQueuedStates(lldb::SBProcess process, lldb::SBListener listener);

/// A process that stands still, so that LLDB can end it.
class Halt {
 public:
  /// Interrupts `process` if it runs and returns when its stop has been taken. As long as the
  /// object lives `stopsAreHidden` is set: the host asked for the end and hears of no stop.
  Halt(lldb::SBProcess process, std::atomic<bool> &stopsAreHidden);
  ~Halt() { stopsAreHidden = false; }
  Halt(const Halt &) = delete;
  Halt &operator=(const Halt &) = delete;

 private:
  std::atomic<bool> &stopsAreHidden;
};

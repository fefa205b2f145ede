#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

/// What the program arranges about its own process before it starts LLDB.
namespace platform {

/// The environment the program was started with, as name=value texts in their order. Taken at the
/// first call, which therefore comes before anything changes the environment.
const std::vector<std::string> &startEnvironment();

/// Marks `input`, `output` and every open descriptor above 2 close-on-exec, so that neither
/// lldb-server nor the inferior holds the host's pipes open or can write to them.
void keepDescriptorsPrivate(int input, int output);

/// A duplicate of the terminal, its master side, that somebody in this process opened after
/// keepDescriptorsPrivate was called: the one through which LLDB talks to the inferior. Writing to
/// the terminal no longer waits for room from then on. The caller's to close. -1 when there is
/// none.
int openTerminal();

/// Whether the terminal takes at least one byte. Waits for room for `time`, below a second, at
/// most.
bool terminalHasRoom(int terminal, std::chrono::milliseconds time);

/// The descriptors that are open, or a range that holds them.
std::vector<int> openDescriptors();

/// Ends the connection of every stream socket that is open and not one of `known`: who waits there
/// for a peer is woken, and fails. The descriptors stay open, their owner's to close.
void shutDownSockets(const std::vector<int> &known);

/// Whether a file that is there can be opened without waiting for somebody, and ends: no pipe, no
/// device, no socket. A folder may hold a program on macOS.
bool isFileOrFolder(const std::string &path);

/// Whether this is the number of this process or of one that it has started, a debug server.
bool isOwnProcess(pid_t pid);

/// Takes PYTHONHOME out of the environment. LLDB starts its Python with it, and one that is meant
/// for another Python ends this program. Called once, after startEnvironment, before there are
/// threads.
void forgetPythonHome();

/// Whether a program can be started without address space layout randomisation. Containers' system
/// call filters may forbid it (Docker's does), and LLDB launches nothing then if it is told to.
bool canDisableAslr();

/// Blocks SIGPIPE in the calling thread and in the threads it will start: writing to a reader that
/// is gone must fail, not end the program. The signal's disposition stays as it is, and LLDB starts
/// its children with an empty signal mask.
void blockBrokenPipeSignal();

}  // namespace platform

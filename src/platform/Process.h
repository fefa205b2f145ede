#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

/// What the program needs of its own process and of the system's processes and files.
namespace platform {

/// Returns the environment that the program was started with, as name=value texts in their order.
/// The first call takes it, so make that call before anything changes the environment.
const std::vector<std::string> &initialEnvironment();

/// Marks `input`, `output` and every open descriptor above 2 close-on-exec, so that neither
/// lldb-server nor the inferior can keep the host's pipes open or write to them.
void keepDescriptorsPrivate(int input, int output);

/// Duplicates the master side of the inferior's pty: the first pty that was opened in this process
/// after keepDescriptorsPrivate. The caller closes the duplicate. Writes to the pty no longer wait
/// for room after this call. Returns -1 when there is no such pty.
int duplicateInferiorPty();

/// Whether the pty takes at least one byte. Waits for room for at most `time`, which is below a
/// second.
bool ptyHasRoom(int pty, std::chrono::milliseconds time);

/// Returns the open descriptors. Where the system does not list them, returns those up to its limit
/// or 65,536.
std::vector<int> openDescriptors();

/// Shuts down every open stream socket that is not in `known`. Whoever waits for the peer wakes up
/// and fails. The descriptors stay open for their owner to close.
void shutDownSockets(const std::vector<int> &known);

/// Whether an existing file can be read to its end without waiting: it is no pipe, device or
/// socket. True for a folder, which may hold a program on macOS, and for a missing file.
bool isFileOrFolder(const std::string &path);

/// Whether this is the number of this process or of a child of it, which is a debug server.
bool isOwnProcess(pid_t pid);

/// Removes PYTHONHOME from the environment. LLDB starts its Python with it, and a value for another
/// Python ends the program. Call it once, after the first initialEnvironment, before there are
/// threads.
void forgetPythonHome();

/// Whether a program can be started without address space layout randomization (ASLR). System call
/// filters of containers may forbid it, as Docker's does. LLDB then fails to launch with ASLR
/// disabled.
bool canDisableAslr();

/// Blocks SIGPIPE in the calling thread and in the threads that it starts, so that writing to a
/// closed pipe fails instead of ending the program. The signal's disposition stays as it is, and
/// LLDB starts its children with an empty signal mask.
void blockBrokenPipeSignal();

}  // namespace platform

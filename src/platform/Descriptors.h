#pragma once

#include <chrono>
#include <string>
#include <vector>

/// Open descriptors: which are there, which are kept private, ptys, sockets and files.
namespace platform {

/// Marks `input`, `output` and every open descriptor above 2 close-on-exec, so that neither
/// lldb-server nor the inferior can keep the host's pipes open or write to them.
void keepDescriptorsPrivate(int input, int output);

/// Finds the master side of the inferior's pty, which LLDB has opened: the first pty that was
/// opened in this process after keepDescriptorsPrivate. Makes it non-blocking, so that LLDB's own
/// writes no longer wait for room either. Returns a duplicate, which the caller closes, or -1 when
/// there is no such pty.
int unblockAndDuplicateInferiorPty();

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

}  // namespace platform

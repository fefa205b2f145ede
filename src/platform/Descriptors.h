#pragma once

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

/// Open descriptors: which are there, which are kept private, ptys, sockets and files.
namespace platform {

/// Marks `input`, `output` and every open descriptor above 2 close-on-exec, so that neither
/// lldb-server nor the inferior can keep the host's pipes open or write to them.
void keepDescriptorsPrivate(int input, int output);

/// Finds the master side of the inferior's pty, which LLDB has opened: the first pty among
/// openDescriptors() that keepDescriptorsPrivate has not seen. Makes it non-blocking: LLDB then
/// tries again when the pty is full, and does not wait inside write(2). Returns a duplicate, which
/// the caller closes, or -1 when there is no such pty.
int unblockAndDuplicateInferiorPty();

enum class Use { Read, Write };

/// Whether a read from the descriptor, or a write of one byte to it, would not wait: it can be
/// done, or it fails. Waits for that for at most `time`. May also return true early.
bool isReady(int descriptor, Use use, std::chrono::milliseconds time);

/// Whether the stream holds bytes that it has read from its descriptor and nobody has taken.
/// isReady does not know them.
bool hasBufferedInput(FILE *stream);

/// Returns the numbers of the open descriptors. Where the system does not list them, returns every
/// number below its limit, open or not, and at most 65,536. Only keepDescriptorsPrivate has a use
/// for such a list: for the other two nothing counts as new, so no pty is found and no socket shut
/// down.
std::vector<int> openDescriptors();

/// Shuts down every open stream socket that is not in `known`. Whoever waits for the peer wakes up
/// and fails. The descriptors stay open for their owner to close.
void shutDownSockets(const std::vector<int> &known);

/// Whether LLDB can be given this path as a program. LLDB waits for ever for a pipe, a terminal and
/// a device without end: false for these. True for all other paths, because LLDB itself refuses
/// what is no program.
bool isSafeToOpen(const std::string &path);

}  // namespace platform

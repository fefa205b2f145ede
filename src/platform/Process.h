#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

/// The program's own process, and which processes it may attach to.
namespace platform {

/// Returns the environment that the program was started with, as name=value texts in their order.
/// The first call takes it, so make that call before anything changes the environment.
const std::vector<std::string> &initialEnvironment();

/// Whether this is the number of this process, or of a debug server that it has started: a child
/// whose executable is LLDB's debug server.
///
/// False for any other child, which may be debugged like all programs. It may be there for two
/// reasons. A shell script started it, and then became this program by exec. Or this program is the
/// first process of a container, which adopts every orphan.
bool isOwnProcess(pid_t pid);

/// Whether LLDB's debug server has this name or path: lldb-server, with or without a version,
/// debugserver, or what LLDB_DEBUGSERVER_PATH names.
bool isDebugServer(const std::string &path);

/// Removes PYTHONHOME from the environment. LLDB starts its Python with it, and a value for another
/// Python ends the program. Call it once, after the first initialEnvironment, before there are
/// threads.
void forgetPythonHome();

/// Sets the environment variable LLDB_DEBUGSERVER_PATH, unless it is set, so that LLDB finds the
/// server program through which it debugs local processes.
///
/// Debian and Ubuntu install LLDB's library as a symbolic link. LLDB follows the link and looks for
/// lldb-server in the wrong folder. The variable names the lldb-server of the LLDB that this
/// program was built with, or else the one in PATH. On macOS this does nothing: LLDB finds Apple's
/// signed debugserver itself.
///
/// Call it once, before any other thread exists and after the first initialEnvironment.
void setDebugServerPath();

/// Whether a program can be started without address space layout randomization (ASLR). System call
/// filters of containers may forbid it, as Docker's does. LLDB then fails to launch with ASLR
/// disabled.
bool canDisableAslr();

/// Blocks SIGPIPE in the calling thread and in the threads that it starts, so that writing to a
/// closed pipe fails instead of ending the program. The signal's disposition stays as it is, and
/// LLDB starts its children with an empty signal mask.
void blockBrokenPipeSignal();

}  // namespace platform

#pragma once

namespace platform {

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

}  // namespace platform

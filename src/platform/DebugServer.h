#pragma once

namespace platform {

/// Sees to it that LLDB finds the server program through which it debugs local processes.
///
/// Debian and Ubuntu install LLDB's library behind a symbolic link; LLDB follows it and then looks
/// for lldb-server in a folder where it is not. So the environment variable LLDB_DEBUGSERVER_PATH,
/// which LLDB asks first, is set to the lldb-server that belongs to the LLDB this program was built
/// with, or to the one that PATH holds. A value that is already set stays. On macOS nothing is
/// done: LLDB finds Apple's signed debugserver itself.
///
/// Changes the environment: called once, before any other thread exists and after
/// startEnvironment has been called for the first time.
void provideDebugServer();

}  // namespace platform

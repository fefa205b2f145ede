# Cross-compiles for macOS on Linux with Zig, which contains clang, libc++ and macOS's headers. Only
# script/check-macos uses it. The environment has the path of Zig and the processor.

set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR $ENV{MACOS_CHECK_PROCESSOR})

set(_target -target $ENV{MACOS_CHECK_PROCESSOR}-macos.13.0)
set(CMAKE_C_COMPILER $ENV{MACOS_CHECK_ZIG} cc ${_target})
set(CMAKE_CXX_COMPILER $ENV{MACOS_CHECK_ZIG} c++ ${_target})
set(CMAKE_AR llvm-ar)
set(CMAKE_RANLIB llvm-ranlib)
set(CMAKE_INSTALL_NAME_TOOL llvm-install-name-tool)

# Zig lacks os/log.h.
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES "${CMAKE_CURRENT_LIST_DIR}")

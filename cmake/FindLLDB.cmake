# Finds LLDB's headers and library. Only this file knows where systems keep them.
#
# If LLDB_ROOT (an LLVM prefix, with include/lldb and lib/liblldb) is set, uses that LLDB. Otherwise
# uses the newest installed LLDB, from 22 to 14, in the folders of Debian, Ubuntu, Fedora and Homebrew.
#
# Defines the target LLDB::LLDB and
#   LLDB_VERSION_MAJOR  the major version, if the name of the folder or the library contains it
#   LLDB_SERVER         lldb-server, or empty if there is none (macOS has its own debugserver)

set(_lldb_newest 22)
set(_lldb_oldest 14)

set(_lldb_prefixes)
foreach(_version RANGE ${_lldb_newest} ${_lldb_oldest} -1)
  list(APPEND _lldb_prefixes
    /usr/lib/llvm-${_version}
    /usr/lib64/llvm${_version}
    /opt/homebrew/opt/llvm@${_version}
    /usr/local/opt/llvm@${_version})
endforeach()
list(APPEND _lldb_prefixes /opt/homebrew/opt/llvm /usr/local/opt/llvm /usr)
if(LLDB_ROOT)
  set(_lldb_prefixes "${LLDB_ROOT}")
endif()

# A changed LLDB_ROOT must not find the LLDB of the last configuration.
if(NOT "${LLDB_ROOT}" STREQUAL "${_LLDB_ROOT_OF_CACHE}")
  unset(LLDB_INCLUDE_DIR CACHE)
  unset(LLDB_LIBRARY CACHE)
  unset(LLDB_SERVER CACHE)
  set(_LLDB_ROOT_OF_CACHE "${LLDB_ROOT}" CACHE INTERNAL "")
endif()

foreach(_prefix IN LISTS _lldb_prefixes)
  find_path(LLDB_INCLUDE_DIR lldb/API/LLDB.h PATHS "${_prefix}/include" NO_DEFAULT_PATH)
  find_library(LLDB_LIBRARY NAMES lldb liblldb.so.1
    PATHS "${_prefix}/lib" "${_prefix}/lib64" NO_DEFAULT_PATH)
  if(LLDB_INCLUDE_DIR AND LLDB_LIBRARY)
    set(_lldb_prefix "${_prefix}")
    break()
  endif()
  unset(LLDB_INCLUDE_DIR CACHE)
  unset(LLDB_LIBRARY CACHE)
endforeach()

if(LLDB_LIBRARY)
  get_filename_component(_lldb_file "${LLDB_LIBRARY}" REALPATH)
  if("${_lldb_file} ${_lldb_prefix}" MATCHES "(liblldb-|liblldb\\.so\\.|liblldb\\.|llvm-|llvm@|llvm)([0-9][0-9])")
    set(LLDB_VERSION_MAJOR "${CMAKE_MATCH_2}")
  endif()
  find_program(LLDB_SERVER lldb-server PATHS "${_lldb_prefix}/bin" NO_DEFAULT_PATH)
  if(NOT LLDB_SERVER)
    set(LLDB_SERVER "")
  endif()
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(LLDB
  REQUIRED_VARS LLDB_LIBRARY LLDB_INCLUDE_DIR
  REASON_FAILURE_MESSAGE "Run script/bootstrap, or set -DLLDB_ROOT=PREFIX.")

if(LLDB_FOUND AND NOT TARGET LLDB::LLDB)
  add_library(LLDB::LLDB SHARED IMPORTED)
  set_target_properties(LLDB::LLDB PROPERTIES
    IMPORTED_LOCATION "${LLDB_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${LLDB_INCLUDE_DIR}")
  if(LLDB_ROOT AND NOT APPLE)
    # An LLDB that is unpacked by hand has its libraries beside it.
    get_filename_component(_lldb_folder "${_lldb_file}" DIRECTORY)
    target_link_options(LLDB::LLDB INTERFACE
      "LINKER:-rpath-link,${_lldb_folder}:${_lldb_prefix}/lib")
  endif()
endif()
mark_as_advanced(LLDB_INCLUDE_DIR LLDB_LIBRARY LLDB_SERVER)

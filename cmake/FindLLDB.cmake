# Finds LLDB's headers and library. Only this file knows where systems keep them.
#
# If LLDB_ROOT (an LLVM prefix, with include/lldb and lib/liblldb) is set, uses that LLDB. Otherwise
# uses the newest installed LLDB of those in lldb-versions, in the folders of Debian, Ubuntu, Fedora and
# Homebrew. If only others are installed, takes the newest of them, and prints a line for a newer one.
# Refuses one that is older than all in the list.
#
# Defines the target LLDB::LLDB and
#   LLDB_VERSION_MAJOR  the major version, if the name of the folder or the library contains it
#   LLDB_SERVER         lldb-server, or empty if there is none (macOS has its own debugserver)

file(STRINGS "${CMAKE_CURRENT_LIST_DIR}/lldb-versions" _lldb_versions REGEX "^[0-9]+$")
list(GET _lldb_versions 0 _lldb_oldest)
list(GET _lldb_versions -1 _lldb_newest)
list(REVERSE _lldb_versions)

set(_lldb_prefixes)
foreach(_version IN LISTS _lldb_versions)
  list(APPEND _lldb_prefixes
    /usr/lib/llvm-${_version}
    /usr/lib64/llvm${_version}
    /opt/homebrew/opt/llvm@${_version}
    /usr/local/opt/llvm@${_version})
endforeach()
list(APPEND _lldb_prefixes /opt/homebrew/opt/llvm /usr/local/opt/llvm /usr)
# The versions that are not in the list, the newest first.
file(GLOB _lldb_others /usr/lib/llvm-[0-9]* /usr/lib64/llvm[0-9]* /opt/homebrew/opt/llvm@[0-9]*
  /usr/local/opt/llvm@[0-9]*)
list(SORT _lldb_others COMPARE NATURAL ORDER DESCENDING)
list(APPEND _lldb_prefixes ${_lldb_others})
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
  if("${_lldb_file} ${_lldb_prefix}" MATCHES "(liblldb-|liblldb\\.so\\.|liblldb\\.|llvm-|llvm@|llvm)([0-9]+)")
    set(LLDB_VERSION_MAJOR "${CMAKE_MATCH_2}")
    if(LLDB_VERSION_MAJOR LESS _lldb_oldest)
      message(FATAL_ERROR "lldb-helper needs LLDB ${_lldb_oldest} or newer, and ${_lldb_prefix} has LLDB "
        "${LLDB_VERSION_MAJOR}. Run script/bootstrap, or set -DLLDB_ROOT=PREFIX.")
    elseif(LLDB_VERSION_MAJOR GREATER _lldb_newest)
      # script/build shows this line.
      message(NOTICE "lldb-helper: nobody has tried LLDB ${LLDB_VERSION_MAJOR} yet; the newest that is tested is "
        "LLDB ${_lldb_newest}")
    endif()
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

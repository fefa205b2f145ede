# Installs and packs the program, its man page, the documentation and the examples.

include(GNUInstallDirs)

# The program needs a path to LLDB only if the system's linker does not find LLDB by its name.
get_filename_component(lldb_file "${LLDB_LIBRARY}" REALPATH)
get_filename_component(lldb_folder "${lldb_file}" DIRECTORY)
if(NOT lldb_folder IN_LIST CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES)
  set_target_properties(lldb-helper PROPERTIES INSTALL_RPATH_USE_LINK_PATH ON)
endif()
install(TARGETS lldb-helper)

# The documents have the same folders as in the sources, so that their links work. The sources are not
# installed, so links to them become plain text.
file(READ README.md readme)
string(REGEX REPLACE "\\[([^]]*)\\]\\(src/[^)]*\\)" "\\1" readme "${readme}")
file(CONFIGURE OUTPUT README.md CONTENT "${readme}" @ONLY)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/README.md" CHANGELOG.md CONTRIBUTING.md TYPE DOC)
install(DIRECTORY docs TYPE DOC FILES_MATCHING PATTERN "*.md" PATTERN "*.json" PATTERN "*.svg"
  PATTERN "*.c" PATTERN "*.cpp")
install(DIRECTORY examples TYPE DOC FILES_MATCHING
  PATTERN "*.c" PATTERN "*.cpp" PATTERN "*.hpp" PATTERN "*.js" PATTERN "*.py")
# Slim images leave out the documentation, so the schema and the examples lie here too.
install(FILES docs/protocol.schema.json DESTINATION "${CMAKE_INSTALL_DATADIR}/lldb-helper/docs")
install(DIRECTORY examples DESTINATION "${CMAKE_INSTALL_DATADIR}/lldb-helper" FILES_MATCHING
  PATTERN "*.c" PATTERN "*.cpp" PATTERN "*.hpp" PATTERN "*.js" PATTERN "*.py")

# Debian requires an address. This one is reserved for examples and reaches nobody.
set(CPACK_PACKAGE_CONTACT "The lldb-helper developers <lldb-helper@example.org>")

# The man page and Debian's changelog, compressed as Debian requires.
find_program(GZIP gzip REQUIRED)
mark_as_advanced(GZIP)
string(TIMESTAMP CHANGELOG_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)  # uses SOURCE_DATE_EPOCH
foreach(page lldb-helper.1 changelog)
  configure_file(packaging/${page}.in ${page} @ONLY)
  execute_process(COMMAND "${GZIP}" -9nf "${CMAKE_CURRENT_BINARY_DIR}/${page}" COMMAND_ERROR_IS_FATAL ANY)
endforeach()
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/lldb-helper.1.gz" DESTINATION "${CMAKE_INSTALL_MANDIR}/man1")

set(CPACK_GENERATOR TGZ)
set(CPACK_STRIP_FILES ON)
string(TOLOWER "${CMAKE_SYSTEM_NAME}-${CMAKE_SYSTEM_PROCESSOR}" CPACK_SYSTEM_NAME)

find_program(DPKG_SHLIBDEPS dpkg-shlibdeps)
mark_as_advanced(DPKG_SHLIBDEPS)
if(DPKG_SHLIBDEPS)
  install(FILES "${CMAKE_CURRENT_BINARY_DIR}/changelog.gz" packaging/copyright TYPE DOC)
  list(APPEND CPACK_GENERATOR DEB)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_SECTION devel)
  set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"lldb-helper is a small debugger back-end. A host program starts it as a child
process, sends requests, and gets responses and events as JSON.")
  # dpkg-shlibdeps finds the libraries. lldb-server, which local debugging needs, is in a package that
  # no library depends on.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "lldb-${LLDB_VERSION_MAJOR}")
  set(CPACK_DEBIAN_PACKAGE_SUGGESTS "python3")
endif()
include(CPack)

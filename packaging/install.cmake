# What "cmake --install" installs, and what CPack packs: the program, its man page, the documentation
# and the examples.

include(GNUInstallDirs)

configure_file(packaging/lldb-helper.1.in lldb-helper.1 @ONLY)
install(TARGETS lldb-helper)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/lldb-helper.1" DESTINATION "${CMAKE_INSTALL_MANDIR}/man1")
install(FILES README.md CHANGELOG.md TYPE DOC)
install(DIRECTORY docs/ TYPE DOC FILES_MATCHING PATTERN "*.md" PATTERN "*.json" PATTERN "*.svg")
install(DIRECTORY examples TYPE DOC FILES_MATCHING
  PATTERN "*.c" PATTERN "*.cpp" PATTERN "*.hpp" PATTERN "*.js" PATTERN "*.py")

set(CPACK_GENERATOR TGZ)
set(CPACK_PACKAGE_CONTACT "The lldb-helper developers")
set(CPACK_STRIP_FILES ON)
string(TOLOWER "${CMAKE_SYSTEM_NAME}-${CMAKE_SYSTEM_PROCESSOR}" CPACK_SYSTEM_NAME)

find_program(DPKG_SHLIBDEPS dpkg-shlibdeps)
mark_as_advanced(DPKG_SHLIBDEPS)
if(DPKG_SHLIBDEPS)
  list(APPEND CPACK_GENERATOR DEB)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_SECTION devel)
  set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "A host program starts it as a child process, sends requests and gets responses and events as JSON.")
  # The libraries from the program itself; lldb-server, without which nothing local is debugged, is in
  # a package that no library depends on.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "lldb-${LLDB_VERSION_MAJOR}")
  set(CPACK_DEBIAN_PACKAGE_SUGGESTS "python3")
endif()
include(CPack)

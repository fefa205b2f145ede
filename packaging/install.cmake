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
install(DIRECTORY docs TYPE DOC FILES_MATCHING PATTERN "*.md" PATTERN "*.svg" PATTERN "*.c" PATTERN "*.cpp"
  PATTERN "*.json" PATTERN protocol.schema.json EXCLUDE)

# Slim images leave out the documentation, so what programs read, the schema and the examples, lies
# elsewhere. Links keep those of the documents working.
set(data_folder "${CMAKE_INSTALL_DATADIR}/lldb-helper")
install(FILES docs/protocol.schema.json DESTINATION "${data_folder}/docs")
install(DIRECTORY examples DESTINATION "${data_folder}" FILES_MATCHING
  PATTERN "*.c" PATTERN "*.cpp" PATTERN "*.hpp" PATTERN "*.js" PATTERN "*.py")
set(links "${CMAKE_CURRENT_BINARY_DIR}/links")
file(MAKE_DIRECTORY "${links}")
file(RELATIVE_PATH data_from_docs "/${CMAKE_INSTALL_DOCDIR}" "/${data_folder}")
file(CREATE_LINK "${data_from_docs}/examples" "${links}/examples" SYMBOLIC)
file(CREATE_LINK "../${data_from_docs}/docs/protocol.schema.json" "${links}/protocol.schema.json" SYMBOLIC)
install(FILES "${links}/examples" TYPE DOC)
install(FILES "${links}/protocol.schema.json" DESTINATION "${CMAKE_INSTALL_DOCDIR}/docs")

# The command line for a person.
file(RELATIVE_PATH CONSOLE_FOLDER "/${CMAKE_INSTALL_BINDIR}" "/${data_folder}/examples")
configure_file(packaging/lldb-helper-console.in lldb-helper-console @ONLY)
install(PROGRAMS "${CMAKE_CURRENT_BINARY_DIR}/lldb-helper-console" TYPE BIN)

# Debian requires an address. This one is reserved for examples and reaches nobody.
set(CPACK_PACKAGE_CONTACT "The lldb-helper developers <lldb-helper@example.org>")

# The man page and Debian's changelog, compressed as Debian requires.
find_program(GZIP gzip REQUIRED)
mark_as_advanced(GZIP)
string(TIMESTAMP CHANGELOG_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)  # uses SOURCE_DATE_EPOCH
foreach(page lldb-helper.1 lldb-helper-console.1 changelog)
  configure_file(packaging/${page}.in ${page} @ONLY)
  execute_process(COMMAND "${GZIP}" -9nf "${CMAKE_CURRENT_BINARY_DIR}/${page}" COMMAND_ERROR_IS_FATAL ANY)
endforeach()
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/lldb-helper.1.gz"
  "${CMAKE_CURRENT_BINARY_DIR}/lldb-helper-console.1.gz" DESTINATION "${CMAKE_INSTALL_MANDIR}/man1")

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
  # Only lldb-helper-console needs Python.
  set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "python3")
endif()
include(CPack)

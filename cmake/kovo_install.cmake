# What `cmake --install` puts where: the library, its headers, the CMake package and kovo.pc for those
# who build on it, the program with its manual pages and completions, the Python module, the texts.

include(CMakePackageConfigHelpers)

set(KOVO_PYTHON_DIR lib/python3/dist-packages CACHE STRING
  "Folder of Python modules, below the prefix")

install(TARGETS kovo kovo_cli EXPORT kovo-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/kovo DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

# --- CMake package and pkg-config file ------------------------------------------------------------

set(package ${CMAKE_INSTALL_LIBDIR}/cmake/kovo)
install(EXPORT kovo-targets NAMESPACE kovo:: DESTINATION ${package})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/kovo-config.cmake.in
  ${PROJECT_BINARY_DIR}/kovo-config.cmake
  INSTALL_DESTINATION ${package}
  NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kovo-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/kovo-config.cmake ${PROJECT_BINARY_DIR}/kovo-config-version.cmake
  DESTINATION ${package})

# kovo.pc finds the prefix from where it lies, so that the installed tree can be moved.
file(RELATIVE_PATH KOVO_PREFIX_FROM_PC
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" KOVO_PREFIX_FROM_PC "${KOVO_PREFIX_FROM_PC}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/kovo.pc.in ${PROJECT_BINARY_DIR}/kovo.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kovo.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# --- Manual pages ---------------------------------------------------------------------------------

install(FILES ${PROJECT_SOURCE_DIR}/docs/man/kovo.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${PROJECT_SOURCE_DIR}/docs/man/kovo.3 DESTINATION ${CMAKE_INSTALL_MANDIR}/man3)
# `man kovoDownload` leads to the page that tells of every function.
foreach(header IN ITEMS kovo.h kovo_ext.h)
  set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY
    CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/include/kovo/${header})
  file(STRINGS ${PROJECT_SOURCE_DIR}/include/kovo/${header} declarations REGEX "^KOVO_API ")
  foreach(declaration IN LISTS declarations)
    string(REGEX MATCH "kovo[A-Z][A-Za-z0-9]*" function "${declaration}")
    file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/man3/${function}.3 CONTENT ".so man3/kovo.3\n")
    install(FILES ${PROJECT_BINARY_DIR}/man3/${function}.3
      DESTINATION ${CMAKE_INSTALL_MANDIR}/man3)
  endforeach()
endforeach()

# --- Completions ----------------------------------------------------------------------------------

set(completions ${PROJECT_SOURCE_DIR}/packaging/completions)
install(FILES ${completions}/kovo.bash RENAME kovo
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
install(FILES ${completions}/kovo.fish
  DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
# Debian's zsh looks for what packages bring in a folder of its own.
install(CODE "
  set(folder site-functions)
  if(CMAKE_INSTALL_PREFIX MATCHES \"/usr/?$\" AND EXISTS /etc/debian_version)
    set(folder vendor-completions)
  endif()
  file(INSTALL \"${completions}/_kovo\" DESTINATION
    \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DATADIR}/zsh/\${folder}\")")

# --- Python module and texts ----------------------------------------------------------------------

install(DIRECTORY ${PROJECT_SOURCE_DIR}/python/kovo DESTINATION ${KOVO_PYTHON_DIR}
  FILES_MATCHING PATTERN "*.py" PATTERN "py.typed" PATTERN "__pycache__" EXCLUDE)
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples DESTINATION ${CMAKE_INSTALL_DOCDIR}
  FILES_MATCHING PATTERN "*.c" PATTERN "README.md")

# `cmake --install` installs the libraries, their headers and the program, so that another project can use
#
#   find_package(scopeinfo REQUIRED)                          # scopeinfo::scopeinfo, the module
#   find_package(scopeinfo REQUIRED COMPONENTS standalone)    # and scopeinfo::standalone, the host around it
#
# The second one needs SQLite, GLib and fmt on the machine; the first one needs nothing else.

if(NOT TARGET scopeinfo)
  return()
endif()

include(CMakePackageConfigHelpers)
set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/scopeinfo")

install(TARGETS scopeinfo EXPORT scopeinfo FILE_SET HEADERS)
install(EXPORT scopeinfo
  NAMESPACE scopeinfo:: FILE scopeinfo-module.cmake DESTINATION "${package_dir}")

if(TARGET scopeinfo_standalone)
  install(TARGETS scopeinfo_standalone scopeinfo_python_grammar scopeinfo_tree_sitter EXPORT scopeinfo_standalone
    FILE_SET HEADERS)
  install(EXPORT scopeinfo_standalone
    NAMESPACE scopeinfo:: FILE scopeinfo-standalone.cmake DESTINATION "${package_dir}")
  install(FILES cmake/ScopeinfoDependencies.cmake DESTINATION "${package_dir}")
endif()

if(TARGET scopeinfo_program)
  install(TARGETS scopeinfo_program)
endif()

configure_package_config_file(
  cmake/scopeinfo-config.cmake.in "${PROJECT_BINARY_DIR}/scopeinfo-config.cmake"
  INSTALL_DESTINATION "${package_dir}"
  NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/scopeinfo-config-version.cmake"
  COMPATIBILITY SameMinorVersion)
install(FILES
  "${PROJECT_BINARY_DIR}/scopeinfo-config.cmake"
  "${PROJECT_BINARY_DIR}/scopeinfo-config-version.cmake"
  DESTINATION "${package_dir}")

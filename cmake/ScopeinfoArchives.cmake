# A target with the property SCOPEINFO_ARCHIVES links SQLite and GLib as archives. Each shared library costs a program
# about 100 us at every start, and the `scopeinfo` program is started for every query. If this machine lacks an archive,
# the library stays shared.
#
# Only for the targets of this build: users of the installed package link the libraries of their own machine.

function(scopeinfo_allow_archives prefix)
  set(archives)
  foreach(name IN LISTS ${prefix}_STATIC_LIBRARIES)
    if(name MATCHES "^(m|dl|rt|pthread)$")
      list(APPEND archives ${name}) # part of the C library, which stays shared
    else()
      find_library(SCOPEINFO_ARCHIVE_${name} "lib${name}.a" HINTS ${${prefix}_STATIC_LIBRARY_DIRS})
      mark_as_advanced(SCOPEINFO_ARCHIVE_${name})
      if(NOT SCOPEINFO_ARCHIVE_${name})
        message(STATUS "No archive of ${name}: ${prefix} is linked as shared libraries")
        return()
      endif()
      list(APPEND archives "${SCOPEINFO_ARCHIVE_${name}}")
    endif()
  endforeach()
  get_target_property(shared PkgConfig::${prefix} INTERFACE_LINK_LIBRARIES)
  set(wants_archives "$<BOOL:$<TARGET_PROPERTY:SCOPEINFO_ARCHIVES>>")
  set_target_properties(PkgConfig::${prefix} PROPERTIES
    INTERFACE_LINK_LIBRARIES "$<IF:${wants_archives},${archives},${shared}>")
endfunction()

foreach(prefix SCOPEINFO_SQLITE SCOPEINFO_GLIB)
  scopeinfo_allow_archives(${prefix})
endforeach()

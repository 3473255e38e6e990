# Lets a target link SQLite and GLib as archives, by setting its property SCOPEINFO_ARCHIVES. Each shared
# library that a program needs costs it some 100 us at every start, and the `scopeinfo` program is started for every
# question. What has no archive on this machine stays shared.
#
# For the targets of this build alone: who finds the installed package links what that machine has.

function(scopeinfo_allow_archives prefix)
  set(archives)
  foreach(name IN LISTS ${prefix}_STATIC_LIBRARIES)
    if(name MATCHES "^(m|dl|rt|pthread)$")
      list(APPEND archives ${name}) # of the C library, which stays shared
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

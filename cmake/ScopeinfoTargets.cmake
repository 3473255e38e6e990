# The settings of all targets of the project: the language, the warnings, the sanitizers, and the one include root,
# which is the root of the repository (`#include "pysource/host/location.h"`).

set(SCOPEINFO_WARNINGS
  -Wall
  -Wextra
  -Wpedantic
  -Wcast-align
  -Wconversion
  -Wno-sign-conversion # sizes and iterator differences mix so often that the warning says nothing
  -Wextra-semi
  -Wformat=2
  -Wimplicit-fallthrough
  -Wnon-virtual-dtor
  -Wold-style-cast
  -Woverloaded-virtual
  -Wshadow
  -Wundef
  -Wunused)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  list(APPEND SCOPEINFO_WARNINGS
    -Wduplicated-cond
    -Wlogical-op
    -Wsuggest-override
    -Wno-restrict) # optimising, GCC 12 reports overlaps in its own std::string (GCC bug 105329)
else()
  list(APPEND SCOPEINFO_WARNINGS -Wreserved-identifier)
endif()
if(SCOPEINFO_WARNINGS_AS_ERRORS)
  list(APPEND SCOPEINFO_WARNINGS -Werror)
endif()

if(SCOPEINFO_SANITIZE)
  set(sanitizers -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_compile_options(${sanitizers})
  add_link_options(${sanitizers})
endif()

# Gives `target` the settings with which all of the project's own code is built.
function(scopeinfo_target target)
  set_target_properties(${target} PROPERTIES
    CXX_EXTENSIONS OFF
    POSITION_INDEPENDENT_CODE ON)
  target_compile_features(${target} PUBLIC cxx_std_20)
  target_compile_options(${target} PRIVATE ${SCOPEINFO_WARNINGS})
  target_include_directories(${target} PRIVATE "${PROJECT_SOURCE_DIR}")
  set_property(GLOBAL APPEND PROPERTY SCOPEINFO_OWN_TARGETS ${target})
endfunction()

# Like `scopeinfo_target`, for a library that is installed with its headers. Each header is also compiled on its own
# (target all_verify_interface_header_sets), and the library is instrumented for the fuzzers.
function(scopeinfo_library target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "HEADERS")
  scopeinfo_target(${target})
  target_sources(${target} PUBLIC
    FILE_SET HEADERS BASE_DIRS "${PROJECT_SOURCE_DIR}" FILES ${arg_HEADERS})
  set_target_properties(${target} PROPERTIES VERIFY_INTERFACE_HEADER_SETS ON)
  if(SCOPEINFO_FUZZ)
    target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link)
    target_link_options(${target} INTERFACE $<BUILD_INTERFACE:-fsanitize=fuzzer-no-link>)
  endif()
endfunction()

# The targets `format`, `format-check` and `tidy`. All three need the tools of LLVM 14: other releases format
# differently and find other faults.

find_program(CLANG_FORMAT_PROGRAM clang-format-14)
find_program(CLANG_TIDY_PROGRAM clang-tidy-14)
find_program(CLANGXX_PROGRAM clang++-14)

set(own_code)
foreach(folder pysource tools tests bench fuzz examples)
  file(GLOB_RECURSE found CONFIGURE_DEPENDS "${folder}/*.h" "${folder}/*.cc")
  list(APPEND own_code ${found})
endforeach()
list(FILTER own_code EXCLUDE REGEX "/tests/data/")

if(CLANG_FORMAT_PROGRAM AND own_code)
  add_custom_target(format
    COMMAND "${CLANG_FORMAT_PROGRAM}" -i ${own_code}
    WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}"
    VERBATIM)
  add_custom_target(format-check
    COMMAND "${CLANG_FORMAT_PROGRAM}" --dry-run -Werror ${own_code}
    WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}"
    VERBATIM)
endif()

# One command and one stamp for each source file: a file is checked again when it, a header that it includes, or
# .clang-tidy has changed. clang-tidy does not list the headers of a file, so the compiler does.
if(CLANG_TIDY_PROGRAM AND CLANGXX_PROGRAM)
  set(stamps)
  get_property(own_targets GLOBAL PROPERTY SCOPEINFO_OWN_TARGETS)
  foreach(target IN LISTS own_targets)
    get_target_property(sources ${target} SOURCES)
    get_target_property(source_dir ${target} SOURCE_DIR)
    list(FILTER sources INCLUDE REGEX "\\.cc$")
    foreach(source IN LISTS sources)
      cmake_path(ABSOLUTE_PATH source BASE_DIRECTORY "${source_dir}")
      cmake_path(RELATIVE_PATH source BASE_DIRECTORY "${PROJECT_SOURCE_DIR}" OUTPUT_VARIABLE name)
      set(stamp "${PROJECT_BINARY_DIR}/tidy/${name}.stamp")
      if(stamp IN_LIST stamps)
        continue() # a source that two targets share
      endif()
      list(APPEND stamps "${stamp}")
      add_custom_command(OUTPUT "${stamp}"
        COMMAND sh "${PROJECT_SOURCE_DIR}/cmake/tidy.sh"
          "${CLANG_TIDY_PROGRAM}" "${CLANGXX_PROGRAM}" "${PROJECT_BINARY_DIR}" "${source}" "${stamp}"
          "-I$<JOIN:$<TARGET_PROPERTY:${target},INCLUDE_DIRECTORIES>,;-I>"
        DEPENDS "${source}" "${PROJECT_SOURCE_DIR}/.clang-tidy" "${PROJECT_SOURCE_DIR}/cmake/tidy.sh"
        DEPFILE "${stamp}.d"
        COMMENT "clang-tidy ${name}"
        COMMAND_EXPAND_LISTS
        VERBATIM)
    endforeach()
  endforeach()
  add_custom_target(tidy DEPENDS ${stamps})
endif()

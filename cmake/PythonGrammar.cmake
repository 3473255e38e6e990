# The C sources of the parser library tree-sitter and of its Python grammar, from the npm packages that package.json
# pins, as the static libraries `scopeinfo_tree_sitter` and `scopeinfo_python_grammar`. scripts/setup.sh, which ./run
# and ./test call, installs the packages.
#
# Not Debian's libtree-sitter: 0.20.7 writes beyond its memory when a node has 65,536 children. Among the releases
# without that fault, the grammar requires 0.22.4; 0.25.1 takes a fifth more time for the standard library.

set(tree_sitter_dir "${PROJECT_SOURCE_DIR}/node_modules/tree-sitter/vendor/tree-sitter/lib")
set(grammar_source_dir "${PROJECT_SOURCE_DIR}/node_modules/tree-sitter-python/src")
foreach(source "${tree_sitter_dir}/src/lib.c" "${grammar_source_dir}/parser.c")
  if(NOT EXISTS "${source}")
    message(FATAL_ERROR
      "The parser's sources are missing (${source}). "
      "Run `npm ci --ignore-scripts` in ${PROJECT_SOURCE_DIR}, or ./run, which does it for you.")
  endif()
endforeach()

# Optimised in every build, like a package of the system: the tests parse a lot, and nobody needs a debug build of the
# parser.
add_library(scopeinfo_tree_sitter STATIC "${tree_sitter_dir}/src/lib.c")
target_include_directories(scopeinfo_tree_sitter
  PRIVATE "${tree_sitter_dir}/src"
  PUBLIC $<BUILD_INTERFACE:${tree_sitter_dir}/include>)
target_compile_definitions(scopeinfo_tree_sitter PRIVATE _POSIX_C_SOURCE=200112L _DEFAULT_SOURCE)

add_library(scopeinfo_python_grammar STATIC
  "${grammar_source_dir}/parser.c"
  "${grammar_source_dir}/scanner.c")
target_include_directories(scopeinfo_python_grammar PRIVATE "${grammar_source_dir}")

foreach(library scopeinfo_tree_sitter scopeinfo_python_grammar)
  set_target_properties(${library} PROPERTIES
    C_STANDARD 11
    POSITION_INDEPENDENT_CODE ON)
  # Not our code, so its warnings are not reported. Nine tenths of the grammar are tables.
  target_compile_options(${library} PRIVATE -w -O2)
endforeach()

# The C sources of tree-sitter's Python grammar, from the npm package that package.json pins, as the static library
# `scopeinfo_python_grammar`. scripts/setup.sh (which ./run and ./test call) puts the package in place.

set(grammar_source_dir "${PROJECT_SOURCE_DIR}/node_modules/tree-sitter-python/src")
if(NOT EXISTS "${grammar_source_dir}/parser.c")
  message(FATAL_ERROR
    "The Python grammar is missing (${grammar_source_dir}/parser.c). "
    "Run `npm ci --ignore-scripts` in ${PROJECT_SOURCE_DIR}, or ./run, which does it for you.")
endif()

add_library(scopeinfo_python_grammar STATIC
  "${grammar_source_dir}/parser.c"
  "${grammar_source_dir}/scanner.c")
set_target_properties(scopeinfo_python_grammar PROPERTIES
  C_STANDARD 11
  POSITION_INDEPENDENT_CODE ON)
target_include_directories(scopeinfo_python_grammar PRIVATE "${grammar_source_dir}")
# Not our code, so its warnings are not ours to mend. Nine tenths of it are tables.
target_compile_options(scopeinfo_python_grammar PRIVATE -w)

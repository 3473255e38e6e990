#!/bin/sh
# usage: tidy.sh CLANG_TIDY CLANGXX BUILD SOURCE STAMP -IDIR...
# Runs clang-tidy on one source file; prints nothing if it finds nothing. Writes the headers of SOURCE to STAMP.d.
set -eu

clang_tidy=$1 clangxx=$2 build=$3 source=$4 stamp=$5
shift 5

mkdir -p "$(dirname "$stamp")"
"$clangxx" -std=c++20 "$@" -MM -MT "$stamp" -MF "$stamp.d" "$source"

# The compile commands of a GCC build contain warning options that Clang does not know.
if ! "$clang_tidy" -p "$build" --quiet --extra-arg=-Wno-unknown-warning-option "$source" >"$stamp.log" 2>&1; then
  cat "$stamp.log"
  exit 1
fi
touch "$stamp"

#!/usr/bin/env bash
# usage: installed_test.sh CMAKE SOURCE BUILD CXX
# Installs the build into a folder of its own, and builds two strangers against what is there: one that includes every
# installed header of the module, and examples/embed, which is also run.
set -euo pipefail

cmake=$1 source=$2 build=$3 cxx=$4
work=$build/install-check
prefix=$work/prefix

rm -rf "$prefix"
"$cmake" --install "$build" --prefix "$prefix" >/dev/null

build_stranger() { # SOURCE NAME
  "$cmake" -S "$1" -B "$work/$2" -G Ninja -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_PREFIX_PATH="$prefix" >"$work/$2.log" || {
    cat "$work/$2.log"
    exit 1
  }
  "$cmake" --build "$work/$2"
}

mkdir -p "$work/stranger"
(
  cd "$prefix/include"
  find pysource -path pysource/standalone -prune -o -name '*.h' -print | sort | sed 's/.*/#include "&"/'
) >"$work/stranger/all_headers.new"
if [[ ! -s $work/stranger/all_headers.new ]]; then
  echo "no header was installed" >&2
  exit 1
fi
# A file that has not changed is not compiled again.
cmp -s "$work/stranger/all_headers.new" "$work/stranger/all_headers.cc" ||
  cp "$work/stranger/all_headers.new" "$work/stranger/all_headers.cc"
build_stranger "$source/tests/installed" stranger
"$work/stranger/stranger"

if [[ -f $source/examples/embed/CMakeLists.txt ]]; then
  build_stranger "$source/examples/embed" embed
  "$work/embed/embed"
fi

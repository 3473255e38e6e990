#!/usr/bin/env bash
# usage: installed_test.sh CMAKE SOURCE BUILD CXX
# Installs the build into a folder of its own, and builds strangers against what is there: one that includes every
# installed header of the module; one that does so with the standalone host's, if that was built; and examples/embed,
# which is also run.
set -euo pipefail

cmake=$1 source=$2 build=$3 cxx=$4
work=$build/install-check
prefix=$work/prefix

rm -rf "$prefix"
"$cmake" --install "$build" --prefix "$prefix" >/dev/null

build_stranger() { # SOURCE NAME [OPTION...]
  "$cmake" -S "$1" -B "$work/$2" -G Ninja -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_PREFIX_PATH="$prefix" "${@:3}" >"$work/$2.log" || {
    cat "$work/$2.log"
    exit 1
  }
  "$cmake" --build "$work/$2"
}

# Writes WORK/NAME/all_headers.cc, which includes every installed header but those that the options of `find` leave out.
# A file that has not changed stays as it is, so that it is not compiled again.
include_all_headers() { # NAME [OPTION...]
  mkdir -p "$work/$1"
  (cd "$prefix/include" && find pysource "${@:2}" -name '*.h' -print | sort | sed 's/.*/#include "&"/') >"$work/$1/new"
  if [[ ! -s $work/$1/new ]]; then
    echo "no header was installed" >&2
    exit 1
  fi
  cmp -s "$work/$1/new" "$work/$1/all_headers.cc" || cp "$work/$1/new" "$work/$1/all_headers.cc"
}

include_all_headers module -path pysource/standalone -prune -o
build_stranger "$source/tests/installed" module -DCOMPONENT=module
"$work/module/stranger"

if [[ -d $prefix/include/pysource/standalone ]]; then
  include_all_headers standalone
  build_stranger "$source/tests/installed" standalone -DCOMPONENT=standalone
  "$work/standalone/stranger"
fi

if [[ -f $source/examples/embed/CMakeLists.txt ]]; then
  build_stranger "$source/examples/embed" embed
  "$work/embed/embed"
fi

#!/usr/bin/env bash
# usage: needed_libraries.sh PROGRAM
# Runs PROGRAM and fails if it loads a shared library that is no part of the C or C++ standard library.
set -euo pipefail

program=$1
"$program"

dynamic=$(LC_ALL=C readelf --dynamic --wide "$program")
needed=$(sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' <<<"$dynamic")
if [[ $needed != *libc.so* ]]; then
  echo "readelf names no C library for $program, so there is nothing to judge" >&2
  exit 1
fi

status=0
for library in $needed; do
  case $library in
    # The last line is what a sanitizer's runtime asks of the C library.
    libstdc++.so.* | libc++.so.* | libc++abi.so.* | libgcc_s.so.* | libm.so.* | libc.so.* | ld-linux*.so.* | \
      libpthread.so.* | libdl.so.* | librt.so.* | libresolv.so.*) ;;
    *)
      echo "$program needs $library; the module may need the standard library only" >&2
      status=1
      ;;
  esac
done
exit $status

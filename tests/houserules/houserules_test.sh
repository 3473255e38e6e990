#!/usr/bin/env bash
# Each rule of houserules.sh is broken once in a small tree, and has to be named with its file and line; an obedient
# tree passes.
set -euo pipefail

rules=$(cd "$(dirname "$0")" && pwd)/houserules.sh
tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT

fail() {
  expect 'pysource/host/raw.cc:1: searches raw info bytes for a mark' \
  pysource/host/raw.cc 'return value.find(kGlobalPrefix) != value.npos;'
echo "$1" >&2
  exit 1
}

# A small tree that obeys.
fresh_tree() {
  rm -rf "${tree:?}"/*
  put pysource/host/text.h '#pragma once' '#include <string>'
  put pysource/host/text.cc '#include "pysource/host/text.h"' '#include <vector>'
  put pysource/scopeinfo/records/keys.h '#pragma once' '#include "pysource/host/text.h"'
  put pysource/scopeinfo/scopeinfo.h '#pragma once' '#include "pysource/scopeinfo/records/keys.h"'
  put pysource/standalone/sqlitedb/db.cc '#include <sqlite3.h>' '#include "pysource/scopeinfo/scopeinfo.h"'
  put tools/scopeinfo/main.cc '#include <CLI/CLI.hpp>' '#include "pysource/host/text.h"'
  put tests/host/text_test.cc '#include "tests/fakes/world.h"' 'using namespace pysource;'
  put tests/fakes/world.h '#pragma once' '#include "pysource/host/text.h"'
  put package-lock.json '{ "resolved": false }'
}

put() { # FILE LINE...
  mkdir -p "$tree/$(dirname "$1")"
  printf '%s\n' "${@:2}" >"$tree/$1"
}

fresh_tree
bash "$rules" "$tree" || fail "an obedient tree does not pass"

cases=0
expect() { # EXPECTED FILE LINE...: with FILE in the tree, one violation is found, and its message begins with EXPECTED
  local expected=$1 output
  fresh_tree
  put "${@:2}"
  if output=$(bash "$rules" "$tree"); then
    fail "passes in spite of: ${*:2}"
  fi
  if [[ $output != "$expected"* || $output != *", 1 violations" ]]; then
    fail "expected one violation that begins with '$expected', but got: $output"
  fi
  cases=$((cases + 1))
}

expect 'pysource/host/bad.cc:2: host includes pysource/scopeinfo/records/keys.h, which is of a higher floor' \
  pysource/host/bad.cc '' '#include "pysource/scopeinfo/records/keys.h"'
expect 'pysource/scopeinfo/records/bad.cc:1: records includes pysource/standalone/x.h, which is of a higher floor' \
  pysource/scopeinfo/records/bad.cc '#include "pysource/standalone/x.h"'
expect 'pysource/scopeinfo/filestate/bad.cc:1: filestate includes pysource/scopeinfo/scopeinfo.h, which is of a higher' \
  pysource/scopeinfo/filestate/bad.cc '#include "pysource/scopeinfo/scopeinfo.h"'
expect 'pysource/scopeinfo/serialized/bad.cc:1: serialized includes pysource/scopeinfo/dependantcache/c.h; serialized and' \
  pysource/scopeinfo/serialized/bad.cc '#include "pysource/scopeinfo/dependantcache/c.h"'
expect 'pysource/standalone/engine/bad.cc:1: standalone includes tools/scopeinfo/x.h, which is of a higher floor' \
  pysource/standalone/engine/bad.cc '#include "tools/scopeinfo/x.h"'
expect 'tools/scopeinfo/bad.cc:1: tools includes tests/fakes/world.h, which is of a higher floor' \
  tools/scopeinfo/bad.cc '#include "tests/fakes/world.h"'
expect 'pysource/scopeinfo/infocache/bad.cc:1: the module includes <sqlite3.h>' \
  pysource/scopeinfo/infocache/bad.cc '#  include <sqlite3.h>'
expect 'pysource/host/bad.cc:1: the module includes <string.h>' pysource/host/bad.cc '#include <string.h>'
expect 'pysource/host/bad.cc:1: the module includes <unistd.h>' pysource/host/bad.cc ' #include<unistd.h>'
expect 'pysource/host/bad.cc:1: includes "text.h"; a file of the project is included by its path' \
  pysource/host/bad.cc '#include "text.h"'
expect 'pysource/host/bad.cc:1: includes <pysource/host/text.h>; a file of the project is included by its path' \
  pysource/host/bad.cc '#include <pysource/host/text.h>'
expect 'pysource/host/raw.cc:1: searches raw info bytes for a mark' \
  pysource/host/raw.cc 'return value.find(kGlobalPrefix) != value.npos;'
expect 'tools/scopeinfo/raw.cc:1: reads a raw table of the cache' tools/scopeinfo/raw.cc 'cache.DbgGetTable();'
expect 'pysource/cellar/bad.cc:1: is on no floor' pysource/cellar/bad.cc ''
expect 'pysource/host/bad.h:1: has no #pragma once' pysource/host/bad.h '// #pragma once'
expect 'tests/fakes/bad.h:2: says using namespace' tests/fakes/bad.h '#pragma once' 'using namespace pysource;'
expect 'package-lock.json:2: names the address of a registry' \
  package-lock.json '{' '  "resolved": "https://registry.invalid/a.tgz"' '}'

echo "$cases violations found"

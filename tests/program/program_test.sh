#!/usr/bin/env bash
# usage: program_test.sh PROGRAM
# Drives the program as a person would: what it answers, where it says it, and how it exits. Each section has a folder
# with a notebook and a database of its own, so that one does not see what another one leaves behind.
set -euo pipefail

program=$1
examples=$(cd "$(dirname "$0")/../../examples" && pwd)
work=$(mktemp -d)
trap 'chmod -R u+rwx "$work"; rm -rf "$work"' EXIT
section() { # NAME
  mkdir "$work/$1"
  cd "$work/$1"
  export XDG_CACHE_HOME=$PWD/cache
  cp -R "$examples/notebook" .
  : >out
  : >err
}
indexed_section() { # NAME: as above, with the notebook in the database
  section "$1"
  run 0 index notebook
}

checks=0
fail() {
  printf 'FAILED: %s\n-- stdout:\n%s\n-- stderr:\n%s\n' "$1" "$(cat out)" "$(cat err)" >&2
  exit 1
}
# run CODE ARGUMENT...: runs the program and expects that exit code; what it says is in out and err.
run() {
  local expected=$1 code=0
  shift
  "$program" "$@" >out 2>err </dev/null || code=$?
  checks=$((checks + 1))
  ((code == expected)) || fail "scopeinfo $* exits with $code, not $expected"
}
says() { # FILE TEXT...: FILE holds each TEXT
  local file=$1 text
  shift
  for text in "$@"; do
    checks=$((checks + 1))
    grep -qF -- "$text" "$file" || fail "no \"$text\" in $file"
  done
}
silent() { # FILE
  [[ ! -s $1 ]] || fail "$1 is not empty"
}
# json EXPRESSION: out is JSON, and the Python expression over it, as `j`, is true.
json() {
  if command -v python3 >/dev/null; then
    checks=$((checks + 1))
    python3 -c 'import json, sys; j = json.load(open("out")); assert eval("(" + sys.argv[1] + ")"), j' "$1" 2>>err ||
      fail "the JSON does not satisfy: $1"
  fi
}

# ---- Index: all, then nothing, then what has changed.
section index
files=$(find notebook -name '*.py*' | wc -l)
run 0 index notebook
says out "$files scanned, 0 unchanged, 0 removed, 0 unreadable"
[[ -f cache/scopeinfo/index.db ]] || fail "the default database is not where --help says"
says cache/scopeinfo/CACHEDIR.TAG 'Signature: 8a477f597d28d172789f06886806bc55'
run 0 index notebook
says out "0 scanned, $files unchanged"
run 0 verify notebook --merged
says out "Compared $files files of $files" 'differences  0' 'damaged      0' 'stale        0'
scopes=$(sed -n 's/^Asked the cache for \([1-9][0-9]*\) scopes$/\1/p' out)
says out "equal        $scopes to a merge of what the scans find"

# commands.py sets attributes of settings.py, so it is scanned again when that changes.
echo 'colour = "blue"' >>notebook/settings.py
run 0 index notebook
says out "2 scanned (1 unchanged, but tied to files that are not), $((files - 2)) unchanged"
run 0 verify notebook
run 0 show notebook/settings.py
says out colour asked_by 'commands.py'
rm notebook/commands.py
run 0 index notebook
says out '1 removed'
run 0 show notebook/settings.py
! grep -q asked_by out || fail "what a removed file said is still there"
run 0 verify notebook

# ---- Show.
indexed_section show
run 0 show notebook/store.py Store
silent err
says out 'class Store' 'Store.load(self,title)' 'Instance attribute' 'lock' 'last'
run 0 show notebook/store.py Store --json
json '{"lock", "undo", "folder", "last"} <= {n["name"] for n in j["instance_names"]}'
json 'j["kind"] == "class" and j["source"] == "database" and len(j["scans"]) > 1'
json '[a["value"] for n in j["names"] if n["name"] == "suffix" for a in n["alternatives"]] == ["str"]'
cp out from_database
run 0 show notebook/store.py Store --json --db new.db
says err '1 file not in the database as they are now; scanned for this answer'
sed 's/"source": "scan"/"source": "database"/' out | diff - from_database ||
  fail "a scan on the spot answers otherwise than the database"
run 0 show notebook/store.py Store --json --db new.db
silent err
diff out from_database || fail "what one process scanned, the next does not read"
# Why, before and after a change.
run 0 show notebook/store.py Store --explain
says out 'Merged into the answer: ' 'ReadScopeDataRecords of all scopes' 'Scanned: 0 files'
run 0 show notebook/store.py Store --json --explain --db new.db
json '[c["call"] for c in j["explanation"]["database_calls"]] ==
  ["ReadScopeNames", "GetScansDone", "ReadScopeDataRecords"] and not j["explanation"]["scanned"]'
echo >>notebook/store.py
run 0 show notebook/store.py Store --json --explain --db new.db
json 'len(j["explanation"]["scanned"]) == 1 and "no scan of the file" in j["explanation"]["wanted"][0]["why"]'
run 0 index notebook
run 0 show notebook/store.py Store --debug-dump
says out 'in database (' 'used scopes, most recently used first' 'merged records (1)'
run 1 show notebook/store.py Stroe
silent out
says err 'scopeinfo: notebook/store.py has no scope "Stroe"; did you mean Store?'
run 1 show notebook/store.py load
says err 'did you mean Store.load?'
run 1 show nowhere.py
says err nowhere.py

# ---- Where names are defined.
indexed_section resolve
run 0 show notebook/store.py Store.load --resolve Note
says out 'model.py:' 'class Note' 'imported in' 'from .model'
run 0 show notebook/store.py --resolve Note --json
json 'j["definitions"][0]["kind"] == "class" and j["definitions"][0]["path"]'
run 1 show notebook/store.py --resolve NoSuchName
says err 'NoSuchName is not bound in'

# ---- The other queries.
indexed_section queries
run 0 scopes notebook/model.py
says out '│  └─ parse(cls, text)' '   ├─ Empty(Exception)' 'module'
run 0 scopes notebook/model.py --json
json '[s["scope"] for s in j["scopes"]][:3] == ["", "Priority", "Priority.parse"]'
json '[s["depth"] for s in j["scopes"] if s["scope"] == "Stack.Empty"] == [2]'
run 0 classes notebook
says out 'Stack.Empty' 'Generic[T]' 'store.py'
run 0 classes notebook --json
json '{c["class"] for c in j} == {"Priority", "Note", "Stack", "Stack.Empty", "Store"}'
run 0 imports notebook/store.py --json
json '{(i["module"], i["name"]) for i in j} >= {("os.path", None), (".model", "Note")}'
echo 'class Late: pass' >notebook/late.py
run 0 classes notebook
says err "1 of $((files + 1)) files not in the database as they are now"

# ---- Statistics.
indexed_section stats
run 0 stats
says out "$files, of these 0 changed since and 0 gone" 'by :names'
run 0 stats notebook
says out 'merged '
run 0 stats notebook --json
json '0 < j["cache"]["known"] == j["cache"]["in_database"] and j["cache"]["merged_hit_rate"] == 0.5'
echo >>notebook/model.py
run 0 stats --json
json "j['files'] == $files"' and j["files_changed"] == 1 and j["records"] == sum(j["records_by_scan"].values())'
run 1 stats notebook missing --json
says err 'missing: No such file or directory'
json '0 < j["memory"]["info cache"]["records"]["bytes"] < j["memory"]["info cache"]["bytes"] < j["memory"]["bytes"]'
run 0 verify
says err 'model.py: has changed since it was stored'

# ---- What is found: named folders whatever they are, others not; loops of links end.
section found
mkdir -p tree/{.hidden,node_modules,site-packages/p,venv/lib,cache,real}
for folder in . .hidden node_modules site-packages/p venv/lib cache real; do
  echo 'x = 1' >"tree/$folder/m.py"
done
touch tree/venv/pyvenv.cfg tree/cache/CACHEDIR.TAG
echo 'x = 1' >tree/script
ln -s .. tree/real/loop
ln -s nowhere tree/real/dangling.py
run 0 index tree
says out '2 scanned'
run 0 index tree/node_modules tree/script tree/venv tree/venv
says out '3 scanned'

# ---- Files that cannot be read are named, and the run goes on.
section unreadable
mkdir bad
printf '# -*- coding: no-such-encoding -*-\n' >bad/encoding.py
printf 'def f(:\n  x = = 1\n' >bad/syntax.py
echo 'x = 1' >bad/good.py
run 0 index bad
says out '2 scanned' '1 unreadable' 'bad/encoding.py: declares an unknown encoding' \
  'bad/syntax.py:1: ' 'with errors of syntax'
if ((EUID != 0)); then
  chmod 000 bad/good.py
  run 0 index bad
  says out '2 unreadable'
fi
run 1 index bad/good.py nowhere
says err 'scopeinfo: nowhere: No such file or directory'

# ---- Bad usage.
section usage
for arguments in '' 'frobnicate' 'index' 'index notebook --jobs 0' 'index notebook --frobnicate' 'show a b c'; do
  # shellcheck disable=SC2086
  run 2 $arguments
  silent out
  says err 'scopeinfo: '
done
run 0 --help
says out 'Examples:' 'Exit code'
run 0 --version
grep -qxE 'scopeinfo [0-9]+\.[0-9]+\.[0-9]+' out || fail "no version"
run 0 index --help

# ---- Databases in trouble.
indexed_section trouble
mkdir folder.db
run 1 index notebook --db folder.db
says err folder.db
head -c 20000 /dev/urandom >damaged.db
run 0 index notebook --db damaged.db
says out "$files scanned"
says err damaged.db
run 0 verify notebook --db damaged.db
LC_ALL=C sed -i 's/Priority/Priorixy/' damaged.db
run 1 verify --db damaged.db
says err 'scopeinfo verify --repair'
run 0 verify --db damaged.db --repair
says out 'damaged      0'
run 0 index notebook --db made/for/it.db
[[ -f made/for/CACHEDIR.TAG ]] || fail "a folder made for a database is not marked as a cache"
run 1 classes notebook --db none.db
says err 'no database'
if [[ -e /dev/full ]]; then
  code=0
  "$program" classes notebook >/dev/full 2>err || code=$?
  : >out
  ((code == 1)) || fail "a full output device exits with $code"
  says err 'cannot write the output'
fi

# ---- Another process holds the database: the answer comes first, then that it was not saved; the next run scans again.
if command -v python3 >/dev/null; then
  indexed_section locked
  echo >>notebook/store.py
  mkfifo unlock locked
  python3 -c '
import sqlite3
db = sqlite3.connect("cache/scopeinfo/index.db", isolation_level=None)
db.execute("BEGIN EXCLUSIVE"), open("locked", "w").close(), open("unlock").read()' &
  cat locked
  "$program" show notebook/store.py Store >out 2>&1 || fail "show of a locked database exits with $?"
  tail -n 1 out | grep -q 'locked; .* will be scanned again' || fail "show does not end with the lock"
  : >unlock && wait
  run 0 index notebook
  says out '1 scanned'
fi

# ---- A reader that has seen enough, also one whose parent ignores the signal.
section pipe
printf 'class AnExampleWithALongName%d(Base): pass\n' {1..4000} >many.py
run 0 index many.py
for setting in - ''; do
  (
    trap "$setting" PIPE
    code=0
    "$program" classes many.py 2>err || code=$?
    echo "$code" >code
  ) | head -n 1 >out
  silent err
  [[ $(<code) == @(0|141) ]] || fail "a closed pipe exits with $(<code)"
done

# ---- Interrupted: what was stored stays, and the next run goes on from there.
section interrupted
mkdir big
printf 'class AnExampleWithALongName%d(Base): pass\n' {1..4000} >big/m0.py
for i in {1..40}; do cp big/m0.py "big/m$i.py"; done
"$program" index big --jobs 1 >out 2>err &
for _ in {1..500}; do
  [[ ! -s cache/scopeinfo/index.db-wal && ! -s cache/scopeinfo/index.db ]] || break
  sleep 0.01
done
kill -INT $!
code=0
wait $! || code=$?
if ((code != 0)); then # a fast machine is through before it can be interrupted
  ((code == 130)) || fail "an interrupted run exits with $code"
  says out 'Interrupted after'
  says err 'what was stored stays'
fi
run 0 index big
run 0 verify big

echo "$checks checks"

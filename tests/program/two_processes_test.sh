#!/usr/bin/env bash
# usage: two_processes_test.sh PROGRAM [SECONDS [SEED]]
# Two watches, and now and then an index, on one tree and one database, while files are edited, deleted, made and
# renamed: no error, no lost row, and each sees what the others store.
set -euo pipefail

program=$1
seconds=${2-5}
RANDOM=${3-1}
echo "seed ${3-1}, $seconds s"
work=$(mktemp -d)
watches=()
finish() {
  ((${#watches[@]} == 0)) || kill -KILL "${watches[@]}" 2>/dev/null || true
  rm -rf "$work"
}
trap finish EXIT
cd "$work"
mkdir tree

fail() {
  printf 'FAILED: %s\n' "$1" >&2
  tail -n 5 ./*.err ./*.out >&2
  exit 1
}
files=30
write() { # NUMBER: a module that sets an attribute of another one and takes all names of a third
  local other=$((RANDOM % files)) third=$((RANDOM % files)) temporary=tree/.m$1.new
  {
    echo "import m$other"
    ((RANDOM % 4)) || echo "from m$third import *"
    echo "m$other.set_by_m$1 = $RANDOM"
    echo "class C$1:"
    echo "    def __init__(self):"
    echo "        self.count = $RANDOM"
    for _ in {1..8}; do echo "    def m$RANDOM(self, a, b): return a"; done
  } >"$temporary"
  mv "$temporary" "tree/m$1.py"
}
for ((i = 0; i < files; ++i)); do write "$i"; done

for name in one two; do
  "$program" watch tree --db shared.db --json >$name.out 2>$name.err &
  watches+=($!)
done
edits=0
runs=0
end=$((SECONDS + seconds))
while ((SECONDS < end)); do
  number=$((RANDOM % files))
  case $((RANDOM % 20)) in
    0) rm -f "tree/m$number.py" ;;
    1) mv -f "tree/m$number.py" "tree/m$((RANDOM % files)).py" 2>/dev/null || true ;;
    2)
      "$program" index tree --db shared.db >index.out 2>index.err || fail "index exits with $?"
      [[ ! -s index.err ]] || fail "index complains"
      runs=$((runs + 1))
      ;;
    *) write "$number" ;;
  esac
  edits=$((edits + 1))
  sleep "0.0$((RANDOM % 10))"
done

# When it is quiet, both come to rest, and nothing is left to do. Each looks once a second for what the other stored, so
# rest is when neither has said anything for longer.
said=
quiet=0
for _ in {1..100}; do
  sleep 0.2
  before=$said
  said=$(cat one.out two.out | wc -l)
  quiet=$((said == before ? quiet + 1 : 0))
  if ((quiet > 6)) && "$program" verify tree --merged --db shared.db >verify.out 2>verify.err && [[ ! -s verify.err ]]; then
    break
  fi
done
[[ ! -s verify.err ]] || fail "the database does not come to hold what scans find: $(cat verify.out verify.err)"
grep -q 'differences  0' verify.out || fail "no comparison: $(cat verify.out)"
for i in 0 1; do
  kill -TERM "${watches[i]}" 2>/dev/null || fail "a watch has ended by itself"
  code=0
  wait "${watches[i]}" || code=$?
  ((code == 0)) || fail "a watch exits with $code"
done
watches=()
for name in one two; do
  [[ ! -s $name.err ]] || fail "watch $name complains"
  grep -q '"event":"database-changed"' $name.out || fail "watch $name never saw what the others stored"
done
"$program" index tree --db shared.db >index.out
grep -q ' 0 scanned' index.out || fail "the end of the watches left something to scan: $(cat index.out)"
"$program" verify tree --merged --db shared.db >verify.out || fail "after the end: $(cat verify.out)"
echo "$edits changes, $runs index runs, $(cat one.out two.out | grep -c '"event":"scanned"') scans by the watches," \
  "$(cat one.out two.out | grep -c '"event":"database-changed"') changes by others seen"

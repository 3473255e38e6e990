#!/usr/bin/env bash
# usage: watch_test.sh PROGRAM
# A session of `scopeinfo watch`: files change under it, another process stores, it is killed. What it says, what it
# scans and what is stored are followed. Each step waits for an event, never for a time.
set -euo pipefail

program=$1
examples=$(cd "$(dirname "$0")/../../examples" && pwd)
work=$(mktemp -d)
watch=
finish() {
  [[ -z $watch ]] || kill -KILL "$watch" 2>/dev/null || true
  rm -rf "$work"
}
trap finish EXIT
export XDG_CACHE_HOME=$work/cache
cp -R "$examples/notebook" "$work/notebook"
cd "$work"
: >events
: >err

checks=0
fail() {
  printf 'FAILED: %s\n-- events since the last step:\n%s\n-- stderr:\n%s\n' "$1" "$(since)" "$(cat err)" >&2
  exit 1
}
# The events of a step: all since `step` was called.
seen=0
step() { seen=$(wc -l <events); }
since() { tail -n +$((seen + 1)) events; }
# until_true WHAT COMMAND...: waits, up to 20 seconds, until the command succeeds.
until_true() {
  local what=$1 i
  shift
  for ((i = 0; i < 1000; ++i)); do
    ! "$@" || return 0
    sleep 0.02
  done
  fail "waited in vain for $what"
}
# Not by `grep -q` behind a pipe: it leaves early, `tail` is told so by a signal, and pipefail makes that a "no".
has_event() { [[ $(since) == *"$1"* ]]; }
says() { # TEXT...: waits until each was said in this step
  local text
  for text in "$@"; do
    checks=$((checks + 1))
    until_true "$text" has_event "$text"
  done
}
says_not() { # TEXT...
  local text
  for text in "$@"; do
    checks=$((checks + 1))
    ! has_event "$text" || fail "says: $text"
  done
}
# The files of which this step says that they were scanned, each as often as it does; a last line that a kill has torn
# is none. A file that changes while much else does can be scanned twice.
scans() { since | sed -n 's|^{"event":"scanned","file":"\(.*\)"}$|\1|p'; }
scanned_files() { scans | sort -u; }
# ready FILE...: waits until the database is in step again. Just these files were scanned, each once.
ready() {
  says '"event":"ready"'
  checks=$((checks + 1))
  diff <(printf '%s\n' "$@" | sed '/^$/d' | sort) <(scans | sed 's|.*/||' | sort) >difference ||
    fail "scanned other files (>) than it had to (<): $(cat difference)"
}
start() { # ARGUMENT...
  step
  "$program" watch "$@" --db live.db --json >>events 2>>err </dev/null &
  watch=$!
}
# ended CODE: the watch has ended with that exit code.
ended() {
  local code=0
  wait "$watch" || code=$?
  watch=
  checks=$((checks + 1))
  ((code == $1)) || fail "watch exits with $code, not $1"
}
# What a process of its own reads, without a scan of its own: the database alone.
stored() { # FILE SCOPE TEXT
  checks=$((checks + 1))
  "$program" show "$1" "$2" --db live.db >shown 2>shown_err || fail "show $1 $2: $(cat shown_err)"
  [[ ! -s shown_err ]] || fail "show $1 $2 had to scan: $(cat shown_err)"
  grep -qF -- "$3" shown || fail "show $1 $2 does not say $3: $(cat shown)"
}
in_step() { # PATH...: the database is as fresh scans would make it
  checks=$((checks + 1))
  "$program" verify "$@" --db live.db --merged >verified 2>&1 || fail "$(cat verified)"
  grep -q 'stale        0' verified || fail "$(cat verified)"
}

# ---- The first index, then nothing to do.
start notebook
says '"event":"ready"' '"files":6'
in_step notebook
kill -TERM "$watch"
ended 0
start notebook
ready
says '"event":"ready","scanned":0,"files":6'

# ---- A file changes that another one rests on (commands.py imports all names of model.py). Nothing of this life is in
# memory: the database knows that they hang together.
step
sed -i 's/^class Note.*/&\n    colour = "blue"/' notebook/model.py
printf 'class Reminder(Note):\n    due = None\n' >>notebook/model.py
ready model.py commands.py
says '/model.py","scopes":["Note"]' '/model.py","scopes":["Reminder"]'
stored notebook/model.py Note colour
stored notebook/model.py Reminder due
in_step notebook
# And now they are: the cache says what is stale, and still each is scanned once.
step
sed -i 's/^class Reminder/class Alarm/' notebook/model.py
ready model.py commands.py
says '"event":"needs-scan-added","file":"'"$PWD"'/notebook/model.py","scopes":["*"],"scan":":names","priority":2' \
  '/model.py","scopes":["Reminder"]'
stored notebook/model.py Alarm due
! "$program" show notebook/model.py Reminder --db live.db >shown 2>&1 || fail "a class that is gone is still there"
in_step notebook

# ---- What one file sets on another stays, whichever of the two changes.
step
echo 'size = 1' >>notebook/settings.py
ready settings.py commands.py
stored notebook/settings.py '' asked_by
in_step notebook

# ---- Saved by rename. Once it is in memory, a comment is news for nobody.
for comment in one two; do
  step
  { cat notebook/store.py && echo "# $comment"; } >notebook/.store.py.new
  mv notebook/.store.py.new notebook/store.py
  ready store.py
done
says_not '"event":"scopes-modified"'
in_step notebook

# ---- New files, a folder of them, a stub; then they go.
step
mkdir notebook/plugins
echo 'x = make()' >notebook/plugins/one.py
says '/one.py","scopes":[""]' '"event":"ready"'
step
echo 'x: bytes' >notebook/plugins/one.pyi
ready one.pyi
stored notebook/plugins/one.py '' bytes
step
rm -r notebook/plugins
says '"event":"file-removed","file":"'"$PWD"'/notebook/plugins/one.py"' \
  '"event":"file-removed","file":"'"$PWD"'/notebook/plugins/one.pyi"' '"event":"ready"'
in_step notebook
step
rm notebook/commands.py
says '"event":"file-removed"' '"event":"ready"'
"$program" show notebook/settings.py --db live.db >shown
! grep -q asked_by shown || fail "what a removed file said is still there"
in_step notebook

# ---- A file that cannot be decoded is named once, and followed.
step
printf '# coding: no-such-encoding\n' >notebook/bad.py
says '"event":"scan-failed"' no-such-encoding '"event":"ready"'
step
echo 'x = 1' >notebook/bad.py
ready bad.py

# ---- Another process stores into the same database.
step
mkdir other
echo 'y = 1' >other/y.py
"$program" index other --db live.db >/dev/null
says '"event":"database-changed","files":["'"$PWD"'/other/y.py"]'
ready

# ---- The database is locked: said once, tried again.
if command -v python3 >/dev/null; then
  step
  mkfifo unlock locked
  python3 -c '
import sqlite3
db = sqlite3.connect("live.db", isolation_level=None)
db.execute("BEGIN IMMEDIATE")
open("locked", "w").close()
open("unlock").read()
db.execute("ROLLBACK")' &
  locker=$!
  cat locked
  echo 'x = "locked"' >notebook/bad.py
  until_true 'a complaint about the lock' grep -q 'live.db.*locked' err
  : >unlock
  wait "$locker"
  says '"event":"ready"'
  stored notebook/bad.py '' str
  checks=$((checks + 1))
  (($(grep -c locked err) <= 2)) || fail "the lock is complained of again and again"
  in_step notebook
fi

# ---- Statistics.
step
kill -USR1 "$watch"
says '"event":"statistics"' '"to_write":0' '"needs_scan":0' '"merged_hit_rate"' '"memory":{"bytes":' '"key sets":{"bytes":'

# Sixty more files, each there at once with all that is in it.
copies_of() { # FILE
  local i
  for i in {1..60}; do
    cp "$1" copy.new
    mv copy.new "notebook/m$i.py"
  done
}

# ---- Interrupted in the midst of work: all is written that was said to be scanned.
step
copies_of notebook/model.py
says '"event":"scanned"'
kill -INT "$watch"
ended 130
for file in $(scanned_files); do
  [[ ! -f $file ]] || stored "$file" Note colour
done

# ---- Derived answers rest on scopes of other files: they go with those, others stay.
mkdir derived
echo 'class Base: colour = "red"' >derived/base.py
printf 'from base import Base\nclass Mid(Base): pass\n' >derived/mid.py
printf 'import mid\nclass Leaf(mid.Mid): size = 1\nleaf = Leaf()\n' >derived/leaf.py
start derived --resolve derived/leaf.py::leaf.colour --resolve derived/leaf.py::leaf.size
says '"event":"ready"' '"name":"leaf.size","definitions":[{"file":"'"$PWD"'/derived/leaf.py","scope":"Leaf"' \
  '"name":"leaf.colour","definitions":[{"file":"'"$PWD"'/derived/base.py","scope":"Base"'
step
echo 'class Base: shade = "dark"' >derived/base.py
ready base.py
says '"event":"answer-purged"' '"name":"leaf.colour","definitions":[]'
step
printf 'from base import Base\nclass Mid(Base):\n  colour = 1\n' >derived/mid.py
ready mid.py
says '"event":"answer-purged"' '"name":"leaf.colour","definitions":[{"file":"'"$PWD"'/derived/mid.py","scope":"Mid"'
stored derived/mid.py Mid colour
says_not '"name":"leaf.size"'
in_step derived
kill -TERM "$watch"
ended 0

# ---- Killed: nothing that was written is lost, and the next life goes on from there.
rm notebook/m*.py
start notebook
says '"event":"ready"'
step
copies_of notebook/store.py
says '"event":"scanned"'
kill -KILL "$watch"
wait "$watch" 2>/dev/null || true
watch=
scanned_files >before
start notebook
says '"event":"ready"'
scanned_files >after
((checks += 1))
lost=$(comm -12 before after)
[[ -z $lost ]] || fail "scanned and said so before the kill, and scanned again after it: $lost"
in_step notebook
kill -TERM "$watch"
ended 0

# ---- Folders for which the system has no more watches are looked at again.
if unshare --user --map-root-user sh -c 'echo 2 >/proc/sys/user/max_inotify_watches' 2>/dev/null; then
  mkdir -p few/{a,b,c,d}
  for folder in a b c d; do echo 'x = 1' >few/$folder/m.py; done
  step
  : >err
  # shellcheck disable=SC2016
  unshare --user --map-root-user sh -c \
    'echo 2 >/proc/sys/user/max_inotify_watches; exec "$0" watch few --db few.db --json' "$program" \
    >>events 2>>err </dev/null &
  watch=$!
  says '"event":"ready"'
  grep -q 'no more watches' err || fail "nothing is said about the watches"
  step
  for folder in a b c d; do echo 'x = "now longer"' >few/$folder/m.py; done
  says few/{a,b,c,d}'/m.py","scopes":[""]'
  kill -TERM "$watch"
  ended 0
fi

# ---- An output that cannot be written ends it.
if [[ -e /dev/full ]]; then
  code=0
  timeout 20 "$program" watch notebook --db new.db >/dev/full 2>err </dev/null || code=$?
  checks=$((checks + 1))
  ((code == 1)) || fail "a full output device exits with $code"
  grep -q 'cannot write the output' err || fail "a full output device is not named"
fi

echo "$checks checks"

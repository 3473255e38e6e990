#!/usr/bin/env bash
# usage: bench/staleness.sh [PROGRAM [FOLDER]]
#
# What `scopeinfo index` scans again after files were touched, copied, dated and changed: on a copy of FOLDER (the
# standard library of this machine's Python if none is given), with PROGRAM (the one that ./run builds). Prints a line
# for each case: the files that were scanned, and those that should have been. After each case `scopeinfo verify` has to
# find the database equal to fresh scans of everything. Fails if a case does.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
program=$(realpath "${1:-$root/build/release/bin/scopeinfo}")
folder=${2:-$(python3 -c 'import sysconfig; print(sysconfig.get_path("stdlib"))')}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

mkdir -p space/tree
(cd "$folder" && find . -name '*.py' -not -path '*-packages/*' -not -path '*/test/*' -print0 |
  tar --null -T - -cf -) | tar -C space/tree -xf -
# Files that nothing rests on, and a package whose own files are importable without it, too.
for i in {1..10}; do echo "alone = $i" >"space/tree/alone$i.py"; done
mkdir -p space/tree/outer/pack
echo 'x = 1' >space/tree/outer/base_of_pack.py
echo 'from base_of_pack import *' >space/tree/outer/pack/uses.py
files=$(find space/tree -name '*.py' | wc -l)

failures=0
check() { # NAME SPACE EXPECTED: indexes, and compares
  local out scanned result=ok
  out=$(cd "$2" && "$program" index tree --db ../"$2".db --workspace "$PWD")
  scanned=$(sed -nE 's/^ +files +([0-9,]+) scanned.*/\1/p' <<<"$out" | tr -d ,)
  if [[ $scanned != "$3" ]]; then
    result="FAILED"
  elif ! (cd "$2" && "$program" verify tree --db ../"$2".db --workspace "$PWD") >verify.out 2>&1; then
    result="FAILED: verify: $(tail -n 1 verify.out)"
  elif ! grep -qE '^ +stale +0$' verify.out || grep -q 'made from files that have changed' verify.out; then
    result="FAILED: verify finds stale rows"
  fi
  [[ $result == ok ]] || failures=$((failures + 1))
  printf '%-62s %6s %6s  %s\n' "$1" "$scanned" "$3" "$result"
}
all() { find space/tree -name '*.py' -exec "$@" {} +; }

printf '%-62s %6s %6s\n' "case ($files files)" scanned wanted
check 'first run' space "$files"
check 'nothing has changed' space 0
all touch
check 'every file touched' space 0
all touch -d @0
check 'every file dated to the epoch' space 0
all touch -d '2100-01-01'
check 'every file dated to the future' space 0
cp -r space.db copy.db
cp -r space copy
check 'tree and database copied to another place' copy 0
rm -rf copy copy.db
echo 'alone = 9' >space/tree/alone1.py
touch -d '2100-01-01' space/tree/alone1.py
check 'one file changed, its date and size as before' space 1
sed 's/= /=/' -i space/tree/alone2.py
all touch -d @0
check 'one file changed, and all dated to the epoch' space 1
cp -p space/tree/alone3.py kept
echo 'alone = 0' >space/tree/alone3.py
cp -p kept space/tree/alone3.py
check 'one file changed and put back' space 0
cp -r space/tree branch
rm branch/alone10.py
for i in 4 5 6; do echo "other = $i" >"branch/alone$i.py"; done
echo 'new = 1' >branch/new.py
mv space/tree trunk && mv branch space/tree
check 'another branch checked out: 3 files differ, 1 new, 1 gone' space 4
mv space/tree branch && mv trunk space/tree
check 'and back' space 4
touch space/tree/outer/pack/__init__.py
check 'an __init__.py comes: itself and the file whose import it moves' space 2
echo '# edited' >space/tree/outer/pack/__init__.py
check 'the __init__.py is edited' space 1
rm space/tree/outer/pack/__init__.py
check 'it goes' space 1
exit $((failures > 0))

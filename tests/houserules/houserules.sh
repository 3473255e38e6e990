#!/usr/bin/env bash
# usage: houserules.sh ROOT
# Checks the rules of the house that a program can check, on the source tree ROOT. Prints FILE:LINE: and a sentence for
# each violation, and fails if there is one.
#
#   - Imports run one way only, down: a file includes files of its own floor or of a lower one.
#   - The module (host and scopeinfo) includes standard headers and its own, and nothing else.
#   - A file of the project is included by its path from the root, in quotes.
#   - A header opens with #pragma once, and does not say `using namespace`.
#   - Info bytes are taken apart in host/symbolinfo alone: nothing else searches a value for a mark or cuts one off.
#   - The cache's raw tables (Dbg...) are for tests; a host uses the operations for hosts.
#   - package-lock.json names no registry; it holds the versions and the hashes.
set -euo pipefail

cd "$1"

# The headers of C++20, and those of C in their C++ spelling.
standard_headers=" algorithm any array atomic barrier bit bitset cassert cctype cerrno cfenv cfloat charconv chrono \
cinttypes climits clocale cmath codecvt compare complex concepts condition_variable coroutine csetjmp csignal cstdarg \
cstddef cstdint cstdio cstdlib cstring ctime cuchar cwchar cwctype deque exception execution filesystem format \
forward_list fstream functional future initializer_list iomanip ios iosfwd iostream istream iterator latch limits list \
locale map memory memory_resource mutex new numbers numeric optional ostream queue random ranges ratio regex \
scoped_allocator semaphore set shared_mutex source_location span sstream stack stdexcept stop_token streambuf string \
string_view strstream syncstream system_error thread tuple type_traits typeindex typeinfo unordered_map unordered_set \
utility valarray variant vector version "

# What the module asks of the C library and the compiler beyond that, each with the one file that may: velk can tell
# which shared object it was linked into, and only the loader knows; separators are found sixteen bytes at a time.
exceptions=" pysource/host/velk.cc:dlfcn.h pysource/host/velk.cc:link.h pysource/host/velk.cc:unistd.h \
pysource/scopeinfo/serialized/separators.h:emmintrin.h "

# What looks for a mark in info bytes, or takes one off; and the files that have to, each of which says why.
mark='(k[A-Za-z]+Prefix|kPlainEquivSpec|kPrefixLen|":[A-Za-z@=]")'
mark_search="(find[a-z_]*|starts_with|ends_with|contains|StrInStr|substr|remove_prefix)\\([^()]*$mark"
raw_marks=" pysource/scopeinfo/filestate/equivs.cc pysource/scopeinfo/infocache/queries.cc \
pysource/standalone/scanner/bindings.cc "

# The doors to the cache's tables are for tests and the dump.
raw_doors=' Dbg[A-Z]|[.>]Dbg[A-Z]'

violations=0
complain() { # FILE:LINE SENTENCE
  echo "$1: $2"
  violations=$((violations + 1))
}

# Sets `floor` to the floor that a path of the tree belongs to, and `storey` to its height; two floors of one height
# know nothing of each other. Fails for a path on no floor.
floor_of() {
  case $1 in
    pysource/host/*) storey=1 floor=host ;;
    pysource/scopeinfo/records/*) storey=2 floor=records ;;
    pysource/scopeinfo/serialized/*) storey=3 floor=serialized ;;
    pysource/scopeinfo/dependantcache/*) storey=3 floor=dependantcache ;;
    pysource/scopeinfo/filestate/*) storey=4 floor=filestate ;;
    pysource/scopeinfo/infocache/* | pysource/scopeinfo/scopeinfo.h) storey=5 floor=infocache ;;
    pysource/standalone/*) storey=6 floor=standalone ;;
    tools/*) storey=7 floor=tools ;;
    # On the roof: these may look at all of it.
    tests/* | bench/* | fuzz/* | examples/*) storey=8 floor=roof ;;
    *) return 1 ;;
  esac
}

check_include() { # FILE LINE INCLUDED, where INCLUDED still has its brackets or quotes
  local file=$1 line=$2 included=$3 path=${3:1:-1}
  floor_of "$file"
  local own_floor=$floor own_storey=$storey

  if [[ $included == '<'* && $path != pysource/* ]]; then
    if ((own_storey <= 5)) && [[ $standard_headers != *" $path "* && $exceptions != *" $file:$path "* ]]; then
      complain "$file:$line" "the module includes <$path>, which is no standard header of C++20"
    fi
    return
  fi
  # An example is built against the installed package, and has files of its own beside it.
  if [[ $file == examples/* ]]; then
    return
  fi
  if [[ $included == '<'* ]] || ! floor_of "$path"; then
    complain "$file:$line" "includes $included; a file of the project is included by its path from the root, in quotes"
    return
  fi
  if ((storey > own_storey)); then
    complain "$file:$line" "$own_floor includes $path, which is of a higher floor ($floor)"
  elif ((storey == own_storey)) && [[ $floor != "$own_floor" ]]; then
    complain "$file:$line" "$own_floor includes $path; $own_floor and $floor know nothing of each other"
  fi
}

folders=()
for folder in pysource tools tests bench fuzz examples; do
  if [[ -d $folder ]]; then
    folders+=("$folder")
  fi
done
mapfile -t files < <(find "${folders[@]}" -path tests/data -prune -o -type f \( -name '*.h' -o -name '*.cc' \) -print | sort)
if ((${#files[@]} == 0)); then
  echo "no source file below $PWD" >&2
  exit 1
fi

for file in "${files[@]}"; do
  if ! floor_of "$file"; then
    complain "$file:1" "is on no floor; say in houserules.sh which floor its folder is"
    continue
  fi
  while IFS=: read -r line directive; do
    if [[ $directive =~ include[[:space:]]*(\"[^\"]*\"|\<[^\>]*\>) ]]; then
      check_include "$file" "$line" "${BASH_REMATCH[1]}"
    fi
  done < <(grep -nE '^[[:space:]]*#[[:space:]]*include' "$file")

  if [[ $file =~ ^(pysource|tools)/ && $file != pysource/host/symbolinfo/* && $raw_marks != *" $file "* ]]; then
    while IFS=: read -r line _; do
      complain "$file:$line" "searches raw info bytes for a mark; host/symbolinfo/items.h has a reader"
    done < <(grep -nE "$mark_search" "$file")
  fi

  if [[ $file =~ ^(pysource/standalone|tools|bench|examples)/ ]]; then
    while IFS=: read -r line _; do
      complain "$file:$line" "reads a raw table of the cache; infocache.h has operations for hosts"
    done < <(grep -nE "$raw_doors" "$file")
  fi

  if [[ $file == *.h ]]; then
    if ! grep -qE '^#pragma once$' "$file"; then
      complain "$file:1" "has no #pragma once"
    fi
    while IFS=: read -r line _; do
      complain "$file:$line" "says using namespace in a header, to all who include it"
    done < <(grep -nE '^using namespace' "$file")
  fi
done

if [[ -f package-lock.json ]]; then
  while IFS=: read -r line _; do
    complain "package-lock.json:$line" "names the address of a registry; remove the field \"resolved\""
  done < <(grep -nE '"resolved": "[a-z+]+:' package-lock.json)
fi

echo "${#files[@]} files looked at, $violations violations"
((violations == 0))

#!/usr/bin/env bash
# usage: fuzz.sh TARGET CORPUS FINDINGS
# Runs one fuzz target for SCOPEINFO_FUZZ_SECONDS (default 5) on a copy of the folder CORPUS, which may be missing, so
# that new inputs are not written to the source tree. Stores an input that breaks the target in the folder FINDINGS.
set -euo pipefail

target=$1 corpus=$2 findings=$3
name=$(basename "$target")

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/corpus" "$findings"
if [[ -d $corpus ]]; then
  cp -r "$corpus/." "$work/corpus"
fi

if ! "$target" -max_total_time="${SCOPEINFO_FUZZ_SECONDS:-5}" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
  -artifact_prefix="$findings/$name-" "$work/corpus" </dev/null >"$work/log" 2>&1; then
  cat "$work/log"
  echo "$name failed; the input that does it is in $findings, run it with: $target INPUT" >&2
  exit 1
fi
# The seed, and the statistics at the end.
grep -E '^INFO: Seed|^Done|^stat::' "$work/log"

#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# bench/profile.sh BUILD_DIR: where the instructions of a call go, function by function, counted by callgrind.
set -euo pipefail
build=$(cd "$1" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Large products take millions of instructions: once is enough.
for what in "product 1" "product 2" "product 4" "product 32" "transposed 32" "add 16" filter \
    "s8 256 16" "s16 256 16" "s32 256 32"; do
  case $what in s*) times=1 ;; *) times=1000 ;; esac
  # shellcheck disable=SC2086
  valgrind --tool=callgrind --callgrind-out-file="$work/out" --toggle-collect='*repeat*' \
    "$build/bench/profile" $times $what >"$work/log" 2>&1 || { cat "$work/log" >&2; exit 1; }
  echo "## $what, instructions a call"
  echo
  callgrind_annotate --threshold=100 "$work/out" | awk -v times=$times '
    /^ *[0-9,]+ .*(PROGRAM TOTALS|:)/ {
      count = $1
      gsub(",", "", count)
      line = $0
      sub(/^ *[0-9,]+ *(\([ 0-9.]+%\))? */, "", line)
      sub(/^[^:]*[^:]:/, "", line)
      sub(/ \[[^[]*\]$/, "", line)
      gsub(/(ox::)?\(anonymous namespace\)::/, "", line)
      sub(/\(.*ProductArgs const&\)/, "", line)
      if (count >= times) printf "%8.0f  %s\n", count / times, line
    }'
  echo
done

#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Searches with one target and says what came of it: run.sh BUILD_DIRECTORY TARGET SECONDS
# Goes on from what earlier runs found; a crash leaves its input beside the corpora.
set -euo pipefail
build=$1 target=$2 seconds=$3
here=$(cd "$(dirname "$0")" && pwd)
corpus=$build/corpus/$target
crashes=$build/crashes
log=$build/$target.log
mkdir -p "$corpus" "$crashes"
# Short inputs run fast. The entropic schedule's book-keeping took up to a third of the time, and as many executions
# without it reached about as many features.
options=(-entropic=0 -max_len=208)
if [ "$target" = detections ]; then options=(-entropic=0 -max_len=512 -dict="$here/detections.dict"); fi

status=0
"$build/tests/fuzz/${target}_fuzz" "${options[@]}" -max_total_time="$seconds" -timeout=20 -print_final_stats=1 \
  -artifact_prefix="$crashes/$target-" "$corpus" "$build/tests/fuzz/seeds/$target" >"$log" 2>&1 || status=$?
if [ $status != 0 ]; then
  grep -vE '^#[0-9]+|^INFO|^MS:|^stat::|NEW_FUNC|^Dictionary' "$log" | head -n 30 >&2 || true
  input=$(sed -n 's/.*Test unit written to //p' "$log" | tail -n 1)
  echo "$target: FAILED; the log is $log" >&2
  [ -z "$input" ] || echo "$target: again with  $build/tests/fuzz/${target}_fuzz $input" >&2
  exit 1
fi

executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
last=$(grep 'DONE' "$log" | tail -n 1)
value() { sed -nE "s/.* $1: ([0-9]+).*/\1/p" <<<"$last"; }
printf '%-11s %6s s %12s executions %8s /s %7s inputs %7s features %6s edges\n' \
  "$target" "$seconds" "$executions" "$rate" "$(value corp)" "$(value ft)" "$(value cov)"
# A run that hardly ran has shown nothing.
[ "$executions" -ge $((10 * seconds)) ] || { echo "$target: too few executions" >&2; exit 1; }

#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# bench/run.sh BUILD_DIR [TOPIC...]: measures, prints Markdown tables, leaves the figures in
# BUILD_DIR/bench-results/TOPIC.json. Fails when a contender computes something wrong.
set -euo pipefail

[ $# -ge 1 ] || { echo "usage: bench/run.sh BUILD_DIR [TOPIC...]" >&2; exit 2; }
bench=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd)
shift
topics=("$@")
[ ${#topics[@]} -gt 0 ] || topics=(product elementwise inverse kalman tracker)
results=$build/bench-results
mkdir -p "$results"

# One processor for the whole run: the last one, which interrupts like least.
processor=$(($(nproc --all) - 1))
pin=()
taskset -c "$processor" true 2>/dev/null && pin=(taskset -c "$processor")

# Contenders take turns in random order, so that a slow second hits all alike; the median of the turns counts.
measure() { # TOPIC
  local repetitions=41 min_time=0.003
  [ "$1" != tracker ] || repetitions=3
  [ "$1" != elementwise ] || repetitions=31
  "${pin[@]}" "$build/bench/$1_bench" --benchmark_repetitions=$repetitions --benchmark_min_time=$min_time \
    --benchmark_enable_random_interleaving=true --benchmark_report_aggregates_only=true \
    --benchmark_out="$results/$1.json" --benchmark_out_format=json >/dev/null 2>"$results/$1.log" ||
    { cat "$results/$1.log" >&2; exit 1; }
}

for topic in "${topics[@]}"; do
  echo "measuring: $topic" >&2
  measure "$topic"
done

commit=$(git -C "$bench" describe --always --dirty 2>/dev/null || echo unknown)
model=$(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -n 1)
echo "# Benches"
echo
jq -r --arg model "$model" --arg commit "$commit" '.context
  | "- processor: \($model), \(.num_cpus) of them, \(.mhz_per_cpu) MHz",
    "- compiler: \(.compiler), flags \(.flags)",
    "- date: \(.date), load average at the start \(.load_avg[0] // "unknown")",
    "- commit: \($commit)"' "$results/${topics[0]}.json"
echo "- command: bench/run.sh BUILD_DIR ${topics[*]}"
echo
for topic in "${topics[@]}"; do
  jq -r --slurpfile goals "$bench/goals.json" -f "$bench/tables.jq" "$results/$topic.json"
done

#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# run.sh BUILD_DIR [JSON]: the instructions of calls on ARMv7, and the cycles predicted for two inner loops.
# BUILD_DIR is a build of the library for ARMv7; JSON is BUILD_DIR/bench-arm/results.json unless given.
set -euo pipefail
build=$(cd "${1:?usage: run.sh BUILD_DIR [JSON]}" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
work=$build/bench-arm
json=$(realpath -m "${2:-$work/results.json}")
library=$build/src/libox.a
[ -f "$library" ] || { echo "run.sh: $library is not built" >&2; exit 1; }
mkdir -p "$work"

compiler=arm-linux-gnueabihf-g++
flags=(-O3 -DNDEBUG -std=c++17 -march=armv7-a -mfpu=neon -mfloat-abi=hard -ffp-contract=off)
cd "$root"
counter_source=${OX_INSN_COUNT:-../shared/tools/insn_count.c}

calls_of() { # NAME: instructions of a call
  local count total=()
  for count in 10 50; do # the difference is a whole number of rounds of the tracker's scene
    qemu-arm -plugin "$work/insn_count.so" -d plugin "$work/calls" "$1" $count >"$work/log" 2>&1 ||
      { cat "$work/log" >&2; return 1; }
    total+=("$(sed -n 's/^instructions: //p' "$work/log")")
  done
  echo $(((total[1] - total[0]) / 40))
}

# Lines "case instructions rival its-instructions goal", with - for what there is not.
count_all() {
  local name rivals goal own rival theirs best best_rival
  qemu-arm "$work/calls" | while read -r name rivals goal; do
    own=$(calls_of "$name")
    best=- best_rival=-
    if [ "$rivals" != - ]; then
      for rival in ${rivals//,/ }; do
        theirs=$(calls_of "$rival")
        if [ "$best" = - ] || [ "$theirs" -lt "$best" ]; then best=$theirs best_rival=${rival%%/*}; fi
      done
    fi
    [ "$goal" != half ] || goal=$((best / 2))
    echo "$name $own $best_rival $best $goal"
  done
}

: >"$work/counts"
if [ ! -f "$counter_source" ]; then
  echo "instruction counts: skipped, as $counter_source is not there (OX_INSN_COUNT can name another place)"
else
  cc -shared -fPIC -O2 "$counter_source" -o "$work/insn_count.so"
  for source in calls rivals; do
    inputs=("$here/$source.cpp" "$here/calls.h" "$here/run.sh" include/ox.h)
    if [ ! -f "$work/$source.o" ] || [ -n "$(find "${inputs[@]}" -newer "$work/$source.o")" ]; then
      "$compiler" "${flags[@]}" -Wno-psabi -Iinclude -isystem /usr/include/eigen3 \
        -c "${inputs[0]}" -o "$work/$source.o"
    fi
  done
  "$compiler" -static "$work/calls.o" "$work/rivals.o" "$library" -o "$work/calls"
  count_all >"$work/counts"
  awk '
    BEGIN { printf "%-28s %12s %12s  %-14s %8s %8s  %s\n", "case", "ox", "best rival", "", "ox/rival", "goal", "met" }
    {
      topic = $1
      sub(/\/[^\/]*$/, "", topic)
      if (topic ~ /^s[0-9]+\/a\*b/) topic = "integers"
      if (topic ~ /add|scale|neg|transpose/) topic = "elements"
      if (topic != last && NR > 1) print ""
      last = topic
      printf "%-28s %12d %12s  %-14s %8s %8s  %s\n", $1, $2, $4, $3 == "-" ? "" : $3,
        $4 == "-" ? "-" : sprintf("%.2f", $2 / $4), $5, $5 == "-" ? "" : $2 <= $5 ? "yes" : "NO"
    }' "$work/counts" | sed 's/ *$//'
fi

# --- cycles ---------------------------------------------------------------------------------------------------------

turns=100
mca() { # CPU: report on the loop, or nothing where there is no model
  llvm-mca -mtriple=thumbv7-linux-gnueabihf -mattr=+neon -mcpu="$1" -iterations=$turns "$work/loop.s" \
    2>"$work/log" || true
}
# Lines "loop cpu model cycles units-alone operations-per-cycle function".
cycles_all() {
  local wanted lanes kind cpu model report reference wide narrow function
  while read -r kind wanted lanes; do
    awk -v wanted="$wanted" -f "$here/hottest_loop.awk" "$work/disassembly" >"$work/loop.s"
    [ -s "$work/loop.s" ] || { echo "run.sh: no loop with $wanted" >&2; continue; }
    cp "$work/loop.s" "$work/loop-$kind.s"
    read -r _ wide narrow function <"$work/loop.s"
    reference=$(mca cortex-a9)
    for cpu in cortex-a7 cortex-a9 cortex-a15; do
      report=$(mca $cpu)
      model=own
      # No model that llvm-mca can use, or one that says the same of every instruction: another processor's.
      if [ -z "$report" ] || { [ $cpu != cortex-a9 ] && [ "$report" = "$reference" ]; }; then
        report=$reference
        model=cortex-a9
      fi
      awk -v kind="$kind" -v cpu=$cpu -v model=$model -v where="$function" -v turns=$turns \
        -v operations=$(((2 * wide + narrow) * lanes)) '
        /^Total Cycles:/ { cycles = $3 / turns }
        /^Block RThroughput:/ { bound = $3 }
        END {
          if (!cycles) exit 1
          printf "%s %s %s %.2f %.1f %.2f %s\n", kind, cpu, model, cycles, bound, operations / cycles, where
        }
      ' <<<"$report"
    done
  done <<<"f32 vmla.f32 4
s16 vmla.i16 8"
}
arm-linux-gnueabihf-objdump -d -C --no-show-raw-insn "$library" >"$work/disassembly"
cycles_all >"$work/cycles"
echo
echo "Innermost loops of the products: cycles predicted by llvm-mca for one turn, memory in the first cache"
awk '
  BEGIN {
    printf "%-5s %-11s %-11s %12s %12s %10s\n", "loop", "processor", "model", "cycles/turn", "units alone", "ops/cycle"
  }
  {
    printf "%-5s %-11s %-11s %12s %12s %10s\n", $1, $2, $3, $4, $5, $6
    if ($3 != "own" && !seen[$2]++)
      notes = notes $2 ": LLVM has no model of it that llvm-mca can use; that of " $3 " stands in\n"
  }
  END { printf "%s", notes }
' "$work/cycles"

# --- JSON -----------------------------------------------------------------------------------------------------------
{
  printf '{\n  "context": {"date": "%s", "compiler": "%s", "flags": "%s", "emulator": "%s", "llvm": "%s"},\n' \
    "$(date -u +%FT%TZ)" "$("$compiler" --version | head -1)" "${flags[*]}" "$(qemu-arm --version | head -1)" \
    "$(llvm-mca --version | sed -n 's/.*LLVM version/LLVM/p')"
  awk '
    BEGIN { printf "  \"instructions\": [" }
    {
      printf "%s\n    {\"case\": \"%s\", \"ox\": %d", (NR > 1 ? "," : ""), $1, $2
      if ($4 != "-") printf ", \"rival\": \"%s\", \"rival_instructions\": %d, \"ratio\": %.4f", $3, $4, $2 / $4
      if ($5 != "-") printf ", \"goal\": %d, \"met\": %s", $5, $2 <= $5 ? "true" : "false"
      printf "}"
    }
    END { print "\n  ]," }' "$work/counts"
  awk '
    BEGIN { printf "  \"cycles\": [" }
    {
      where = $0
      for (field = 1; field <= 6; field++) sub(/^[^ ]+ /, "", where)
      printf "%s\n    {\"loop\": \"%s\", \"processor\": \"%s\", \"model\": \"%s\", ", (NR > 1 ? "," : ""), $1, $2,
        $3 == "own" ? $2 : $3
      printf "\"cycles_per_turn\": %s, \"units_alone\": %s, \"operations_per_cycle\": %s, ", $4, $5, $6
      printf "\"function\": \"%s\"}", where
    }
    END { print "\n  ]\n}" }' "$work/cycles"
} >"$json"
echo
echo "written: $json"

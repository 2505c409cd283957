#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# tools/demo.sh BUILD_DIR: makes a scene, tracks it, says how well it went; then every sequence found in OX_DATA, or in
# ../shared/data beside the repository. Fails when any run fails.
set -euo pipefail

[ $# = 1 ] || { echo "usage: tools/demo.sh BUILD_DIR" >&2; exit 2; }
oxtrack=$(realpath "$1/tools/oxtrack")
oxscene=$(realpath "$1/tools/oxscene")
root=$(realpath "$(dirname "$0")/..")
data=${OX_DATA:-$root/../shared/data}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# --- a scene of our own ----------------------------------------------------------------------------------------

echo "A street, 20 seconds of video: people and vehicles cross, stop, hide behind each other."
echo "A detector watches; its boxes shake, it misses some and invents others. Here is what it finds in frame 100"
echo "(frame,-1,left,top,width,height,score,label: 1 is a person, 2 a vehicle):"
"$oxscene" make "$work/scene" --seed 1 --frames 600
echo
awk -F, '$1 == 100' "$work/scene/det.txt" | sed 's/^/    /'
echo
echo "oxtrack turns the boxes into tracks: the second column is now an identity that stays with its object."
echo
"$oxtrack" "$work/scene/det.txt" -o "$work/tracks.txt" 2>"$work/summary.txt" ||
  { cat "$work/summary.txt" >&2; exit 1; }
for frame in 100 101; do awk -F, -v frame="$frame" '$1 == frame' "$work/tracks.txt" | sed 's/^/    /'; done
echo
sed 's/^/    /' "$work/summary.txt"
echo
echo "Compared with the true objects of the scene:"
echo
"$oxscene" score "$work/scene/gt.txt" "$work/tracks.txt" | sed 's/^/    /'
echo
echo "An object has kept one identity when it was followed in at least half of the frames that show half of it or"
echo "more, never under another number."

# --- recorded sequences ----------------------------------------------------------------------------------------

echo
sequences=()
for detections in "$data"/*/det.txt; do
  [ ! -f "$detections" ] || sequences+=("$(dirname "$detections")")
done
if [ ${#sequences[@]} = 0 ]; then
  echo "No recorded sequences: there is no det.txt in a folder of $data."
  echo "OX_DATA=DIR ./dev demo runs the ones in DIR, each in a folder with det.txt and, when there is one, gt.txt."
  exit 0
fi

echo "Recorded sequences in $data"
echo "(boxes that score below 0.3 left out; kept: true objects that kept one identity; time inside the library)"
echo
row='%-22s %7s %10s %7s %9s   %9s %9s %8s %10s\n'
# shellcheck disable=SC2059
printf "$row" sequence frames detections tracks us/frame kept switches recall precision
failed=0
for sequence in "${sequences[@]}"; do
  name=$(basename "$sequence")
  if ! "$oxtrack" --min-score 0.3 "$sequence/det.txt" -o "$work/tracks.txt" 2>"$work/summary.txt"; then
    echo "$name: $(cat "$work/summary.txt")"
    failed=1
    continue
  fi
  fields=$(awk '/^frames/ { f = $2 } /^detections/ { d = $2 } /^tracks/ { t = $2 } /^time/ { u = $2 }
                END { print f, d, t, u }' "$work/summary.txt")
  score="- - - -"
  if [ -f "$sequence/gt.txt" ]; then
    if line=$("$oxscene" score "$sequence/gt.txt" "$work/tracks.txt" 2>&1); then
      score=$(awk -F'[ ,]+' '{ print $7 "/" $3, $10, $12 "%", $15 "%" }' <<<"$line")
    else
      echo "$name: $line"
      failed=1
    fi
  fi
  # shellcheck disable=SC2059,SC2086
  printf "$row" "$name" $fields $score
done
exit $failed

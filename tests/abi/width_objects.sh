#!/bin/sh
# SPDX-License-Identifier: MIT
# width_objects.sh NM OBJECT...: a source compiled for wider vectors leaves one name behind, its table. Any other (an
# inline function of a header, say) could be linked in place of its namesake and run on a processor without them.
set -eu
nm=$1
shift
status=0 seen=0
for object in "$@"; do
  case $object in *width_32* | *width_64*) ;; *) continue ;; esac
  seen=$((seen + 1))
  names=$("$nm" --defined-only "$object" | awk '$2 ~ /[A-Z]/ || $2 ~ /[vwu]/ { print $3 }')
  echo "$(basename "$object"): $names"
  case $names in _ZN2ox10kernels_32E | _ZN2ox10kernels_64E) ;; *) status=1 ;; esac
done
[ $seen = 2 ] || { echo "expected two wide objects, saw $seen"; status=1; }
exit $status

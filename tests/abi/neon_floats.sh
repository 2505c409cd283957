#!/bin/sh
# SPDX-License-Identifier: MIT
# neon_floats.sh OBJDUMP OBJECT...: NEON turns subnormals into zero, so only the kernels, which watch for it, compute floats
# there. Any other source that does (a compiler may vectorise plain code) gives other bits than the scalar unit.
set -eu
objdump=$1
shift
status=0 kernels=0
for object in "$@"; do
  # Moves between registers and memory have no float suffix; arithmetic and comparisons of d and q registers do.
  count=$("$objdump" -d "$object" | grep -cE 'v(add|sub|mul|mla|mls|fma|fms|min|max|abd|ceq|cge|cgt|cle|clt|acge|acgt|recps|rsqrts|padd)\.f32[[:space:]]+[dq][0-9]' || true)
  case $object in
    *width_16*) kernels=$count ;;
    *) [ "$count" = 0 ] || { echo "$(basename "$object"): $count float operations on NEON"; status=1; } ;;
  esac
done
echo "float operations on NEON: $kernels in the kernels, none elsewhere expected"
[ "$kernels" -gt 0 ] || status=1
exit $status

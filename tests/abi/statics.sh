#!/bin/sh
# SPDX-License-Identifier: MIT
# statics.sh ARCHIVE NM: the library's only writable static is the work area of the inverse, 41 rows of 80 floats.
set -eu
writable=$("$2" -S "$1" | awk 'NF == 4 && $3 ~ /^[bBdDC]$/ { print $2, $4 }')
echo "writable statics (size in hex, name): $writable"
[ "$(printf '%s\n' "$writable" | wc -l)" = 1 ] && [ "$(printf '%d' "0x${writable%% *}")" = 13120 ]

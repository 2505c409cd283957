#!/bin/sh
# SPDX-License-Identifier: MIT
# statics.sh ARCHIVE OBJDUMP: the library's only writable static is the work area of the inverse, 41 rows of 80 floats.
# (.data.rel.ro is written by the loader alone, and read-only afterwards.)
set -eu
writable=$("$2" -t "$1" | awk '$3 == "O" && $4 ~ /^\.(data|bss|tdata|tbss)/ && $4 !~ /^\.data\.rel\.ro/ { print $5, $6 }')
echo "writable statics (size in hex, name): $writable"
[ "$(printf '%s\n' "$writable" | wc -l)" = 1 ] && [ "$(printf '%d' "0x${writable%% *}")" = 13120 ]

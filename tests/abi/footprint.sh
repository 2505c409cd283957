#!/bin/sh
# SPDX-License-Identifier: MIT
# footprint.sh LIBRARY STRIP SIZE CODE_LIMIT DATA_LIMIT: bytes of the stripped library, by section, against limits.
set -eu
stripped=$(mktemp)
trap 'rm -f "$stripped"' EXIT
"$2" -o "$stripped" "$1"
"$3" -A -d "$stripped" | awk -v code_limit="$4" -v data_limit="$5" '
  $1 == ".text" || $1 == ".rodata" || $1 == ".data" || $1 == ".bss" { bytes[$1] = $2 }
  END {
    code = bytes[".text"] + bytes[".rodata"]; data = bytes[".data"] + bytes[".bss"]
    printf "text %d, rodata %d, data %d, bss %d bytes\n", bytes[".text"], bytes[".rodata"], bytes[".data"], bytes[".bss"]
    printf "text + rodata %d of %d, data + bss %d of %d\n", code, code_limit, data, data_limit
    exit !(bytes[".text"] > 0 && code <= code_limit && data <= data_limit)
  }'

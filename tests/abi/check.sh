#!/bin/sh
# SPDX-License-Identifier: MIT
# check.sh LIBRARY NM READELF SYMBOLS: the exported symbols are the committed ones, and only the C library is needed.
set -eu
status=0
exported=$("$2" -D --defined-only "$1" | awk '{print $3}' | LC_ALL=C sort)
if [ "$exported" != "$(cat "$4")" ]; then
  echo "exported symbols differ from $4:"
  printf '%s\n' "$exported" | diff "$4" - || status=1
fi
needed=$("$3" -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
if [ "$needed" != libc.so.6 ]; then
  echo "needs more than the C library:" $needed
  status=1
fi
soname=$("$3" -d "$1" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
case $soname in
  libox.so.[0-9]*) ;;
  *)
    echo "no versioned soname: '$soname'"
    status=1
    ;;
esac
[ $status = 0 ] && echo "$(wc -l <"$4") symbols, needs $needed, soname $soname"
exit $status

#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# report.sh NATIVE_BUILD ARM_BUILD REPORT_DIR: what the tests that have run in both build trees cover, taken together.
# Fails below 100 % of the lines and branches of src and include, or below 90 % of the lines of tools.
set -euo pipefail
here=$(realpath "$(dirname "$0")")
native=$(realpath "$1") arm=$(realpath "$2") report=$(realpath -m "$3")
cd "$here/../.."
rm -rf "$report"
mkdir -p "$report"

# Not the source's: branches of exceptions, and those that gcc puts on lines without a statement.
gcovr=(gcovr --root . --exclude-throw-branches --exclude-unreachable-branches)

# The data of the objects there are now into a directory of their own.
count() { # BUILD GCOV NAME
  local notes object
  mkdir "$report/$3"
  cd "$1"
  find . -path ./tests -prune -o -name '*.gcno' -print | while read -r notes; do
    object=${notes%.gcno}
    [ -f "$object.o" ] || continue
    find . -path "$object.gc*" -exec cp --parents -t "$report/$3" {} +
  done
  cd "$report/$3"
  find . -name '*.gcda' -exec "$2" --json-format --stdout --branch-probabilities {} \; >"$report/$3.gcov"
  cd "$here/../.."
  # Without the functions: one name may stand at another place on ARM, and gcovr refuses to merge that.
  "${gcovr[@]}" --filter src/ --filter include/ --filter tools/ --gcov-executable "$2" "$report/$3" --json |
    jq '.files[].functions = []' >"$report/$3.json"
}

count "$native" gcov native
count "$arm" arm-linux-gnueabihf-gcov arm
"${gcovr[@]}" -a "$report/native.json" -a "$report/arm.json" --json "$report/all.json"
/usr/bin/python3 "$here/fold.py" "$report/all.json" "$report/native.gcov" "$report/arm.gcov"

status=0
library=(gcovr --root . -a "$report/all.json" --filter src/ --filter include/)
echo "The library, lines:"
"${library[@]}" --fail-under-line 100 || status=1
echo "The library, branches:"
"${library[@]}" --branches --fail-under-branch 100 || status=1
echo "The tools, lines:"
gcovr --root . -a "$report/all.json" --filter tools/ --fail-under-line 90 || status=1
exit $status

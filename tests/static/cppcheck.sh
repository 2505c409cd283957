#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# cppcheck.sh SOURCE_DIR BUILD_DIR: cppcheck over all sources that the build compiles. What it finds is an error.
set -euo pipefail
source=$(realpath "$1") build=$(realpath "$2")
cd "$source"

# -i leaves out GoogleTest's own units and those that the build made.
cppcheck --project="$build/compile_commands.json" -i /usr/src -i "$build" -j "$(nproc)" --quiet \
  --library=googletest --library=tests/static/typed_test.cfg \
  --enable=warning,performance,portability --inline-suppr --error-exitcode=1
echo "cppcheck: nothing found"

#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# clang-tidy.sh SOURCE_DIR BUILD_DIR: the checks of .clang-tidy over the library and the tools, the cheap ones over the
# reference, the C sources of the tests and the examples. What they find is an error.
set -euo pipefail
source=$(realpath "$1") build=$(realpath "$2")
cd "$source"

commands=$(mktemp -d)
trap 'rm -rf "$commands"' EXIT
# The build is gcc's: without what only gcc knows.
sed 's/ -fno-tree-[a-z-]*//g' "$build/compile_commands.json" >"$commands/compile_commands.json"
tidy=(clang-tidy --quiet -p "$commands" --extra-arg=-Wno-ignored-optimization-argument)
light=--checks=-clang-analyzer-*,-cert-*,-misc-*,-readability-*,-concurrency-*

# The longest first. The analyser would walk CLI11's headers for half a minute: options.cpp goes without it. The tests
# proper are left to the compiler and to cppcheck, as GoogleTest costs ten seconds a file.
list() {
  echo "tools/oxtrack/options.cpp --checks=-clang-analyzer-*"
  find tools src -name '*.cpp' ! -path tools/oxtrack/options.cpp | LC_ALL=C sort -r
  printf "%s $light\n" tests/reference/*.cpp tests/unit/alloc_hook.cpp tests/abi/layout.c examples/*.c
}

# On standard error stand only counts of what was suppressed, unless a file could not be read at all.
list | xargs -P "$(nproc)" -L 1 "${tidy[@]}" 2>"$commands/errors" || { cat "$commands/errors"; exit 1; }
echo "clang-tidy: $(list | wc -l) files, nothing found"

#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# run.sh SOURCE BUILD TARGET COMPILER [EMULATOR...]: builds the digest programme with gcc or clang at three levels and
# compares what it prints with the committed digest.
set -euo pipefail
mkdir -p "$2"
source=$1 build=$2 target=$3 compiler=$4
shift 4
expected=$(cat "$source/tests/digest/expected.txt")
cross=()
if [ "$target" != native ]; then
  cross=(-DCMAKE_TOOLCHAIN_FILE="$source/cmake/$target.cmake")
  [ "$compiler" = gcc ] || cross+=(-DOX_CLANG=ON)
else
  cross=(-DCMAKE_C_COMPILER="$compiler" -DCMAKE_CXX_COMPILER="${compiler/%gcc/g}++")
fi
linker=
[ "$compiler" = gcc ] || linker=-fuse-ld=lld
status=0
for level in -O0 -O2 "-O3 -flto"; do
  tree=$build/$target-$compiler${level%% *}
  [ -f "$tree/build.ninja" ] || cmake -S "$source" -B "$tree" -G Ninja "${cross[@]}" -DOX_BUILD_DIGEST=ON -DOX_BUILD_TOOLS=OFF -DOX_WERROR=ON \
    -DCMAKE_BUILD_TYPE=Level -DCMAKE_C_FLAGS_LEVEL="$level" -DCMAKE_CXX_FLAGS_LEVEL="$level" \
    -DCMAKE_EXE_LINKER_FLAGS="$linker" >"$tree.log" 2>&1 || { cat "$tree.log"; exit 1; }
  cmake --build "$tree" --target digest -- --quiet
  got=$("$@" "$tree/tests/digest/digest")
  echo "$target $compiler $level: $got"
  if [ "$target" = armv7 ] && [ "$level" = -O2 ]; then
    find "$tree/src" -name '*.o' -exec "$source/tests/abi/neon_floats.sh" arm-linux-gnueabihf-objdump {} + || status=1
  fi
  [ "$got" = "$expected" ] || { echo "expected $expected"; status=1; }
done
exit $status

#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# strangers.sh SOURCE BUILD SCRATCH VERSION: installs the library into a scratch prefix and uses it as strangers would.
set -euo pipefail
source=$1 build=$2 scratch=$3 version=$4
here=$(cd "$(dirname "$0")" && pwd)
rm -rf "$scratch"
mkdir -p "$scratch"
cmake --install "$build" --prefix "$scratch/prefix" >"$scratch/install.log"

run() { # NAME COMMAND...
  local name=$1 got
  shift
  got=$("$@") || { echo "$name: failed"; exit 1; }
  [ "$got" = "ox $version" ] || { echo "$name: printed '$got'"; exit 1; }
  echo "$name: $got"
}

for way in find_package add_subdirectory FetchContent; do
  for language in C CXX; do
    for library in ox::ox ox::ox_static; do
      name="$way $language ${library#ox::}"
      tree=$scratch/${name// /-}
      if ! { cmake -S "$here/stranger" -B "$tree" -G Ninja -DWAY=$way -DLANGUAGE=$language -DLIBRARY=$library \
        -DOX_SOURCE="$source" -DOX_VERSION="$version" -DCMAKE_PREFIX_PATH="$scratch/prefix" \
        -DCMAKE_BUILD_TYPE=Release && cmake --build "$tree" --target stranger; } >"$tree.log" 2>&1; then
        cat "$tree.log"
        exit 1
      fi
      run "$name" "$tree/stranger"
    done
  done
done

export PKG_CONFIG_PATH
PKG_CONFIG_PATH=$(dirname "$(find "$scratch/prefix" -name ox.pc)")
library_dir=$(pkg-config --variable=libdir ox)
[ "$(pkg-config --modversion ox)" = "$version" ] || { echo "ox.pc: wrong version"; exit 1; }
# shellcheck disable=SC2046 # words are wanted
cc -std=c99 "$here/stranger/main.c" $(pkg-config --cflags --libs ox) -o "$scratch/pc-c"
# shellcheck disable=SC2046
c++ -std=c++17 -x c++ "$here/stranger/main.c" -x none $(pkg-config --cflags --libs ox) -o "$scratch/pc-cxx"
run "pkg-config C" env LD_LIBRARY_PATH="$library_dir" "$scratch/pc-c"
run "pkg-config CXX" env LD_LIBRARY_PATH="$library_dir" "$scratch/pc-cxx"
cc -std=c99 "$here/stranger/main.c" $(pkg-config --cflags ox) "$library_dir/libox.a" -o "$scratch/pc-static"
run "pkg-config C, archive" "$scratch/pc-static"

#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# debs.sh BUILD ARCH SCRATCH [EMULATOR...]: makes the Debian packages of a build tree and looks into them. ARCH is
# Debian's name; EMULATOR runs programs of that machine.
set -euo pipefail
build=$(cd "$1" && pwd) arch=$2 scratch=$3
shift 3
emulator=("$@")
export LC_ALL=C

case $arch in
  amd64) triplet=x86_64-linux-gnu machine='Advanced Micro Devices X86-64' ;;
  armhf) triplet=arm-linux-gnueabihf machine=ARM ;;
  arm64) triplet=aarch64-linux-gnu machine=AArch64 ;;
  i386) triplet=i386-linux-gnu machine='Intel 80386' ;;
  *) echo "unknown architecture: $arch" >&2 && exit 2 ;;
esac

status=0
fail() {
  echo "FAIL: $*"
  status=1
}
same() { # WHAT GOT WANTED
  [ "$2" = "$3" ] || fail "$1:"$'\n'"$(diff <(printf '%s\n' "$3") <(printf '%s\n' "$2") || true)"
}

rm -rf "$scratch"
mkdir -p "$scratch/root"
scratch=$(cd "$scratch" && pwd)
# The permissions in the packages must not follow those of whoever makes them.
if ! (umask 077 && cpack -G DEB --config "$build/CPackConfig.cmake" -B "$scratch") >"$scratch/cpack.log" 2>&1; then
  cat "$scratch/cpack.log"
  exit 1
fi

debs=("$scratch"/*.deb)
version=$(dpkg-deb -f "${debs[0]}" Version)
upstream=${version%-*}
major=${upstream%%.*}
same 'packages' "$(cd "$scratch" && ls -- *.deb)" \
  "libox-dev_${version}_$arch.deb
libox${major}_${version}_$arch.deb
oxtrack_${version}_$arch.deb"
[ $status = 0 ] || exit 1

# --- every package: fields, permissions, sums, files ---------------------------------------------------------------

look_into() { # PACKAGE SECTION MULTI_ARCH DEPENDS FILES
  local package=$1 deb=$scratch/${1}_${version}_$arch.deb control=$scratch/$1.control files
  files=$5"
usr/share/doc/$package/changelog.Debian.gz
usr/share/doc/$package/changelog.gz
usr/share/doc/$package/copyright"
  same "$package: fields" \
    "$(dpkg-deb -f "$deb" Package Source Version Architecture Multi-Arch Section Priority Maintainer Depends)" \
    "Package: $package
Source: ox
Version: $version
Architecture: $arch
${3:+Multi-Arch: $3
}Section: $2
Priority: optional
Maintainer: The ox authors <ox@example.org>
Depends: $4"
  [ "$(dpkg-deb -f "$deb" Description | wc -l)" -gt 2 ] || fail "$package: no extended description"

  same "$package: files" "$(dpkg-deb -c "$deb" | awk '!/^d/ {sub(".* [.]/", ""); print}' | sort)" "$(sort <<<"$files")"
  same "$package: permissions" "$(dpkg-deb -c "$deb" | grep -Ev \
    -e '^drwxr-xr-x root/root .*/$' -e '^-rw-r--r-- root/root ' -e '^lrwxrwxrwx root/root ' \
    -e '^-rwxr-xr-x root/root .* \./usr/bin/oxtrack$')" ''

  dpkg-deb -e "$deb" "$control"
  dpkg-deb -x "$deb" "$scratch/root"
  (cd "$scratch/root" && md5sum --quiet -c "$control/md5sums") || fail "$package: md5sums"
  [ "$(wc -l <"$control/md5sums")" = "$(dpkg-deb -c "$deb" | grep -c '^-')" ] || fail "$package: md5sums lacks files"
}

lib=usr/lib/$triplet
look_into "libox$major" libs same 'libc6 (>= 2.17)' "\
$lib/libox.so.$major -> libox.so.$upstream
$lib/libox.so.$upstream"
look_into libox-dev libdevel same "libox$major (= $version)" "\
usr/include/ox.h
$lib/libox.a
$lib/libox.so -> libox.so.$major
$lib/cmake/ox/oxConfig.cmake
$lib/cmake/ox/oxConfigVersion.cmake
$lib/cmake/ox/oxTargets.cmake
$lib/cmake/ox/oxTargets-release.cmake
$lib/pkgconfig/ox.pc"
look_into oxtrack utils '' "libc6 (>= 2.34), libgcc-s1 (>= 3.5), libstdc++6 (>= 12), libox$major (= $version)" "\
usr/bin/oxtrack
usr/share/man/man1/oxtrack.1.gz"
same 'shlibs' "$(cat "$scratch/libox$major.control/shlibs")" "libox $major libox$major (>= $upstream)"
same 'triggers' "$(cat "$scratch/libox$major.control/triggers")" 'activate-noawait ldconfig'

# --- the binaries --------------------------------------------------------------------------------------------------

root=$scratch/root library=$scratch/root/$lib/libox.so.$major tool=$scratch/root/usr/bin/oxtrack

# The newest symbol versions that the dependencies above promise: of glibc, of gcc 12's C++ library, of libgcc.
look_at() { # FILE GLIBC
  local name=${1#"$root"/} namespace limit newest
  readelf -SW "$1" | grep -Eq ' \.(symtab|debug)' && fail "$name: not stripped"
  readelf -d "$1" | grep -E 'RPATH|RUNPATH' && fail "$name: has a search path"
  while read -r namespace limit; do
    newest=$(readelf -VW "$1" | sed -n "s/.*Name: ${namespace}_\([0-9.]*\) .*/\1/p" | sort -V | tail -n 1)
    [ "$(printf '%s\n' "$newest" "$limit" | sort -V | tail -n 1)" = "$limit" ] ||
      fail "$name: needs ${namespace}_$newest, its package depends on no more than $limit"
  done <<END
GLIBC $2
GLIBCXX 3.4.30
CXXABI 1.3.13
GCC 3.5
END
}
machines() { readelf -h "$1" | sed -n 's/^ *Machine: *//p' | sort -u; }

for file in "$library" "$root/$lib/libox.a" "$tool"; do
  same "${file#"$root"/}: machine" "$(machines "$file")" "$machine"
done
look_at "$library" 2.17
look_at "$tool" 2.34
same 'soname' "$(readelf -d "$library" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')" "libox.so.$major"
readelf -d "$tool" | grep -q "NEEDED.*\[libox\.so\.$major\]" || fail 'oxtrack does not use the shared library'
[ "$root/$lib/libox.so" -ef "$library" ] || fail 'libox.so does not lead to the library'

if [ "$arch" = amd64 ] || [ ${#emulator[@]} -gt 0 ]; then
  # The path reaches the loader on the other side of an emulator too.
  same 'oxtrack --version' "$(LD_LIBRARY_PATH=$root/$lib ${emulator[@]+"${emulator[@]}"} "$tool" --version)" \
    "oxtrack $upstream"
else
  echo "oxtrack of $arch was not run: no emulator"
fi

# --- what finds the library ------------------------------------------------------------------------------------------

pc() { PKG_CONFIG_LIBDIR=$root/$lib/pkgconfig pkg-config "$@" ox; }
same 'ox.pc: version' "$(pc --modversion)" "$upstream"
[ "$(pc --variable=libdir)/libox.so" -ef "$library" ] || fail 'ox.pc: wrong libdir'
[ "$(pc --variable=includedir)/ox.h" -ef "$root/usr/include/ox.h" ] || fail 'ox.pc: wrong includedir'
grep -rqF "$build" "$root" && fail 'a package names the build tree'

# --- Debian's opinion ------------------------------------------------------------------------------------------------

if command -v lintian >/dev/null; then
  as_root=()
  [ "$(id -u)" != 0 ] || as_root=(--allow-root)
  if lintian ${as_root[@]+"${as_root[@]}"} --fail-on error "${debs[@]}"; then
    echo 'lintian: no errors'
  else
    fail 'lintian'
  fi
else
  echo 'lintian is missing and was not run'
fi

[ $status = 0 ] && echo "3 packages of $version for $arch"
exit $status

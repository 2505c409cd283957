#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Runs programs on an emulated x86-64 processor with AVX-512: a PC in bochs boots Debian's kernel, and its init is a
# shell script which runs them one after another. Fails when one of them failed, or did not come to its end.
set -euo pipefail

usage() {
  cat >&2 <<'END2'
avx512.sh [--timeout SECONDS] [--kernel FILE] [NAME=VALUE...] PROGRAM [ARGUMENT...] [-- [NAME=VALUE...] PROGRAM...]...

Every program goes into the machine by its own path, with the shared objects it needs and the arguments that are files.
NAME=VALUE before a program is its environment. --kernel: a bzImage; by default that of linux-image-cloud-amd64,
downloaded once into $OX_AVX512_CACHE (default: build/emulated).
END2
  exit 2
}

root=$(cd "$(dirname "$0")/../.." && pwd)
timeout=600
kernel=
while [[ ${1:-} == --?* ]]; do
  case $1 in
    --timeout) timeout=${2:?} ;;
    --kernel) kernel=${2:?} ;;
    *) usage ;;
  esac
  shift 2
done
[ $# -gt 0 ] || usage

if [ -z "$kernel" ]; then
  cache=${OX_AVX512_CACHE:-$root/build/emulated}
  kernel=$cache/vmlinuz
  if [ ! -f "$kernel" ]; then
    package=$(apt-cache depends linux-image-cloud-amd64 | sed -n 's/^ *Depends: \(linux-image-\)/\1/p')
    if [ -z "$package" ]; then
      echo "avx512.sh: apt knows no linux-image-cloud-amd64: run apt-get update" >&2
      exit 1
    fi
    scratch=$(mktemp -d)
    (cd "$scratch" && apt-get download -qq -o APT::Sandbox::User=root "$package" && dpkg-deb -x ./*.deb .)
    mkdir -p "$cache"
    mv "$scratch"/boot/vmlinuz-* "$kernel"
    rm -r "$scratch"
  fi
fi

work=$(mktemp -d)
machine=
trap '[ -z "$machine" ] || kill "$machine" 2>/dev/null || true; rm -rf "$work"' EXIT
mkdir -p "$work"/{initramfs/{bin,dev,proc,sys,tmp},disc}

carry() { # FILE: into the initramfs, by the path it has here
  install -D "$1" "$work/initramfs$(realpath -s "$1")"
}

cp /bin/busybox "$work/initramfs/bin/"
# Output goes to the first serial port, the statuses to the second: no program can forge one.
cat >"$work/initramfs/init" <<END2
#!/bin/busybox sh
/bin/busybox --install -s /bin
mount -t devtmpfs dev /dev
mount -t proc proc /proc
mount -t sysfs sys /sys
stty -F /dev/ttyS1 raw
export TERM=dumb
mkdir -p ${PWD@Q}
cd ${PWD@Q}
END2
names=()
while [ $# -gt 0 ]; do
  command=()
  program=
  while [ $# -gt 0 ] && [ "$1" != -- ]; do
    word=$1
    shift
    if [ -z "$program" ]; then
      if [[ $word == [A-Za-z_]*=* ]]; then
        command+=("$word")
        continue
      fi
      program=$(type -P "$word") || { echo "avx512.sh: no program $word" >&2; exit 2; }
      program=$(realpath -s "$program")
      word=$program
      carry "$program"
      # A static program has none.
      for object in $(ldd "$program" 2>/dev/null | grep -o '/[^ ]*'); do carry "$object"; done
    elif [ -f "$word" ] && [ -r "$word" ] && [[ $(realpath "$word") != /proc/* ]]; then
      carry "$word"
    fi
    command+=("$word")
  done
  [ $# = 0 ] || shift
  [ -n "$program" ] || usage
  names+=("${command[*]}")
  line="== ${command[*]}"
  echo "echo ${line@Q}; env ${command[*]@Q} </dev/null; echo \$? >/dev/ttyS1" >>"$work/initramfs/init"
done
# Setting a port waits until all is sent; switching off does not.
cat >>"$work/initramfs/init" <<'END2'
stty -F /dev/ttyS0 -echo
stty -F /dev/ttyS1 -echo
poweroff -f
END2
chmod +x "$work/initramfs/init"
(cd "$work/initramfs" && find . | cpio --quiet -o -H newc | gzip -1) >"$work/disc/initramfs"

cp "$kernel" "$work/disc/linux"
cp /usr/lib/ISOLINUX/isolinux.bin /usr/lib/syslinux/modules/bios/ldlinux.c32 "$work/disc/"
# This emulator gives a wrong size for the compacted vector state, and the kernel would then do without wide vectors:
# it gets the plain form. The self-tests of the kernel's ciphers would take half of the boot.
cat >"$work/disc/isolinux.cfg" <<'END2'
default linux
prompt 0
label linux
  kernel linux
  append initrd=initramfs console=ttyS0 loglevel=3 mitigations=off tsc=reliable clearcpuid=xsavec,xsaves cryptomgr.notests
END2
xorriso -as mkisofs -quiet -o "$work/disc.iso" -b isolinux.bin -c boot.cat -no-emul-boot -boot-load-size 4 \
  -boot-info-table "$work/disc" 2>"$work/xorriso.log" || { cat "$work/xorriso.log" >&2; exit 1; }

# Debian's bochs without a window is the rfb one: it opens the first free port from 5900 and waits for nobody. A high
# rate of instructions per emulated second leaves fewer timer ticks among them.
cat >"$work/bochsrc" <<END2
display_library: rfb, options="timeout=0"
megs: 1024
cpu: model=corei7_skylake_x, count=1, ips=200000000, reset_on_triple_fault=0, ignore_bad_msrs=1
clock: sync=none, time0=local
romimage: file=/usr/share/bochs/BIOS-bochs-latest
vgaromimage: file=/usr/share/bochs/VGABIOS-lgpl-latest
pci: enabled=1, chipset=i440fx
ata0: enabled=1, ioaddr1=0x1f0, ioaddr2=0x3f0, irq=14
ata0-master: type=cdrom, path="$work/disc.iso", status=inserted
boot: cdrom
com1: enabled=1, mode=file, dev="$work/output"
com2: enabled=1, mode=file, dev="$work/statuses"
log: $work/bochs.log
panic: action=fatal
error: action=report
info: action=report
END2
# Debian's bochs starts in its debugger.
echo continue >"$work/debugger"
touch "$work/output" "$work/statuses"
timeout -s KILL "$timeout" bochs-bin -q -f "$work/bochsrc" -rc "$work/debugger" >"$work/bochs.out" 2>&1 </dev/null &
machine=$!
tail -s 0.2 -n +1 -f --pid="$machine" "$work/output"
if wait "$machine" 2>/dev/null; then :; elif [ $? = 137 ]; then
  echo "avx512.sh: stopped after $timeout s" >&2
fi
machine=

mapfile -t statuses < <(tr -d '\r' <"$work/statuses")
if [ ! -s "$work/output" ]; then
  echo "avx512.sh: no word from the machine; the emulator says:" >&2
  tail -n 20 "$work/bochs.out" >&2
fi
failed=0
for ((i = 0; i < ${#names[@]}; ++i)); do
  outcome=${statuses[i]:-none, did not end}
  [ "$outcome" != 0 ] || continue
  echo "avx512.sh: exit status $outcome: ${names[i]}" >&2
  failed=1
done
exit $failed

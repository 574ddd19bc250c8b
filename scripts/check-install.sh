#!/usr/bin/env bash
# Installs a build into a scratch prefix, builds the example against it with
# pkg-config and with CMake, and runs both under the simulated camera.
#   scripts/check-install.sh BUILD_DIR
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:?usage: check-install.sh BUILD_DIR}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null

# Installed files: SONAME, headers, pkg-config, CMake package, udev rule.
test -L "$prefix/lib/libTarvik.so.1"
objdump -p "$prefix/lib/libTarvik.so" | grep -q 'SONAME *libTarvik.so.1'
for h in libTarvik.h TarvikImpl.h IDCardData.h text_convert.h wNewMutex.h byte_pack.h os_time.h tarvik_export.h; do
  test -f "$prefix/include/tarvik/$h"
done
rules=$prefix/lib/udev/rules.d/70-tarvik.rules
grep -q 'TAG+="uaccess"' "$rules"
if grep -qE 'MODE="0?66[6-7]"' "$rules" || [ "$(stat -c %a "$rules")" != 644 ]; then
  echo "udev rule is world-writable or has loose permissions" >&2
  exit 1
fi

# pkg-config
PKG_CONFIG_PATH=$prefix/lib/pkgconfig c++ -std=c++17 -Wall -Wextra -Werror examples/read_card.cpp \
  $(PKG_CONFIG_PATH=$prefix/lib/pkgconfig pkg-config --cflags --libs libtarvik) -o "$work/read_card_pc"

# CMake package
cmake -S examples -B "$work/cmake-build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null

sim=$prefix/bin/tarvik-sim
# The simulator's open() gate is found from the installed launcher: a node can refuse access.
test -f "$prefix/lib/tarvik/libtarvik-sim-gate.so"
"$sim" run --deny-access -- sh -c '! cat /dev/bus/usb/001/002 2>/dev/null'
for exe in "$work/read_card_pc" "$work/cmake-build/read_card"; do
  out=$(LD_LIBRARY_PATH=$prefix/lib "$sim" run -- "$exe" 2>&1 >/dev/null)
  echo "$out" | grep -q '^name: 张三$' || { echo "example failed: $out" >&2; exit 1; }
done
echo "install check: 3 passed, 0 failed"

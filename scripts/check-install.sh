#!/usr/bin/env bash
# Installs a build into a scratch prefix, builds the example against it with
# pkg-config and with CMake, and runs both under the simulated camera. Also:
#   - the installed tools run from the scratch prefix without LD_LIBRARY_PATH
#     (their RPATH is $ORIGIN-relative; the library has none);
#   - the install says that udev does not read the scratch prefix's rule, and
#     puts the rule where udev reads it for /usr (staged with DESTDIR);
#   - the man pages and the bash completion are installed and work;
#   - the Python package runs examples/read_card.py from the scratch prefix;
#   - a configure with -DCMAKE_INSTALL_PREFIX=/usr picks Debian's multiarch
#     library directory and no RPATH (configure only: nothing goes into /usr).
#   scripts/check-install.sh BUILD_DIR
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:?usage: check-install.sh BUILD_DIR}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
passed=0

cmake --install "$build" --prefix "$prefix" >"$work/install.log" 2>&1 ||
  { cat "$work/install.log" >&2; exit 1; }

# Installed files: SONAME, headers, pkg-config, CMake package, udev rule, Python package.
test -L "$prefix/lib/libTarvik.so.1"
objdump -p "$prefix/lib/libTarvik.so" | grep -q 'SONAME *libTarvik.so.1'
for h in libTarvik.h TarvikImpl.h tarvik.h IDCardData.h text_convert.h wNewMutex.h byte_pack.h os_time.h tarvik_export.h; do
  test -f "$prefix/include/tarvik/$h"
done
rules=$prefix/lib/udev/rules.d/70-tarvik.rules
grep -q 'TAG+="uaccess"' "$rules"
if grep -qE 'MODE="0?66[6-7]"' "$rules" || [ "$(stat -c %a "$rules")" != 644 ]; then
  echo "udev rule is world-writable or has loose permissions" >&2
  exit 1
fi
passed=$((passed + 1))

# udev reads no rule under the scratch prefix: the install must say so, and how to fix it.
if ! tr '\n' ' ' <"$work/install.log" | grep -q "udev does not read rules from $prefix/lib/udev/rules.d.*/etc/udev/rules.d"; then
  echo "the install did not say that udev does not read $prefix/lib/udev/rules.d:" >&2
  cat "$work/install.log" >&2
  exit 1
fi
# Under /usr the rule goes to /usr/lib/udev/rules.d (staged: DESTDIR keeps it out of /usr).
stage=$work/stage
DESTDIR=$stage cmake --install "$build" --prefix /usr --component runtime >"$work/stage.log" 2>&1
test -f "$stage/usr/lib/udev/rules.d/70-tarvik.rules"
grep -q 'udev rule: /usr/lib/udev/rules.d/70-tarvik.rules' "$work/stage.log"
passed=$((passed + 1))

# The tools run from the prefix with no LD_LIBRARY_PATH; only the tools carry an RPATH.
for tool in tarvikctl tarvik-sim; do
  readelf -d "$prefix/bin/$tool" | grep -qE "(RPATH|RUNPATH).*\[\\\$ORIGIN/\.\./lib\]"
done
if readelf -d "$prefix/lib/libTarvik.so" | grep -qE 'RPATH|RUNPATH'; then
  echo "the installed library has an RPATH" >&2
  exit 1
fi
out=$(env -u LD_LIBRARY_PATH "$prefix/bin/tarvik-sim" run -- "$prefix/bin/tarvikctl" --quiet idcard 2>&1)
echo "$out" | grep -qE '^name: +张三$' || { echo "installed tarvikctl failed: $out" >&2; exit 1; }
passed=$((passed + 1))

# Man pages (when help2man made them) and the bash completion.
if command -v help2man >/dev/null; then
  for page in tarvikctl tarvik-sim; do
    man -l "$prefix/share/man/man1/$page.1" 2>/dev/null | grep -q '^NAME'
  done
fi
got=$(bash -c 'source "$1"; COMP_WORDS=(tarvikctl item r); COMP_CWORD=2; _tarvikctl
  echo "${COMPREPLY[*]}"' _ "$prefix/share/bash-completion/completions/tarvikctl")
[ "$got" = read ] || { echo "bash completion of 'tarvikctl item r': '$got'" >&2; exit 1; }
passed=$((passed + 1))

# A configure for /usr picks the multiarch library directory, and the tools no RPATH.
multiarch=$(${CC:-cc} -print-multiarch)
cmake -S . -B "$work/usr-configure" -G Ninja -DCMAKE_INSTALL_PREFIX=/usr -DTARVIK_BUILD_TESTS=OFF \
  >"$work/usr-configure.log" 2>&1 || { cat "$work/usr-configure.log" >&2; exit 1; }
libdir=$(sed -n 's/^CMAKE_INSTALL_LIBDIR:PATH=//p' "$work/usr-configure/CMakeCache.txt")
if [ "$libdir" != "lib/$multiarch" ]; then
  echo "prefix /usr: CMAKE_INSTALL_LIBDIR is '$libdir', not lib/$multiarch" >&2
  exit 1
fi
if grep -q 'ORIGIN' "$work/usr-configure/tools/cmake_install.cmake"; then
  echo "prefix /usr: tarvikctl would be installed with an RPATH" >&2
  exit 1
fi
passed=$((passed + 1))

# pkg-config
PKG_CONFIG_PATH=$prefix/lib/pkgconfig c++ -std=c++17 -Wall -Wextra -Werror examples/read_card.cpp \
  $(PKG_CONFIG_PATH=$prefix/lib/pkgconfig pkg-config --cflags --libs libtarvik) -o "$work/read_card_pc"

# C, with the C interface only
PKG_CONFIG_PATH=$prefix/lib/pkgconfig cc -std=c99 -Wall -Wextra -Wpedantic -Werror examples/read_card.c \
  $(PKG_CONFIG_PATH=$prefix/lib/pkgconfig pkg-config --cflags --libs libtarvik) -o "$work/read_card_c"

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
  passed=$((passed + 1))
done
# The kernel path: the card is read while the video driver stays bound.
out=$(TARVIK_TRANSPORT=kernel LD_LIBRARY_PATH=$prefix/lib "$sim" run -- "$work/read_card_pc" 2>&1)
echo "$out" | grep -q 'video node /dev/video0 (bus 1, device 2), the video driver stays bound' &&
  echo "$out" | grep -q '^name: 张三$' || { echo "kernel path example failed: $out" >&2; exit 1; }
passed=$((passed + 1))
# The C program's standard output holds its own lines only.
for exe in "$work/read_card_c" "$work/cmake-build/read_card_c"; do
  out=$(TARVIK_LOG=off LD_LIBRARY_PATH=$prefix/lib "$sim" run -- "$exe")
  [ "$(echo "$out" | head -1)" = "name: 张三" ] || { echo "C example failed: $out" >&2; exit 1; }
  passed=$((passed + 1))
done
# Python: the installed package, the library through the loader's path.
package=$(find "$prefix" -path '*/tarvik/__init__.py' -printf '%h\n')
out=$(LD_LIBRARY_PATH=$prefix/lib PYTHONPATH=$(dirname "$package") "$sim" run -- \
  python3 examples/read_card.py 2>/dev/null)
echo "$out" | grep -q '^name: 张三$' || { echo "Python example failed: $out" >&2; exit 1; }
passed=$((passed + 1))
echo "install check: $passed passed, 0 failed"

#!/usr/bin/env bash
# Builds the Debian packages from a clean copy of the tree, installs them into a
# throwaway root (dpkg-deb -x: nothing on the machine changes) and checks them:
#   - debian/changelog's version is the CMake project version, and the packages';
#   - lintian reports no error (its warnings are printed);
#   - no RPATH in the packaged binaries; the udev rule where udev reads it;
#   - the man pages render; the bash completion completes;
#   - the examples build against the installed libtarvik-dev, with pkg-config and
#     with CMake, and read the simulated camera's card through the installed
#     library, run by the installed tarvik-sim; so do the installed tarvikctl
#     and examples/read_card.py with the installed Python package;
#   - tarvikd's unit, bus, polkit and sysusers files where systemd, dbus-daemon
#     and polkit read them, its user made when it is configured, and the
#     installed tarvikd offering the simulated camera on a session bus;
#   - tarvik-bridge's user unit where systemd reads it, not enabled for every
#     user at install, and the installed bridge refusing a non-loopback address.
#   scripts/check-packages.sh    (KEEP=1 keeps the work directory; JOBS=N builds
#                                 with N jobs, default all processors)
# The copy holds the files git knows, committed or not, as they are in the work
# tree (no build trees). Everything is made under a temporary directory.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

work=$(mktemp -d "${TMPDIR:-/tmp}/tarvik-packages.XXXXXX")
if [ "${KEEP:-0}" = 1 ]; then
    echo "work directory: $work"
else
    trap 'rm -rf "$work"' EXIT
fi

passed=0
pass() {
    passed=$((passed + 1))
    echo "ok: $*"
}
fail() {
    echo "FAILED: $*" >&2
    echo "package check: $passed passed, 1 failed"
    exit 1
}

# --- the version, written once in project() ---
project_version=$(sed -n 's/^project(Tarvik VERSION \([0-9][0-9.]*\).*/\1/p' CMakeLists.txt)
[ -n "$project_version" ] || fail "no version in CMakeLists.txt's project()"
cmake -DCHANGELOG=debian/changelog -DVERSION="$project_version" \
    -P cmake/CheckChangelogVersion.cmake >/dev/null || fail "debian/changelog's version"
pass "debian/changelog matches the project version $project_version"

# --- a clean copy, built into a source package and binary packages ---
src=$work/libtarvik-$project_version
mkdir -p "$src"
if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
    git ls-files -z --cached --others --exclude-standard |
        while IFS= read -r -d '' f; do
            if [ -e "$f" ] || [ -L "$f" ]; then printf '%s\0' "$f"; fi
        done |
        tar --null -T - -cf - | tar -xf - -C "$src"
else
    tar --exclude=./build -cf - . | tar -xf - -C "$src"
fi

# The source package first, from the pristine copy: lintian checks its control,
# copyright and source format.
tar -C "$work" --exclude="${src##*/}/debian" -czf "$work/libtarvik_$project_version.orig.tar.gz" \
    "${src##*/}"
(cd "$work" && dpkg-source -b "${src##*/}") >"$work/source.log" 2>&1 ||
    { cat "$work/source.log" >&2; fail "dpkg-source -b"; }
lintian_out=$(lintian --fail-on error --display-info --tag-display-limit 0 "$work"/*.dsc 2>&1) ||
    { echo "$lintian_out" >&2; fail "lintian reports errors in the source package"; }
echo "$lintian_out" | grep -v '^running with root privileges' | sed 's/^/  lintian: /' || true
pass "source package built; lintian: no errors"

echo "building the packages (dpkg-buildpackage -b, log: $work/build.log)"
start=$(date +%s)
if ! (cd "$src" && dpkg-buildpackage -b -us -uc -j"${JOBS:-$(nproc)}") >"$work/build.log" 2>&1; then
    tail -40 "$work/build.log" >&2
    fail "dpkg-buildpackage"
fi
debs=()
for deb in "$work"/*.deb; do
    case $deb in *-dbgsym_*) ;; *) debs+=("$deb") ;; esac
done
[ ${#debs[@]} -eq 6 ] || fail "expected 6 packages, got: ${debs[*]##*/}"
for deb in "${debs[@]}"; do
    version=$(dpkg-deb -f "$deb" Version)
    [ "${version%-*}" = "$project_version" ] || fail "${deb##*/} has version $version"
done
pass "6 packages built in $(($(date +%s) - start)) s: $(printf '%s ' "${debs[@]##*/}")"

# --- lintian: no error; warnings and notes are shown ---
lintian_out=$(lintian --fail-on error --display-info --tag-display-limit 0 "$work"/*.changes 2>&1) ||
    { echo "$lintian_out" >&2; fail "lintian reports errors"; }
echo "$lintian_out" | grep -v '^running with root privileges' | sed 's/^/  lintian: /' || true
pass "lintian: no errors in the binary packages"

# --- installed into a throwaway root ---
root=$work/root
for deb in "${debs[@]}"; do dpkg-deb -x "$deb" "$root"; done
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
libdir=$root/usr/lib/$multiarch

if ! test -L "$libdir/libTarvik.so" || ! test -L "$libdir/libTarvik.so.1"; then
    fail "library links in $libdir"
fi
dpkg-deb -I "$work"/libtarvik1_*.deb symbols | grep -q '^ zq_CreateTarvik@Base ' ||
    fail "libtarvik1 carries no symbols file"
grep -A20 'dpkg-gensymbols: warning: some new symbols' "$work/build.log" >&2 || true
for elf in "$root"/usr/bin/tarvikctl "$root"/usr/bin/tarvik-sim "$root"/usr/sbin/tarvikd \
    "$root"/usr/bin/tarvik-bridge \
    "$libdir"/libTarvik.so.1.*; do
    if readelf -d "$elf" | grep -qE 'RPATH|RUNPATH'; then fail "${elf#"$root"} has an RPATH"; fi
done
pass "no RPATH in the packaged library, tools and service"

rules=$root/usr/lib/udev/rules.d/70-tarvik.rules
if [ "$(stat -c %a "$rules")" != 644 ] || ! grep -q 'TAG+="uaccess"' "$rules" ||
    ! grep -q 'ENV{SYSTEMD_WANTS}+="tarvikd.service"' "$rules"; then
    fail "udev rule in /usr/lib/udev/rules.d"
fi
pass "udev rule in /usr/lib/udev/rules.d, mode 644"

# --- tarvikd: its files where systemd, dbus-daemon and polkit read them ---
for f in lib/systemd/system/tarvikd.service usr/lib/sysusers.d/tarvikd.conf \
    usr/share/dbus-1/system.d/org.tarvik.Tarvik1.conf \
    usr/share/dbus-1/system-services/org.tarvik.Tarvik1.service \
    usr/share/polkit-1/actions/org.tarvik.tarvik1.policy usr/share/polkit-1/rules.d/50-tarvik.rules; do
    [ "$(stat -c %a "$root/$f" 2>/dev/null)" = 644 ] || fail "tarvikd: /$f missing or not mode 644"
done
dpkg-deb -I "$work"/tarvikd_*.deb postinst | grep -q 'systemd-sysusers.* tarvikd.conf' ||
    fail "tarvikd's postinst does not make its user (systemd-sysusers tarvikd.conf)"
pass "tarvikd: unit, sysusers, bus policy and activation, polkit actions and rule; postinst makes the user"

# --- tarvik-bridge: its user unit, enabled by the kiosk's user, not at install ---
[ "$(stat -c %a "$root/usr/lib/systemd/user/tarvik-bridge.service" 2>/dev/null)" = 644 ] ||
    fail "tarvik-bridge: /usr/lib/systemd/user/tarvik-bridge.service missing or not mode 644"
# Enabled again on upgrade only where its user had enabled it (dh_installsystemduser --no-enable).
dpkg-deb -I "$work"/tarvik-bridge_*.deb postinst | grep -q -- '--user debian-installed' ||
    fail "tarvik-bridge's postinst enables its unit for every user"
out=$("$root/usr/bin/tarvik-bridge" --listen 0.0.0.0:8737 2>&1) && fail "tarvik-bridge took 0.0.0.0"
echo "$out" | grep -q 'not a loopback address' || fail "tarvik-bridge --listen 0.0.0.0: $out"
pass "tarvik-bridge: user unit, not enabled at install; it refuses a non-loopback address"

# --- man pages and completion ---
for page in man1/tarvikctl.1 man1/tarvik-sim.1 man8/tarvikd.8 man1/tarvik-bridge.1; do
    file=$root/usr/share/man/$page.gz
    text=$(MANWIDTH=80 man -l "$file" 2>/dev/null) || fail "man -l $page.1.gz"
    echo "$text" | grep -q "^NAME" || fail "$page.1.gz has no NAME section"
    warnings=$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -E UTF-8 -l -Tutf8 -Z "$file" 2>&1 >/dev/null)
    [ -z "$warnings" ] || fail "$page.1.gz: $warnings"
done
man -l "$root/usr/share/man/man1/tarvikctl.1.gz" 2>/dev/null | grep -q 'tarvikctl exposure set-times' ||
    fail "tarvikctl.1 lacks the subcommands' help"
pass "man pages render: tarvikctl(1), tarvik-sim(1), tarvikd(8), tarvik-bridge(1)"

completion=$root/usr/share/bash-completion/completions/tarvikctl
got=$(bash -c 'source "$1"; COMP_WORDS=(tarvikctl exposure get-); COMP_CWORD=2; _tarvikctl
    echo "${COMPREPLY[*]}"' _ "$completion")
[ "$got" = "get-times get-range get-mode" ] || fail "bash completion: '$got'"
pass "bash completion completes 'tarvikctl exposure get-'"

# --- the examples against the installed -dev package, on the simulated camera ---
export PKG_CONFIG_PATH=$libdir/pkgconfig
[ "$(pkg-config --variable=libdir libtarvik)" -ef "$libdir" ] || fail "pkg-config finds another libtarvik"
examples=$src/examples
# shellcheck disable=SC2046 # pkg-config's flags are words
c++ -std=c++17 -Wall -Wextra -Werror "$examples/read_card.cpp" \
    $(pkg-config --cflags --libs libtarvik) -o "$work/read_card_cpp" || fail "read_card.cpp with pkg-config"
programs=("$work/read_card_cpp")
if [ -f "$examples/read_card.c" ]; then
    # shellcheck disable=SC2046
    cc -std=c99 -Wall -Wextra -Wpedantic -Werror "$examples/read_card.c" \
        $(pkg-config --cflags --libs libtarvik) -o "$work/read_card_c" || fail "read_card.c with pkg-config"
    programs+=("$work/read_card_c")
fi
cmake -S "$examples" -B "$work/example-cmake" -G Ninja -DCMAKE_PREFIX_PATH="$root/usr" \
    >"$work/example-cmake.log" 2>&1 || { cat "$work/example-cmake.log" >&2; fail "examples: CMake configure"; }
grep -q "^Tarvik_DIR:PATH=$libdir/cmake/Tarvik$" "$work/example-cmake/CMakeCache.txt" ||
    fail "CMake found another Tarvik package"
cmake --build "$work/example-cmake" >>"$work/example-cmake.log" 2>&1 ||
    { cat "$work/example-cmake.log" >&2; fail "examples: CMake build"; }
for exe in "$work/example-cmake"/read_card*; do
    if [ -f "$exe" ] && [ -x "$exe" ]; then programs+=("$exe"); fi
done
pass "examples built against the package: ${programs[*]##*/}"

# The library is in the throwaway root only: the programs find it there. The
# card's lines go to standard error (C++ example) or standard output (C example);
# TARVIK_LOG=off keeps the library's own lines out where it is understood.
export LD_LIBRARY_PATH=$libdir
sim=$root/usr/bin/tarvik-sim
for exe in "${programs[@]}"; do
    out=$(TARVIK_LOG=off "$sim" run -- "$exe" 2>&1) || fail "${exe##*/} on the simulated camera: $out"
    echo "$out" | grep -qx 'name: 张三' || fail "${exe##*/} printed: $out"
done
pass "the examples read the card 'name: 张三' through the packaged library and tarvik-sim"
out=$("$sim" run -- "$root/usr/bin/tarvikctl" --quiet idcard 2>&1) || fail "tarvikctl idcard: $out"
echo "$out" | grep -qE '^name: +张三$' || fail "tarvikctl idcard printed: $out"
pass "the packaged tarvikctl reads the card on the packaged tarvik-sim"
out=$(PYTHONPATH=$root/usr/lib/python3/dist-packages "$sim" run -- /usr/bin/python3 \
    "$examples/read_card.py" 2>/dev/null) || fail "read_card.py: $out"
echo "$out" | grep -qx 'name: 张三' || fail "read_card.py printed: $out"
pass "read_card.py reads the card through the packaged Python package"

# The packaged service on a session bus of its own, on the simulated camera.
# shellcheck disable=SC2016 # the inner shell expands them
out=$(dbus-run-session -- "$sim" run -- sh -c '
    "$1" --session & pid=$!
    for _ in $(seq 100); do busctl --user status org.tarvik.Tarvik1 >/dev/null 2>&1 && break; sleep 0.1; done
    busctl --user call org.tarvik.Tarvik1 /org/tarvik/Tarvik1 org.tarvik.Tarvik1.Manager GetCameras
    rc=$?; kill "$pid"; wait "$pid" && exit $rc' _ "$root/usr/sbin/tarvikd" 2>&1) ||
    fail "the packaged tarvikd on a session bus: $out"
echo "$out" | grep -q '^ao 1 "/org/tarvik/Tarvik1/camera/' || fail "tarvikd's GetCameras: $out"
pass "the packaged tarvikd offers the simulated camera on a session bus"

echo "package check: $passed passed, 0 failed"

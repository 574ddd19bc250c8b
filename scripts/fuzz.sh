#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, ASan+UBSan) and runs every one of them.
#   scripts/fuzz.sh              60 seconds per target
#   scripts/fuzz.sh SECONDS      SECONDS per target
#   scripts/fuzz.sh --ci         the short run CI makes: 10 seconds per target
#   scripts/fuzz.sh --runs N     N executions per target (the long run)
# Exits non-zero when a target finds anything (crash, sanitizer report, broken
# invariant, leak, hang); the input that did it is kept under
# $BUILD_DIR/findings/. The working corpora persist in $BUILD_DIR/corpus/.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=60
runs=
case "${1:-}" in
  "") ;;
  --ci) seconds=10 ;;
  --runs) runs="${2:?--runs needs a count}" ;;
  *[!0-9]*) echo "usage: $0 [SECONDS | --ci | --runs N]" >&2; exit 2 ;;
  *) seconds="$1" ;;
esac

BUILD_DIR="${BUILD_DIR:-build/fuzz}"

# clang and the fuzzer runtime (only a recommendation of clang, so named here).
need=()
command -v clang >/dev/null 2>&1 || need+=(clang)
command -v clang++ >/dev/null 2>&1 || need+=(clang)
dpkg -s libclang-rt-14-dev >/dev/null 2>&1 || need+=(libclang-rt-14-dev)
for tool in cmake ninja pkg-config; do
  command -v "$tool" >/dev/null 2>&1 || need+=("$([ "$tool" = ninja ] && echo ninja-build || echo "$tool")")
done
pkg-config --exists libusb-1.0 2>/dev/null || need+=(libusb-1.0-0-dev)
if [ ${#need[@]} -gt 0 ]; then
  sudo=
  [ "$(id -u)" -eq 0 ] || sudo=sudo
  $sudo apt-get update
  $sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${need[@]}"
fi

if [ -z "${SOURCE_DATE_EPOCH:-}" ] && git rev-parse HEAD >/dev/null 2>&1; then
  SOURCE_DATE_EPOCH=$(git log -1 --format=%ct)
  export SOURCE_DATE_EPOCH
fi

CC=clang CXX=clang++ cmake -S . -B "$BUILD_DIR" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DTARVIK_BUILD_FUZZ=ON -DTARVIK_BUILD_SIM=OFF -DTARVIK_BUILD_TESTS=OFF -DTARVIK_BUILD_TOOLS=OFF \
  -DTARVIK_BUILD_SERVICE=OFF \
  >/dev/null
cmake --build "$BUILD_DIR"

rm -rf "$BUILD_DIR/seeds"
"$BUILD_DIR/fuzz/make_seeds" "$BUILD_DIR/seeds"
# tarvik-bridge's messages: a call of each method as a page sends it.
mkdir -p "$BUILD_DIR/seeds/fuzz_bridge_rpc"
n=0
for message in '{"jsonrpc":"2.0","id":1,"method":"getCameras","params":{}}' \
  '{"jsonrpc":"2.0","id":"a","method":"status","params":{"camera":"SN1"}}' \
  '{"jsonrpc":"2.0","id":2,"method":"readItem","params":{"camera":"SN1","item":"vcm","input":{"mode":1}}}' \
  '{"jsonrpc":"2.0","id":3,"method":"writeItem","params":{"camera":"SN1","item":"data-block","values":{"target":1,"offset":0,"data":"AAEC/w==","on":true,"v":[-1,2]}}}' \
  '{"jsonrpc":"2.0","id":null,"method":"readCard","params":{"camera":"SN1","thirdBlock":false}}' \
  '{"jsonrpc":"2.0","method":"readCard"}' '[{"jsonrpc":"2.0"}]' 'QUJD'; do
  n=$((n + 1))
  printf '%s' "$message" >"$BUILD_DIR/seeds/fuzz_bridge_rpc/$n"
done

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"

# target:max_len (a card read's script carries up to 46 answer frames)
targets=(fuzz_transactions:4096 fuzz_text:600)
if [ -x "$BUILD_DIR/fuzz/fuzz_bridge_rpc" ]; then targets+=(fuzz_bridge_rpc:2048); fi

mkdir -p "$BUILD_DIR/findings"
failed=0
summary=()
for entry in "${targets[@]}"; do
  target="${entry%%:*}"
  maxlen="${entry##*:}"
  corpus="$BUILD_DIR/corpus/$target"
  mkdir -p "$corpus"
  log="$BUILD_DIR/findings/$target.log"
  limit=(-max_total_time="$seconds")
  [ -n "$runs" ] && limit=(-runs="$runs")
  if [ -n "$runs" ]; then echo "=== $target ($runs runs)"; else echo "=== $target ($seconds s)"; fi
  start=$(date +%s)
  status=0
  "$BUILD_DIR/fuzz/$target" "${limit[@]}" -max_len="$maxlen" -timeout=10 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="$BUILD_DIR/findings/$target-" \
    "$corpus" "$BUILD_DIR/seeds/$target" >"$log" 2>&1 || status=$?
  elapsed=$(( $(date +%s) - start ))
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  cov=$(grep -oE 'cov: [0-9]+ ft: [0-9]+ corp: [0-9]+' "$log" | tail -1 || true)
  if [ "$status" -ne 0 ]; then
    failed=1
    grep -E 'INVARIANT|ERROR|runtime error|SUMMARY|Test unit written' "$log" | head -20 || true
    summary+=("$target: FAILED (exit $status) after ${execs:-?} runs, see $log")
  else
    summary+=("$target: ok, ${execs:-?} runs in ${elapsed} s, ${cov}")
  fi
done

echo "=== summary"
printf '%s\n' "${summary[@]}"
exit "$failed"

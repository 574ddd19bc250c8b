#!/usr/bin/env bash
# The benchmark command: installs what is missing, builds a release tree in
# build/bench and runs
#   1. the pure-code benchmarks (protocol functions, card text);
#   2. the device benchmarks: every operation, the card reads of commands 3
#      and 4 among them, against a bare loop making the same requests, on the
#      simulated camera, on both paths (libusb, and the video driver's
#      UVCIOC_CTRL_QUERY), with the ratio library/floor and each operation's
#      request count against the minimum;
#   3. waiting for cards through the C interface, on both paths, against a bare
#      timerfd loop of the same SAM command-0 exchanges at the same interval:
#      CPU with no card, PlaceCard() to card-placed, Replug() to camera-back;
#   4. tarvikd against the library in-process: a call, a card laid down to its
#      signal, idle CPU with a watcher, memory;
#   5. the library's instructions per operation under callgrind, libusb excluded,
#      with the log as by default and off.
# Full outputs are kept in build/bench/results/.
#   scripts/bench.sh           everything (a few minutes on 2 cores)
#   scripts/bench.sh --quick   shorter runs, for a smoke test
set -euo pipefail
cd "$(dirname "$0")/.."

quick=0
if [ "${1:-}" = "--quick" ]; then quick=1; fi

# --- what the benchmarks need ---
packages=(build-essential cmake ninja-build pkg-config libusb-1.0-0-dev umockdev libumockdev-dev
  nlohmann-json3-dev libbenchmark-dev valgrind)
missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}" >&2
  sudo=""
  if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >&2
fi

# --- release build of the library and the benchmarks ---
build=build/bench
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARVIK_BUILD_BENCH=ON \
  -DTARVIK_BUILD_TESTS=OFF -DTARVIK_BUILD_TOOLS=OFF -DTARVIK_BUILD_FUZZ=OFF >/dev/null
cmake --build "$build" --target tarvik_bench_pure tarvik_bench_device tarvik_bench_waiting \
  tarvik_bench_instructions tarvik_bench_service tarvikd tarvik-sim >/dev/null
results="$build/results"
mkdir -p "$results"

if [ $quick -eq 1 ]; then
  pure_time=0.05 device_time=0.05 device_reps=1 iterations=10 waiting=--quick
else
  pure_time=0.2 device_time=0.3 device_reps=3 iterations=100 waiting=
fi

echo "== machine"
{
  echo "cpu:      $(lscpu | sed -n 's/^Model name: *//p') ($(nproc) cores)"
  echo "kernel:   $(uname -r)"
  echo "compiler: $(c++ --version | head -1)"
  echo "libusb:   $(pkg-config --modversion libusb-1.0), umockdev $(pkg-config --modversion umockdev-1.0)"
  echo "build:    RelWithDebInfo (-O2 -g), commit $(git rev-parse --short HEAD 2>/dev/null || echo '?')"
} | tee "$results/machine.txt"

echo
echo "== pure code (time per call)"
"$build/bench/tarvik_bench_pure" --benchmark_min_time="$pure_time" \
  --benchmark_out="$results/pure.json" --benchmark_out_format=json 2>/dev/null | tee "$results/pure.txt"

echo
echo "== device: library against the bare floor, simulated camera, both paths"
echo "   (each request crosses umockdev's emulation; the library's stdout to /dev/null)"
umockdev-wrapper "$build/bench/tarvik_bench_device" --benchmark_min_time="$device_time" \
  --benchmark_repetitions="$device_reps" \
  --benchmark_report_aggregates_only=true \
  --benchmark_out="$results/device.json" --benchmark_out_format=json >"$results/device.txt" \
  2>"$results/device.err"
sed -n '/^Library against/,$p' "$results/device.txt"

echo
echo "== waiting for cards: the library against a bare loop of command-0 polls, both paths"
umockdev-wrapper "$build/bench/tarvik_bench_waiting" $waiting 2>"$results/waiting.err" \
  | tee "$results/waiting.txt"

echo
echo "== tarvikd: a call through the service against the same call in-process, card laid down"
echo "   to its signal, idle CPU with a watcher, memory (a session bus, the kernel path)"
"$build/sim/tarvik-sim" run -- dbus-run-session -- "$build/bench/tarvik_bench_service" \
  "$build/service/tarvikd" $waiting 2>"$results/service.err" | tee "$results/service.txt"

echo
echo "== library instructions per operation (callgrind; libusb and the emulation excluded)"
echo "   as the library runs by default (its timing lines to /dev/null), and with TARVIK_LOG=off"
# instructions DIR [ENV...]: one callgrind run, one line per operation.
instructions() {
  local cg="$1"
  shift
  rm -rf "$cg"
  mkdir -p "$cg"
  env "$@" "$build/sim/tarvik-sim" run -- valgrind --tool=callgrind \
    --callgrind-out-file="$cg/ops.%p" "$build/bench/tarvik_bench_instructions" "$iterations" \
    >/dev/null 2>"$cg/valgrind.log"
  for part in $(ls "$cg"/ops.*.* | sort -t. -k3 -n); do
    callgrind_annotate --inclusive=yes --threshold=100 --auto=no "$part" | awk '
      /^Trigger: Client Request:/ { name = $4; n = substr($5, 2) }
      { v = $1; gsub(",", "", v) }
      / [^ ]*:main \[.*tarvik_bench_instructions\]/ { total = v }
      /:libusb_(control_transfer|submit_transfer|handle_events_completed|alloc_transfer|free_transfer) \[/ { usb += v }
      /tarvik_log\.cpp:tarvik::LogLine\(/ { print_ += v }
      END { printf "%s %d %d %d\n", name, (total - usb) / n, print_ / n, usb / n }'
  done
}
instructions "$results/callgrind" >"$results/instructions-on.txt"
instructions "$results/callgrind-off" TARVIK_LOG=off >"$results/instructions-off.txt"
{
  printf '%-20s %12s %12s %14s %16s\n' operation "library Ir" "printing Ir" "log off: lib." \
    "libusb+emul. Ir"
  join <(sort "$results/instructions-on.txt") <(sort "$results/instructions-off.txt") |
    awk '{ printf "%-20s %12d %12d %14d %16d\n", $1, $2, $3, $5, $4 }'
} | tee "$results/instructions.txt"
echo
echo "full outputs: $results/"

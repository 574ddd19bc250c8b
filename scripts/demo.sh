#!/usr/bin/env bash
# The main job: builds libTarvik, the simulated camera, tarvikctl, tarvikd and
# tarvik-bridge, then tours the tool against a simulated camera (everything it
# reads, a setting changed and read back, an identity card), and shows the
# kiosk: the service on a private bus, the bridge, and the example page in
# headless Chromium showing a card laid on the reader (scripts/kiosk-demo.sh).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

build=build/demo
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DTARVIK_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" >/dev/null

export PATH="$PWD/$build/tools:$PWD/$build/sim:$PATH"
tarvik-sim run --card sim/cards/example.json --tilt 12,-5 -- bash scripts/tour.sh
echo "== the kiosk: tarvikd, tarvik-bridge and the example page in headless Chromium"
scripts/kiosk-demo.sh "$build"

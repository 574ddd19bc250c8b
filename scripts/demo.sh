#!/usr/bin/env bash
# The main job: builds libTarvik, the simulated camera and tarvikctl, then
# tours the tool against a simulated camera: everything it reads, a setting
# changed and read back, and an identity card.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

build=build/demo
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DTARVIK_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" >/dev/null

export PATH="$PWD/$build/tools:$PWD/$build/sim:$PATH"
exec tarvik-sim run --card sim/cards/example.json --tilt 12,-5 -- bash scripts/tour.sh

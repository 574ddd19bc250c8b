#!/usr/bin/env bash
# A tarvikctl tour; run it where a camera (real or simulated) is attached.
set -euo pipefail
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"  # the card's photo lands here

run() {
  echo "\$ $*"
  "$@"
  echo
}

run tarvikctl --version
run tarvikctl list
run tarvikctl info
run tarvikctl set roi 10 20 320 240
run tarvikctl get roi
run tarvikctl --json get roi
run tarvikctl set device-sn KIOSK-0042
run tarvikctl get device-sn
run tarvikctl gyro
run tarvikctl idcard --photo photo.bin
echo "photo.bin: $(stat -c '%s bytes, mode %a' photo.bin)"

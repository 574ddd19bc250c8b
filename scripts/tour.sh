#!/usr/bin/env bash
# A tarvikctl tour; run it where a camera (real or simulated) is attached.
set -euo pipefail
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

run() {
  echo "\$ $*"
  "$@"
  echo
}

run tarvikctl --quiet list
run tarvikctl --quiet info
run tarvikctl --quiet set roi 10 20 320 240
run tarvikctl --quiet get roi
run tarvikctl --quiet set device-sn KIOSK-0042
run tarvikctl --quiet get device-sn
run tarvikctl --quiet gyro
run tarvikctl --quiet idcard --photo "$work/photo.bin"
echo "photo: $(stat -c %s "$work/photo.bin") bytes"

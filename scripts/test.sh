#!/usr/bin/env bash
# The test command: installs what is missing, then configures, builds and runs
# the whole suite in the normal build, under ASan+UBSan and under TSan.
#   scripts/test.sh            all three
#   scripts/test.sh debug      one preset (debug, asan, tsan, release)
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

# Reproducible build stamp: the last commit's time.
if [ -z "${SOURCE_DATE_EPOCH:-}" ] && git rev-parse HEAD >/dev/null 2>&1; then
  SOURCE_DATE_EPOCH=$(git log -1 --format=%ct)
  export SOURCE_DATE_EPOCH
fi

presets=("$@")
if [ ${#presets[@]} -eq 0 ]; then
  presets=(debug asan tsan)
fi

for preset in "${presets[@]}"; do
  echo "=== ${preset} ==="
  cmake --preset "${preset}"
  cmake --build --preset "${preset}"
  ctest --preset "${preset}"
  if [ "${preset}" = debug ]; then
    scripts/check-install.sh "build/${preset}"
  fi
done

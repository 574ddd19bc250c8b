#!/usr/bin/env bash
# The test command: installs what is missing, then configures, builds and runs
# the whole suite in the normal build, under ASan+UBSan and under TSan.
#   scripts/test.sh            all three, then the Debian packages
#                              (scripts/check-packages.sh), then a short run of
#                              every fuzzer
#   scripts/test.sh debug      one preset (debug, asan, tsan, release), or
#                              "packages" for the package check alone
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

# Reproducible build stamp: the last commit's time.
if [ -z "${SOURCE_DATE_EPOCH:-}" ] && git rev-parse HEAD >/dev/null 2>&1; then
  SOURCE_DATE_EPOCH=$(git log -1 --format=%ct)
  export SOURCE_DATE_EPOCH
fi

presets=("$@")
fuzz=no
if [ ${#presets[@]} -eq 0 ]; then
  presets=(debug asan tsan)
  fuzz=yes
fi

for preset in "${presets[@]}"; do
  echo "=== ${preset} ==="
  if [ "${preset}" = packages ]; then
    scripts/check-packages.sh
    continue
  fi
  cmake --preset "${preset}"
  cmake --build --preset "${preset}"
  ctest --preset "${preset}"
  if [ "${preset}" = debug ]; then
    scripts/check-install.sh "build/${preset}"
  fi
done

if [ "${fuzz}" = yes ]; then
  echo "=== packages ==="
  scripts/check-packages.sh
  echo "=== fuzz ==="
  scripts/fuzz.sh --ci
fi

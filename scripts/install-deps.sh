#!/usr/bin/env bash
# Installs the Debian packages that building and testing libTarvik need,
# only when some are missing. Runs as root (or through sudo when available).
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git
  libusb-1.0-0-dev libudev-dev
  umockdev libumockdev-dev
  googletest libbenchmark-dev
  libcli11-dev nlohmann-json3-dev
  clang libclang-rt-14-dev
  valgrind
  usbutils v4l-utils uvcdynctrl
  debhelper dpkg-dev lintian help2man man-db groff-base
  python3 python3-pytest dh-python
  # tarvikd and its tests: sd-bus, private buses, polkit, systemd-analyze
  libsystemd-dev dbus dbus-daemon dbus-bin polkitd systemd python3-dbus-next
  # the browser bridge and its tests
  libboost-dev chromium python3-websockets python3-prometheus-client
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "installing: ${missing[*]}" >&2
sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >&2

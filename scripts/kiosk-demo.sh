#!/usr/bin/env bash
# The kiosk page end to end on a simulated camera: tarvikd on a private bus,
# tarvik-bridge as its client, the example page (examples/kiosk) from a local
# web server in headless Chromium; a card is laid on the reader and the page's
# line with the card's name is printed. Exit status 0 when the page shows it.
#
#   scripts/kiosk-demo.sh [BUILD_DIR]     default build/demo (scripts/demo.sh's),
#                                         configured and built when needed
#   KIOSK_SCREENSHOT=FILE scripts/kiosk-demo.sh    also a picture of the page
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/demo}

if [ -z "${TARVIK_SIM_CONTROL:-}" ]; then
  scripts/install-deps.sh
  if [ ! -f "$build/build.ninja" ]; then
    cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DTARVIK_BUILD_TESTS=OFF >/dev/null
  fi
  cmake --build "$build" >/dev/null
  # The rest runs under the simulator, with no card on the reader yet.
  exec "$build/sim/tarvik-sim" run --no-card -- "$PWD/scripts/kiosk-demo.sh" "$build"
fi

work=$(mktemp -d)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

# Waits until FILE holds a line matching PATTERN; prints its first match.
wait_for_line() {
  for _ in $(seq 100); do
    if grep -m1 -o "$2" "$1" 2>/dev/null; then return 0; fi
    sleep 0.1
  done
  echo "kiosk demo: nothing in $1 like '$2'" >&2
  return 1
}

# Programs that do not use the camera run without the simulator's preload.
plain() { env -u LD_PRELOAD "$@"; }

export DBUS_SESSION_BUS_ADDRESS="unix:path=$work/bus"
plain dbus-daemon --session --nofork --nopidfile --address="$DBUS_SESSION_BUS_ADDRESS" \
  --print-address >"$work/bus.out" 2>/dev/null &
pids+=($!)
wait_for_line "$work/bus.out" "unix:" >/dev/null

"$build/service/tarvikd" --session 2>"$work/tarvikd.log" &
pids+=($!)
for _ in $(seq 100); do
  plain busctl --user status org.tarvik.Tarvik1 >/dev/null 2>&1 && break
  sleep 0.1
done

plain /usr/bin/python3 -u -m http.server --bind 127.0.0.1 --directory examples/kiosk 0 \
  >"$work/http.out" 2>/dev/null &
pids+=($!)
page_port=$(wait_for_line "$work/http.out" "port [0-9]*" | cut -d' ' -f2)

plain "$build/bridge/tarvik-bridge" --session --listen 127.0.0.1:0 \
  --allow-origin "http://127.0.0.1:$page_port" >"$work/bridge.out" 2>"$work/bridge.log" &
pids+=($!)
bridge=$(wait_for_line "$work/bridge.out" "127.0.0.1:[0-9]*")

url="http://127.0.0.1:$page_port/index.html?ws=ws://$bridge"
echo "kiosk demo: tarvikd, tarvik-bridge on $bridge, the page at $url"
(sleep 1 && "$build/sim/tarvik-sim" ctl place-card >/dev/null &&
  echo "kiosk demo: a card is laid on the reader") &
shot=()
if [ -n "${KIOSK_SCREENSHOT:-}" ]; then shot=(--screenshot "$KIOSK_SCREENSHOT" --size 1024,560); fi
plain /usr/bin/python3 scripts/headless_page.py "$url" --wait-for-text "张三" --grep 'id="card-name"' \
  --timeout 20 "${shot[@]}"
echo "kiosk demo: the page shows the card"

#!/bin/sh
# A day at the kiosk for the program given (under tarvik-sim run): each step of the
# simulator waits for the program's line about the last, then an interrupt ends it.
#   kiosk_day.sh TARVIK-SIM PROGRAM ARGS...
# KIOSK_PRELOAD goes before the program's preloads (a sanitizer's runtime for an
# interpreter), not into the shell's.
sim=$1
shift
out=$(mktemp)
LD_PRELOAD="${KIOSK_PRELOAD:+$KIOSK_PRELOAD }$LD_PRELOAD" "$@" >"$out" 2>&1 &
program=$!
# waits (20 s at the most) for a line that starts with "#N "
saw() {
    i=0
    while ! grep -q "^#$1 " "$out" && [ $i -lt 200 ]; do sleep 0.1; i=$((i + 1)); done
}
saw 1 && "$sim" ctl remove-card >/dev/null
saw 2 && "$sim" ctl unplug >/dev/null
saw 3 && "$sim" ctl replug >/dev/null
saw 4 && "$sim" ctl place-card >/dev/null
saw 5
i=0
while ! grep -q "^card: .*" "$out" || [ "$(grep -c '^card: ' "$out")" -lt 2 ]; do
    [ $i -lt 200 ] || break
    sleep 0.1
    i=$((i + 1))
done
kill -INT $program
wait $program
status=$?
cat "$out"
rm -f "$out"
exit $status

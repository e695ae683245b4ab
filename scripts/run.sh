#!/bin/sh
# Builds the daemon, tavictl and taviweb, starts the box simulator in a fresh box root and runs
# tavid in RF mode against it, verbose, with taviweb serving its HTTP API and metrics, until Ctrl-C.
# First a short session shows an RF output read, its frequency set, the new frequency arriving at
# the simulated module, and the box's status over HTTP.
set -eu
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake -S . -B build/host -DCMAKE_BUILD_TYPE=Debug -DTAVID_TESTS=OFF >/dev/null
cmake --build build/host -j"$(nproc)" --target tavid tavictl taviweb >/dev/null

port="${TAVID_PORT:-49999}"
web="${TAVIWEB_LISTEN:-127.0.0.1:8080}"
root="$(mktemp -d /tmp/tvXXXXXX)"
tavictl="build/host/tavictl/tavictl -p $port"
sim() { /usr/bin/python3 sim/tavisim.py --root "$root" "$@"; }

sim --mode rf --tavid "$PWD/build/host/src/tavid" --tavid-args "-v -c $port" &
simulator=$!
daemon= tailer= webserver=
trap 'kill "$webserver" "$daemon" "$simulator" "$tailer" 2>/dev/null; wait 2>/dev/null; rm -rf "$root"' EXIT INT TERM
while [ ! -S "$root/dev/i2c-0" ]; do sleep 0.1; done

TAVID_ROOT="$root" build/host/src/tavid -v -c "$port" -m rf >"$root/tavid.out" 2>&1 &
daemon=$!
until $tavictl get device device_id=0 >/dev/null 2>&1; do sleep 0.2; done

show() { echo; echo "\$ $*"; "$@" || true; }
show $tavictl get output_rf_mod output_id=0
show $tavictl set output_rf_mod output_id=0 frequency=482000
sleep 0.5 # the next poll cycles push the change to the module
echo
echo "The module behind RF output 0 (mod_tarn_0 at 0x30) now holds:"
sim --query '{"cmd": "module", "addr": "0x30"}' | /usr/bin/python3 -c \
  'import json, sys; m = json.load(sys.stdin)["module"]; p = m["applied"]["parameters"]; print("  frequency:", p["frequency"], "kHz, level byte:", p["level"])'

build/host/taviweb/taviweb -l "$web" -p "$port" -v >"$root/taviweb.out" 2>&1 &
webserver=$!
until curl -s -o /dev/null "http://$web/metrics"; do
  kill -0 "$webserver" 2>/dev/null || { cat "$root/taviweb.out"; exit 1; }
  sleep 0.1
done
show curl -s "http://$web/api/status"
echo
echo
echo "tavid runs on port $port with the box root $root (its log: $root/tavid.out);"
echo "try: $tavictl get output_rf, or --help."
echo "taviweb serves http://$web (its log: $root/taviweb.out): open http://$web/ in a browser for the"
echo "operator's console, or:"
echo "  curl -s http://$web/metrics"
echo "  curl -s -H 'Content-Type: application/json' -d '{\"action\":\"get\",\"object\":\"device\",\"args\":{\"device_id\":\"0\"}}' http://$web/api"
echo "Ctrl-C stops them."
tail -f "$root/tavid.out" &
tailer=$!
wait "$daemon"

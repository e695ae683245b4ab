#!/bin/sh
# Builds the daemon, starts the box simulator in a fresh box root and runs tavid in RF mode
# against it, verbose, until Ctrl-C. A sample request and its reply are shown first.
set -eu
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake -S . -B build/host -DCMAKE_BUILD_TYPE=Debug -DTAVID_TESTS=OFF >/dev/null
cmake --build build/host -j"$(nproc)" --target tavid >/dev/null

port="${TAVID_PORT:-49999}"
root="$(mktemp -d /tmp/tvXXXXXX)"
/usr/bin/python3 sim/tavisim.py --root "$root" --mode rf --tavid "$PWD/build/host/src/tavid" --tavid-args "-v -c $port" &
sim=$!
trap 'kill "$daemon" "$sim" 2>/dev/null; wait 2>/dev/null; rm -rf "$root"' EXIT INT TERM
while [ ! -S "$root/dev/i2c-0" ]; do sleep 0.1; done

TAVID_ROOT="$root" build/host/src/tavid -v -c "$port" -m rf &
daemon=$!
sleep 0.5

request='{"action":"execute","object":"store_settings","args":{}}'
echo "request: $request"
printf 'reply:   '
/usr/bin/python3 scripts/request.py -p "$port" "$request"
echo
echo "tavid runs on port $port with the box root $root; Ctrl-C stops it."
wait "$daemon"

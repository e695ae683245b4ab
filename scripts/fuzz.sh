#!/bin/sh
# Builds the libFuzzer harnesses of fuzz/ in build/fuzz and runs each for the given number of seconds
# (default 30) on a copy of its seed corpus, which stays as it is checked in. Fails on any crash,
# leak, time-out or sanitizer report, naming the input that caused it, and on a harness that made
# fewer executions than its minimum (below); prints the executions of each.
#   scripts/fuzz.sh [seconds-per-harness] [harness ...]
# Harness names are fuzz_cmd_json, fuzz_mod_tarn_reply, fuzz_settings_restore, fuzz_netsettings,
# fuzz_cmd_channel and fuzz_taviweb; without names all six run, one after the other.
set -eu

cd "$(dirname "$0")/.."
seconds="${1:-30}"
[ $# -gt 0 ] && shift
harnesses="${*:-fuzz_cmd_json fuzz_mod_tarn_reply fuzz_settings_restore fuzz_netsettings fuzz_cmd_channel fuzz_taviweb}"
case "$seconds" in
  '' | *[!0-9]* | 0*) echo "usage: scripts/fuzz.sh [seconds-per-harness] [harness ...]" >&2; exit 2 ;;
esac

# The fewest executions per second each harness must average over its run: at most half of what a run
# makes on a 2-core machine under a load of 18, a quarter or less at a load of 10, so that a healthy
# run passes with margin and a harness that stalls (say, every run waiting out a time-out) fails.
# fuzz/README.md gives the figures.
min_rate() {
  case "$1" in
    fuzz_cmd_json) echo 40 ;;
    fuzz_mod_tarn_reply) echo 1000 ;;
    fuzz_settings_restore) echo 3 ;;
    fuzz_netsettings) echo 150 ;;
    fuzz_cmd_channel) echo 12 ;;
    fuzz_taviweb) echo 500 ;;
  esac
}
for harness in $harnesses; do
  [ -n "$(min_rate "$harness")" ] || { echo "scripts/fuzz.sh: no harness $harness (or no minimum for it)" >&2; exit 2; }
done

scripts/deps.sh fuzz

build=build/fuzz
CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTAVID_FUZZ=ON -DTAVID_TESTS=OFF \
  >/dev/null
# shellcheck disable=SC2086 # one target per harness
cmake --build "$build" -j2 --target $harnesses

# Each harness runs in a network namespace of its own with only a loopback, where it can: the
# network-settings port is fixed (49998), and a box simulator or tests running beside would otherwise
# be reached by the requests the harnesses make, or answer them.
isolated() { "$@"; }
if unshare -rn sh -c 'ip link set lo up' 2>/dev/null; then
  isolated() { unshare -rn sh -c 'ip link set lo up && exec "$@"' sh "$@"; }
else
  echo "No network namespace available: the harnesses share the machine's loopback and port 49998."
fi

# A run of the command channel mostly waits (every request ends with the channel's 50 ms receive
# time-out), so it runs in eight processes at once (libFuzzer's fork mode), which share one corpus.
harness_options() {
  case "$1" in
    fuzz_cmd_channel) echo -fork=8 ;;
  esac
}

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
failed=""
for harness in $harnesses; do
  name="${harness#fuzz_}"
  work="$build/runs/$name"
  rm -rf "$work"
  mkdir -p "$work/corpus" "$work/artifacts"
  cp fuzz/corpus/"$name"/* "$work/corpus/"
  seeds=$(find "$work/corpus" -type f | wc -l)
  log="$work/fuzz.log"
  # The daemon's warnings would drown the fuzzer's lines: the harness's own output is closed, the
  # fuzzer's and the sanitizers' reports are not.
  status=0
  # shellcheck disable=SC2046 # no option or one
  isolated "$build/fuzz/$harness" "$work/corpus" $(harness_options "$harness") -max_total_time="$seconds" \
    -timeout=30 -close_fd_mask=3 -print_final_stats=1 -artifact_prefix="$work/artifacts/" >"$log" 2>&1 ||
    status=$?
  # The last progress line ("#<executions>") counts them; in fork mode it is the only count.
  runs=$(sed -n 's/^#\([0-9][0-9]*\)[^0-9].*/\1/p' "$log" | tail -n 1)
  runs=${runs:-0}
  minimum=$(($(min_rate "$harness") * seconds))
  found=$(ls "$work/artifacts")
  if [ "$status" -ne 0 ] || [ -n "$found" ]; then
    failed="$failed $harness"
    echo "$harness: FAILED (exit $status) after $runs executions; log $log"
    for artifact in $found; do echo "  input: $work/artifacts/$artifact"; done
    grep -E "ERROR:|SUMMARY:|check failed|deadly signal|Test unit written" "$log" | head -n 10 | sed 's/^/  /'
  elif [ "$runs" -lt "$minimum" ]; then
    failed="$failed $harness"
    echo "$harness: FAILED: $runs executions in ${seconds} s, fewer than its minimum $minimum ($(min_rate "$harness")/s); log $log"
  else
    echo "$harness: $runs executions in ${seconds} s ($((runs / seconds))/s, minimum $minimum), corpus $seeds -> $(find "$work/corpus" -type f | wc -l) inputs"
  fi
done

if [ -n "$failed" ]; then
  echo "Failed:$failed"
  exit 1
fi
echo "No crash, leak, time-out or sanitizer report; every harness made its minimum of executions."

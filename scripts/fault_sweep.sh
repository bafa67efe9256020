#!/bin/sh
# Sweeps memory failure over a whole capture replayed through every built
# decoder plug-in, under AddressSanitizer and UndefinedBehaviorSanitizer:
# the program of tests/hardening/FaultSweep.cpp, on a capture of its own.
#   scripts/fault_sweep.sh [CAPTURE [STRIDE]]
# CAPTURE defaults to an HTTP, TLS and DNS capture of ../shared/pcaps
# (alexa-app.pcapng, 3103 packets); STRIDE (default 7) is the step between
# the allocations N that fail, one at a time, over the whole replay, the
# plug-in loads and the restarts after a failed start included. Bursts that
# fail every allocation from N on, BURST of them (default STRIDE), start at
# every STRIDE-th allocation as well. Prints how many N were tried, how many
# failures the library reported through kest_errno, how many it absorbed,
# and the time; exits 1 on a crash, a leak, a sanitizer report, a wrong error
# or an instance that did not recover, naming the N (KEST_SWEEP_ONLY=N with
# the same capture replays one N alone and shows what went wrong).
# BUILD_DIR (default build-asan) is configured as a Debug sanitizer build if
# it is not one yet.
set -eu
root="$(cd "$(dirname "$0")/.." && pwd)"
capture="${1:-$root/../shared/pcaps/alexa-app.pcapng}"
stride="${2:-7}"
burst="${BURST:-$stride}"
build="${BUILD_DIR:-$root/build-asan}"
case "$build" in /*) ;; *) build="$root/$build" ;; esac
jobs="$(nproc 2>/dev/null || echo 2)"

if [ ! -r "$capture" ]; then
  echo "fault_sweep: no capture at $capture" >&2
  exit 2
fi
"$root/scripts/deps.sh"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DKEST_SANITIZE=address,undefined >/dev/null
cmake --build "$build" -j "$jobs" --target kest_fault_sweep
program="$build/tests/kest_fault_sweep"

out="$(mktemp -d)"
trap 'rm -rf "$out"' EXIT
start="$(date +%s)"
# The four shards of each sweep, as many at once as there are cores.
status=0
for sweep in EveryAllocationFailsOnce BurstsOfFailuresEnd; do
  printf '%s\n' 0 1 2 3 | xargs -P "$jobs" -I{} sh -c \
    'KEST_SWEEP_CAPTURE="$1" KEST_SWEEP_STRIDE="$2" KEST_SWEEP_BURST="$3" \
       KEST_SWEEP_LOAD_STRIDE=1 KEST_SWEEP_RESTART_STRIDE=1 \
       ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
       "$4" --gtest_filter="Shards/FaultSweep.$5/{}" >"$6/$5-{}.log" 2>&1' \
    sh "$capture" "$stride" "$burst" "$program" "$sweep" "$out" || status=1
done
seconds=$(($(date +%s) - start))

# Each shard prints "figures: tried=.. reported=.. absorbed=.. restarts=..".
for sweep in EveryAllocationFailsOnce BurstsOfFailuresEnd; do
  cat "$out/$sweep"-*.log | awk -v sweep="$sweep" '
    /^figures:/ {
      for (i = 2; i <= NF; ++i) { split($i, kv, "="); sum[kv[1]] += kv[2] }
      ++shards
    }
    END {
      printf "%s: %d N tried, %d failures reported through kest_errno, %d absorbed, %d instances started again (%d shards)\n",
        sweep, sum["tried"], sum["reported"], sum["absorbed"], sum["restarts"], shards
    }'
done
grep -h -A3 -E "Failure$|ERROR: AddressSanitizer|runtime error" "$out"/*.log | head -60 || true
echo "capture $(basename "$capture"), stride $stride, bursts of $burst: ${seconds} s"
if [ "$status" -ne 0 ]; then
  echo "fault_sweep: FAILED" >&2
fi
exit "$status"

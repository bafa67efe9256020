#!/bin/sh
# Builds kest and runs the whole test suite twice: a plain build, then a build
# under AddressSanitizer and UndefinedBehaviorSanitizer. A third build runs
# the tests that exercise real threads under ThreadSanitizer.
set -eu
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/deps.sh"
jobs="$(nproc 2>/dev/null || echo 2)"

run() {
  dir="$1"; shift
  cmake -S "$root" -B "$root/$dir" -G Ninja "$@" >/dev/null
  cmake --build "$root/$dir" -j "$jobs"
  (cd "$root/$dir" && ctest --output-on-failure -j "$jobs")
}

run build -DCMAKE_BUILD_TYPE=RelWithDebInfo
# With assertions, at -O1: the sanitizers' checks stay on every access, and
# the suite (the allocation-failure sweep above all) runs faster than
# unoptimised.
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  run build-asan -DCMAKE_BUILD_TYPE=Debug "-DCMAKE_CXX_FLAGS_DEBUG=-g -O1" \
  "-DCMAKE_C_FLAGS_DEBUG=-g -O1" -DKEST_SANITIZE=address,undefined
# Every test that runs threads of its own, or kestcap with --threads: the
# library's and the decoders' programs and kestcap, with every plug-in.
cmake -S "$root" -B "$root/build-tsan" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DKEST_SANITIZE=thread -DKEST_BUILD_BENCH=OFF >/dev/null
cmake --build "$root/build-tsan" -j "$jobs"
(cd "$root/build-tsan" && TSAN_OPTIONS=halt_on_error=1 ctest --output-on-failure -j "$jobs" \
  -R 'Concurrent|Thread|SyncEventQueue|Lifecycle|ConfigurationTest|ClockTest|kestcap_end_to_end|kestcap_hostile')
echo "all tests passed"

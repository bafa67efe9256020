#!/bin/sh
# Builds kest and runs the whole test suite twice: a plain build, then a build
# under AddressSanitizer and UndefinedBehaviorSanitizer.
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
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  run build-asan -DCMAKE_BUILD_TYPE=Debug -DKEST_SANITIZE=address,undefined
echo "all tests passed"

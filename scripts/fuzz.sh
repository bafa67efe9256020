#!/bin/sh
# Builds the fuzz targets with clang and libFuzzer under AddressSanitizer and
# UndefinedBehaviorSanitizer, then fuzzes each for a while from its seeds.
#   scripts/fuzz.sh [seconds-per-target [target...]]   (default 60, all targets)
# New inputs go to build-fuzz/corpus/<target>; a crash leaves its input in
# build-fuzz as crash-* and stops the script with status 1.
# With KEEP=1, the new inputs that reach code the seeds do not (libFuzzer's
# merge) join the seeds in fuzz/corpus/<target>, which the tests replay, as
# long as the seeds stay under MAX_SEED_KB (default 256) kilobytes.
set -eu
root="$(cd "$(dirname "$0")/.." && pwd)"
seconds="${1:-60}"
[ $# -gt 0 ] && shift
"$root/scripts/deps.sh"
if ! command -v clang++ >/dev/null 2>&1; then
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO=sudo
  $SUDO apt-get update -q
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -q clang
fi
CC=clang CXX=clang++ cmake -S "$root" -B "$root/build-fuzz" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DKEST_SANITIZE=address,undefined -DKEST_FUZZ=ON -DKEST_BUILD_TESTS=OFF \
  -DKEST_BUILD_BENCH=OFF >/dev/null
cmake --build "$root/build-fuzz" -j "$(nproc 2>/dev/null || echo 2)"
cd "$root/build-fuzz"
# Every target built (the application decoders' ones included), or those
# named.
targets="$*"
if [ -z "$targets" ]; then
  targets="$(cd fuzz && ls ./*_fuzz | sed 's|^\./||; s|_fuzz$||')"
fi
for target in $targets; do
  mkdir -p "corpus/$target"
  echo "fuzzing $target for ${seconds}s"
  "./fuzz/${target}_fuzz" -max_total_time="$seconds" -print_final_stats=1 \
    "corpus/$target" "$root/fuzz/corpus/$target"
  if [ "${KEEP:-0}" = 1 ]; then
    # Into the committed seeds go only the new inputs that reach something
    # the seeds do not (libFuzzer's merge), when they stay small.
    rm -rf "minimised/$target"
    cp -r "$root/fuzz/corpus/$target" "minimised/$target"
    before="$(ls "minimised/$target" | wc -l)"
    "./fuzz/${target}_fuzz" -merge=1 "minimised/$target" "corpus/$target" 2>/dev/null
    added="$(($(ls "minimised/$target" | wc -l) - before))"
    bytes="$(du -sb "minimised/$target" | cut -f1)"
    if [ "$bytes" -le "$((${MAX_SEED_KB:-256} * 1024))" ]; then
      cp "minimised/$target"/* "$root/fuzz/corpus/$target/"
      echo "$target: $added new seeds kept, $bytes bytes in fuzz/corpus/$target"
    else
      echo "$target: $added new seeds would make $bytes bytes, above ${MAX_SEED_KB:-256} KB: not kept"
    fi
  fi
done

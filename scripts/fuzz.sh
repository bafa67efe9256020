#!/bin/sh
# Builds the fuzz targets with clang and libFuzzer under AddressSanitizer and
# UndefinedBehaviorSanitizer, then fuzzes each for a while from its seeds.
#   scripts/fuzz.sh [seconds-per-target [target...]]   (default 60, all targets)
# New inputs go to build-fuzz/corpus/<target>; a crash leaves its input in
# build-fuzz as crash-* and stops the script with status 1.
# With KEEP=1, each target's corpus (old seeds and new inputs) is then
# minimised (libFuzzer's merge keeps the smallest set with the same
# coverage) and written back to fuzz/corpus/<target> when it stays under
# MAX_SEED_KB (default 256) kilobytes, so that the tests replay it.
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
# Every target of fuzz/, or those named.
targets="$*"
if [ -z "$targets" ]; then
  targets="$(cd "$root/fuzz" && ls ./*_fuzz.cpp | sed 's|^\./||; s|_fuzz\.cpp$||')"
fi
for target in $targets; do
  mkdir -p "corpus/$target"
  echo "fuzzing $target for ${seconds}s"
  "./fuzz/${target}_fuzz" -max_total_time="$seconds" -print_final_stats=1 \
    "corpus/$target" "$root/fuzz/corpus/$target"
  if [ "${KEEP:-0}" = 1 ]; then
    rm -rf "minimised/$target"
    mkdir -p "minimised/$target"
    "./fuzz/${target}_fuzz" -merge=1 "minimised/$target" "$root/fuzz/corpus/$target" \
      "corpus/$target" 2>/dev/null
    kb="$(du -sk "minimised/$target" | cut -f1)"
    if [ "$kb" -le "${MAX_SEED_KB:-256}" ]; then
      rm -rf "$root/fuzz/corpus/$target"
      cp -r "minimised/$target" "$root/fuzz/corpus/$target"
      echo "$target: $(ls "minimised/$target" | wc -l) seeds, ${kb} KB kept in fuzz/corpus"
    else
      echo "$target: minimised corpus is ${kb} KB, above ${MAX_SEED_KB:-256} KB: not kept"
    fi
  fi
done

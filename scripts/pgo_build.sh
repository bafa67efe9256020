#!/bin/sh
# A release build laid out by the profile of real traffic: builds kest
# instrumented, runs kestcap over captures, then builds again with what the
# runs recorded. Both builds use one folder, since each profile is named
# after its object's path.
#   scripts/pgo_build.sh BUILD_DIR [CAPTURE...]
# Without captures it trains on the shared captures beside the project,
# when there, and on the repository's own. Extra CMake options go in
# PGO_CMAKE_ARGS.
set -eu
root="$(cd "$(dirname "$0")/.." && pwd)"
build="$1"
shift
profiles="$build/pgo-profiles"
jobs="$(nproc 2>/dev/null || echo 2)"
if [ $# -eq 0 ]; then
  # shellcheck disable=SC2046
  set -- $(ls "$root"/../shared/pcaps/*.pcap "$root"/../shared/pcaps/*.pcapng 2>/dev/null || true) \
    $(git -C "$root" ls-files '*.pcap' | sed "s|^|$root/|")
fi
configure() {
  # shellcheck disable=SC2086
  cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKEST_BUILD_TESTS=OFF \
    -DKEST_PGO="$1" "-DKEST_PGO_DIR=$profiles" ${PGO_CMAKE_ARGS:-} >/dev/null
  cmake --build "$build" -j "$jobs" >/dev/null
}
configure generate
# Old profiles would be merged with the new ones.
rm -rf "$profiles"
# One thread, as the profile is of the classifying path; without the
# sandbox, which forbids the files the profiles are written to. A capture
# kestcap refuses (a link type it does not read) teaches nothing and is
# passed over.
for capture in "$@"; do
  "$build/tools/kestcap/kestcap" --plugins "$build/plugins" --threads 1 --no-sandbox \
    "$capture" >/dev/null 2>&1 || true
done
if [ -z "$(find "$profiles" -name '*.gcda' 2>/dev/null | head -1)" ]; then
  echo "pgo_build.sh: the training runs wrote no profiles" >&2
  exit 1
fi
configure use

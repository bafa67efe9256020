#!/bin/sh
# Builds kest, its decoders and kestcap, then classifies the bundled capture
# (examples/loopback.pcap: real clients and servers on loopback) and prints
# the table of what runs over its connections. Extra arguments go to
# kestcap, e.g. --json.
set -eu
root="$(cd "$(dirname "$0")/.." && pwd)"
# What the build says goes to standard error: standard output is kestcap's
# alone, so that `run_example.sh --json | jq ...` reads JSON only.
"$root/scripts/deps.sh" >&2
cmake -S "$root" -B "$root/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$root/build" -j "$(nproc 2>/dev/null || echo 2)" >&2
exec "$root/build/tools/kestcap/kestcap" --plugins "$root/build/plugins" "$@" \
  "$root/examples/loopback.pcap"

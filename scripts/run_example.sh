#!/bin/sh
# Builds kest and runs the example host on the bundled plug-in directory.
set -eu
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/deps.sh"
cmake -S "$root" -B "$root/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$root/build" -j "$(nproc 2>/dev/null || echo 2)"
exec "$root/build/examples/minimal_host" "$root/build/plugins"

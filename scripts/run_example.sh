#!/bin/sh
# Builds kest with its decoders and runs the example host on them: it
# classifies a short TCP exchange and prints what the library reports.
set -eu
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/deps.sh"
cmake -S "$root" -B "$root/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$root/build" -j "$(nproc 2>/dev/null || echo 2)"
exec "$root/build/examples/classify_host" "$root/build/plugins"

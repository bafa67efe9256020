#!/bin/sh
# Whole-tool speed: builds a release kestcap, makes a large capture by
# replicating real conversations with shifted addresses and ports, and runs
# the I/O floor (libpcap reading the file, nothing else) and kestcap on 1, 2
# and 4 threads on it, each several times. Prints the median packets/s, the
# ratio to the floor and the peak resident memory of each.
#   scripts/bench.sh [COPIES]     (default 300 copies of each conversation)
set -eu
root="$(cd "$(dirname "$0")/.." && pwd)"
copies="${1:-300}"
runs="${RUNS:-5}"
"$root/scripts/deps.sh"
build="$root/build-release"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKEST_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j "$(nproc 2>/dev/null || echo 2)" >/dev/null
# The transports alone, to show what the application decoders cost.
mkdir -p "$build/plugins-transports"
cp "$build/plugins/tcp.plg" "$build/plugins/udp.plg" "$build/plugins/wire.plg" \
  "$build/plugins-transports/"
data="$build/bench-data"
mkdir -p "$data"
shared="$root/../shared/pcaps"
inputs="$root/examples/loopback.pcap"
for cap in http_ipv6.pcap quickplay.pcap bittorrent.pcap 443-chrome.pcap dns53.pcap smtp.pcap; do
  [ -f "$shared/$cap" ] && inputs="$inputs $shared/$cap"
done
# shellcheck disable=SC2086
python3 "$root/scripts/replicate_pcap.py" "$data/replica.pcap" --copies "$copies" $inputs
# shellcheck disable=SC2086
python3 "$root/scripts/replicate_pcap.py" "$data/replica-high.pcap" --copies "$copies" \
  --high-bytes $inputs

# Median packets/s and peak RSS (KB) of `runs` runs of a command whose last
# output line says "... N packets/s".
measure() {
  i=0
  : >"$data/rates"
  : >"$data/rss"
  while [ "$i" -lt "$runs" ]; do
    /usr/bin/time -f "%M" -o "$data/time" "$@" >"$data/out" 2>/dev/null
    tail -n 1 "$data/out" | sed -n 's/.* \([0-9]*\) packets\/s.*/\1/p' >>"$data/rates"
    cat "$data/time" >>"$data/rss"
    i=$((i + 1))
  done
  rate="$(sort -n "$data/rates" | sed -n "$(((runs + 1) / 2))p")"
  rss="$(sort -n "$data/rss" | sed -n "$(((runs + 1) / 2))p")"
}

kestcap="$build/tools/kestcap/kestcap --plugins $build/plugins"
printf '%-36s %14s %10s %12s\n' "run" "packets/s" "of floor" "peak RSS"
for file in replica replica-high; do
  cap="$data/$file.pcap"
  measure "$build/bench/kest_pcap_floor" "$cap"
  floor="$rate"
  printf '%-36s %14s %10s %10s KB\n' "$file: I/O floor" "$floor" "1.00" "$rss"
  measure "$build/tools/kestcap/kestcap" --plugins "$build/plugins-transports" "$cap"
  printf '%-36s %14s %10s %10s KB\n' "$file: kestcap, transports only" "$rate" \
    "$(awk "BEGIN { printf \"%.2f\", $rate / $floor }")" "$rss"
  for threads in 1 2 4; do
    # shellcheck disable=SC2086
    measure $kestcap --threads "$threads" "$cap"
    printf '%-36s %14s %10s %10s KB\n' "$file: kestcap, $threads thread(s)" "$rate" \
      "$(awk "BEGIN { printf \"%.2f\", $rate / $floor }")" "$rss"
  done
done

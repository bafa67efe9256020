#!/bin/sh
# Whole-tool speed: builds a release kestcap (trained on the shared captures
# by scripts/pgo_build.sh; PGO=0 for a plain release build), makes a large capture by
# replicating real conversations with shifted addresses and ports, and runs
# the I/O floor (libpcap reading the file, nothing else), the peer (nDPI's
# ndpiReader, installed from the Debian packages when absent) and kestcap on
# 1, 2 and 4 threads on it, each several times (the floor, the peer and
# kestcap on one thread by turns). Prints the median packets/s,
# the ratios to the peer and to the floor, and the peak resident memory of
# each against the peer's.
#   scripts/bench.sh [COPIES]     (default 300 copies of each conversation)
# With BASE=<commit>, kestcap built from that commit runs on the same
# captures too, run by turns with this tree's, for a before-and-after; the
# base is a plain release build.
set -eu
root="$(cd "$(dirname "$0")/.." && pwd)"
copies="${1:-300}"
runs="${RUNS:-5}"
"$root/scripts/deps.sh"
build="$root/build-release"
shared="$root/../shared/pcaps"
inputs="$root/examples/loopback.pcap"
for cap in http_ipv6.pcap quickplay.pcap bittorrent.pcap 443-chrome.pcap dns53.pcap smtp.pcap; do
  [ -f "$shared/$cap" ] && inputs="$inputs $shared/$cap"
done
if [ "${PGO:-1}" = 1 ] && [ -d "$shared" ]; then
  # The release build laid out by the profile of real traffic
  # (scripts/pgo_build.sh): the shared captures, less those the replicas are
  # made of, so that the speed measured is on traffic the build never saw.
  training=""
  for cap in "$shared"/*.pcap "$shared"/*.pcapng; do
    case " $inputs " in
    *" $cap "*) ;;
    *) training="$training $cap" ;;
    esac
  done
  # shellcheck disable=SC2086
  "$root/scripts/pgo_build.sh" "$build" $training
else
  cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKEST_BUILD_TESTS=OFF \
    -DKEST_PGO= >/dev/null
  cmake --build "$build" -j "$(nproc 2>/dev/null || echo 2)" >/dev/null
fi
# The transports alone, to show what the application decoders cost.
mkdir -p "$build/plugins-transports"
cp "$build/plugins/tcp.plg" "$build/plugins/udp.plg" "$build/plugins/wire.plg" \
  "$build/plugins-transports/"
[ -f "$build/plugins/ip.plg" ] && cp "$build/plugins/ip.plg" "$build/plugins-transports/"
base="${BASE:-}"
if [ -n "$base" ]; then
  rm -rf "$build/base-src"
  mkdir -p "$build/base-src"
  git -C "$root" archive "$base" | tar -x -C "$build/base-src"
  # The archive's files carry the commit's time, older than the objects of
  # another base built here before: a build of a different commit starts
  # afresh, or ninja would keep those objects.
  commit="$(git -C "$root" rev-parse "$base")"
  if [ "$(cat "$build/base/.commit" 2>/dev/null || true)" != "$commit" ]; then
    rm -rf "$build/base"
  fi
  cmake -S "$build/base-src" -B "$build/base" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DKEST_BUILD_TESTS=OFF >/dev/null
  cmake --build "$build/base" -j "$(nproc 2>/dev/null || echo 2)" >/dev/null
  echo "$commit" >"$build/base/.commit"
fi
data="$build/bench-data"
mkdir -p "$data"
# shellcheck disable=SC2086
python3 "$root/scripts/replicate_pcap.py" "$data/replica.pcap" --copies "$copies" $inputs
# shellcheck disable=SC2086
python3 "$root/scripts/replicate_pcap.py" "$data/replica-high.pcap" --copies "$copies" \
  --high-bytes $inputs

# The peer: nDPI's reader from the Debian packages, as a comparison point.
if ! command -v ndpiReader >/dev/null 2>&1; then
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO=sudo
  $SUDO apt-get update -q >/dev/null
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -q libndpi-bin >/dev/null
fi

# Median packets/s (packets over the wall-clock time of the whole run, start
# and plug-in loading included, the same for every tool) and peak RSS (KB) of
# `runs` runs of a command.
measure() {
  i=0
  : >"$data/rates"
  : >"$data/rss"
  : >"$data/faults"
  while [ "$i" -lt "$runs" ]; do
    run_once "" "$@"
    i=$((i + 1))
  done
  median ""
}

# One timed run of a command, its rate and RSS appended to the files of
# `tag` (empty, or "b" for the second command of a pair).
run_once() {
  tag="$1"
  shift
  start="$(date +%s%N)"
  /usr/bin/time -f "%M %R" -o "$data/time" "$@" >"$data/out" 2>/dev/null
  stop="$(date +%s%N)"
  awk "BEGIN { printf \"%d\n\", $packets * 1e9 / ($stop - $start) }" >>"$data/rates$tag"
  cut -d' ' -f1 "$data/time" >>"$data/rss$tag"
  cut -d' ' -f2 "$data/time" >>"$data/faults$tag"
}

median() {
  rate="$(sort -n "$data/rates$1" | sed -n "$(((runs + 1) / 2))p")"
  rss="$(sort -n "$data/rss$1" | sed -n "$(((runs + 1) / 2))p")"
  faults="$(sort -n "$data/faults$1" | sed -n "$(((runs + 1) / 2))p")"
}

# A before-and-after: this tree's kestcap and the base's, run by turns so
# that a machine whose speed drifts (a shared or throttled one) moves both
# alike. Sets rate/rss for this tree and base_rate/base_rss for the base.
measure_against_base() {
  i=0
  : >"$data/rates"
  : >"$data/rss"
  : >"$data/ratesb"
  : >"$data/rssb"
  : >"$data/faults"
  : >"$data/faultsb"
  while [ "$i" -lt "$runs" ]; do
    # shellcheck disable=SC2086
    run_once "" $kestcap "$1"
    run_once b "$build/base/tools/kestcap/kestcap" --plugins "$build/base/plugins" "$1"
    i=$((i + 1))
  done
  median b
  base_rate="$rate"
  base_rss="$rss"
  base_faults="$faults"
  median ""
}

ratio() { awk "BEGIN { printf \"%.2f\", $1 / $2 }"; }

kestcap="$build/tools/kestcap/kestcap --plugins $build/plugins"

# The floor, the peer and kestcap with every decoder on one thread, by
# turns: a machine whose speed drifts during the script (a shared virtual
# one does, by half and more) moves the three alike, so the ratios between
# them hold. Sets floor/peer/one and their RSS and faults.
measure_trio() {
  for t in f p k; do
    : >"$data/rates$t"
    : >"$data/rss$t"
    : >"$data/faults$t"
  done
  i=0
  while [ "$i" -lt "$runs" ]; do
    run_once f "$build/bench/kest_pcap_floor" "$1"
    run_once p ndpiReader -q -i "$1"
    # shellcheck disable=SC2086
    run_once k $kestcap --threads 1 "$1"
    i=$((i + 1))
  done
  median f
  floor="$rate"
  floor_rss="$rss"
  median p
  peer="$rate"
  peer_rss="$rss"
  median k
}

printf '%-38s %12s %8s %8s %12s %8s\n' "run" "packets/s" "vs peer" "of floor" "peak RSS" \
  "vs peer"
for file in replica replica-high; do
  cap="$data/$file.pcap"
  packets="$(tcpdump -r "$cap" -nq 2>/dev/null | wc -l)"
  echo "$file: $packets packets"
  measure_trio "$cap"
  one="$rate"
  one_rss="$rss"
  one_faults="$faults"
  row() {
    printf '%-38s %12s %8s %8s %9s KB %8s\n' "$1" "$rate" "$(ratio "$rate" "$peer")" \
      "$(ratio "$rate" "$floor")" "$rss" "$(ratio "$rss" "$peer_rss")"
  }
  rate="$floor" rss="$floor_rss" row "I/O floor (libpcap only)"
  rate="$peer" rss="$peer_rss" row "peer: ndpiReader"
  measure "$build/tools/kestcap/kestcap" --plugins "$build/plugins-transports" "$cap"
  row "kestcap, transports only"
  transports="$rate"
  for threads in 1 2 4; do
    if [ "$threads" -eq 1 ]; then
      rate="$one" rss="$one_rss" row "kestcap, all decoders, 1 thread(s)"
      # Fresh pages are dear in a virtual machine: the kernel's minor faults
      # of a run, start-up (the plug-ins' loading) included.
      echo "  page faults a run: $one_faults"
      # The decoders' share of the cost of a packet on one thread.
      echo "  decoders' share of the road: $(awk "BEGIN { printf \"%.0f %%\", 100 * (1 - $one / $transports) }")"
      if [ -n "$base" ]; then
        measure_against_base "$cap"
        echo "  again, by turns with the base: $rate"
        mine="$rate"
        rate="$base_rate" rss="$base_rss" row "kestcap at $base, all decoders, 1 thread"
        echo "  this tree against $base: $(awk "BEGIN { printf \"%+.1f %%\", 100 * ($mine / $base_rate - 1) }")"
        echo "  page faults a run, by turns: $faults here, $base_faults at $base"
      fi
      continue
    fi
    # shellcheck disable=SC2086
    measure $kestcap --threads "$threads" "$cap"
    row "kestcap, all decoders, $threads thread(s)"
  done
done

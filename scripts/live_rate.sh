#!/bin/sh
# Live capture's sustained rate: the highest replay rate at which kestcap,
# listening with AF_PACKET on one end of a veth pair, loses nothing, for one
# and for two workers. In a private network namespace, tcpreplay sends a
# large capture (bench.sh's replica of real conversations) at a fixed rate
# into the other end; a rate counts as sustained when kestcap's totals show
# no packet dropped by the kernel and every packet read. The rate is raised
# until packets drop, then narrowed down between the last clean rate and the
# first lossy one. Prints, per worker count, the highest clean rate asked
# for and the rate tcpreplay reached (on a small machine the sender shares
# the cores and may fall short of what was asked).
#   scripts/live_rate.sh [COPIES [LOOPS]]   (default 100 copies of each
#   conversation, the whole replayed 4 times: more than the rings hold)
# Needs root (a network namespace, raw sockets), tcpreplay and a build in
# build/ (KESTCAP and PLUGINS point elsewhere). KEST_NETNS names the
# namespace (default kestcap-rate-PID).
set -eu
root="$(cd "$(dirname "$0")/.." && pwd)"
copies="${1:-100}"
loops="${2:-4}"
kestcap="${KESTCAP:-$root/build/tools/kestcap/kestcap}"
plugins="${PLUGINS:-$root/build/plugins}"
[ "$(id -u)" -eq 0 ] || { echo "live_rate.sh needs root" >&2; exit 1; }
[ -x "$kestcap" ] || { echo "no kestcap at $kestcap (build it, or set KESTCAP)" >&2; exit 1; }
work="$(mktemp -d)"
ns="${KEST_NETNS:-kestcap-rate-$$}"
ip netns add "$ns"
trap 'ip netns del "$ns"; rm -rf "$work"' EXIT
ip netns exec "$ns" sysctl -qw net.ipv6.conf.all.disable_ipv6=1 \
  net.ipv6.conf.default.disable_ipv6=1
ip -n "$ns" link add cap0 mtu 65535 type veth peer name rep0 mtu 65535
ip -n "$ns" link set cap0 up
ip -n "$ns" link set rep0 up

shared="$root/../shared/pcaps"
inputs="$root/examples/loopback.pcap"
for cap in http_ipv6.pcap quickplay.pcap bittorrent.pcap 443-chrome.pcap dns53.pcap smtp.pcap; do
  [ -f "$shared/$cap" ] && inputs="$inputs $shared/$cap"
done
# shellcheck disable=SC2086
python3 "$root/scripts/replicate_pcap.py" "$work/replica.pcap" --copies "$copies" $inputs
once="$("$kestcap" --plugins "$plugins" "$work/replica.pcap" | tail -n 1 | cut -d' ' -f1)"
total=$((once * loops))
echo "replay: $total packets ($copies copies, $loops times)"

# One replay at `rate` packets/s into `workers` workers: prints
# "READ DROPPED REACHED" (packets kestcap read, the kernel dropped, and
# the rate tcpreplay reports having sent at).
replay() {
  rate="$1"; workers="$2"
  rm -f "$work/err"
  ip netns exec "$ns" "$kestcap" --plugins "$plugins" --json -i cap0 --threads "$workers" \
    >/dev/null 2>"$work/err" &
  pid=$!
  tries=0
  until grep -qs "listening on" "$work/err" || [ $tries -ge 100 ]; do
    sleep 0.1; tries=$((tries + 1))
  done
  if [ "$rate" = max ]; then speed="--topspeed"; else speed="--pps=$rate"; fi
  reached="$(ip netns exec "$ns" tcpreplay -K --loop="$loops" "$speed" -i rep0 \
    "$work/replica.pcap" 2>&1 |
    sed -n 's/.*Rated: .* Bps, .* Mbps, \([0-9.]*\) pps.*/\1/p')"
  sleep 1
  kill -TERM "$pid"
  wait "$pid" || true
  sed -n 's/^kestcap: \([0-9]*\) packets read, \([0-9]*\) dropped by the kernel$/\1 \2/p' \
    "$work/err" | tr '\n' ' '
  echo "${reached:-0}"
}

clean() {
  set -- $(replay "$1" "$2")
  last_reached="${3:-0}"
  [ $# -eq 3 ] && [ "$2" -eq 0 ] && [ "$1" -eq "$total" ]
}

for workers in 1 2; do
  good=0; good_reached=0; bad=""
  for rate in 25000 50000 100000 200000 400000 800000 1600000; do
    if clean "$rate" "$workers"; then
      good="$rate"; good_reached="$last_reached"
    else
      bad="$rate"; break
    fi
  done
  if [ -z "$bad" ]; then
    if clean max "$workers"; then good="max"; good_reached="$last_reached"; fi
  else
    # Narrow down to within an eighth of the last clean rate.
    while [ $((bad - good)) -gt $((good / 8 + 1000)) ]; do
      mid=$(((good + bad) / 2))
      if clean "$mid" "$workers"; then
        good="$mid"; good_reached="$last_reached"
      else
        bad="$mid"
      fi
    done
  fi
  if [ -z "$bad" ] && [ "$good" = max ]; then
    echo "$workers worker(s): no drops at tcpreplay's top speed, $good_reached packets/s" \
      "(the sender is the limit)"
  else
    echo "$workers worker(s): no drops up to $good packets/s asked, $good_reached reached;" \
      "drops from ${bad:-top speed}"
  fi
done

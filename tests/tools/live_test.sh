#!/bin/sh
# Live capture across workers. In a private network namespace, tcpreplay
# sends shared captures into one end of a veth pair; kestcap listens on the
# other end with one and with two workers (one AF_PACKET socket each, in one
# fan-out group), and must find the flows, labels and counts it finds
# reading the same file, with nothing dropped: a direction or a fragment
# handed to the wrong worker shows as a flow twice or a datagram never
# whole. Also two interfaces at once, a filter on the sockets, and the
# libpcap reader (--pcap).
# Skipped (exit 77) when not root, without network namespaces, tcpreplay or
# jq, or without the shared captures.
# Arguments: kestcap, the plug-in folder, the shared captures' folder.
# KEST_NETNS names the namespace (default kestcap-live-PID).
set -u
kestcap="$1"; plugins="$2"; shared="$3"
skip() { echo "skipped: $*"; exit 77; }
[ "$(id -u)" -eq 0 ] || skip "live capture needs root (raw sockets, a network namespace)"
for tool in ip tcpreplay jq tcpdump; do
  command -v "$tool" >/dev/null 2>&1 || skip "$tool is not installed"
done
[ -d "$shared" ] || skip "no shared captures at $shared"
ns="${KEST_NETNS:-kestcap-live-$$}"
# Live runs as root drop to another user, after which LeakSanitizer cannot
# stop kestcap's threads to look for leaks (sanitizer builds).
export ASAN_OPTIONS="${ASAN_OPTIONS:-}:detect_leaks=0"
ip netns add "$ns" 2>/dev/null || skip "no network namespace can be made here"
work="$(mktemp -d)"
trap 'ip netns del "$ns"; rm -rf "$work"' EXIT
in_ns() { ip netns exec "$ns" "$@"; }
# No addresses and no IPv6 on the pair: the links carry nothing but the
# replay.
in_ns sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1
for i in 0 1; do
  in_ns ip link add "cap$i" mtu 65535 type veth peer name "rep$i" mtu 65535 || skip "no veth pair"
  in_ns ip link set "cap$i" up && in_ns ip link set "rep$i" up
done
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
flows() { jq -r -s -f "$(dirname "$0")/live_flows.jq" "$1" | sort; }

# kestcap on the file(s) named as "FILE:rep0 FILE:rep1 ...", and on the
# replay of each into its link, with the options given after --.
# The live run is ended with SIGTERM once the replays are done.
compare() {
  what="$1"; pairs="$2"; shift 2
  : >"$work/file"
  files_packets=0
  for pair in $pairs; do
    "$kestcap" --plugins "$plugins" --json "${pair%%:*}" $filter >>"$work/file" 2>/dev/null
    n="$("$kestcap" --plugins "$plugins" "${pair%%:*}" $filter | tail -n 1 | cut -d' ' -f1)"
    files_packets=$((files_packets + n))
  done
  rm -f "$work/err"
  ip netns exec "$ns" "$kestcap" --plugins "$plugins" --json "$@" $filter >"$work/live" 2>"$work/err" &
  pid=$!
  tries=0
  until grep -qs "listening on" "$work/err" || [ $tries -ge 50 ]; do
    sleep 0.1; tries=$((tries + 1))
  done
  replays=""
  for pair in $pairs; do
    ip netns exec "$ns" tcpreplay -q --pps=20000 -i "${pair#*:}" "${pair%%:*}" >/dev/null 2>&1 &
    replays="$replays $!"
  done
  for replay in $replays; do wait "$replay"; done
  sleep 0.5
  kill -TERM "$pid"
  wait "$pid" || { fail "$what: kestcap failed: $(cat "$work/err")"; return; }
  flows "$work/file" >"$work/file.flows"
  flows "$work/live" >"$work/live.flows"
  if ! cmp -s "$work/file.flows" "$work/live.flows"; then
    fail "$what: the live flows differ from the file's:"
    diff "$work/file.flows" "$work/live.flows" | head -n 10
  fi
  summary="$(grep "packets read" "$work/err")"
  [ "$summary" = "kestcap: $files_packets packets read, 0 dropped by the kernel" ] ||
    fail "$what: \"$summary\", the file has $files_packets packets"
}

filter=""
for cap in dns.pcap http_ipv6.pcap fragmented-4.pcap ipv6-fragmented-dns.pcap 4in6tunnel.pcap \
  http-vlan-0.pcap gtp1_gn_normal_incl_fragmentation.pcap bittorrent.pcap; do
  [ -f "$shared/$cap" ] || continue
  for n in 1 2; do
    compare "$cap, $n workers" "$shared/$cap:rep0" -i cap0 --threads "$n"
  done
done
# Answers in two fragments, questions whole, one flow per address pair: a
# fan-out by ports where there are any would part about half the flows.
if command -v python3 >/dev/null 2>&1; then
  python3 "$(dirname "$0")/../../scripts/fragments_pcap.py" "$work/fragments.pcap" 16
  compare "fragmented answers, 2 workers" "$work/fragments.pcap:rep0" -i cap0 --threads 2
fi
if [ -f "$shared/bittorrent.pcap" ] && [ -f "$shared/http_ipv6.pcap" ]; then
  compare "two interfaces" "$shared/bittorrent.pcap:rep0 $shared/http_ipv6.pcap:rep1" \
    -i cap0 -i cap1 --threads 2
  filter="tcp"
  compare "a filter" "$shared/bittorrent.pcap:rep0" -i cap0 --threads 2
  filter=""
  compare "libpcap" "$shared/bittorrent.pcap:rep0" -i cap0 --threads 2 --pcap
fi
# Drops: kestcap is held still while more arrives than its rings hold; what
# it read and what it reports the kernel dropped add up to what was sent.
if [ -f "$shared/bittorrent.pcap" ]; then
  sent=$((250 * $("$kestcap" --plugins "$plugins" "$shared/bittorrent.pcap" | tail -n 1 | cut -d' ' -f1)))
  rm -f "$work/err"
  ip netns exec "$ns" "$kestcap" --plugins "$plugins" --json -i cap0 --threads 2 \
    >/dev/null 2>"$work/err" &
  pid=$!
  tries=0
  until grep -qs "listening on" "$work/err" || [ $tries -ge 50 ]; do
    sleep 0.1; tries=$((tries + 1))
  done
  kill -STOP "$pid"
  ip netns exec "$ns" tcpreplay -q --topspeed -K --loop=250 -i rep0 "$shared/bittorrent.pcap" \
    >/dev/null 2>&1
  kill -CONT "$pid"
  sleep 1
  kill -TERM "$pid"
  wait "$pid"
  set -- $(sed -n 's/^kestcap: \([0-9]*\) packets read, \([0-9]*\) dropped by the kernel$/\1 \2/p' \
    "$work/err")
  { [ $# -eq 2 ] && [ "$2" -gt 0 ] && [ $(($1 + $2)) -eq "$sent" ]; } ||
    fail "drops: $(cat "$work/err"), $sent sent"
fi
# A missing interface is an input error, named (by libpcap: not a device).
ip netns exec "$ns" "$kestcap" --plugins "$plugins" -i nosuch0 >/dev/null 2>"$work/err"
code=$?
[ "$code" -eq 2 ] && grep -q "^kestcap: nosuch0: " "$work/err" ||
  fail "a missing interface: exit $code, $(cat "$work/err")"
[ "$failures" -eq 0 ] || exit 1
echo "live capture: all passed"

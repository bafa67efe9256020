#!/bin/sh
# A soak run of kestcap as a service: captures replayed without end into a
# veth pair at a steady rate (tcpreplay), inside a private network namespace,
# against a live, sandboxed kestcap dropped to an unprivileged user, whose
# output is rotated logrotate-style (moved, then SIGHUP) every minute.
#   sudo scripts/soak.sh [--minutes N] [--pps N] [--kestcap PATH] [CAPTURE...]
# Defaults: 30 minutes, 2000 packets/s, build/tools/kestcap/kestcap with the
# build's plug-ins, the bundled capture plus a few shared ones when present.
# Prints the resident size every sample and ends with three verdicts: flat
# memory (the last third's peak within 10 % and 2 MB of the first third's),
# no lost line (every connection kestcap counts is in the rotated files, and
# every line parses), no restart (one process from start to end, exit 0).
# The namespace is $SOAK_NS (default kestcap-soak); the work folder is kept.
set -eu
root="$(cd "$(dirname "$0")/.." && pwd)"
minutes=30; pps=2000; kestcap="$root/build/tools/kestcap/kestcap"
plugins="$root/build/plugins"
while [ $# -gt 0 ]; do
  case "$1" in
    --minutes) minutes="$2"; shift 2 ;;
    --pps) pps="$2"; shift 2 ;;
    --kestcap) kestcap="$2"; plugins="$(dirname "$kestcap")/../../plugins"; shift 2 ;;
    -h|--help) sed -n '2,14p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) break ;;
  esac
done
[ "$(id -u)" -eq 0 ] || { echo "soak.sh: needs root (network namespace, live capture)" >&2; exit 2; }
for tool in tcpreplay jq ip; do
  command -v "$tool" >/dev/null || { echo "soak.sh: needs $tool" >&2; exit 2; }
done
if [ $# -eq 0 ]; then
  set -- "$root/examples/loopback.pcap"
  for name in reddit.pcap 1kxun.pcap quic.pcap bittorrent.pcap dns_long.pcap; do
    [ -f "$root/../shared/pcaps/$name" ] && set -- "$@" "$root/../shared/pcaps/$name"
  done
fi
ns="${SOAK_NS:-kestcap-soak}"
work="$(mktemp -d /tmp/kestcap-soak.XXXXXX)"
chmod 755 "$work"; mkdir -m 777 "$work/log"
made_ns=0
ip netns list | grep -qw "$ns" || { ip netns add "$ns"; made_ns=1; }
cleanup() {
  [ -z "${replay:-}" ] || kill "$replay" 2>/dev/null || true
  ip netns exec "$ns" ip link del soak0 2>/dev/null || true
  [ "$made_ns" -eq 0 ] || ip netns del "$ns"
}
trap cleanup EXIT
ip netns exec "$ns" ip link add soak0 type veth peer name soak1
for dev in lo soak0 soak1; do ip netns exec "$ns" ip link set "$dev" up; done

ip netns exec "$ns" "$kestcap" --plugins "$plugins" -i soak1 --user nobody \
  --output "$work/log/out.json" --stats 10 --stats-file "$work/log/stats.json" 2>"$work/err" &
pid=$!
sleep 2
ip netns exec "$ns" tcpreplay -q -i soak0 --pps "$pps" --loop 0 "$@" >"$work/replay" 2>&1 &
replay=$!
echo "soak: kestcap $pid on soak1, $pps packets/s for $minutes min, in $work"
start="$(date +%s)"; end=$((start + minutes * 60)); next_rotation=$((start + 60)); n=0
printf 'seconds\trss_kb\n' >"$work/rss.tsv"
while [ "$(date +%s)" -lt "$end" ]; do
  sleep 10
  kill -0 "$pid" 2>/dev/null || { echo "soak: kestcap ended early: $(cat "$work/err")"; exit 1; }
  now="$(date +%s)"
  rss="$(awk '/^VmRSS:/ {print $2}' "/proc/$pid/status")"
  printf '%s\t%s\n' "$((now - start))" "$rss" | tee -a "$work/rss.tsv"
  if [ "$now" -ge "$next_rotation" ]; then
    n=$((n + 1))
    mv "$work/log/out.json" "$work/log/out.json.$n"
    kill -HUP "$pid"
    next_rotation=$((next_rotation + 60))
  fi
done
kill "$replay"; replay=""
sleep 1
kill -TERM "$pid"
code=0; wait "$pid" || code=$?

verdict=0
lines="$(cat "$work/log"/out.json* | wc -l)"
counted="$(tail -n 1 "$work/log/stats.json" | jq '.stats.connections')"
cat "$work/log"/out.json* | jq -e -c 'has("app")' >/dev/null 2>&1 || { echo "soak: a line does not parse"; verdict=1; }
if [ "$lines" -eq "$counted" ]; then
  echo "soak: no lost line: $lines lines in $((n + 1)) files, $counted connections counted"
else
  echo "soak: LOST LINES: $lines lines in the files, $counted connections counted"; verdict=1
fi
awk -F '\t' 'NR > 1 { rss[++k] = $2 }
  END { third = int(k / 3); if (third < 1) { print "soak: too short to judge memory"; exit 0 }
        for (i = 1; i <= third; ++i) if (rss[i] > first) first = rss[i]
        for (i = k - third + 1; i <= k; ++i) if (rss[i] > last) last = rss[i]
        printf "soak: memory peak %d kB in the first third, %d kB in the last\n", first, last
        exit !(last <= first * 1.1 + 2048) }' "$work/rss.tsv" ||
  { echo "soak: MEMORY GREW"; verdict=1; }
if [ "$code" -eq 0 ]; then
  echo "soak: no restart: process $pid ran throughout and ended with 0"
else
  echo "soak: kestcap ended with $code: $(cat "$work/err")"; verdict=1
fi
tail -n 1 "$work/log/stats.json"
exit "$verdict"

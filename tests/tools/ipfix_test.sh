#!/bin/sh
# kestcap --ipfix against a real collector on loopback: nfdump's nfcapd
# stores what kestcap sends, and nfdump reads it back. Every connection of
# kestcap's JSON lines must be there once, with the same end points,
# protocol, packets each way (the reverse elements of a bidirectional
# record) and start and end times to the millisecond. As root, the messages
# are also captured on loopback and tshark's IPFIX decoder must show every
# application name of the JSON lines, and the templates must come with the
# first message of each run and then with every 101st. Besides the captures
# named, one of many flows is made (scripts/flows_pcap.py) and read on two
# threads, for more than a hundred messages from two workers at once. Exit
# 77 (skipped) without nfcapd or nfdump.
# Arguments: kestcap, the plug-in folder, a folder to write in, the flows
# generator, captures.
set -u
kestcap="$1"; plugins="$2"; work="$3"; generator="$4"; shift 4
for tool in nfcapd nfdump python3; do
  command -v "$tool" >/dev/null 2>&1 || { echo "$tool is not installed: skipped"; exit 77; }
done
rm -rf "$work"
mkdir -p "$work/flows"
failures=0
# A port nobody holds now.
port=$(python3 -c 'import socket; s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
# A socket buffer of a few hundred messages, where the system allows it.
nfcapd -b 127.0.0.1 -p "$port" -w "$work/flows" -t 3600 -B 4194304 >"$work/nfcapd.log" 2>&1 &
collector=$!
sniffer=""
if [ "$(id -u)" -eq 0 ] && command -v tshark >/dev/null 2>&1 && command -v tcpdump >/dev/null 2>&1; then
  tcpdump -i lo -U -w "$work/ipfix.pcap" udp port "$port" 2>"$work/tcpdump.log" &
  sniffer=$!
else
  echo "not root or no tshark/tcpdump: the application names are not checked in tshark"
fi
# Both listen before anything is sent.
for _ in $(seq 50); do
  grep -q "Startup" "$work/nfcapd.log" 2>/dev/null &&
    { [ -z "$sniffer" ] || grep -q "listening" "$work/tcpdump.log"; } && break
  sleep 0.1
done
# Targets that are not HOST:PORT are usage errors, before any packet.
for target in 127.0.0.1 "[::1" ::1:4739 "localhost:"; do
  "$kestcap" --plugins "$plugins" --ipfix "$target" "$1" >/dev/null 2>"$work/usage.err"
  code=$?
  [ "$code" -eq 1 ] && grep -q "ipfix" "$work/usage.err" ||
    { echo "FAIL: --ipfix $target: exit $code, $(cat "$work/usage.err")"; failures=$((failures + 1)); }
done
python3 "$generator" "$work/flows.pcap" --flows 4000 || { echo "FAIL: the generator failed"; exit 1; }
n=0
for cap in "$@" "$work/flows.pcap"; do
  [ -f "$cap" ] || { echo "$cap is missing: left out"; continue; }
  threads=1
  [ "$cap" = "$work/flows.pcap" ] && threads=2
  "$kestcap" --plugins "$plugins" --threads "$threads" --json --ipfix "127.0.0.1:$port" "$cap" \
    >>"$work/kestcap.jsonl" 2>>"$work/kestcap.err" || { echo "FAIL: kestcap on $cap"; failures=$((failures + 1)); }
  n=$((n + 1))
done
sleep 1
kill "$collector"
wait "$collector"
[ -n "$sniffer" ] && kill "$sniffer" && wait "$sniffer"
[ "$n" -gt 0 ] || { echo "no capture: skipped"; exit 77; }
TZ=UTC nfdump -R "$work/flows" -o json >"$work/nfdump.json" 2>"$work/nfdump.err" || {
  echo "FAIL: nfdump cannot read what nfcapd stored: $(cat "$work/nfdump.err")"
  exit 1
}
python3 - "$work/kestcap.jsonl" "$work/nfdump.json" <<'PY' || failures=$((failures + 1))
import calendar, collections, json, sys
PROTO = {"icmp": 1, "igmp": 2, "tcp": 6, "udp": 17, "gre": 47, "esp": 50, "icmp6": 58, "sctp": 132}
def ms(text):  # "2016-08-07T12:59:39.148", UTC
    day, frac = text.split(".")
    return calendar.timegm(tuple(int(x) for x in day.replace("T", "-").replace(":", "-").split("-")) + (0, 0, 0)) * 1000 + int(frac)
def us(seconds):  # "1470574779.148133"
    whole, frac = seconds.split(".")
    return int(whole) * 1000000 + int(frac)
expected = collections.Counter()
for line in open(sys.argv[1]):
    raw = line.split('"duration":')[1].split(",")[0]
    r = json.loads(line)
    proto = PROTO.get(r["proto"]) or int(r["proto"])
    first = us(line.split('"ts":')[1].split(",")[0])
    ports = (r["id.orig_p"], r["id.resp_p"]) if proto in (6, 17) else ()
    expected[(r["id.orig_h"], r["id.resp_h"], proto) + ports +
             (r["orig_pkts"], r["resp_pkts"], first // 1000, (first + us(raw)) // 1000)] += 1
got = collections.Counter()
for r in json.load(open(sys.argv[2])):
    src, dst = r.get("src4_addr", r.get("src6_addr")), r.get("dst4_addr", r.get("dst6_addr"))
    ports = (r["src_port"], r["dst_port"]) if r["proto"] in (6, 17) else ()
    got[(src, dst, r["proto"]) + ports + (r["in_packets"], r.get("out_packets", 0),
                                          ms(r["first"]), ms(r["last"]))] += 1
missing, extra = expected - got, got - expected
for key in list(missing)[:10]:
    print("FAIL: not stored as kestcap wrote it:", key)
for key in list(extra)[:10]:
    print("FAIL: stored but not in kestcap's lines:", key)
print(f"ipfix: {sum(expected.values())} connections in JSON, {sum(got.values())} in the collector")
sys.exit(1 if missing or extra else 0)
PY
if [ -n "$sniffer" ]; then
  tshark -r "$work/ipfix.pcap" -d "udp.port==$port,cflow" -V >"$work/tshark.txt" 2>/dev/null
  sed -n 's/^ *ApplicationName: //p' "$work/tshark.txt" | sort -u >"$work/tshark.apps"
  python3 -c 'import json, sys; print("\n".join(sorted({json.loads(l)["app"] for l in open(sys.argv[1])})))' \
    "$work/kestcap.jsonl" >"$work/json.apps"
  if ! cmp -s "$work/tshark.apps" "$work/json.apps"; then
    echo "FAIL: tshark's application names differ from the JSON lines':"
    diff "$work/json.apps" "$work/tshark.apps"
    failures=$((failures + 1))
  fi
  # Each run's summary: "ipfix: M messages, ...".
  want=$(awk '/^ipfix: / { n += 1 + int(($2 - 1) / 101) } END { print n + 0 }' "$work/kestcap.err")
  sent=$(awk '/^ipfix: / { n += $2 } END { print n + 0 }' "$work/kestcap.err")
  templates=$(grep -c '\[id=2\] (Data Template)' "$work/tshark.txt")
  if [ "$templates" != "$want" ]; then
    echo "FAIL: $templates template sets in $sent messages, not $want"
    failures=$((failures + 1))
  fi
fi
[ "$failures" -eq 0 ] && echo "ipfix: the collector holds every connection as kestcap wrote it"
[ "$failures" -eq 0 ]

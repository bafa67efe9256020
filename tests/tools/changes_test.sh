#!/bin/sh
# Changes while kestcap classifies on four threads: a control thread adds a
# custom protocol, a rule naming port 8080 and later takes the rule back,
# and turns settings over meanwhile. Each change is made at a fixed packet,
# so the connections that start between the rule's arrival and its removal,
# whichever worker they land on, are exactly those named by it. Under
# ThreadSanitizer the same run must be clean.
# Arguments: kestcap, the plug-in folder.
set -u
kestcap="$1"; plugins="$2"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

# 300 HTTP exchanges on port 8080, one after the other, each from its own
# client address (so they spread over the workers), 8 packets each.
python3 - "$work/flows.pcap" <<'PY'
import struct, sys
def csum(b):
    if len(b) % 2: b += b'\0'
    s = sum(struct.unpack('!%dH' % (len(b) // 2), b))
    while s >> 16: s = (s & 0xffff) + (s >> 16)
    return (~s) & 0xffff
def packet(src, dst, sport, dport, seq, ack, flags, data=b''):
    tcp = struct.pack('!HHIIBBHHH', sport, dport, seq, ack, 5 << 4, flags, 65535, 0, 0) + data
    ip = struct.pack('!BBHHHBBH4s4s', 0x45, 0, 20 + len(tcp), 0, 0x4000, 64, 6, 0, src, dst)
    ip = ip[:10] + struct.pack('!H', csum(ip)) + ip[12:]
    return b'\0\1\2\3\4\5\0\6\7\x08\x09\x0a\x08\x00' + ip + tcp
out = open(sys.argv[1], 'wb')
out.write(struct.pack('<IHHiIII', 0xa1b2c3d4, 2, 4, 0, 0, 65535, 1))
ts = 1700000000 * 1000000
server = bytes([10, 9, 0, 1])
for i in range(300):
    client = bytes([10, 1 + i // 250, (i // 50) % 256, 1 + i % 50])
    sport = 20000 + i
    request = b'GET /%d HTTP/1.1\r\nHost: example.test\r\n\r\n' % i
    response = b'HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok'
    c, s = 1000, 5000
    steps = [(0, 0x02, b''), (1, 0x12, b''), (0, 0x10, b''), (0, 0x18, request),
             (1, 0x18, response), (0, 0x11, b''), (1, 0x11, b''), (0, 0x10, b'')]
    for side, flags, data in steps:
        if side == 0:
            frame = packet(client, server, sport, 8080, c, s, flags, data)
            c += len(data) + (1 if flags & 0x03 else 0)
        else:
            frame = packet(server, client, 8080, sport, s, c, flags, data)
            s += len(data) + (1 if flags & 0x03 else 0)
        ts += 1000
        out.write(struct.pack('<IIII', ts // 1000000, ts % 1000000, len(frame), len(frame)) + frame)
PY

# Flows 100 to 199 (packets 800 to 1599) start while the rule is in force.
cat >"$work/changes" <<'CH'
# packets  change
0    proto-add CHURN
0    config tcp.timeout.established=300
800  rule-add CHURN TCP 10.9.0.1:8080
1000 config conn.default_policy.chameleon=0
1100 config tcp.timeout.established=120
1200 config conn.default_policy.chameleon=1
1300 config flow.reorder_window=8
1600 rule-remove CHURN TCP 10.9.0.1:8080
2000 proto-add LATER
2100 config conn.default_policy.attributes=0
2200 config conn.default_policy.attributes=1
CH
for run in 1 2 3; do
  if ! "$kestcap" --plugins "$plugins" --threads 4 --json --changes "$work/changes" \
      "$work/flows.pcap" >"$work/out" 2>"$work/err"; then
    fail "run $run: kestcap failed: $(cat "$work/err")"
    continue
  fi
  grep -q "ThreadSanitizer\|warning:" "$work/err" && fail "run $run: $(cat "$work/err")"
  [ "$(wc -l <"$work/out")" -eq 300 ] || fail "run $run: $(wc -l <"$work/out") connections, not 300"
  # The client's port says which exchange a connection was.
  jq -r '"\(."id.orig_p" - 20000) \(.stack | index("CHURN") != null) \(.app)"' "$work/out" |
    sort -n >"$work/names"
  awk '{ want = ($1 >= 100 && $1 < 200) ? "true" : "false"
         if ($2 != want) { bad++; if (bad < 5) print "exchange " $1 ": named by the rule: " $2 } }
       END { exit bad > 0 }' "$work/names" >"$work/bad" ||
    fail "run $run: the rule reached the wrong connections: $(cat "$work/bad")"
  grep -v " HTTP$\| CHURN$" "$work/names" | head -3 | grep -q . &&
    fail "run $run: not every exchange is HTTP: $(grep -v ' HTTP$\| CHURN$' "$work/names" | head -3)"
done
# A bad changes file is a usage error.
echo "800 rule-add" >"$work/bad-changes"
echo "nonsense" >>"$work/bad-changes"
"$kestcap" --plugins "$plugins" --changes "$work/bad-changes" "$work/flows.pcap" >/dev/null 2>"$work/err"
[ $? -eq 1 ] && grep -q "changes:.*:2: wants" "$work/err" || fail "bad changes file: $(cat "$work/err")"
[ "$failures" -eq 0 ] && echo "changes: all checks passed"
exit "$failures"

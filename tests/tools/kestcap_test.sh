#!/bin/sh
# kestcap end to end: JSON lines that parse and add up to the capture, one
# connection per flow either way, the same on one thread and on four, custom
# rules, plug-in folders, and every error with its exit code.
# Arguments: kestcap, the plug-in folder, the bundled capture, the shared
# captures' folder (may be absent).
set -u
kestcap="$1"; plugins="$2"; bundled="$3"; shared="$4"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

# The totals line of the table run, as "read classified not malformed".
totals() {
  "$kestcap" --plugins "$plugins" "$@" | tail -n 1 |
    sed -n 's/^\([0-9]*\) packets read, \([0-9]*\) classified, \([0-9]*\) not classified, \([0-9]*\) malformed.*/\1 \2 \3 \4/p'
}

check_capture() {
  cap="$1"; counts=""
  name="$(basename "$cap")"
  if ! "$kestcap" --plugins "$plugins" --json "$cap" >"$work/one" 2>"$work/err"; then
    fail "$name: kestcap --json failed: $(cat "$work/err")"
    return
  fi
  jq -e -s 'all(.[]; has("ts") and has("duration") and has("id.orig_h") and has("id.orig_p")
                and has("id.resp_h") and has("id.resp_p") and has("proto") and has("app")
                and has("stack") and has("orig_pkts") and has("resp_pkts") and has("orig_bytes")
                and has("resp_bytes") and has("attrs"))' "$work/one" >/dev/null ||
    fail "$name: lines do not parse or lack keys"
  # Each connection once; never a second one for the other direction.
  jq -r '"\(.proto) \(."id.orig_h") \(."id.orig_p") \(."id.resp_h") \(."id.resp_p") \(.ts)"' \
    "$work/one" | sort | uniq -d | grep -q . && fail "$name: a connection appears twice"
  jq -r -s 'map({k: "\(.proto) \(."id.orig_h") \(."id.orig_p") \(."id.resp_h") \(."id.resp_p")",
                 r: "\(.proto) \(."id.resp_h") \(."id.resp_p") \(."id.orig_h") \(."id.orig_p")",
                 from: .ts, to: (.ts + .duration)}) as $all
            | $all[] as $a | $all[] | select(.k == $a.r and .k != .r and .from <= $a.to and $a.from <= .to)
            | .k' "$work/one" | grep -q . &&
    fail "$name: both directions of a flow made two connections"
  # The counts add up: every packet read is classified, not classified or
  # malformed, and the connections hold exactly the classified ones.
  counts="$(totals "$cap")"
  set -- $counts
  [ $# -eq 4 ] || { fail "$name: no totals line"; return; }
  [ "$1" -eq $(($2 + $3 + $4)) ] || fail "$name: $1 read but $2 + $3 + $4 accounted"
  held="$(jq -s -f "$(dirname "$0")/held.jq" "$work/one")"
  [ "$held" -eq "$2" ] || fail "$name: connections hold $held packets, $2 classified"
  if command -v tcpdump >/dev/null 2>&1; then
    in_file="$(tcpdump -r "$cap" 2>/dev/null | wc -l)"
    [ "$in_file" -eq "$1" ] || fail "$name: $1 read, the file holds $in_file"
  fi
  # Four threads find the same connections with the same labels.
  "$kestcap" --plugins "$plugins" --json --threads 4 "$cap" >"$work/four" 2>/dev/null
  for f in one four; do
    jq -r '"\(.proto) \(."id.orig_h") \(."id.orig_p") \(."id.resp_h") \(."id.resp_p") \(.ts) \(.app) \(.orig_pkts) \(.resp_pkts) \(.orig_bytes) \(.resp_bytes)"' \
      "$work/$f" | sort >"$work/$f.keys"
  done
  cmp -s "$work/one.keys" "$work/four.keys" || fail "$name: --threads 4 differs from one thread"
}

check_capture "$bundled"
# Standard input reads as the file does.
[ "$(totals - <"$bundled")" = "$counts" ] || fail "standard input reads differently"
if [ -d "$shared" ]; then
  for cap in http_ipv6.pcap dns.pcap bittorrent.pcap quickplay.pcap rdp.pcap hls.pcapng \
    fragmented-4.pcap ipv6-fragmented-dns.pcap 4in6tunnel.pcap http-vlan-0.pcap \
    linux_dlt_sll2.pcap gtp1_gn_normal_incl_fragmentation.pcap; do
    [ -f "$shared/$cap" ] && check_capture "$shared/$cap"
  done
fi

# A custom protocol named by a rule shows as the application.
"$kestcap" --plugins "$plugins" --json --proto-add MYAPP \
  --rule 'MYAPP TCP 127.0.0.0-127.255.255.255:8080' "$bundled" >"$work/rule" 2>"$work/err" ||
  fail "custom rule run: $(cat "$work/err")"
jq -e -s 'any(.[]; .app == "MYAPP" and ."id.resp_p" == 8080)' "$work/rule" >/dev/null ||
  fail "the rule named no connection MYAPP"

# Errors and plug-in folders: exit code and a line of the output.
printf 'not a capture\n' >"$work/text.pcap"
# A pcap header of link type 147 (reserved for private use), which kestcap
# does not map.
printf '\324\303\262\241\002\000\004\000\000\000\000\000\000\000\000\000\377\377\000\000\223\000\000\000' \
  >"$work/user0.pcap"
head -c "$(($(wc -c <"$bundled") - 7))" "$bundled" >"$work/cut.pcap"
mkdir "$work/empty" "$work/dns-only" "$work/mixed" "$work/bin"
cp "$plugins/dns.plg" "$work/dns-only/"
# Beside the transports: a text file, an unpacked shared object and a .plg
# file that is not packed.
cp "$plugins/tcp.plg" "$plugins/udp.plg" "$work/mixed/"
printf 'notes\n' >"$work/mixed/README"
cp "$kestcap" "$work/mixed/hello.so"
printf 'not packed\n' >"$work/mixed/junk.plg"
# A copy of kestcap looks for its own installation's plug-ins, never the build's.
cp "$kestcap" "$work/bin/kestcap"
expect() {
  code="$1"; text="$2"; shift 2
  "${bin:-$kestcap}" "$@" >"$work/err" 2>&1
  got=$?
  [ "$got" -eq "$code" ] || fail "kestcap $*: exit $got, wanted $code"
  grep -q -e "$text" "$work/err" || fail "kestcap $*: no \"$text\" in: $(cat "$work/err")"
}
expect 2 "kestcap: $work/missing.pcap: No such file" --plugins "$plugins" "$work/missing.pcap"
expect 2 "kestcap: $work/text.pcap: " --plugins "$plugins" "$work/text.pcap"
expect 2 "link type .* is not supported" --plugins "$plugins" "$work/user0.pcap"
expect 2 "bad filter" --plugins "$plugins" "$bundled" "port port"
expect 1 "unknown option --bogus" --bogus "$bundled"
expect 1 "needs an argument" "$bundled" --plugins
expect 1 "--threads wants a number" --threads 0 "$bundled"
expect 1 "no capture file given" --plugins "$plugins"
expect 3 "no plug-ins found in $work/empty" --plugins "$work/empty" "$bundled"
expect 3 "--rule NOPE TCP 1.2.3.4:5: refused" --plugins "$plugins" --rule 'NOPE TCP 1.2.3.4:5' "$bundled"
expect 3 "--config conn.default_policy.tunnels=2: refused" --plugins "$plugins" \
  --config conn.default_policy.tunnels=2 "$bundled"
expect 0 "warning: .*cut short" --plugins "$plugins" "$work/cut.pcap"
expect 0 "^  tcp  *tcp.plg .* Active$" --list-plugins --plugins "$plugins"
expect 0 "^  tcp  *tcp.plg .* Active$" --list-plugins
expect 3 "has neither the TCP decoder (tcp.plg) nor the UDP" --list-plugins --plugins "$work/dns-only"
expect 3 "has neither the TCP decoder (tcp.plg) nor the UDP" --plugins "$work/dns-only" "$bundled"
expect 0 "hello.so  *an unpacked shared object" --list-plugins --plugins "$work/mixed"
expect 0 "junk.plg  *not loaded: not a packed plug-in" --list-plugins --plugins "$work/mixed"
expect 0 "warning: $work/mixed/README: not a plug-in file" --plugins "$work/mixed" "$bundled"
bin="$work/bin/kestcap"
expect 3 "no plug-ins found in $work/lib/kest/plugins" "$bundled"
bin=""
"$kestcap" --help | grep -q "^Exit codes" || fail "--help lists no exit codes"

[ "$failures" -eq 0 ] && echo "kestcap: all checks passed"
[ "$failures" -eq 0 ]

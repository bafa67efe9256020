#!/bin/sh
# Many more flows than the connection limits hold (scripts/flows_pcap.py):
# every flow's connection is pushed out by a newer one or ended at the close,
# and reported exactly once, while the peak resident size stays within what
# the limits allow rather than growing with the flows.
# Arguments: kestcap, the plug-in folder, the generator, a folder to write
# in, the number of flows, the limit of each transport, the bound on the
# peak resident size in KB.
set -u
kestcap="$1"; plugins="$2"; generator="$3"; work="$4"; flows="$5"; limit="$6"; max_kb="$7"
cap="$work/flows-$flows.pcap"
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
# See hostile_test.sh: freed memory held back by a sanitizer build would
# hide what the limits bound.
ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}quarantine_size_mb=16"
export ASAN_OPTIONS

mkdir -p "$work"
python3 "$generator" "$cap" --flows "$flows" 2>"$work/gen.err" || {
  echo "FAIL: the generator failed: $(cat "$work/gen.err")"
  exit 1
}
/usr/bin/time -f "%M %e" -o "$work/time" "$kestcap" --plugins "$plugins" --json \
  --config "tcp.max_connections=$limit" --config "udp.max_connections=$limit" "$cap" \
  >"$work/out" 2>"$work/err"
code=$?
[ "$code" -eq 0 ] || fail "exit $code: $(tail -n 5 "$work/err")"
if grep -q -e "Sanitizer" -e "runtime error" "$work/err"; then
  fail "sanitizer report:"
  head -n 40 "$work/err"
fi
read -r kb seconds <"$work/time"
echo "$flows flows, limit $limit: peak resident size $kb KB, $seconds s"
[ "$kb" -le "$max_kb" ] 2>/dev/null || fail "peak resident size $kb KB, bound $max_kb KB"
lines="$(wc -l <"$work/out")"
[ "$lines" -eq "$flows" ] || fail "$lines JSON lines for $flows flows"
distinct="$(jq -r '"\(.proto) \(."id.orig_h") \(."id.orig_p")"' "$work/out" | sort -u | wc -l)"
[ "$distinct" -eq "$flows" ] || fail "$distinct distinct flows reported of $flows"

rm -f "$cap" "$work/out"
[ "$failures" -eq 0 ] && echo "flows: all checks passed"
[ "$failures" -eq 0 ]

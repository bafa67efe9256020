#!/bin/sh
# kestcap over generated traffic, under a bound on the peak resident size and
# without a sanitizer report:
#  hostile: hostile traffic (scripts/hostile_pcap.py; KEST_HOSTILE_SEED picks
#    another capture) on one thread and on two, as a table and as JSON lines:
#    every packet read and accounted for as classified, not classified or
#    malformed, connections that hold exactly the classified packets, each
#    once and with a sane duration, and the valid conversations decoded;
#  flows: many more flows than the connection limits hold
#    (scripts/flows_pcap.py): every flow reported exactly once, while the
#    resident size stays within what the limits allow.
# Arguments: hostile|flows, kestcap, the plug-in folder, the generator, a
# folder to write in, the bound in KB [, the number of flows, the limit of
# each transport].
set -u
mode="$1"; kestcap="$2"; plugins="$3"; generator="$4"; work="$5"; max_kb="$6"
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
# A sanitizer build holds freed memory back to catch late uses; a small
# quarantine keeps the resident size about what the program itself holds.
ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}quarantine_size_mb=16"
export ASAN_OPTIONS

mkdir -p "$work"
if [ "$mode" = flows ]; then
  flows="$7"; limit="$8"
  cap="$work/flows-$flows.pcap"
  set -- --flows "$flows"
else
  seed="${KEST_HOSTILE_SEED:-1}"
  cap="$work/hostile-$seed.pcap"
  set -- --seed "$seed"
fi
python3 "$generator" "$cap" "$@" 2>"$work/gen.err" || {
  echo "FAIL: the generator failed: $(cat "$work/gen.err")"
  exit 1
}

# Runs kestcap with the arguments given, output to $work/out; checks the
# exit code, the sanitizers' silence and the peak resident size.
run() {
  what="$*"
  /usr/bin/time -f %M -o "$work/rss" "$kestcap" --plugins "$plugins" "$@" "$cap" \
    >"$work/out" 2>"$work/err"
  code=$?
  [ "$code" -eq 0 ] || fail "kestcap $what: exit $code: $(tail -n 5 "$work/err")"
  if grep -q -e "Sanitizer" -e "runtime error" "$work/err"; then
    fail "kestcap $what: sanitizer report:"
    head -n 40 "$work/err"
  fi
  rss="$(tail -n 1 "$work/rss")"
  [ "$rss" -le "$max_kb" ] 2>/dev/null ||
    fail "kestcap $what: peak resident size $rss KB, bound $max_kb KB"
  echo "kestcap $what: peak resident size $rss KB"
}

if [ "$mode" = flows ]; then
  run --json --config "tcp.max_connections=$limit" --config "udp.max_connections=$limit"
  lines="$(wc -l <"$work/out")"
  [ "$lines" -eq "$flows" ] || fail "$lines JSON lines for $flows flows"
  distinct="$(jq -r '"\(.proto) \(."id.orig_h") \(."id.orig_p")"' "$work/out" | sort -u | wc -l)"
  [ "$distinct" -eq "$flows" ] || fail "$distinct distinct flows reported of $flows"
fi

written="$(sed -n 's/.*: \([0-9]*\) packets, .*/\1/p' "$work/gen.err")"
for threads in 1 2; do
  [ "$mode" = hostile ] || break
  t="$threads thread(s)"
  run --threads "$threads"
  # The totals line: read, classified, not classified, malformed, connections.
  line="$(tail -n 1 "$work/out")"
  case "$line" in
  *" packets read, "*" classified, "*" not classified, "*" malformed, "*" connections, "*)
    # shellcheck disable=SC2046 # the five numbers, one word each
    set -- $(echo "$line" | tr -c '0-9\n' ' ' | awk '{ print $1, $2, $3, $4, $5 }') ;;
  *) fail "$t: no totals line"; continue ;;
  esac
  read=$1 classified=$2 connections=$5
  echo "$t: $line"
  [ "$read" -eq "$written" ] || fail "$t: $read packets read, $written written"
  [ "$read" -eq $(($2 + $3 + $4)) ] || fail "$t: $read read but $2 + $3 + $4 accounted"

  # The JSON lines of a second run against the totals of the first: a
  # file's run gives the same connections whatever the scheduling, on any
  # number of threads.
  run --threads "$threads" --json
  jq -c . "$work/out" >/dev/null || fail "$t: a JSON line does not parse"
  lines="$(wc -l <"$work/out")"
  [ "$lines" -eq "$connections" ] || fail "$t: $lines JSON lines, $connections connections"
  held="$(jq -s -f "$(dirname "$0")/held.jq" "$work/out")"
  [ "$held" -eq "$classified" ] || fail "$t: connections hold $held packets, $classified classified"
  # A connection once; time stamps that go back make no negative duration.
  jq -r '"\(.proto) \(."id.orig_h") \(."id.orig_p") \(."id.resp_h") \(."id.resp_p") \(.ts) \(.stack)"' \
    "$work/out" | sort | uniq -d | grep -q . && fail "$t: a connection twice"
  jq -e -s 'all(.[]; .duration >= 0 and .duration < 86400)' "$work/out" >/dev/null ||
    fail "$t: a duration out of range"
  # The decoders ran on the valid conversations among the rest.
  for app in HTTP DNS TLS; do
    jq -e -s --arg app "$app" 'any(.[]; .app == $app)' "$work/out" >/dev/null ||
      fail "$t: no $app connection"
  done
done

rm -f "$cap" "$work/out"
[ "$failures" -eq 0 ] && echo "$mode: all checks passed"
[ "$failures" -eq 0 ]

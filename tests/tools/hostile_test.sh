#!/bin/sh
# kestcap over a generated capture of hostile traffic (scripts/hostile_pcap.py):
# on one thread and on two, as a table and as JSON lines, it exits 0 without
# a sanitizer report, reads every packet, accounts for each one as
# classified, not classified or malformed, reports connections that hold
# exactly the classified packets, each once and with a sane duration, and
# stays under a peak resident size.
# Arguments: kestcap, the plug-in folder, the generator, a folder to write
# in, the bound on the peak resident size in KB. KEST_HOSTILE_SEED picks
# another capture.
set -u
kestcap="$1"; plugins="$2"; generator="$3"; work="$4"; max_kb="$5"
seed="${KEST_HOSTILE_SEED:-1}"
cap="$work/hostile-$seed.pcap"
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
# A sanitizer build holds freed memory back to catch late uses; a small
# quarantine keeps the resident size about what the program itself holds.
ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}quarantine_size_mb=16"
export ASAN_OPTIONS

mkdir -p "$work"
python3 "$generator" "$cap" --seed "$seed" 2>"$work/gen.err" || {
  echo "FAIL: the generator failed: $(cat "$work/gen.err")"
  exit 1
}
written="$(sed -n 's/.*: \([0-9]*\) packets, .*/\1/p' "$work/gen.err")"

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

# The totals line of a table run, as "read classified not malformed
# connections"; nothing when the line is not there.
totals() {
  line="$(tail -n 1 "$work/out")"
  case "$line" in
  *" packets read, "*" classified, "*" not classified, "*" malformed, "*" connections, "*)
    echo "$line" | tr -c '0-9\n' ' ' | awk '{ print $1, $2, $3, $4, $5 }' ;;
  esac
}

for threads in 1 2; do
  run --threads "$threads"
  # shellcheck disable=SC2046 # the five numbers, one word each
  set -- $(totals)
  if [ $# -ne 5 ]; then
    fail "$threads thread(s): no totals line"
    continue
  fi
  read=$1 classified=$2 connections=$5
  echo "$threads thread(s): $(tail -n 1 "$work/out")"
  [ "$read" -eq "$written" ] || fail "$threads thread(s): $read packets read, $written written"
  [ "$read" -eq $(($2 + $3 + $4)) ] ||
    fail "$threads thread(s): $read read but $2 + $3 + $4 accounted"

  run --threads "$threads" --json
  jq -c . "$work/out" >/dev/null || fail "$threads thread(s): a JSON line does not parse"
  lines="$(wc -l <"$work/out")"
  [ "$lines" -eq "$connections" ] ||
    fail "$threads thread(s): $lines JSON lines, $connections connections"
  held="$(jq -s 'map(.orig_pkts + .resp_pkts) | add // 0' "$work/out")"
  [ "$held" -eq "$classified" ] ||
    fail "$threads thread(s): connections hold $held packets, $classified classified"
  # A connection once; time stamps that go back make no negative duration.
  jq -r '"\(.proto) \(."id.orig_h") \(."id.orig_p") \(."id.resp_h") \(."id.resp_p") \(.ts) \(.stack)"' \
    "$work/out" | sort | uniq -d | grep -q . && fail "$threads thread(s): a connection twice"
  jq -e -s 'all(.[]; .duration >= 0 and .duration < 86400)' "$work/out" >/dev/null ||
    fail "$threads thread(s): a duration out of range"
  # The decoders ran on the valid conversations among the rest.
  for app in HTTP DNS TLS; do
    jq -e -s --arg app "$app" 'any(.[]; .app == $app)' "$work/out" >/dev/null ||
      fail "$threads thread(s): no $app connection"
  done
done

rm -f "$cap"
[ "$failures" -eq 0 ] && echo "hostile capture: all checks passed"
[ "$failures" -eq 0 ]

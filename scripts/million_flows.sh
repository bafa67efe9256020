#!/bin/sh
# Bounded memory with a million flows: kestcap with --json over captures of
# 100 000 and 1 000 000 distinct one-packet flows (half TCP SYNs, half UDP
# datagrams, from scripts/flows_pcap.py), with the connection limits set low
# and left at their defaults. Prints the peak resident size, the run time
# and the JSON lines of each run, and fails unless every flow is reported
# exactly once and, under the low limit, the peak with a million flows is
# about that with 100 000 (bounded by the limit, not by the flows).
#
#   scripts/million_flows.sh [BUILD_DIR]   (default: build)
#
# LIMIT sets the low limit (default 1000); SKIP_DEFAULT=1 leaves out the runs
# at the default limits, which take a few gigabytes at a million flows.
# Takes several minutes.
set -eu
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-$root/build}"
case "$build" in /*) ;; *) build="$PWD/$build" ;; esac
kestcap="$build/tools/kestcap/kestcap"
plugins="$build/plugins"
limit="${LIMIT:-1000}"
[ -x "$kestcap" ] || { echo "no kestcap in $build (build it first)" >&2; exit 2; }
[ -x /usr/bin/time ] || { echo "needs /usr/bin/time (Debian package time)" >&2; exit 2; }
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

failures=0
results="$work/results"
: >"$results"

# One run: flows, limit ("default" for none given); appends a row.
measure() {
  flows="$1"; lim="$2"; cap="$work/flows-$flows.pcap"
  [ -f "$cap" ] || python3 "$root/scripts/flows_pcap.py" "$cap" --flows "$flows" 2>/dev/null
  set --
  [ "$lim" = default ] ||
    set -- --config "tcp.max_connections=$lim" --config "udp.max_connections=$lim"
  /usr/bin/time -f "%M %e" -o "$work/time" "$kestcap" --plugins "$plugins" --json "$@" "$cap" \
    >"$work/out" 2>"$work/err" || { echo "kestcap failed: $(tail -n 3 "$work/err")" >&2; exit 1; }
  read -r kb seconds <"$work/time"
  lines="$(wc -l <"$work/out")"
  distinct="$(jq -r '"\(.proto) \(."id.orig_h") \(."id.orig_p")"' "$work/out" | sort -u | wc -l)"
  echo "$flows $lim $lines $distinct $kb $seconds" >>"$results"
  if [ "$lines" -ne "$flows" ] || [ "$distinct" -ne "$flows" ]; then
    echo "FAIL: $flows flows, limit $lim: $lines lines, $distinct distinct flows" >&2
    failures=$((failures + 1))
  fi
  rm -f "$work/out"
}

for flows in 100000 1000000; do
  measure "$flows" "$limit"
  [ "${SKIP_DEFAULT:-0}" = 1 ] || measure "$flows" default
done

awk 'BEGIN { printf "%10s %10s %12s %12s %14s %10s\n", "flows", "limit", "JSON lines",
                    "distinct", "peak RSS MB", "seconds" }
     { printf "%10s %10s %12s %12s %14.1f %10s\n", $1, $2, $3, $4, $5 / 1024, $6 }' "$results"

# Under the low limit, a million flows may take at most a quarter more than
# 100 000.
small="$(awk -v l="$limit" '$1 == 100000 && $2 == l { print $5 }' "$results")"
large="$(awk -v l="$limit" '$1 == 1000000 && $2 == l { print $5 }' "$results")"
if [ "$((large * 4))" -gt "$((small * 5))" ]; then
  echo "FAIL: limit $limit: $large KB with 1000000 flows, $small KB with 100000" >&2
  failures=$((failures + 1))
else
  echo "limit $limit: peak RSS with 1000000 flows is $large KB, with 100000 flows $small KB"
fi
[ "$failures" -eq 0 ] && echo "every flow reported exactly once; memory bounded by the limit"
[ "$failures" -eq 0 ]

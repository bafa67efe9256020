#!/bin/sh
# Lines of test code against lines of product code, and their ratio.
#   scripts/test_weight.sh [--max PCT]
# Test code: C, C++, Python, shell and CMake under tests/ (data such as .jsonl,
# .txt, .hex and .pcap files does not count). Product code: the same kinds of
# file under include/, the library folders, decoders/, tools/ and python/.
# With --max, exits 1 when tests weigh more than PCT per cent of the product.
set -eu
root="$(cd "$(dirname "$0")/.." && pwd)"
max=""
while [ $# -gt 0 ]; do
  case "$1" in
    --max) [ $# -ge 2 ] || { echo "--max needs a percentage" >&2; exit 2; }; max="$2"; shift 2 ;;
    -h|--help) sed -n '2,7p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "unknown argument: $1" >&2; exit 2 ;;
  esac
done

# Every code file under the given folders, one line each (names may hold spaces).
code_files() {
  for dir in "$@"; do
    [ -d "$root/$dir" ] || continue
    find "$root/$dir" -type f \( -name '*.c' -o -name '*.cc' -o -name '*.cpp' -o -name '*.h' \
      -o -name '*.hpp' -o -name '*.py' -o -name '*.sh' -o -name '*.cmake' \
      -o -name CMakeLists.txt \)
  done
}

count() {
  code_files "$@" | sort | tr '\n' '\0' | xargs -0 cat -- 2>/dev/null | wc -l | tr -d ' '
}

tests="$(count tests)"
library="runtime foundation conn flow rules web attributes config plugins"
# shellcheck disable=SC2086
product="$(count include $library decoders tools python)"
awk -v t="$tests" -v p="$product" -v max="$max" 'BEGIN {
  pct = p > 0 ? 100 * t / p : 0
  printf "test code:    %7d lines (tests/)\n", t
  printf "product code: %7d lines (include/, library folders, decoders/, tools/, python/)\n", p
  printf "ratio:        %6.1f %%\n", pct
  if (max != "" && pct > max + 0) {
    printf "above the bound of %s %%\n", max
    exit 1
  }
}'

#!/bin/sh
# Fails when libkest exports a dynamic symbol that the allow-list does not
# cover. The list holds shell patterns over demangled names, one per line.
set -eu
lib="$1"
allow="$2"
status=0
nm -D --defined-only -C "$lib" | awk '{ $1=""; $2=""; sub(/^  /, ""); print }' | sort -u |
while IFS= read -r sym; do
  ok=0
  while IFS= read -r pattern; do
    case "$pattern" in ''|'#'*) continue ;; esac
    # shellcheck disable=SC2254
    case "$sym" in $pattern) ok=1; break ;; esac
  done < "$allow"
  if [ "$ok" -eq 0 ]; then
    echo "unexpected export: $sym"
    echo fail > "${TMPDIR:-/tmp}/kest_exports_failed.$$"
  fi
done
if [ -f "${TMPDIR:-/tmp}/kest_exports_failed.$$" ]; then
  rm -f "${TMPDIR:-/tmp}/kest_exports_failed.$$"
  exit 1
fi
exit $status

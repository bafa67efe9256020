#!/bin/sh
# Runs the README's examples as a newcomer types them: the JSON pipeline of
# the bundled example, the C host example, and the kestcap command lines of
# the kestcap section (live ones aside), with their files standing by.
# Usage: readme_test.sh SOURCE_DIR BUILD_DIR KESTCAP HOST_LIBRARY [CFLAGS]
# (CFLAGS: what a sanitizer build links with)
set -eu
src="$1" build="$2" kestcap="$3" host_lib="$4" cflags="${5:-}"
readme="$src/README.md"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

# The lines of the fenced blocks of `lang` in the section `heading`.
block() {
  awk -v h="$1" -v lang="$2" '
    $0 == h { in_section = 1; next }
    in_section && /^## / { exit }
    in_section && !inside && $0 == "```" lang { inside = 1; next }
    inside && $0 == "```" { inside = 0; next }
    inside { print }' "$readme"
}

# The JSON example reads JSON only: every line jq accepts, none empty. It
# runs the README's own build dir, so only from the build the README names.
if [ "$(cd "$build" && pwd)" = "$(cd "$src" && pwd)/build" ]; then
  line="$(block '## Two commands' sh | grep -- '--json' | head -1)"
  [ -n "$line" ] || fail "no JSON example under Two commands"
  (cd "$src" && sh -c "$line") >"$work/json.txt" || fail "$line"
  [ -s "$work/json.txt" ] || fail "$line printed nothing"
  grep -q '"app"' "$work/json.txt" || fail "$line: no app key"
else
  echo "the JSON example runs only in $src/build"
fi

# The C host example, built and run as the README says, from a folder whose
# build/plugins are this build's.
awk '/^```c$/ { inside = 1; text = ""; next }
     inside && /^```$/ { inside = 0; if (text ~ /int main/) { printf "%s", text; exit } next }
     inside { text = text $0 "\n" }' "$readme" >"$work/my_host.c"
[ -s "$work/my_host.c" ] || fail "no C host example"
ln -s "$build" "$work/build"
# shellcheck disable=SC2086
cc $cflags -std=c99 -Wall -Werror -I"$src/include" -I"$src/tools/host" "$work/my_host.c" -o "$work/my_host" \
  -L"$build" -Wl,-rpath,"$build" -lkest "$host_lib" -lm || fail "the C host example does not build"
(cd "$work" && ./my_host) >"$work/host.txt" || fail "the C host example failed"
grep -q "TCP" "$work/host.txt" || fail "the C host example did not print TCP: $(cat "$work/host.txt")"

# kestcap's command lines, on a copy of the bundled capture.
mkdir -p "$work/bin" "$work/my"
ln -s "$kestcap" "$work/bin/kestcap"
ln -s "$build/plugins" "$work/my/plugins"
cp "$src/examples/loopback.pcap" "$work/capture.pcap"
block '## kestcap' sh | sed 's/[[:space:]]*#.*$//' >"$work/lines.txt"
[ -s "$work/lines.txt" ] || fail "no kestcap examples"
while IFS= read -r line; do
  case "$line" in
  *" -i "* | *pcapng*) continue ;; # live, or a format the copy is not in
  esac
  (cd "$work" && PATH="$work/bin:$PATH" sh -c "$line") \
    >"$work/out.txt" 2>&1 || fail "$line: $(tail -3 "$work/out.txt")"
done <"$work/lines.txt"
echo "README examples ran"

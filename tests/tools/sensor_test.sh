#!/bin/sh
# kestcap as a service. Modes:
#   sandbox KESTCAP PLUGINS FORBIDDEN_PLG CAPTURE SANITIZED
#     a decoder's forbidden call ends kestcap with the sandbox's line and
#     exit code 159, --no-sandbox lets it run; --config-file options apply
#   privileges KESTCAP PLUGINS SANITIZED (root)
#     a live run in a private network namespace with --user: the running
#     process has a non-zero UID, no capability, no-new-privileges and the
#     filter, and still captures and writes; SIGUSR1, SIGHUP, SIGTERM
#   service UNIT LOGROTATE KESTCAP
#     systemd-analyze verify finds nothing to say about the unit; logrotate
#     reads its snippet
#   manual PAGE KESTCAP
#     man renders the page without a warning, with every option of --help
set -u
mode="$1"; shift
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
skip() { echo "SKIP: $*"; exit 77; }

case "$mode" in
sandbox)
  kestcap="$1"; plugins="$2"; forbidden="$3"; capture="$4"; sanitized="$5"
  [ "$sanitized" = "" ] || skip "a sanitizer build runs without the sandbox"
  mkdir "$work/plugins"
  for p in tcp udp wire; do cp "$plugins/$p.plg" "$work/plugins/"; done
  cp "$forbidden" "$work/plugins/"
  "$kestcap" --plugins "$work/plugins" "$capture" >/dev/null 2>"$work/err"
  code=$?
  [ "$code" -eq 159 ] || fail "a forbidden call: exit code $code, not 159"
  grep -q "^kestcap: sandbox: a classifying thread made the forbidden system call [0-9]* (socket); ending" \
    "$work/err" || fail "no sandbox line: $(cat "$work/err")"
  for threads in 1 3; do
    "$kestcap" --plugins "$work/plugins" --threads "$threads" "$capture" >/dev/null 2>&1
    [ $? -eq 159 ] || fail "--threads $threads: the sandbox did not stop the call"
  done
  # Options from a file, one a line, the command line after them.
  printf '# a comment\n\n--no-sandbox\n--threads 2\n--attr tls.issuer\n' >"$work/conf"
  "$kestcap" --config-file "$work/conf" --plugins "$work/plugins" --json "$capture" \
    >"$work/out" 2>"$work/err" || fail "--config-file with --no-sandbox: $(cat "$work/err")"
  [ "$(wc -l <"$work/out")" -eq 1 ] || fail "--no-sandbox: not one connection"
  printf -- '--config-file other\n' >"$work/conf"
  "$kestcap" --config-file "$work/conf" "$capture" >/dev/null 2>&1
  [ $? -eq 1 ] || fail "a configuration file naming another is not a usage error"
  ;;
privileges)
  kestcap="$1"; plugins="$2"; sanitized="$3"
  [ "$(id -u)" -eq 0 ] || skip "needs root for a network namespace and a live capture"
  command -v python3 >/dev/null || skip "needs python3 for traffic"
  # LeakSanitizer cannot stop the threads of a process that changed user
  # (it is no longer dumpable): a sanitizer build checks the rest.
  [ -z "$sanitized" ] || export ASAN_OPTIONS="${ASAN_OPTIONS:-}:detect_leaks=0"
  ns="kestcap-sensor-$$"
  ip netns add "$ns" || skip "no network namespaces here"
  trap 'ip netns del "$ns"; rm -rf "$work"' EXIT
  ip netns exec "$ns" ip link set lo up
  chmod 755 "$work"; mkdir -m 777 "$work/log"
  # One TCP connection on the namespace's loopback, with an answer.
  talk() {
    ip netns exec "$ns" python3 -c "
import socket, threading
s = socket.socket(); s.bind(('127.0.0.1', $1)); s.listen(1)
def serve():
    c, _ = s.accept(); c.recv(100); c.sendall(b'HTTP/1.0 200 OK\r\n\r\n'); c.close()
t = threading.Thread(target=serve); t.start()
c = socket.create_connection(('127.0.0.1', $1))
c.sendall(b'GET / HTTP/1.0\r\nHost: sensor\r\n\r\n'); c.recv(100); c.close(); t.join()"
  }
  ip netns exec "$ns" "$kestcap" --plugins "$plugins" -i lo --user nobody \
    --output "$work/log/out.json" --stats 1 --stats-file "$work/log/stats.json" 2>"$work/err" &
  pid=$!
  sleep 2
  status="/proc/$pid/status"
  [ "$(awk '/^Uid:/ {print $2 $3 $4 $5}' "$status")" = "65534655346553465534" ] ||
    fail "not running as nobody: $(grep Uid: "$status")"
  for set in CapInh CapPrm CapEff CapBnd CapAmb; do
    grep -q "^$set:[[:space:]]*0000000000000000$" "$status" || fail "$(grep "^$set:" "$status")"
  done
  grep -q "^Groups:[[:space:]]*$" "$status" || fail "supplementary groups left: $(grep Groups: "$status")"
  grep -q "^NoNewPrivs:[[:space:]]*1$" "$status" || fail "no-new-privileges not set"
  # A sanitizer build runs without the filter (see kestcap_sandbox).
  [ -n "$sanitized" ] || grep -q "^Seccomp:[[:space:]]*2$" "$status" ||
    fail "not under a system call filter"
  talk 8081
  # Packets reach kestcap as the capture's buffer times out (100 ms).
  sleep 1
  kill -USR1 "$pid"
  # The socket and the file opened before the drop keep working; SIGHUP
  # makes a new file after logrotate's move.
  mv "$work/log/out.json" "$work/log/out.json.1"
  kill -HUP "$pid"
  sleep 1
  [ -f "$work/log/out.json" ] || fail "SIGHUP made no new output file"
  talk 8082
  sleep 1
  kill -TERM "$pid"
  wait "$pid" || fail "kestcap ended with code $?: $(cat "$work/err")"
  cat "$work/log/out.json"* >"$work/all"
  [ "$(grep -c '"app":"HTTP"' "$work/all")" -eq 2 ] ||
    fail "the two connections are not written: $(cat "$work/all")"
  grep -q "^kestcap: stats {\"ts\":.*\"packets\":[1-9]" "$work/err" || fail "SIGUSR1 wrote no statistics: $(cat "$work/err")"
  tail -n 1 "$work/log/stats.json" | grep -q '"connections":2' ||
    fail "the last statistics line: $(tail -n 1 "$work/log/stats.json")"
  ;;
service)
  unit="$1"; snippet="$2"; kestcap="$3"
  command -v systemd-analyze >/dev/null || skip "no systemd-analyze"
  sed "s|^ExecStart=[^ ]*|ExecStart=$kestcap|" "$unit" >"$work/kestcap@lo.service"
  (cd "$work" && systemd-analyze verify --man=no ./kestcap@lo.service) >"$work/said" 2>&1 ||
    fail "systemd-analyze verify: $(cat "$work/said")"
  grep "kestcap@" "$work/said" && fail "systemd-analyze has remarks on the unit"
  if command -v logrotate >/dev/null; then
    logrotate -d -s "$work/state" "$snippet" >"$work/said" 2>&1 || fail "logrotate: $(cat "$work/said")"
  fi
  ;;
manual)
  page="$1"; kestcap="$2"
  command -v man >/dev/null || skip "no man"
  said="$(MANWIDTH=80 man --warnings -l "$page" 2>&1 >"$work/text")"
  [ -z "$said" ] || fail "man warns: $said"
  for option in $("$kestcap" --help | grep -o -- '--[a-z][a-z-]*' | sort -u); do
    grep -q -- "$option" "$work/text" || fail "$option is not in the manual page"
  done
  ;;
esac
[ "$failures" -eq 0 ] || exit 1
echo "ok: $mode"

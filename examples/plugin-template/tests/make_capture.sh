#!/bin/sh
# Makes redis.pcap: a real redis-server on loopback, redis-cli running three
# commands, and two sessions of several commands each on one connection: RESP
# arrays as client libraries send them, and inline commands as typed at a
# terminal. Needs root (tcpdump on lo), python3 and the Debian packages
# redis-server, redis-tools and tcpdump. The capture is committed: the tests
# need none of these.
# Usage: make_capture.sh [OUTPUT.pcap]
set -eu
out="$(realpath "${1:-$(dirname "$0")/redis.pcap}")"
port=6379
work="$(mktemp -d)"
redis-server --port "$port" --bind 127.0.0.1 --save '' --appendonly no --dir "$work" \
  >"$work/server.log" 2>&1 &
server=$!
tcpdump -i lo -w "$out" -U "tcp port $port" 2>"$work/tcpdump.log" &
dump=$!
trap 'kill $dump $server 2>/dev/null; rm -rf "$work"' EXIT
sleep 1
for command in "PING" "SET greeting hello" "GET greeting"; do
  # shellcheck disable=SC2086
  redis-cli -h 127.0.0.1 -p "$port" $command >/dev/null
done
python3 - "$port" <<'PY'
import socket, sys

def session(lines, encode):
    s = socket.create_connection(("127.0.0.1", int(sys.argv[1])))
    for line in lines:
        s.sendall(encode(line.split()))
        s.recv(4096)
    s.close()

def resp(words):
    return b"*%d\r\n" % len(words) + b"".join(b"$%d\r\n%s\r\n" % (len(w), w.encode()) for w in words)

# Six commands: the decoder reports the first four.
session(["RPUSH queue a b c", "LRANGE queue 0 -1", "INCR visits", "GET visits",
         "DEL queue visits", "QUIT"], resp)
session(["PING", "SET colour blue", "GET colour", "QUIT"],
        lambda words: " ".join(words).encode() + b"\r\n")
PY
sleep 1

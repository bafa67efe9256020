#!/usr/bin/env bash
# Records real clients and servers talking over loopback inside a private
# network namespace and writes the result as a classic pcap file
# (examples/loopback.pcap by default). Nothing leaves the machine: the
# namespace has only its own `lo`, which Linux captures as Ethernet
# (DLT_EN10MB) with zero MAC addresses.
#
# Traffic, one exchange after another:
#   HTTP/1.1  python3 http.server on 8080 (two GETs on one keep-alive
#             connection, then a HEAD on a second one) and on 80 (one GET)
#   TLS       openssl s_server on 4433 with a throwaway self-signed key;
#             s_client with SNI example.test and ALPN h2,http/1.1
#   DNS/UDP   a small python3 responder on 53 and on 15353, asked by dig
#             (or a python3 client when dig is missing) for example.test A
#   unknown   one UDP exchange on 47001 and one TCP exchange on 47002 of
#             opaque bytes between python3 peers
#
# Usage: scripts/make_example_capture.sh [OUTPUT.pcap]
# Run as root (uses `unshare --net`) or as a user allowed user namespaces
# (uses `unshare --net --map-current-user --keep-caps`). As root, missing Debian packages are installed with
# apt-get after saying so; set KEST_NO_INSTALL=1 to only report them.
set -eu

here=$(cd "$(dirname "$0")" && pwd)
repo=$(cd "$here/.." && pwd)
out=${1:-$repo/examples/loopback.pcap}
case $out in /*) ;; *) out=$(pwd)/$out ;; esac

# ---------------------------------------------------------------- tools ----
need_tools() {
  missing_pkgs=""
  missing_cmds=""
  for pair in tcpdump:tcpdump curl:curl openssl:openssl python3:python3 \
              ip:iproute2 ss:iproute2 unshare:util-linux dig:dnsutils; do
    cmd=${pair%%:*}
    pkg=${pair#*:}
    if ! command -v "$cmd" >/dev/null 2>&1; then
      missing_cmds="$missing_cmds $cmd"
      case " $missing_pkgs " in *" $pkg "*) ;; *) missing_pkgs="$missing_pkgs $pkg" ;; esac
    fi
  done
}

if [ -z "${KEST_CAPTURE_INSIDE:-}" ]; then
  need_tools
  if [ -n "$missing_cmds" ]; then
    echo "make_example_capture: missing commands:$missing_cmds (Debian packages:$missing_pkgs)" >&2
    if [ "$(id -u)" = 0 ] && [ -z "${KEST_NO_INSTALL:-}" ]; then
      echo "make_example_capture: installing them with apt-get (set KEST_NO_INSTALL=1 to skip)" >&2
      apt-get update
      # shellcheck disable=SC2086
      DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends $missing_pkgs
      need_tools
    fi
  fi
  # dig alone may be missing: a python3 client asks instead.
  required=""
  for cmd in $missing_cmds; do
    [ "$cmd" = dig ] || required="$required $cmd"
  done
  if [ -n "$required" ]; then
    echo "make_example_capture: cannot go on without:$required" >&2
    exit 1
  fi

  mkdir -p "$(dirname "$out")"
  export KEST_CAPTURE_INSIDE=1
  if [ "$(id -u)" = 0 ]; then
    exec unshare --net -- "$0" "$out"
  else
    # Keep our own uid inside and carry the namespace's capabilities over
    # exec: tcpdump started as uid 0 would try to switch users, which a user
    # namespace does not allow.
    exec unshare --net --map-current-user --keep-caps -- "$0" "$out"
  fi
fi

# ----------------------------------------------- inside the namespace ----
tmp=$(mktemp -d "${TMPDIR:-/tmp}/kest-capture.XXXXXX")
pids=""
tcpdump_pid=""

cleanup() {
  status=$?
  if [ -n "$tcpdump_pid" ]; then kill -INT "$tcpdump_pid" 2>/dev/null || true; fi
  for p in $pids; do kill "$p" 2>/dev/null || true; done
  for p in $pids $tcpdump_pid; do wait "$p" 2>/dev/null || true; done
  rm -rf "$tmp"
  exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

ip link set lo up

# Waits until something listens on PROTO (tcp|udp) port PORT; looks at the
# socket table instead of connecting, so no probe lands in the capture.
wait_port() {
  proto=$1 port=$2 tries=0
  flag=-ltnH
  [ "$proto" = udp ] && flag=-lunH
  while ! ss $flag "sport = :$port" | grep -q .; do
    tries=$((tries + 1))
    if [ $tries -gt 100 ]; then
      echo "make_example_capture: nothing listens on $proto/$port; server logs:" >&2
      tail -n 5 "$tmp"/*.log >&2 || true
      exit 1
    fi
    sleep 0.1
  done
}

start() { # start LOGNAME COMMAND...: a background server
  log=$tmp/$1.log
  shift
  "$@" >"$log" 2>&1 </dev/null &
  pids="$pids $!"
}

# One python3 file plays every small peer: the DNS responder and client and
# both ends of the two opaque exchanges.
cat >"$tmp/peers.py" <<'PY'
import hashlib
import socket
import struct
import sys


def opaque(label, n):
    """Deterministic bytes that look random: no protocol starts like this."""
    data = b""
    counter = 0
    while len(data) < n:
        data += hashlib.sha256(b"%s/%d" % (label.encode(), counter)).digest()
        counter += 1
    return data[:n]


def qname_end(msg, off):
    while True:
        length = msg[off]
        if length == 0:
            return off + 1
        if length & 0xC0:
            return off + 2
        off += 1 + length


def read_name(msg, off):
    labels = []
    while msg[off]:
        labels.append(msg[off + 1:off + 1 + msg[off]].decode("ascii", "replace"))
        off += 1 + msg[off]
    return ".".join(labels).lower()


def dns_server(port, count):
    zone = {("example.test", 1): bytes([192, 0, 2, 1])}
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sock.bind(("127.0.0.1", port))
    for _ in range(count):
        query, peer = sock.recvfrom(4096)
        ident, flags, qdcount, _, _, arcount = struct.unpack("!6H", query[:12])
        end = qname_end(query, 12)
        qname = read_name(query, 12)
        qtype, qclass = struct.unpack("!HH", query[end:end + 4])
        question = query[12:end + 4]
        rdata = zone.get((qname, qtype))
        known = any(name == qname for name, _ in zone)
        rcode = 0 if known else 3
        answers = b""
        if rdata is not None:
            answers = (b"\xc0\x0c" + struct.pack("!HHIH", qtype, qclass, 300, len(rdata)) + rdata)
        # Answer EDNS with EDNS: a bare OPT record, 1232-byte UDP payload.
        opt = b"\x00" + struct.pack("!HHIH", 41, 1232, 0, 0) if arcount else b""
        rflags = 0x8000 | 0x0400 | (flags & 0x0100) | rcode
        header = struct.pack("!6H", ident, rflags, 1, 1 if answers else 0, 0, 1 if opt else 0)
        sock.sendto(header + question + answers + opt, peer)
    sock.close()


def dns_client(port, name):
    qname = b"".join(bytes([len(p)]) + p.encode() for p in name.split(".")) + b"\x00"
    query = struct.pack("!6H", 0x4B45, 0x0100, 1, 0, 0, 0) + qname + struct.pack("!HH", 1, 1)
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sock.settimeout(3)
    sock.sendto(query, ("127.0.0.1", port))
    reply = sock.recv(4096)
    print("dns reply: %d bytes, rcode %d" % (len(reply), reply[3] & 0x0F))


def udp_server(port):
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sock.bind(("127.0.0.1", port))
    for i in range(2):
        data, peer = sock.recvfrom(4096)
        sock.sendto(opaque("udp-reply-%d" % i, 48 + 16 * i), peer)
    sock.close()


def udp_client(port):
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sock.settimeout(3)
    sock.connect(("127.0.0.1", port))
    for i in range(2):
        sock.send(opaque("udp-ask-%d" % i, 40 + 8 * i))
        sock.recv(4096)
    sock.close()


def recv_exact(conn, n):
    data = b""
    while len(data) < n:
        chunk = conn.recv(n - len(data))
        if not chunk:
            break
        data += chunk
    return data


def tcp_server(port):
    srv = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    srv.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    srv.bind(("127.0.0.1", port))
    srv.listen(1)
    conn, _ = srv.accept()
    for i in range(3):
        if len(recv_exact(conn, 64)) < 64:
            break
        conn.sendall(opaque("tcp-reply-%d" % i, 96))
    # Wait for the client to close first, then close our side.
    conn.recv(1)
    conn.close()
    srv.close()


def tcp_client(port):
    conn = socket.create_connection(("127.0.0.1", port), timeout=3)
    for i in range(3):
        conn.sendall(opaque("tcp-ask-%d" % i, 64))
        recv_exact(conn, 96)
    conn.shutdown(socket.SHUT_WR)
    conn.recv(1)
    conn.close()


if __name__ == "__main__":
    role, port = sys.argv[1], int(sys.argv[2])
    if role == "dns-server":
        dns_server(port, int(sys.argv[3]))
    elif role == "dns-client":
        dns_client(port, sys.argv[3])
    elif role == "udp-server":
        udp_server(port)
    elif role == "udp-client":
        udp_client(port)
    elif role == "tcp-server":
        tcp_server(port)
    elif role == "tcp-client":
        tcp_client(port)
    else:
        sys.exit("unknown role " + role)
PY

# Small files for the web servers.
mkdir -p "$tmp/www"
printf '<!doctype html>\n<title>kest example</title>\n<p>Hello from loopback.</p>\n' >"$tmp/www/index.html"
printf 'hello, kest\n' >"$tmp/www/hello.txt"

# A throwaway key and self-signed certificate, made for this run only.
# Ed25519 signatures have one length, so the handshake sizes repeat run to run.
openssl req -x509 -newkey ed25519 -nodes \
  -subj /CN=example.test -addext subjectAltName=DNS:example.test -days 2 \
  -keyout "$tmp/key.pem" -out "$tmp/cert.pem" >"$tmp/req.log" 2>&1

http_proto=""
if python3 -m http.server --help 2>/dev/null | grep -q -- --protocol; then
  http_proto="--protocol HTTP/1.1"     # keep-alive; older python3 speaks 1.0
fi

# ---------------------------------------------------------- servers ----
# shellcheck disable=SC2086
start http8080 python3 -m http.server $http_proto --bind 127.0.0.1 --directory "$tmp/www" 8080
# shellcheck disable=SC2086
start http80 python3 -m http.server $http_proto --bind 127.0.0.1 --directory "$tmp/www" 80
start tls openssl s_server -accept 127.0.0.1:4433 -cert "$tmp/cert.pem" -key "$tmp/key.pem" \
  -alpn http/1.1 -num_tickets 0 -rev -naccept 1
start dns53 python3 "$tmp/peers.py" dns-server 53 1
start dns15353 python3 "$tmp/peers.py" dns-server 15353 1
start udp47001 python3 "$tmp/peers.py" udp-server 47001
start tcp47002 python3 "$tmp/peers.py" tcp-server 47002

wait_port tcp 8080
wait_port tcp 80
wait_port tcp 4433
wait_port udp 53
wait_port udp 15353
wait_port udp 47001
wait_port tcp 47002

# ---------------------------------------------------------- capture ----
as_user=""
[ "$(id -u)" = 0 ] && as_user="-Z root"  # write the file as root, not as user tcpdump
# shellcheck disable=SC2086
tcpdump -i lo -nn -U $as_user -w "$tmp/capture.pcap" 'tcp or udp' >"$tmp/tcpdump.log" 2>&1 &
tcpdump_pid=$!
tries=0
until grep -q 'listening on' "$tmp/tcpdump.log"; do
  tries=$((tries + 1))
  if [ $tries -gt 100 ] || ! kill -0 "$tcpdump_pid" 2>/dev/null; then
    cat "$tmp/tcpdump.log" >&2
    echo "make_example_capture: tcpdump did not start" >&2
    exit 1
  fi
  sleep 0.1
done
sleep 0.3

step() { echo "make_example_capture: $*" >&2; }

step "HTTP on 8080: two GETs on one connection, then a HEAD"
curl -sS -o /dev/null -o /dev/null -A 'kest-example/1.0 (curl)' \
  --resolve example.test:8080:127.0.0.1 \
  http://example.test:8080/ http://example.test:8080/hello.txt
sleep 0.2
curl -sS -I -o /dev/null -A 'kest-example/1.0 (curl)' \
  --resolve example.test:8080:127.0.0.1 http://example.test:8080/hello.txt
sleep 0.2

step "HTTP on 80: one GET"
curl -sS -o /dev/null -A 'kest-example/1.0 (curl)' \
  --resolve example.test:80:127.0.0.1 http://example.test/hello.txt
sleep 0.2

step "TLS on 4433: SNI example.test, ALPN h2,http/1.1"
{ printf 'hello over tls\n'; sleep 1; } |
  openssl s_client -connect 127.0.0.1:4433 -servername example.test \
    -alpn h2,http/1.1 -no_ign_eof >"$tmp/s_client.log" 2>&1 || true
sleep 0.2

step "DNS on 53 and 15353: example.test A"
for port in 53 15353; do
  if command -v dig >/dev/null 2>&1; then
    dig @127.0.0.1 -p "$port" +tries=1 +time=3 example.test A >"$tmp/dig$port.log"
  else
    python3 "$tmp/peers.py" dns-client "$port" example.test >"$tmp/dig$port.log"
  fi
  sleep 0.2
done

step "unknown UDP on 47001, unknown TCP on 47002"
python3 "$tmp/peers.py" udp-client 47001
sleep 0.2
python3 "$tmp/peers.py" tcp-client 47002

# Let the last FINs and ACKs through, then stop the capture.
sleep 1
kill -INT "$tcpdump_pid"
wait "$tcpdump_pid" || true
tcpdump_pid=""

grep -q 'ANSWER SECTION\|rcode 0' "$tmp/dig53.log" || { cat "$tmp/dig53.log" >&2; exit 1; }
grep -q 'ALPN protocol: http/1.1' "$tmp/s_client.log" ||
  step "warning: s_client did not report the ALPN protocol"

cp "$tmp/capture.pcap" "$out"
chmod 644 "$out"
packets=$(tcpdump -r "$out" -nn 2>/dev/null | wc -l)
step "wrote $out: $packets packets, $(wc -c <"$out") bytes"

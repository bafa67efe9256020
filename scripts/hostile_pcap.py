#!/usr/bin/env python3
"""Writes a capture of hostile traffic for kestcap, the same for the same seed.

Ethernet frames, standard library only. What it holds, section by section:
valid HTTP, DNS and TLS conversations (plain, behind tags, MPLS, PPPoE and
every tunnel); TCP streams with overlapping and conflicting segments,
straddling retransmissions, sequence numbers across 2^32, zero windows and
window probes; SYN, RST and FIN floods and every flag combination; tiny,
overlapping, conflicting and never-completing IPv4 and IPv6 fragments;
64 stacked VLAN tags and QinQ; IP-in-IP, GRE, VXLAN, GTP-U and Teredo nested
far beyond what is opened, Teredo with lying IPv6 lengths and indicators; MPLS stacks; packets of several header stacks cut
at every byte count, both as captured short and with every length field
made to agree with the cut; bad IHL, length and offset fields; hostile DNS
and HTTP messages; length fields that lie to the application decoders
(SNMP, LDAP, Kerberos, RADIUS, DHCP, NetBIOS, TFTP, SOCKS, VNC, HTTP/2, STUN,
DTLS, TLS and DTLS certificates, BitTorrent's peer wire, bencode, uTP and trackers, CoAP, Modbus, DNP3,
WireGuard, OpenVPN, IKE, Redis, Memcached, MQTT, AMQP, MySQL, PostgreSQL,
TDS, MongoDB), on their ports and from both sides; random and mutated frames;
and time stamps that go back and jump ahead.
"""
import argparse
import random
import struct
import sys

ETH_IP4, ETH_IP6, ETH_VLAN, ETH_QINQ, ETH_QINQ_OLD = 0x0800, 0x86DD, 0x8100, 0x88A8, 0x9100
ETH_MPLS, ETH_PPPOE, ETH_ARP = 0x8847, 0x8864, 0x0806
TCP_FIN, TCP_SYN, TCP_RST, TCP_PSH, TCP_ACK = 0x01, 0x02, 0x04, 0x08, 0x10


def checksum(data):
    if len(data) % 2:
        data += b"\0"
    total = sum(struct.unpack(f"!{len(data) // 2}H", data))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def a4(text):
    return bytes(int(x) for x in text.split("."))


def a6(n):
    """2001:db8::/32 with `n` in the last 64 bits."""
    return bytes.fromhex("20010db8000000000000000000000000")[:8] + struct.pack("!Q", n)


def teredo6(n):
    """A Teredo address (2001:0::/32) with `n` in the last 64 bits."""
    return bytes.fromhex("2001000041379e50") + struct.pack("!Q", n)


# Layers: each takes the bytes inside it and gives the bytes with its header.
# Length fields follow what is inside unless told otherwise.


def eth(payload, etype=ETH_IP4, tags=()):
    head = b"\x02\x00\x00\x00\x00\x02\x02\x00\x00\x00\x00\x01"
    for tpid, vid in tags:
        head += struct.pack("!HH", tpid, vid)
    return head + struct.pack("!H", etype) + payload


def vlan_eth(payload, tags, etype=ETH_IP4):
    return eth(payload, etype, tags)


def ipv4(src, dst, proto, payload, ident=1, frag=0, ttl=64, options=b"", total=None, ihl=None,
         version=4):
    words = ihl if ihl is not None else 5 + len(options) // 4
    length = total if total is not None else 20 + len(options) + len(payload)
    head = struct.pack("!BBHHHBBH4s4s", version << 4 | (words & 15), 0, length & 0xFFFF,
                       ident & 0xFFFF, frag, ttl, proto, 0, src, dst) + options
    head = head[:10] + struct.pack("!H", checksum(head)) + head[12:]
    return head + payload


def ipv6(src, dst, nh, payload, plen=None):
    length = plen if plen is not None else len(payload)
    return struct.pack("!IHBB16s16s", 0x60000000, length & 0xFFFF, nh, 64, src, dst) + payload


def ext6(nh, payload, units=0, kind=0):
    """An IPv6 options or routing header (8 * (units + 1) bytes)."""
    body = bytes(6 + 8 * units)
    if kind == 43:
        body = b"\x00\x00" + body[2:]
    return struct.pack("!BB", nh, units) + body + payload


def frag6(nh, payload, offset, more, ident):
    return struct.pack("!BBHI", nh, 0, (offset & 0xFFF8) | (1 if more else 0), ident) + payload


def tcp(sport, dport, seq, ack, flags, payload=b"", win=65535, doff=None, options=b""):
    words = doff if doff is not None else 5 + len(options) // 4
    return struct.pack("!HHIIBBHHH", sport, dport, seq & 0xFFFFFFFF, ack & 0xFFFFFFFF,
                       (words & 15) << 4, flags & 0xFF, win, 0, 0) + options + payload


def udp(sport, dport, payload, length=None):
    size = length if length is not None else 8 + len(payload)
    return struct.pack("!HHHH", sport, dport, size & 0xFFFF, 0) + payload


def gre(payload, ptype=ETH_IP4, key=None, seq=None, with_checksum=False):
    flags, extra = 0, b""
    if with_checksum:
        flags |= 0x8000
        extra += b"\0\0\0\0"
    if key is not None:
        flags |= 0x2000
        extra += struct.pack("!I", key)
    if seq is not None:
        flags |= 0x1000
        extra += struct.pack("!I", seq)
    return struct.pack("!HH", flags, ptype) + extra + payload


def vxlan(frame, vni=42):
    return struct.pack("!BBHI", 0x08, 0, 0, vni << 8) + frame


def gtpu(packet, teid=7, extension=False):
    if not extension:
        return struct.pack("!BBHI", 0x30, 0xFF, len(packet), teid) + packet
    # Sequence number and one PDU session container extension header.
    ext = b"\x01\x00\x01\x00"
    body = struct.pack("!HBB", 0, 0, 0x85) + ext + packet
    return struct.pack("!BBHI", 0x36, 0xFF, len(body), teid) + body


def mpls(payload, labels):
    out = b""
    for i, label in enumerate(labels):
        bottom = 1 if i == len(labels) - 1 else 0
        out += struct.pack("!I", (label & 0xFFFFF) << 12 | bottom << 8 | 64)
    return out + payload


def pppoe(packet, proto=0x0021):
    return struct.pack("!BBHHH", 0x11, 0, 0x1234, len(packet) + 2, proto) + packet


# Application messages.


def dns_query(name, ident=0x1234, qtype=1):
    out = struct.pack("!HHHHHH", ident, 0x0100, 1, 0, 0, 0)
    for label in name.split("."):
        out += bytes([len(label)]) + label.encode()
    return out + b"\0" + struct.pack("!HH", qtype, 1)


def dns_answer(name, ident=0x1234):
    q = dns_query(name, ident)
    head = struct.pack("!HHHHHH", ident, 0x8180, 1, 1, 0, 0)
    return head + q[12:] + b"\xc0\x0c" + struct.pack("!HHIH4s", 1, 1, 300, 4, a4("192.0.2.80"))


def tls_client_hello(server):
    name = server.encode()
    sni = struct.pack("!HBH", len(name) + 3, 0, len(name)) + name
    exts = struct.pack("!HH", 0, len(sni)) + sni
    body = (b"\x03\x03" + bytes(range(32)) + b"\x00" + b"\x00\x02\x13\x01" + b"\x01\x00" +
            struct.pack("!H", len(exts)) + exts)
    hs = b"\x01" + struct.pack("!I", len(body))[1:] + body
    return b"\x16\x03\x01" + struct.pack("!H", len(hs)) + hs


HTTP_GET = (b"GET /index.html HTTP/1.1\r\nHost: www.example.com\r\n"
            b"User-Agent: hostile/1.0\r\nAccept: */*\r\n\r\n")
HTTP_OK = (b"HTTP/1.1 200 OK\r\nContent-Type: text/html\r\nContent-Length: 20\r\n\r\n"
           b"<html>hello</html>\r\n")


class Capture:
    def __init__(self, out, rng):
        self.out = out
        self.rng = rng
        self.us = 1_700_000_000 * 1_000_000
        self.count = 0
        self.port = 20000
        self.host = 0
        out.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))

    def frame(self, data, step=50, orig=None):
        self.us += step
        data = data[:65535]
        ts = max(self.us, 0)
        self.out.write(struct.pack("<IIII", ts // 1_000_000, ts % 1_000_000, len(data),
                                   max(orig or 0, len(data))))
        self.out.write(data)
        self.count += 1

    def next_port(self):
        self.port = 20000 + (self.port - 19999) % 40000
        return self.port

    def next_hosts(self):
        """A fresh client and server address pair."""
        self.host += 1
        n = self.host
        return (a4(f"10.{(n >> 8) & 255}.{n & 255}.1"), a4(f"172.16.{(n >> 8) & 255}.{n & 255}"))


class Tcp:
    """Both ends of one TCP connection; `wrap` puts a segment in its frame."""

    def __init__(self, cap, wrap, sport, dport, isn_c=1000, isn_s=5000):
        self.cap, self.wrap, self.sport, self.dport = cap, wrap, sport, dport
        self.seq = [isn_c, isn_s]

    def send(self, side, flags, payload=b"", seq=None, win=65535, advance=True):
        ports = (self.sport, self.dport) if side == 0 else (self.dport, self.sport)
        s = self.seq[side] if seq is None else seq
        seg = tcp(ports[0], ports[1], s, self.seq[1 - side], flags, payload, win)
        self.cap.frame(self.wrap(seg, side))
        if advance and seq is None:
            self.seq[side] = (s + len(payload) + (1 if flags & (TCP_SYN | TCP_FIN) else 0)) \
                & 0xFFFFFFFF

    def handshake(self):
        self.send(0, TCP_SYN)
        self.send(1, TCP_SYN | TCP_ACK)
        self.send(0, TCP_ACK)

    def close(self):
        self.send(0, TCP_FIN | TCP_ACK)
        self.send(1, TCP_FIN | TCP_ACK)
        self.send(0, TCP_ACK)


def v4_wrap(src, dst, proto=6, outer=lambda ip: eth(ip)):
    def wrap(seg, side):
        s, d = (src, dst) if side == 0 else (dst, src)
        return outer(ipv4(s, d, proto, seg))
    return wrap


def v6_wrap(src, dst, proto=6, outer=lambda ip: eth(ip, ETH_IP6)):
    def wrap(seg, side):
        s, d = (src, dst) if side == 0 else (dst, src)
        return outer(ipv6(s, d, proto, seg))
    return wrap


def http_conversation(cap, wrap, sport=None, dport=80):
    conn = Tcp(cap, wrap, sport or cap.next_port(), dport, cap.rng.getrandbits(32),
               cap.rng.getrandbits(32))
    conn.handshake()
    conn.send(0, TCP_PSH | TCP_ACK, HTTP_GET)
    conn.send(1, TCP_ACK)
    conn.send(1, TCP_PSH | TCP_ACK, HTTP_OK)
    conn.send(0, TCP_ACK)
    conn.close()


def dns_exchange(cap, udp_wrap, name="www.example.com", sport=None):
    port = sport or cap.next_port()
    ident = cap.rng.getrandbits(16)
    cap.frame(udp_wrap(udp(port, 53, dns_query(name, ident)), 0))
    cap.frame(udp_wrap(udp(53, port, dns_answer(name, ident)), 1))


def ip_pair_wrap(src, dst, proto, v6=False, outer=None):
    """Wraps transport bytes in IP (and `outer`, Ethernet by default)."""
    def wrap(seg, side):
        s, d = (src, dst) if side == 0 else (dst, src)
        ip = ipv6(s, d, proto, seg) if v6 else ipv4(s, d, proto, seg)
        return (outer or (lambda p: eth(p, ETH_IP6 if v6 else ETH_IP4)))(ip)
    return wrap


# Tunnels: each takes an inner IP packet (version 4) and gives the outer IP
# packet that carries it.


def tunnel_layers(rng, kind, n):
    addr = [a4("198.51.100.1"), a4("198.51.100.2")]

    def one(k):
        if k == "ipip":
            return lambda ip: ipv4(addr[0], addr[1], 4, ip)
        if k == "ip6ip":
            return lambda ip: ipv6(a6(1), a6(2), 4, ip)
        if k == "gre":
            return lambda ip: ipv4(addr[0], addr[1], 47, gre(ip, key=rng.getrandbits(16)))
        if k == "gre-eth":
            return lambda ip: ipv4(addr[0], addr[1], 47, gre(eth(ip), 0x6558, seq=1))
        if k == "vxlan":
            return lambda ip: ipv4(addr[0], addr[1], 17, udp(40000, 4789, vxlan(eth(ip))))
        if k == "gtp":
            return lambda ip: ipv4(addr[0], addr[1], 17, udp(2152, 2152, gtpu(ip)))
        return lambda ip: ipv4(addr[0], addr[1], 17, udp(2152, 2152, gtpu(ip, extension=True)))

    kinds = ["ipip", "ip6ip", "gre", "gre-eth", "vxlan", "gtp", "gtp-ext"]
    return [one(kind if kind != "mixed" else rng.choice(kinds)) for _ in range(n)]


def nest(layers, ip):
    for layer in layers:
        ip = layer(ip)
    return ip


def frame_of(ip):
    return eth(ip, ETH_IP6 if ip and ip[0] >> 4 == 6 else ETH_IP4)


# The sections.


def valid_traffic(cap):
    c, s = cap.next_hosts()
    http_conversation(cap, v4_wrap(c, s))
    http_conversation(cap, v6_wrap(a6(10), a6(11)))
    dns_exchange(cap, ip_pair_wrap(c, a4("192.0.2.53"), 17))
    dns_exchange(cap, ip_pair_wrap(a6(12), a6(53), 17, v6=True), "ipv6.example.org")
    conn = Tcp(cap, v4_wrap(c, s), cap.next_port(), 443)
    conn.handshake()
    conn.send(0, TCP_PSH | TCP_ACK, tls_client_hello("secure.example.net"))
    conn.close()
    # The same behind each kind of link layer.
    links = [
        lambda ip: eth(ip, ETH_IP4, [(ETH_VLAN, 100)]),
        lambda ip: eth(ip, ETH_IP4, [(ETH_QINQ, 10), (ETH_VLAN, 20)]),
        lambda ip: eth(ip, ETH_IP4, [(ETH_QINQ_OLD, 10), (ETH_VLAN, 20)]),
        lambda ip: eth(ip, ETH_IP4, [(ETH_VLAN, i) for i in range(64)]),
        lambda ip: eth(mpls(ip, [16, 17, 18]), ETH_MPLS),
        lambda ip: eth(pppoe(ip), ETH_PPPOE),
    ]
    for link in links:
        c, s = cap.next_hosts()
        http_conversation(cap, v4_wrap(c, s, outer=link))
        dns_exchange(cap, ip_pair_wrap(c, s, 17, outer=link))


def tunnels(cap):
    rng = cap.rng
    for kind in ["ipip", "ip6ip", "gre", "gre-eth", "vxlan", "gtp", "gtp-ext", "mixed"]:
        for depth in (1, 2, 3, 4, 5, 8, 16, 40):
            layers = tunnel_layers(rng, kind, depth)
            c, s = cap.next_hosts()

            def outer(ip, layers=layers):
                return frame_of(nest(layers, ip))
            http_conversation(cap, v4_wrap(c, s, outer=outer))
            dns_exchange(cap, ip_pair_wrap(c, s, 17, outer=outer))
    # Teredo inside Teredo: IPv6 in UDP in IPv6, as deep as the others.
    for depth in (1, 2, 3, 4, 5, 8, 16, 40):
        def outer(ip, depth=depth):
            for _ in range(depth):
                ip = ipv6(teredo6(1), a6(2), 17, udp(40000, 3544, ip))
            return frame_of(ipv4(a4("198.51.100.1"), a4("198.51.100.2"), 17,
                                 udp(40000, 3544, ip)))
        http_conversation(cap, v6_wrap(teredo6(3), a6(4), outer=outer))
    # Teredo whose IPv6 length lies, whose indicators run past the datagram,
    # or whose inner packet has no Teredo or link-local address.
    c, s = cap.next_hosts()
    inner = ipv6(teredo6(5), a6(6), 17, udp(5000, 53, dns_query("teredo.example.com")))
    plen = len(inner) - 40
    cases = [ipv6(teredo6(5), a6(6), 17, inner[40:], plen=n) for n in (0, plen - 1, plen + 1,
                                                                        0xFFFF)]
    cases += [b"\x00\x01\xff\xff" + inner, b"\x00\x01\x00\x00" + bytes(9) + inner,
              b"\x00\x01\x00\x00" + bytes(8), b"\x00\x00\x0d\xd8" + inner,
              b"\x00\x00" + inner, ipv6(a6(5), a6(6), 17, inner[40:]), inner[:39], b"\x60"]
    for case in cases:
        cap.frame(frame_of(ipv4(c, s, 17, udp(40001, 3544, case))))
        cap.frame(frame_of(ipv4(s, c, 17, udp(3544, 40001, case))))
    # Tunnels whose inner packet is damaged, empty or not IP.
    for layer in tunnel_layers(rng, "mixed", 40):
        for inner in (b"", b"\x45", b"\x60" + bytes(10), bytes(40), rng.randbytes(60)):
            cap.frame(frame_of(layer(inner)))


def tcp_hostile(cap):
    rng = cap.rng
    # Overlapping and conflicting segments: a scripted stream with the same
    # sequence ranges sent with different bytes, retransmissions straddling
    # earlier segments, holes, and segments far ahead and far behind.
    for n in range(40):
        c, s = cap.next_hosts()
        isn = rng.getrandbits(32) if n % 4 else 0xFFFFFFFF - rng.randrange(4000)
        conn = Tcp(cap, v4_wrap(c, s), cap.next_port(), rng.choice([80, 53, 443, 21, 25, 8080]),
                   isn, rng.getrandbits(32))
        conn.handshake()
        texts = [HTTP_GET, HTTP_GET.replace(b"GET", b"PUT"), b"\x00\x10" + dns_query("a.b")[:16],
                 rng.randbytes(300), b"X" * 1400]
        base = [conn.seq[0], conn.seq[1]]
        for _ in range(rng.randrange(20, 80)):
            side = rng.randrange(2)
            text = rng.choice(texts)
            at = rng.choice([rng.randrange(0, 200), rng.randrange(0, 4000),
                             rng.randrange(0, 1 << 20), -rng.randrange(1, 3000),
                             rng.randrange(1 << 31, 1 << 32)])
            cut = rng.randrange(0, len(text) + 1)
            part = text[rng.randrange(0, cut + 1):cut]
            flags = rng.choice([TCP_ACK, TCP_ACK | TCP_PSH, TCP_ACK, TCP_ACK | TCP_FIN, TCP_SYN])
            conn.send(side, flags, part, seq=(base[side] + at) & 0xFFFFFFFF,
                      win=rng.choice([0, 1, 65535]))
    # Handcrafted overlaps on one stream: first bytes, then conflicting
    # copies, straddling copies, and a copy that covers a hole and beyond.
    c, s = cap.next_hosts()
    conn = Tcp(cap, v4_wrap(c, s), cap.next_port(), 80, 0x10000, 0x20000)
    conn.handshake()
    b0 = conn.seq[0]
    req = HTTP_GET
    conn.send(0, TCP_ACK, req[10:30], seq=b0 + 10)             # ahead, waits
    conn.send(0, TCP_ACK, b"Z" * 20, seq=b0 + 10)               # same range, other bytes
    conn.send(0, TCP_ACK, b"Y" * 30, seq=b0 + 5)                # straddles its start
    conn.send(0, TCP_ACK, req[25:50], seq=b0 + 25)              # straddles its end
    conn.send(0, TCP_ACK, req[0:12], seq=b0)                    # fills the hole partly
    conn.send(0, TCP_ACK, b"W" * len(req), seq=b0)              # conflicting whole copy
    conn.send(0, TCP_ACK, req[40:], seq=b0 + 40)
    conn.send(0, TCP_ACK, req, seq=b0 - 5)                      # behind and over everything
    conn.send(1, TCP_ACK | TCP_PSH, HTTP_OK)
    conn.close()
    # Sequence numbers across 2^32, in order and out of order, both sides.
    for shuffle in (False, True):
        c, s = cap.next_hosts()
        conn = Tcp(cap, v4_wrap(c, s), cap.next_port(), 80, 0xFFFFFFFF - 700, 0xFFFFFF00)
        conn.handshake()
        body = HTTP_GET + b"".join(b"X-Pad-%d: %s\r\n" % (i, b"p" * 40) for i in range(40))
        body += b"\r\n"
        pieces = [(i, body[i:i + 100]) for i in range(0, len(body), 100)]
        if shuffle:
            rng.shuffle(pieces)
        for at, piece in pieces:
            conn.send(0, TCP_ACK, piece, seq=conn.seq[0] + at)
            if rng.random() < 0.3:  # a retransmission straddling two pieces
                conn.send(0, TCP_ACK, body[at + 50:at + 150], seq=conn.seq[0] + at + 50)
        conn.seq[0] = (conn.seq[0] + len(body)) & 0xFFFFFFFF
        for at in range(0, 3000, 1000):
            conn.send(1, TCP_ACK, (HTTP_OK * 20)[at:at + 1000])
        conn.close()
    # Zero windows and window probes: the server stops the window, the client
    # probes with one byte (the next one, and one already sent), then goes on.
    c, s = cap.next_hosts()
    conn = Tcp(cap, v4_wrap(c, s), cap.next_port(), 80)
    conn.handshake()
    conn.send(0, TCP_ACK | TCP_PSH, HTTP_GET[:20])
    for i in range(30):
        conn.send(1, TCP_ACK, win=0)
        conn.send(0, TCP_ACK, HTTP_GET[20:21], advance=False, win=0)
        conn.send(0, TCP_ACK, HTTP_GET[19:20], seq=conn.seq[0] - 1)
        conn.send(0, TCP_ACK, b"", seq=conn.seq[0] - 1)  # keep-alive
    conn.send(1, TCP_ACK, win=1)
    conn.send(0, TCP_ACK, HTTP_GET[20:])
    conn.send(1, TCP_ACK | TCP_PSH, HTTP_OK, win=0)
    conn.close()
    # Floods: SYNs from many sources, then RSTs and FINs with any sequence
    # number at one connection, and SYNs again on its end points.
    server = a4("192.0.2.80")
    for i in range(3000):
        src = a4(f"100.{64 + (i >> 16)}.{(i >> 8) & 255}.{i & 255}")
        cap.frame(eth(ipv4(src, server, 6, tcp(1024 + i % 60000, 80, rng.getrandbits(32), 0,
                                                  TCP_SYN, win=1024))), step=1)
    c, s = cap.next_hosts()
    sport = cap.next_port()
    conn = Tcp(cap, v4_wrap(c, s), sport, 80)
    conn.handshake()
    for i in range(400):
        flags = (TCP_RST, TCP_RST | TCP_ACK, TCP_FIN, TCP_FIN | TCP_ACK, TCP_SYN)[i % 5]
        conn.send(i & 1, flags, seq=rng.getrandbits(32))
        if i % 50 == 0:
            conn.send(0, TCP_ACK | TCP_PSH, HTTP_GET)
    # Every flag combination, on one connection and each on its own.
    c, s = cap.next_hosts()
    conn = Tcp(cap, v4_wrap(c, s), cap.next_port(), 80)
    for flags in range(256):
        conn.send(flags & 1, flags, HTTP_GET[: flags % 64])
    for flags in range(256):
        c, s = cap.next_hosts()
        Tcp(cap, v4_wrap(c, s), cap.next_port(), 80).send(0, flags, HTTP_GET[: flags % 50])
    # A SYN-ACK before any SYN, a new SYN after the close, a SYN on the
    # reverse direction.
    c, s = cap.next_hosts()
    conn = Tcp(cap, v4_wrap(c, s), cap.next_port(), 80)
    conn.send(1, TCP_SYN | TCP_ACK)
    conn.send(0, TCP_ACK | TCP_PSH, HTTP_GET)
    conn.send(0, TCP_RST)
    conn.send(0, TCP_SYN)
    conn.send(1, TCP_SYN)
    conn.send(0, TCP_ACK | TCP_PSH, HTTP_GET)
    # An HTTP header section that never ends, a segment at a time.
    c, s = cap.next_hosts()
    conn = Tcp(cap, v4_wrap(c, s), cap.next_port(), 80)
    conn.handshake()
    conn.send(0, TCP_ACK, b"GET / HTTP/1.1\r\n")
    for i in range(250):
        conn.send(0, TCP_ACK, b"X-%d: " % i + b"v" * 1300 + (b"\r\n" if i % 2 else b""))
    conn.close()


def fragments4(cap, wrap, src, dst, proto, payload, pieces, ident, extra_flags=0):
    """Sends `payload` (the datagram's IP payload) as IPv4 fragments at the
    given (offset, length) pieces; the last one in the datagram ends it."""
    end = max(o + n for o, n in pieces)
    for offset, length in pieces:
        more = 0x2000 if offset + length < end else 0
        frag = (offset // 8) | more | extra_flags
        cap.frame(wrap(ipv4(src, dst, proto, payload[offset:offset + length], ident=ident,
                            frag=frag)))


def fragments6(cap, wrap, src, dst, nh, payload, pieces, ident):
    end = max(o + n for o, n in pieces)
    for offset, length in pieces:
        body = frag6(nh, payload[offset:offset + length], offset, offset + length < end, ident)
        cap.frame(wrap(ipv6(src, dst, 44, body)))


def fragments(cap):
    rng = cap.rng
    e4 = lambda ip: eth(ip)  # noqa: E731
    e6 = lambda ip: eth(ip, ETH_IP6)  # noqa: E731
    c, s = cap.next_hosts()
    query = udp(cap.next_port(), 53, dns_query("fragmented.example.com"))
    request = tcp(cap.next_port(), 80, 1, 0, TCP_ACK | TCP_PSH, HTTP_GET)
    ident = 100
    tiny4 = [(o, min(8, len(query) - o)) for o in range(0, len(query), 8)]
    for payload, proto in ((query, 17), (request, 6)):
        size = len(payload)
        tiny = [(o, 8) for o in range(0, size - size % 8, 8)] + [(size - size % 8, size % 8)]
        tiny = [p for p in tiny if p[1]]
        orders = [tiny, list(reversed(tiny)), rng.sample(tiny, len(tiny))]
        for order in orders:
            ident += 1
            fragments4(cap, e4, c, s, proto, payload, order, ident)
        # Overlaps: the same range twice with other bytes, and pieces that
        # straddle each other.
        ident += 1
        conflicting = bytes(b ^ 0xFF for b in payload)
        fragments4(cap, e4, c, s, proto, payload, [(0, 16)], ident)
        fragments4(cap, e4, c, s, proto, conflicting, [(0, 24), (8, 16)], ident)
        fragments4(cap, e4, c, s, proto, payload, [(16, size - 16), (8, size - 8)], ident)
        # Two different ends.
        ident += 1
        cap.frame(e4(ipv4(c, s, proto, payload[:16], ident=ident, frag=0x2000)))
        cap.frame(e4(ipv4(c, s, proto, payload[16:24], ident=ident, frag=2)))
        cap.frame(e4(ipv4(c, s, proto, payload[16:], ident=ident, frag=2)))
        cap.frame(e4(ipv4(c, s, proto, payload[8:], ident=ident, frag=1)))
        # IPv6 the same way.
        tiny6 = [(o, min(8, size - o)) for o in range(0, size, 8)]
        for order in (tiny6, rng.sample(tiny6, len(tiny6))):
            ident += 1
            fragments6(cap, e6, a6(20), a6(21), proto, payload, order, ident)
        ident += 1
        fragments6(cap, e6, a6(20), a6(21), proto, payload, [(0, 16), (8, size - 8)], ident)
        fragments6(cap, e6, a6(20), a6(21), proto, conflicting, [(0, size)], ident)
    # Edge fragments: empty, ending past 65535, at the last offset, with a
    # reserved flag, an atomic IPv6 fragment, a fragment inside a tunnel.
    for frag in (0x2000, 0x1FFF, 0x3FFF, 0x1FF0, 0x8000 | 0x2000, 0x4000 | 1):
        for length in (0, 1, 8, 1480):
            cap.frame(e4(ipv4(c, s, 17, rng.randbytes(length), ident=999, frag=frag)))
    cap.frame(e6(ipv6(a6(20), a6(21), 44, frag6(17, query, 0, False, 5))))
    cap.frame(e6(ipv6(a6(20), a6(21), 44, frag6(17, b"", 0xFFF8, False, 6))))
    cap.frame(e6(ipv6(a6(20), a6(21), 44, frag6(17, bytes(100), 0xFFF8, True, 6))))
    for layer in tunnel_layers(rng, "mixed", 12):
        ident += 1
        outer = lambda ip, layer=layer: frame_of(layer(ip))  # noqa: E731
        fragments4(cap, outer, c, s, 17, query, [(0, 8), (8, len(query) - 8)], ident)
    # Datagrams that never complete: the middle piece never comes.
    for i in range(2500):
        src = a4(f"10.200.{(i >> 8) & 255}.{i & 255}")
        fragments4(cap, e4, src, s, 17, query, [(0, 8), (24, len(query) - 24)], i)
        if i % 5 == 0:
            fragments6(cap, e6, a6(1000 + i), a6(21), 17, query, [(0, 8), (32, 8)], i)
    # A flood of one-byte first fragments, more than the reassembly memory
    # holds, then a datagram that must still come out.
    for i in range(8000):
        cap.frame(e4(ipv4(a4(f"10.201.{i >> 8}.{i & 255}"), s, 17, b"x", ident=i, frag=0x2000)),
                  step=1)
    fragments4(cap, e4, c, s, 17, query, tiny4, 7777)


def ext_headers(cap):
    rng = cap.rng
    query = udp(cap.next_port(), 53, dns_query("ext.example.com"))
    e6 = lambda ip: eth(ip, ETH_IP6)  # noqa: E731
    for count in (1, 4, 15, 16, 17, 40):
        body, nh = query, 17
        for i in range(count):
            kind = (0, 60, 43)[i % 3] if i else 0
            body, nh = ext6(nh, body, rng.randrange(3), kind), kind
        cap.frame(e6(ipv6(a6(30), a6(31), nh, body)))
    # Lengths that run past the payload.
    for units in (0, 1, 200, 255):
        cap.frame(e6(ipv6(a6(30), a6(31), 0, struct.pack("!BB", 17, units) + bytes(6) + query)))
        cap.frame(e6(ipv6(a6(30), a6(31), 51, struct.pack("!BB", 17, units) + bytes(10) + query)))


def vlans_and_mpls(cap):
    rng = cap.rng
    c, s = cap.next_hosts()
    query = ipv4(c, s, 17, udp(cap.next_port(), 53, dns_query("tags.example.com")))
    for count in (1, 2, 8, 63, 64, 65, 200):
        for tpid in (ETH_VLAN, ETH_QINQ, ETH_QINQ_OLD, None):
            tags = [(tpid or rng.choice([ETH_VLAN, ETH_QINQ, ETH_QINQ_OLD]), i) for i in
                    range(count)]
            cap.frame(eth(query, ETH_IP4, tags))
        # Tags that run off the end of the frame.
        cap.frame(eth(b"", ETH_VLAN, [(ETH_VLAN, i) for i in range(count)])[:-2])
    for count in (1, 2, 8, 64, 300):
        cap.frame(eth(mpls(query, [rng.randrange(1 << 20) for _ in range(count)]), ETH_MPLS))
        cap.frame(eth(mpls(query, range(count)), 0x8848))
    # No bottom of stack: labels to the end of the frame.
    cap.frame(eth(struct.pack("!I", 16 << 12) * 100, ETH_MPLS))
    cap.frame(eth(mpls(b"\x12\x34" + bytes(30), [16]), ETH_MPLS))
    cap.frame(eth(mpls(b"", [16]), ETH_MPLS))
    # MPLS behind tags, tags behind GRE Ethernet, PPPoE with other protocols.
    cap.frame(eth(mpls(query, [1, 2]), ETH_MPLS, [(ETH_VLAN, 5)] * 10))
    cap.frame(frame_of(ipv4(c, s, 47, gre(eth(mpls(query, [3]), ETH_MPLS, [(ETH_VLAN, 9)] * 64),
                                          0x6558))))
    for proto in (0x0021, 0x0057, 0xC021, 0x0000):
        cap.frame(eth(pppoe(query, proto), ETH_PPPOE))
    cap.frame(eth(b"\x11\x00", ETH_PPPOE))
    cap.frame(eth(bytes(28), ETH_ARP))


def cut_everywhere(cap):
    """Valid packets of several stacks cut at every length, at every layer:
    the bytes inside a layer are cut and the layers outside rebuilt around
    them with their lengths agreeing, then the frame itself is cut."""
    rng = cap.rng
    c, s = a4("10.9.0.1"), a4("10.9.0.2")
    get = tcp(31000, 80, 77, 1, TCP_ACK | TCP_PSH, HTTP_GET)
    dns = udp(31001, 53, dns_query("cut.example.com"))
    tls = tcp(31002, 443, 9, 1, TCP_ACK | TCP_PSH, tls_client_hello("cut.example.net"))
    # Each stack: its layers from the outside in, then the innermost bytes.
    stacks = [
        [lambda p: eth(p), lambda p: ipv4(c, s, 6, p), get],
        [lambda p: eth(p, ETH_IP6, [(ETH_VLAN, 1), (ETH_QINQ, 2)]),
         lambda p: ipv6(a6(40), a6(41), 17, p), dns],
        [lambda p: eth(p), lambda p: ipv4(c, s, 47, p), lambda p: gre(p, key=5),
         lambda p: ipv4(s, c, 6, p), get],
        [lambda p: eth(p), lambda p: ipv4(c, s, 17, p), lambda p: udp(5000, 4789, p),
         lambda p: vxlan(p), lambda p: eth(p), lambda p: ipv4(s, c, 17, p), dns],
        [lambda p: eth(p, ETH_IP6), lambda p: ipv6(a6(42), a6(43), 17, p),
         lambda p: udp(2152, 2152, p), lambda p: gtpu(p, extension=True),
         lambda p: ipv4(c, s, 6, p), get],
        [lambda p: eth(p, ETH_MPLS), lambda p: mpls(p, [20, 21, 22]),
         lambda p: ipv4(c, s, 41, p), lambda p: ipv6(a6(44), a6(45), 6, p), tls],
        [lambda p: eth(p, ETH_PPPOE), lambda p: pppoe(p), lambda p: ipv4(c, s, 17, p), dns],
        [lambda p: eth(p, ETH_IP6), lambda p: ipv6(a6(46), a6(47), 0, p),
         lambda p: ext6(60, p, 1), lambda p: ext6(44, p), lambda p: frag6(17, p, 0, True, 9),
         dns],
        [lambda p: eth(p), lambda p: ipv4(c, s, 6, p, options=b"\x01\x01\x01\x00"), tls],
    ]
    for stack in stacks:
        layers, inner = stack[:-1], stack[-1]
        for k in range(len(layers) + 1):
            body = inner
            for layer in reversed(layers[k:]):
                body = layer(body)
            for cut in range(len(body) + 1):
                data = body[:cut]
                for layer in reversed(layers[:k]):
                    data = layer(data)
                cap.frame(data, step=1, orig=len(body))


def bad_fields(cap):
    rng = cap.rng
    c, s = cap.next_hosts()
    seg = tcp(32000, 80, 1, 1, TCP_ACK | TCP_PSH, HTTP_GET)
    dgram = udp(32001, 53, dns_query("bad.example.com"))
    for ihl in range(16):
        for total in (0, 19, ihl * 4 - 1, ihl * 4, ihl * 4 + 8, 20 + len(seg), 21 + len(seg),
                      65535):
            cap.frame(eth(ipv4(c, s, 6, seg, ihl=ihl, total=max(total, 0))))
    for version in range(16):
        cap.frame(eth(ipv4(c, s, 17, dgram, version=version)))
        cap.frame(eth(ipv4(c, s, 17, dgram, version=version), ETH_IP6))
    for plen in (0, 7, 8, len(dgram) - 1, len(dgram), len(dgram) + 1, 65535):
        cap.frame(eth(ipv6(a6(50), a6(51), 17, dgram, plen=plen), ETH_IP6))
    for doff in range(16):
        cap.frame(eth(ipv4(c, s, 6, tcp(32000, 80, 1, 1, TCP_ACK, HTTP_GET, doff=doff))))
    for length in (0, 1, 7, 8, 9, len(dgram) - 1, len(dgram) + 1, 65535):
        cap.frame(eth(ipv4(c, s, 17, udp(32001, 53, dgram[8:], length=length))))
    # Trailing link padding behind a short IP packet, and IP options of odd
    # lengths.
    cap.frame(eth(ipv4(c, s, 17, dgram) + bytes(200)))
    for opts in (b"\x07\x00\x00\x00", b"\x44\xff\x00\x00", b"\x01" * 40):
        cap.frame(eth(ipv4(c, s, 6, seg, options=opts)))
    # Other IP protocols, with and without bytes.
    for proto in (0, 1, 2, 50, 58, 132, 255):
        cap.frame(eth(ipv4(c, s, proto, rng.randbytes(rng.randrange(64)))))
        cap.frame(eth(ipv6(a6(50), a6(51), proto, rng.randbytes(rng.randrange(64))), ETH_IP6))
    # The largest frame, and an empty one.
    cap.frame(eth(ipv4(c, s, 17, udp(32002, 53, rng.randbytes(65535 - 14 - 28)))))
    cap.frame(b"")


def hostile_payloads(cap):
    rng = cap.rng
    c, s = cap.next_hosts()
    w = ip_pair_wrap(c, s, 17)
    bad_dns = [
        # A compression pointer to itself, and two pointing at each other.
        struct.pack("!HHHHHH", 1, 0x0100, 1, 0, 0, 0) + b"\xc0\x0c" + b"\x00\x01\x00\x01",
        struct.pack("!HHHHHH", 1, 0x8180, 1, 1, 0, 0) + b"\x01a\xc0\x12\x00\x01\x00\x01" +
        b"\xc0\x0c\x00\x01\x00\x01" + bytes(6),
        # Counts far beyond the message, a label past the end, 63-byte labels.
        struct.pack("!HHHHHH", 1, 0x8180, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF) + b"\x3fabc",
        struct.pack("!HHHHHH", 1, 0x0100, 1, 0, 0, 0) + (b"\x3f" + b"a" * 63) * 5 + b"\x00\0\1\0\1",
        struct.pack("!HHHHHH", 1, 0x8180, 1, 1, 0, 0) + dns_query("x.y")[12:] +
        b"\xc0\x0c\x00\x10\x00\x01\x00\x00\x00\x01\xff\xff" + b"t" * 20,
        b"\x00" * 11, b"",
    ]
    for msg in bad_dns:
        port = cap.next_port()
        cap.frame(w(udp(port, 53, msg), 0))
        cap.frame(w(udp(53, port, msg), 1))
        cap.frame(w(udp(5353, 5353, msg), 0))
    for i in range(60):
        cap.frame(w(udp(cap.next_port(), 53, dns_query("a.b")[:12] + rng.randbytes(i * 5)), 0))
    # DNS over TCP with lengths that lie.
    conn = Tcp(cap, v4_wrap(c, s), cap.next_port(), 53)
    conn.handshake()
    for length in (0, 1, 12, 0xFFFF):
        conn.send(0, TCP_ACK, struct.pack("!H", length) + dns_query("t.example.com"))
    conn.close()
    # Random bytes to every decoder's ports, over both transports, with the
    # start of a valid message in front half the time.
    starts = [HTTP_GET, HTTP_OK, b"SSH-2.0-", b"220 ", b"+OK ", b"* OK ", b"RTSP/1.0 200",
              b"INVITE sip:a@b SIP/2.0\r\n", b"NOTIFY * HTTP/1.1\r\n", b"\x16\x03\x01\x02\x00",
              b"\xc0\x00\x00\x00\x01", b"USER x\r\n", b"EHLO a\r\n"]
    for port in (21, 22, 25, 53, 80, 110, 143, 443, 554, 1900, 5060, 8080):
        for proto in (6, 17):
            for _ in range(6):
                c, s = cap.next_hosts()
                head = rng.choice(starts)[: rng.randrange(40)] if rng.random() < 0.5 else b""
                data = head + rng.randbytes(rng.randrange(1, 1400))
                if proto == 17:
                    cap.frame(eth(ipv4(c, s, 17, udp(cap.next_port(), port, data))))
                    continue
                conn = Tcp(cap, v4_wrap(c, s), cap.next_port(), port, rng.getrandbits(32))
                conn.handshake()
                conn.send(0, TCP_ACK | TCP_PSH, data)
                conn.send(1, TCP_ACK | TCP_PSH, rng.randbytes(rng.randrange(1, 600)))


def ber(tag, body, length=None):
    """A BER element; `length` (bytes of the length field, already encoded)
    replaces the true one when given."""
    if length is None:
        n = len(body)
        length = bytes([n]) if n < 128 else b"\x82" + struct.pack("!H", n)
    return bytes([tag]) + length + body


def service_exchanges(cap, proto, port, messages):
    """Each message from the client to `port`, then from `port` back to the
    client, on a fresh pair of hosts; over TCP each on a connection of its
    own, and once more cut into three-byte segments."""
    for msg in messages:
        c, s = cap.next_hosts()
        if proto == 17:
            w = ip_pair_wrap(c, s, 17)
            sport = cap.next_port()
            cap.frame(w(udp(sport, port, msg), 0))
            cap.frame(w(udp(port, sport, msg), 1))
            continue
        for side in (0, 1):
            for step in (len(msg) or 1, 3):
                conn = Tcp(cap, v4_wrap(c, s), cap.next_port(), port)
                conn.handshake()
                for at in range(0, len(msg), step):
                    conn.send(side, TCP_ACK | TCP_PSH, msg[at:at + step])
                conn.close()


def lying_lengths(cap):
    """The application decoders' length fields made to lie: BER lengths past
    their record, attribute and option lengths past their packet, names
    longer than said or than their packet, strings without their ends."""
    huge4 = b"\x84\xff\xff\xff\xff"
    # SNMP: the message, the community and the PDU each longer than the
    # datagram, lengths of five and nine bytes, an indefinite length.
    version = ber(0x02, b"\x01")
    community = ber(0x04, b"public")
    pdu = ber(0xA0, ber(0x02, b"\x01") + ber(0x02, b"\x00") * 2 + ber(0x30, b""))
    snmp = [
        ber(0x30, version + community + pdu, b"\x82\xff\xff"),
        ber(0x30, version + ber(0x04, b"public", b"\x7f") + pdu),
        ber(0x30, version + community + ber(0xA0, pdu[2:], huge4)),
        ber(0x30, version + community + pdu, b"\x88" + b"\xff" * 8),
        ber(0x30, version + community + pdu, b"\x80") + b"\0\0",
        ber(0x30, version + ber(0x04, b"public", b"\x84\x00\x00\x00\x06") + pdu),
        ber(0x30, ber(0x02, b"\x03") + ber(0x30, b"\x02\x01", b"\x82\x10\x00")),
    ]
    for port in (161, 162):
        service_exchanges(cap, 17, port, snmp)
    # LDAP over TCP: the message, the bind DN and the search base past the
    # record.
    bind = ber(0x60, ber(0x02, b"\x03") + ber(0x04, b"cn=admin", b"\x81\xf0") + ber(0x80, b"pw"))
    search = ber(0x63, ber(0x04, b"dc=example", huge4))
    ldap = [
        ber(0x30, ber(0x02, b"\x01") + bind, huge4),
        ber(0x30, ber(0x02, b"\x01") + bind),
        ber(0x30, ber(0x02, b"\x02") + search),
        ber(0x30, ber(0x02, b"\x03", b"\x7f") + search),
        ber(0x30, ber(0x02, b"\x04") + ber(0x61, ber(0x0A, b"\x00"), b"\x83\xff\xff\xff")),
    ]
    service_exchanges(cap, 6, 389, ldap)
    # Kerberos: an AS-REQ whose lengths run past the datagram or the record,
    # over UDP and TCP (whose four-byte record length lies as well).
    realm = ber(0xA2, ber(0x1B, b"EXAMPLE.ORG", b"\x82\x7f\xff"))
    body = ber(0xA4, ber(0x30, realm, b"\x81\x80"))
    as_req = [
        ber(0x6A, ber(0x30, ber(0xA1, ber(0x02, b"\x05")) + body), huge4),
        ber(0x6A, ber(0x30, ber(0xA1, ber(0x02, b"\x05")) + ber(0xA2, ber(0x02, b"\x0a")) + body)),
        ber(0x6A, ber(0x30, b"", b"\x84\x7f\xff\xff\xff")),
        ber(0x7E, ber(0x30, ber(0xA0, ber(0x02, b"\x05"), b"\x82\xff\xff"))),
    ]
    service_exchanges(cap, 17, 88, as_req)
    service_exchanges(cap, 6, 88, [struct.pack("!I", len(m)) + m for m in as_req] +
                      [b"\x7f\xff\xff\xff" + as_req[1], b"\x00\x00\x00\x02" + as_req[1]])
    # RADIUS: a length field past the datagram and below the header, and
    # attributes of length 0, 1 and past the packet.
    def radius(code, attrs, length=None):
        size = 20 + len(attrs) if length is None else length
        return struct.pack("!BBH", code, 7, size) + bytes(range(16)) + attrs
    radius_msgs = [
        radius(1, b"\x01\x06user", 4096), radius(1, b"\x01\x06user", 19),
        radius(1, b"\x01\x00user"), radius(1, b"\x01\x01user"), radius(1, b"\x01\xffuser"),
        radius(2, b"\x12\x05ok" + b"\x01\x40user"), radius(4, b"\x1a\xff\x00\x00\x00\x09"),
    ]
    for port in (1812, 1813):
        service_exchanges(cap, 17, port, radius_msgs)
    # DHCP: options past the datagram, a hardware address length past its
    # field, no end option; DHCPv6 options past the datagram.
    def bootp(op, options, hlen=6):
        head = struct.pack("!BBBBIHH", op, 1, hlen, 0, 0x1234, 0, 0) + bytes(16)
        return head + bytes(16) + bytes(192) + b"\x63\x82\x53\x63" + options
    dhcp = [
        bootp(1, b"\x35\x01\x01\x0c\xffhost"),
        bootp(1, b"\x35\x01\x03\x3d\x00\x32\x04\x0a"),
        bootp(2, b"\x35\x01\x02\x3c\x80vendor"),
        bootp(1, b"\x35\x01\x01" + b"\x00" * 40, hlen=255),
        bootp(1, b"\x35\x05\x01"),
    ]
    service_exchanges(cap, 17, 67, dhcp)
    service_exchanges(cap, 17, 68, dhcp)
    dhcp6 = [b"\x01\x00\x00\x01" + b"\x00\x01\xff\xff\x00\x01",
             b"\x02\x00\x00\x01" + b"\x00\x01\x00\x04\x00\x03" + b"\x00\x02\x00\x40\x00",
             b"\x03\x00\x00\x01" + b"\x00\x27\x00\x20\x01abc"]
    # A client name of more labels than any name holds.
    fqdn = b"\x00" + (b"\x3f" + b"n" * 63) * 6 + b"\x00"
    dhcp6.append(b"\x01\x00\x00\x01" + b"\x00\x01\x00\x02\x00\x01" + b"\x00\x27" +
                 struct.pack("!H", len(fqdn)) + fqdn)
    service_exchanges(cap, 17, 547, dhcp6)
    service_exchanges(cap, 17, 546, dhcp6)
    # NetBIOS: the encoded name's length byte other than 32, past the
    # packet, a pointer to itself; session requests the same over TCP.
    def ns(flags, name_len, name, qd=1):
        return struct.pack("!HHHHHH", 0x4242, flags, qd, 0, 0, 0) + bytes([name_len]) + name + \
            b"\x00\x00\x20\x00\x01"
    encoded = b"EB" * 16
    netbios = [ns(0x0110, 0x3f, encoded), ns(0x0110, 0xff, encoded[:5]),
               ns(0x0110, 0x20, encoded[:10]), ns(0x8500, 0xc0, b"\x0c"),
               ns(0x0110, 0x20, encoded, qd=0xffff)]
    service_exchanges(cap, 17, 137, netbios)
    dgm = [struct.pack("!BBHIHHH", 0x11, 2, 1, 0x0a000001, 138, 0xfff0, 0) + b"\x20" + encoded,
           struct.pack("!BBHIHHH", 0x10, 2, 1, 0x0a000001, 138, 68, 0) + b"\xff" + encoded[:4]]
    service_exchanges(cap, 17, 138, dgm)
    session = [b"\x81\x00\x00\x44" + b"\x20" + encoded + b"\x00" + b"\xff" + encoded[:6],
               b"\x81\x00\xff\xff" + b"\x20" + encoded, b"\x81\x01\x00\x44" + b"\x40" + encoded,
               b"\x82\x00\x00\x00", b"\x83\x00\x00\x01"]
    service_exchanges(cap, 6, 139, session)
    # TFTP: file names and modes without their terminating zero, options
    # without values, an error without the end of its text.
    tftp = [b"\x00\x01file.txt", b"\x00\x01file.txt\x00octet", b"\x00\x02" + b"n" * 500,
            b"\x00\x01f\x00netascii\x00blksize\x001428\x00tsize", b"\x00\x05\x00\x01not found",
            b"\x00\x06blksize\x00"]
    service_exchanges(cap, 17, 69, tftp)
    # SOCKS: more methods than sent, a name length of 255 with three bytes
    # of name, a user name past the request, SOCKS 4a without the ends of
    # its user id and name.
    socks = [b"\x05\xff\x00\x02", b"\x05\x01\x00" + b"\x05\x01\x00\x03\xffabc\x00\x50",
             b"\x05\x01\x02" + b"\x01\xffuser", b"\x05\x01\x00\x03\x00\x00\x50",
             b"\x04\x01\x00\x50\x00\x00\x00\x01user", b"\x04\x01\x00\x50\x00\x00\x00\x01\x00host",
             b"\x05\x00\x00\x03\xff" + b"h" * 20]
    service_exchanges(cap, 6, 1080, socks)
    # VNC: version lines cut short, a type count past the packet, a failure
    # whose reason is longer than sent.
    vnc = [b"RFB 003.0", b"RFB 003.008", b"RFB ", b"RFB 003.008\n\xff\x01",
           b"RFB 003.003\n\x00\x00\x00\x00\xff\xff\xff\xffno", b"RFB 003.008\nRFB 003.008\n\x00"]
    for port in (5900, 5901):
        service_exchanges(cap, 6, port, vnc)
    # HTTP/2: frames longer than sent or than any frame may be, padding past
    # its frame, endless CONTINUATION, and header blocks whose integers,
    # string lengths, indices, table sizes and Huffman codes lie.
    def h2(kind, flags, stream, payload, length=None):
        size = len(payload) if length is None else length
        return struct.pack("!I", size)[1:] + bytes([kind, flags]) + struct.pack("!I", stream) + \
            payload
    preface = b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" + h2(4, 0, 0, b"\x00\x03\x00\x00\x00\x64")
    blocks = [b"\x82\x86\x84\x41\x7f" + b"\xff" * 8, b"\x82\x41\x7f\xff\xff\xff\x7f" + b"x" * 8,
              b"\x82\xff\xff\xff\xff\x0f", b"\x3f\xff\xff\xff\xff\x0f\x82",
              b"\x82\x41\x84\xff\xff\xff\xff", b"\x40\x7f\x10abc\x03def", b"\x82\x20\x84"]
    http2 = [preface + h2(1, 5, 1, blk) for blk in blocks] + [
        preface + h2(1, 5, 1, b"\x82\x84", length=0xffffff),
        preface + h2(1, 0x0d, 1, b"\xff\x82\x84"),
        preface + h2(1, 0x25, 1, b"\x00\x00\x00\x01"),
        preface + h2(1, 1, 1, b"\x82") + b"".join(h2(9, 0, 1, b"\x84") for _ in range(600)),
        preface + h2(1, 1, 1, b"\x82") + h2(9, 4, 3, b"\x84"),
        preface + h2(5, 4, 1, b"\x00\x00", length=2),
        h2(4, 0, 0, b"\x00\x05\x00\x00\x40\x00") + h2(0, 0, 1, b"data", length=0xffffff),
        h2(4, 0, 0, b"", length=0xfffff6) + h2(4, 1, 0, b""),
    ]
    for port in (80, 8080):
        service_exchanges(cap, 6, port, http2)
    # CoAP: an option length past the datagram (extended to two bytes), a
    # token longer than sent, a path of many long segments (past what is
    # kept), a payload marker with nothing behind it.
    coap = [b"\x41\x01\x00\x01\x01" + b"\xbe\xff\xf0abc", b"\x48\x01\x00\x02\x01\x02",
            b"\x40\x01\x00\x03" + b"\xbd\xf0" + b"p" * 253 + (b"\x0d\xf0" + b"q" * 253) * 4,
            b"\x40\x01\x00\x04" + b"\xb1a" + b"\x01b" * 600, b"\x40\x02\x00\x05\xff"]
    service_exchanges(cap, 17, 5683, coap)
    # Modbus/TCP: lengths of 0, 1 and past the longest PDU; byte counts past
    # the record.
    modbus = [b"\x00\x01\x00\x00\xff\xff\x01\x03", b"\x00\x01\x00\x00\x00\x00",
              b"\x00\x01\x00\x00\x00\x01\x01", b"\x00\x01\x00\x00\x00\x07\x01\x10\x00\x01\x00\x02\xff",
              b"\x00\x01\x00\x00\x00\x04\x01\x03\xfe\x00"]
    service_exchanges(cap, 6, 502, modbus)
    # DNP3: a length of 255 with a short frame, many link frames in a row, a
    # length below the header's.
    link = bytes.fromhex("056405c90a000100feda")
    dnp3 = [bytes.fromhex("0564ffc40a000100") + b"\x00" * 30, link * 300,
            bytes.fromhex("056400c40a000100acd1"), bytes.fromhex("05640bc40a000100acd1c0c0")]
    service_exchanges(cap, 6, 20000, dnp3)
    service_exchanges(cap, 17, 20000, dnp3)
    # WireGuard: each message type a byte short and long, data not in
    # blocks.
    wg = [b"\x01\x00\x00\x00" + b"\x11" * 143, b"\x02\x00\x00\x00" + b"\x22" * 89,
          b"\x03\x00\x00\x00" + b"\x33" * 61, b"\x04\x00\x00\x00" + b"\x44" * 29,
          b"\x04\x00\x00\x00" + b"\x44" * 33]
    service_exchanges(cap, 17, 51820, wg)
    # OpenVPN: a reset whose acknowledgement count runs past the packet,
    # TCP lengths of 0xffff and 0.
    reset = b"\x38" + b"\x5a" * 8 + b"\xff" + b"\x00" * 4
    service_exchanges(cap, 17, 1194, [reset, b"\x38", b"\x40" + b"\x5a" * 8])
    service_exchanges(cap, 6, 1194, [b"\xff\xff" + reset, b"\x00\x00" + reset,
                                     struct.pack("!H", len(reset)) + reset])
    # IKE: a length past the datagram and of 0xffffffff, payloads of length
    # 0, 3 and past the message, a chain longer than any message has, the
    # NAT traversal marker alone.
    def ike(payloads, next_payload=41, length=None):
        size = 28 + len(payloads) if length is None else length
        return b"\x11" * 8 + bytes(8) + bytes([next_payload, 0x20, 34, 0x08]) + bytes(4) + \
            struct.pack("!I", size) + payloads
    chain = b"".join(b"\x29\x00\x00\x04" for _ in range(200)) + b"\x00\x00\x00\x04"
    ike_msgs = [ike(b"", length=0xffffffff), ike(b"\x00\x00\x00\x00"), ike(b"\x00\x00\x00\x03"),
                ike(b"\x00\x00\xff\xff"), ike(chain), ike(b"\x00\x00\x00\x04", length=29),
                b"\x00\x00\x00\x00", b"\x00\x00\x00\x00" + ike(b"\x2e\x00\xff\xf0", 46)]
    service_exchanges(cap, 17, 500, ike_msgs)
    service_exchanges(cap, 17, 4500, ike_msgs)
    # STUN: a body length past the datagram, attributes past their message,
    # an allocation's address of the wrong size for its family, hundreds of
    # empty attributes, a name of bytes that are not text; over TCP behind
    # a two-byte length that lies, ChannelData of 64 KB after a message.
    def stun(mtype, attrs, length=None, cookie=b"\x21\x12\xa4\x42"):
        size = len(attrs) if length is None else length
        return struct.pack("!HH", mtype, size) + cookie + bytes(range(12)) + attrs
    def stun_attr(atype, value, length=None):
        size = len(value) if length is None else length
        return struct.pack("!HH", atype, size) + value + bytes(-len(value) % 4)
    stun_msgs = [
        stun(0x0001, b"", 0xfffc), stun(0x0001, stun_attr(0x0006, b"user", 0xffff)),
        stun(0x0103, stun_attr(0x0016, b"\x00\x02\x12\x34\x01\x02\x03\x04")),
        stun(0x0103, stun_attr(0x0016, b"\x00\x01\x12\x34\x01\x02\x03") * 8),
        stun(0x0001, b"\x00\x00\x00\x00" * 300),
        stun(0x0001, stun_attr(0x0006, b"\xf4\x90\x80\x80\xc0" * 120) +
             stun_attr(0x8022, b"\xe2\x82" * 70)),
        stun(0x0101, stun_attr(0x0001, b"\x00\x01\x00\x50\x01\x02"), cookie=b"\x00" * 4),
    ]
    service_exchanges(cap, 17, 3478, stun_msgs)
    service_exchanges(cap, 6, 3478, stun_msgs + [
        struct.pack("!H", 0xffff) + stun(0x0001, b""),
        struct.pack("!H", 20) + stun(0x0001, b"", 0x40),
        stun(0x0001, b"") + b"\x40\x00\xff\xff" + bytes(64)])
    # DTLS: a record length past the datagram, fragments past their message
    # and at the end of the 24-bit range, a hello longer than any kept, a
    # cookie longer than the HelloVerifyRequest, a hundred empty records,
    # and first fragments of hellos on many flows at once.
    def dtls_record(ctype, body, length=None):
        size = len(body) if length is None else length
        return struct.pack("!BHH6sH", ctype, 0xfefd, 0, bytes(6), size) + body
    def dtls_hs(mtype, body, length, offset=0):
        return struct.pack("!B3sH3s3s", mtype, length.to_bytes(3, "big"), 0,
                           offset.to_bytes(3, "big"), len(body).to_bytes(3, "big")) + body
    hello = b"\xfe\xfd" + bytes(32) + b"\x00\xff" + b"\x00\x02\x13\x01\x01\x00"
    dtls_msgs = [
        dtls_record(22, dtls_hs(1, hello, len(hello)), 0xffff),
        dtls_record(22, dtls_hs(1, hello, 0xffffff, 0xfffff0)),
        dtls_record(22, dtls_hs(1, hello, 0x10000)),
        dtls_record(22, dtls_hs(3, b"\xfe\xff\xff\x01\x02\x03", 6)),
        dtls_record(22, dtls_hs(1, hello, len(hello))),
        dtls_record(23, b"") * 100,
    ] + [dtls_record(22, dtls_hs(1, hello, 4000)) for _ in range(6)]
    service_exchanges(cap, 17, 4433, dtls_msgs)
    # A server's certificate after its hello, TLS and DTLS: a leaf longer
    # than its list, than the 16 KB kept, or than the message; lengths
    # inside the certificate past its end (BER's longest forms); a
    # certificate of nested empty sequences; DTLS fragments of the
    # Certificate message past its end and out of order.
    def tls_record(body):
        return struct.pack("!BHH", 22, 0x0303, len(body)) + body
    def tls_hs(mtype, body, length=None):
        return bytes([mtype]) + (len(body) if length is None else length).to_bytes(3, "big") + body
    server_hello = b"\x03\x03" + bytes(32) + b"\x00\xc0\x2f\x00"
    def cert_list(leaf, leaf_len=None, list_len=None):
        entry = (len(leaf) if leaf_len is None else leaf_len).to_bytes(3, "big") + leaf
        return (len(entry) if list_len is None else list_len).to_bytes(3, "big") + entry
    lying_der = b"\x30\x84\xff\xff\xff\xff\x30\x84\x00\x00\x00\x10" + bytes(40)
    nested = b"\x30\x82\x01\x2c" + b"\x30\x81\x80" * 100
    bodies = [cert_list(lying_der, 20, 23), cert_list(lying_der, 0xffffff),
              cert_list(b"\x30" * 20000), cert_list(lying_der, list_len=0xffffff),
              cert_list(nested), cert_list(b"")]
    tls_msgs = [tls_record(tls_hs(2, server_hello)) + tls_record(tls_hs(11, b))
                for b in bodies[:2] + bodies[3:]]
    big = tls_hs(11, bodies[2])
    tls_msgs.append(tls_record(tls_hs(2, server_hello)) +
                    b"".join(tls_record(big[i:i + 16384]) for i in range(0, len(big), 16384)))
    service_exchanges(cap, 6, 443, tls_msgs)
    dtls_server_hello = b"\xfe\xfd" + bytes(32) + b"\x00\xc0\x2f\x00"
    dtls_certs = [dtls_record(22, dtls_hs(2, dtls_server_hello, len(dtls_server_hello), 0) +
                              dtls_hs(11, b[:300], len(b), off))
                  for b in bodies for off in (0, 0xfff0, len(b))]
    service_exchanges(cap, 17, 4433, dtls_certs)
    # Redis: counts and lengths past any bound and past the packet, a name
    # longer than kept, an inline line that never ends.
    redis = [b"*99999999999\r\n", b"*3\r\n$999999999999\r\nGET\r\n", b"*1\r\n$-1\r\n",
             b"*2\r\n$3\r\nGET\r\n$536870913\r\nx", b"*1\r\n$40\r\n" + b"A" * 40 + b"\r\n",
             b"PING\r\n" + b"x" * 2000, b"PING\r" + b"\r" * 10, b"*1\r\n$4\r\nPING\r\n" * 40]
    service_exchanges(cap, 6, 6379, redis)
    # Memcached: data blocks past any bound, a key line past the bound, a
    # binary key and body longer than sent, and over UDP behind the frame
    # header, a sequence past its count.
    memcached = [b"set k 0 0 99999999999\r\nabc", b"set k 0 0 4294967300\r\n",
                 b"get " + b"k" * 9000 + b"\r\n", b"\x80\x00\xff\xff\xff\x00\x00\x00\xff\xff\xff\xff" + bytes(12),
                 b"\x80\x01\x00\x03\x08\x00\x00\x00\x00\x00\x00\x02" + bytes(12) + b"abc"]
    service_exchanges(cap, 6, 11211, memcached)
    service_exchanges(cap, 17, 11211, [b"\x00\x01\x00\x00\x00\x01\x00\x00" + m for m in memcached] +
                      [b"\x00\x01\xff\xff\x00\x01\x00\x00get k\r\n"])
    # MQTT: a remaining length of five bytes, a protocol name, properties,
    # a client id and a topic longer than their packet.
    connect = b"\x10\x0c\x00\x04MQTT\x04\x02\x00\x3c\x00\x00"
    mqtt = [b"\x10\xff\xff\xff\xff\x7f", b"\x10\x0c\x00\xffMQTT\x04\x02\x00\x3c\x00\x00",
            b"\x10\x10\x00\x04MQTT\x05\x82\x00\x3c\xff\xff\xff\x0f\x00\x03abc",
            b"\x10\x0c\x00\x04MQTT\x04\x02\x00\x3c\xff\xff",
            connect + b"\x30\xff\xff\xff\x7f\xff\xff", connect + b"\x82\x06\x00\x01\xff\xffab"]
    service_exchanges(cap, 6, 1883, mqtt)
    # AMQP: headers cut short, a frame size past any bound, headers again
    # and again.
    amqp = [b"AMQP", b"AMQP\x00\x00\x09", b"\x01\x00\x00\xff\xff\xff\xff\x00\x0a\x00\x0a\x00\x09",
            b"AMQP\x00\x01\x00\x00" * 50]
    service_exchanges(cap, 6, 5672, amqp)
    # MySQL: a greeting whose version runs past its packet, a packet length
    # of 16 MB that never comes, a handshake response whose user and
    # database have no end and whose auth length runs past the packet.
    def mysql(seq, payload, length=None):
        n = len(payload) if length is None else length
        return struct.pack("<I", n)[:3] + bytes([seq]) + payload
    response = struct.pack("<IIB", 0x0000a28d, 1 << 24, 33) + bytes(23)
    mysql_msgs = [mysql(0, b"\x0a5.7.0" + b"v" * 60), mysql(0, b"\x0a8.0\x00" + bytes(20), 0xffffff),
                  mysql(1, response + b"user-without-end"), mysql(1, response + b"u\x00\xffab"),
                  mysql(1, response[:4] + b"\xff" * 28), mysql(0, b"\x02" + b"d" * 40, 8)]
    service_exchanges(cap, 6, 3306, mysql_msgs)
    # PostgreSQL: startups whose length lies either way, parameters without
    # their ends, typed messages of lengths past the stream and of 2^32 - 1.
    startup = b"\x00\x03\x00\x00user\x00kest\x00database\x00"
    pgsql_msgs = [struct.pack("!I", len(startup) + 4) + startup, struct.pack("!I", 9999) + startup,
                  struct.pack("!I", 6) + startup, struct.pack("!II", 8, 80877103) + b"S" * 9,
                  b"Q\xff\xff\xff\xffselect", b"R\x00\x00\x00\x08\x00\x00\x00\x00Z\x00\x00\x00\x05I" +
                  b"S\x00\x00\x00\x40server_version"]
    service_exchanges(cap, 6, 5432, pgsql_msgs)
    # TDS: pre-login options past the packet and without their end, LOGIN7
    # offsets and lengths past the message, a packet length below its
    # header and of 64 KB.
    def tds(kind, payload, length=None):
        n = 8 + len(payload) if length is None else length
        return struct.pack("!BBHHBB", kind, 1, n, 0, 1, 0) + payload
    login = bytearray(94)
    struct.pack_into("<II", login, 0, 94, 0x74000004)
    for at in range(36, 72, 4):
        struct.pack_into("<HH", login, at, 90, 0xffff)
    tds_msgs = [tds(0x12, b"\x00\x00\x06\x00\x06" * 40), tds(0x12, b"\x00\xff\xf0\x00\x06\xff"),
                tds(0x10, bytes(login)), tds(0x10, bytes(login[:40])), tds(0x12, b"", 4),
                tds(0x01, b"\x16\x00\x00\x00" * 8, 0xffff), tds(0x03, b"\xff\xff\xff\xff" + b"\x00" * 12)]
    service_exchanges(cap, 6, 1433, tds_msgs)
    # MongoDB: documents longer than their section and message, elements
    # whose string lengths run past the document, a collection name without
    # its end, a length of 2^31 - 1.
    def mongo(op, body, length=None):
        n = 16 + len(body) if length is None else length
        return struct.pack("<iiii", n, 1, 0, op) + body
    doc = struct.pack("<i", 30) + b"\x02find\x00" + struct.pack("<i", 0x7fffffff) + b"orders\x00\x00"
    mongo_msgs = [mongo(2013, b"\x00\x00\x00\x00\x00" + doc), mongo(2013, b"\x00\x00\x00\x00\x00" +
                  struct.pack("<i", 0x7ffffff0) + b"\x03a\x00" + struct.pack("<i", 5) + b"\x00"),
                  mongo(2004, b"\x00" * 4 + b"shop.orders" * 30), mongo(2013, b"", 0x7fffffff),
                  mongo(2013, b"\x00\x00\x00\x00\x00" + struct.pack("<i", 12) + b"\x0bx\x00ab")]
    service_exchanges(cap, 6, 27017, mongo_msgs)


def bittorrent_lies(cap):
    """BitTorrent's lengths and counts made to lie: peer wire messages longer
    than any taken or shorter than their ids need, handshakes cut short,
    bencode nested past its depth, more items than counted, strings longer
    than the datagram; uTP extension chains past the datagram or endless;
    tracker requests and answers cut short."""
    info = bytes(range(20))
    hs = b"\x13BitTorrent protocol" + bytes(8) + info + b"-TR3000-" + bytes(12)
    wire = [hs[:30], hs + b"\xff\xff\xff\xff\x07", hs + b"\x00\x00\x00\x09\x07",
            b"\x00\x00\x00\x05\x04" * 2 + b"\x7f\xff\xff\xff\x07",
            b"\x00\x00\x00\x00" * 500, b"\x00\x01\x00\x00\x05" + b"\xff" * 60,
            b"GET /announce?info_hash=" + b"%41" * 400 + b" HTTP/1.1\r\n\r\n",
            b"GET /" + b"a" * 300 + b"announce?info_hash=%zz HTTP/1.1\r\n\r\n"]
    service_exchanges(cap, 6, 6881, wire)
    dht = [b"l" * 5000 + b"e" * 5000, b"d" + b"1:ai0e" * 3000 + b"e",
           b"d1:ad2:id9999999:" + bytes(20) + b"ee", b"d1:ti99999999999999999999ee",
           b"d1:ad2:id20:" + bytes(20) + b"e1:q4:ping1:t2:aa1:y1:q", b"d" * 100 + b"e" * 100,
           b"di1e1:ae", b"d1:y1:q1:t0:1:q0:1:ade" + b"e" * 50]
    utp = [b"\x41\x01\x3d\x02" + bytes(16) + b"\x01\xff", b"\x01\x01\x3d\x02" + bytes(16) +
           b"\x01\x00" * 100, b"\x21\x02\x3d\x02" + bytes(16) + b"\x00\x08" + bytes(4)]
    tracker = [bytes.fromhex("0000041727101980") + bytes(4),
               bytes.fromhex("000004172710198000000000") + b"\x00\x00\x00\x01" + bytes(2),
               b"BT-SEARCH * HTTP/1.1\r\nInfohash: " + b"f" * 39 + b"\r\n\r\n"]
    service_exchanges(cap, 17, 6881, dht + utp + tracker)
    # A tracker's connect, then announces shorter than their fields.
    c, s = cap.next_hosts()
    w = ip_pair_wrap(c, s, 17)
    cap.frame(w(udp(40002, 6969, bytes.fromhex("0000041727101980") + bytes(8)), 0))
    for n in (16, 40, 97):
        cap.frame(w(udp(40002, 6969, (bytes(8) + b"\x00\x00\x00\x01" + bytes(86))[:n]), 0))
    # An announce with no connect before it, answered short and by another
    # transaction.
    announce = bytes(8) + b"\x00\x00\x00\x01" + b"\x00\x00\x00\x07" + info + bytes(66)
    for answer in (b"\x00\x00\x00\x01\x00\x00\x00\x07" + bytes(11),
                   b"\x00\x00\x00\x01\x00\x00\x00\x08" + bytes(12)):
        c, s = cap.next_hosts()
        w = ip_pair_wrap(c, s, 17)
        cap.frame(w(udp(40003, 6969, announce), 0))
        cap.frame(w(udp(6969, 40003, answer), 1))


def random_frames(cap, valid):
    rng = cap.rng
    for _ in range(1000):
        cap.frame(rng.randbytes(rng.randrange(0, 600)))
    c, s = cap.next_hosts()
    for _ in range(1000):
        proto = rng.choice([6, 17, 4, 41, 47, rng.randrange(256)])
        if rng.random() < 0.5:
            ip = ipv4(c, s, proto, rng.randbytes(rng.randrange(0, 400)))
        else:
            ip = ipv6(a6(60), a6(61), proto, rng.randbytes(rng.randrange(0, 400)))
        cap.frame(frame_of(ip))
    # Valid frames with bytes changed.
    for _ in range(3000):
        data = bytearray(rng.choice(valid))
        for _ in range(rng.randrange(1, 6)):
            if data:
                data[rng.randrange(len(data))] = rng.randrange(256)
        cap.frame(bytes(data))


def clock_games(cap, valid):
    """Time stamps that go back, stand still and jump ahead past every
    time-out, with traffic in between."""
    rng = cap.rng
    for step in (-10_000_000, 0, -1, 3_600_000_000, -3_600_000_000, 7_200_000_000):
        cap.us += step
        for _ in range(20):
            cap.frame(rng.choice(valid), step=0)
        c, s = cap.next_hosts()
        http_conversation(cap, v4_wrap(c, s))


class Recorder:
    """Keeps a sample of the frames written, for mutation."""

    def __init__(self, cap):
        self.cap = cap
        self.frames = []
        self.write = cap.frame

    def frame(self, data, step=50, orig=None):
        if len(self.frames) < 4000 and 14 < len(data) < 600:
            self.frames.append(data)
        self.write(data, step, orig)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("output")
    parser.add_argument("--seed", type=int, default=1)
    args = parser.parse_args()
    rng = random.Random(args.seed)
    with open(args.output, "wb") as out:
        cap = Capture(out, rng)
        recorder = Recorder(cap)
        cap.frame = recorder.frame
        for section in (valid_traffic, tunnels, tcp_hostile, fragments, ext_headers,
                        vlans_and_mpls, cut_everywhere, bad_fields, hostile_payloads,
                        lying_lengths, bittorrent_lies):
            section(cap)
        random_frames(cap, recorder.frames)
        clock_games(cap, recorder.frames)
        # The valid conversations once more at the end, so that the decoders
        # are seen to work after all of it.
        valid_traffic(cap)
        size = out.tell()
    print(f"{args.output}: {cap.count} packets, {size} bytes", file=sys.stderr)


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""Writes a small capture of the flow risks known at a connection's end.

TCP conversations seen from their SYN, built with hostile_pcap's layers:
an HTTP request never answered and closed (one_direction), the same
answered (no risk), the same unanswered but never closed (no risk: its end
is not in view), SSH on the port of TLS (known_protocol_on_other_port) and
bytes nobody names both ways on the port of TLS
(unknown_protocol_on_known_port). The golden test reads it from
tests/golden/captures/.
"""
import random
import sys

from hostile_pcap import TCP_ACK, TCP_PSH, Capture, Tcp, v4_wrap

GET = b"GET / HTTP/1.1\r\nHost: www.example.com\r\nUser-Agent: Mozilla/5.0\r\n\r\n"
OK = b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok"
SSH = b"SSH-2.0-OpenSSH_9.2p1 Debian-2\r\n"


def conversation(cap, port, steps, close=True):
    client, server = cap.next_hosts()
    conn = Tcp(cap, v4_wrap(client, server), cap.next_port(), port, 1000, 5000)
    conn.handshake()
    for side, payload in steps:
        conn.send(side, TCP_PSH | TCP_ACK, payload)
        conn.send(1 - side, TCP_ACK)
    if close:
        conn.close()


def main():
    with open(sys.argv[1], "wb") as out:
        cap = Capture(out, random.Random(1))
        conversation(cap, 80, [(0, GET)])
        conversation(cap, 80, [(0, GET), (1, OK)])
        conversation(cap, 80, [(0, GET)], close=False)
        conversation(cap, 443, [(1, SSH), (0, SSH)])
        conversation(cap, 443, [(0, b"\x00\x01\x02\x03"), (1, b"\x04\x05\x06\x07")])


if __name__ == "__main__":
    main()

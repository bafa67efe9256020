#!/usr/bin/env python3
"""Prints the payloads of a capture's TCP and UDP flows as conversation steps.

For writing a decoder's table (tests/decoders/<name>/<name>.conv) from real
traffic: each flow becomes a `tcp <port>` or `udp <port>` line (the port of
the side that did not speak first) and one `cx` or `sx` line per packet with
a payload, client first. The stack and attributes are for the writer to
add. Reads classic pcap files of Ethernet, Linux cooked or raw IP frames.

  scripts/conv_from_pcap.py capture.pcap [--port N]
"""
import argparse
import struct
import sys


def frames(path):
    with open(path, "rb") as f:
        data = f.read()
    magic = data[:4]
    order = {b"\xd4\xc3\xb2\xa1": "<", b"\xa1\xb2\xc3\xd4": ">",
             b"\x4d\x3c\xb2\xa1": "<", b"\xa1\xb2\x3c\x4d": ">"}.get(magic)
    if order is None:
        sys.exit(f"{path}: not a classic pcap file")
    link = struct.unpack(order + "I", data[20:24])[0]
    at = 24
    while at + 16 <= len(data):
        caplen = struct.unpack(order + "I", data[at + 8:at + 12])[0]
        frame = data[at + 16:at + 16 + caplen]
        at += 16 + caplen
        if link == 1 and len(frame) >= 14:
            etype, ip = struct.unpack("!H", frame[12:14])[0], frame[14:]
        elif link == 113 and len(frame) >= 16:
            etype, ip = struct.unpack("!H", frame[14:16])[0], frame[16:]
        elif link in (101, 12):
            etype, ip = (0x86DD if frame[:1] and frame[0] >> 4 == 6 else 0x0800), frame
        else:
            continue
        yield etype, ip


def segments(path):
    """(proto, source, destination, payload) of each TCP or UDP packet."""
    for etype, ip in frames(path):
        if etype == 0x0800 and len(ip) >= 20:
            proto, head = ip[9], (ip[0] & 15) * 4
            src, dst, body = ip[12:16], ip[16:20], ip[head:struct.unpack("!H", ip[2:4])[0]]
        elif etype == 0x86DD and len(ip) >= 40:
            proto, src, dst, body = ip[6], ip[8:24], ip[24:40], ip[40:40 + struct.unpack("!H", ip[4:6])[0]]
        else:
            continue
        if proto == 17 and len(body) >= 8:
            sport, dport = struct.unpack("!HH", body[:4])
            yield "udp", (src, sport), (dst, dport), body[8:]
        elif proto == 6 and len(body) >= 20:
            sport, dport = struct.unpack("!HH", body[:4])
            yield "tcp", (src, sport), (dst, dport), body[(body[12] >> 4) * 4:]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("capture")
    parser.add_argument("--port", type=int, help="only flows with this port on either side")
    args = parser.parse_args()
    flows = {}
    for proto, src, dst, payload in segments(args.capture):
        if args.port is not None and args.port not in (src[1], dst[1]):
            continue
        key = (proto,) + tuple(sorted([src, dst]))
        if key not in flows:
            flows[key] = {"proto": proto, "client": src, "server": dst, "steps": []}
        flow = flows[key]
        if payload:
            flow["steps"].append(("c" if src == flow["client"] else "s") + "x " + payload.hex())
    for flow in flows.values():
        if flow["steps"]:
            print(f"{flow['proto']} {flow['server'][1]}")
            print("\n".join(flow["steps"]))
            print()


if __name__ == "__main__":
    main()

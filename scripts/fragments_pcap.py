#!/usr/bin/env python3
"""Writes a capture of UDP request/response flows whose responses arrive in
two IPv4 fragments, the requests whole: the pattern that tells whether a
live capture spread over workers keeps a datagram's fragments with the rest
of its connection (the later fragment has no ports to hash).

    scripts/fragments_pcap.py OUTPUT [FLOWS]    (default 16 flows)

Each flow has its own pair of addresses; the bytes are made up (a DNS-like
question, a large answer of zeros) and the IPv4 header checksums are right.
"""
import struct
import sys


def checksum(data):
    if len(data) % 2:
        data += b"\0"
    total = sum(struct.unpack("!%dH" % (len(data) // 2), data))
    total = (total >> 16) + (total & 0xFFFF)
    total += total >> 16
    return ~total & 0xFFFF


def ipv4(src, dst, payload, ident, more, offset):
    flags = (0x2000 if more else 0) | offset // 8
    head = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(payload), ident, flags, 64, 17, 0,
                       bytes(src), bytes(dst))
    return head[:10] + struct.pack("!H", checksum(head)) + head[12:] + payload


def main():
    out_path = sys.argv[1]
    flows = int(sys.argv[2]) if len(sys.argv) > 2 else 16
    ethernet = b"\x02\0\0\0\0\x02\x02\0\0\0\0\x01\x08\x00"
    question = bytes.fromhex("123401000001000000000000") + b"\x07example\x03com\x00\x00\x01\x00\x01"
    answer = bytes.fromhex("12348180") + bytes(1200)
    with open(out_path, "wb") as out:
        out.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))
        clock = [0]

        def write(packet):
            clock[0] += 1000
            frame = ethernet + packet
            out.write(struct.pack("<IIII", 1000, clock[0], len(frame), len(frame)) + frame)

        for i in range(flows):
            client, server, port = [10, 0, i, 1], [10, 1, i, 2], 20000 + i
            request = struct.pack("!HHHH", port, 53, 8 + len(question), 0) + question
            response = struct.pack("!HHHH", 53, port, 8 + len(answer), 0) + answer
            write(ipv4(client, server, request, 2 * i, False, 0))
            write(ipv4(server, client, response[:1000], 2 * i + 1, True, 0))
            write(ipv4(server, client, response[1000:], 2 * i + 1, False, 1000))
            write(ipv4(client, server, request, 2 * i + 2, False, 0))


if __name__ == "__main__":
    main()

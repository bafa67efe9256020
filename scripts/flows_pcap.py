#!/usr/bin/env python3
"""Writes a capture of FLOWS distinct flows of one packet each, quickly.

Even flows are a TCP SYN, odd ones a UDP datagram of 8 bytes; every flow has
its own client address (10.0.0.0/8 counted up) and port, towards one server,
one microsecond apart: a capture that makes a new connection per packet and
never lets one end by itself, for measuring what the connection limits hold.
"""
import argparse
import struct
import sys

ETH = b"\x02\x00\x00\x00\x00\x02\x02\x00\x00\x00\x00\x01\x08\x00"
SERVER = bytes([192, 0, 2, 1])


def template(proto, transport):
    ip = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(transport), 0, 0, 64, proto, 0,
                     bytes(4), SERVER)
    return bytearray(ETH + ip + transport)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("output")
    parser.add_argument("--flows", type=int, default=1_000_000)
    args = parser.parse_args()
    if not 1 <= args.flows < 1 << 24:
        sys.exit("--flows must be 1 to 16777215")
    tcp = template(6, struct.pack("!HHIIBBHHH", 0, 80, 1, 0, 0x50, 0x02, 65535, 0, 0))
    udp = template(17, struct.pack("!HHHH", 0, 9999, 16, 0) + b"flowflow")
    # Per packet: the record header, the client address and the client port.
    records = [struct.Struct(f"<IIII{len(t)}s") for t in (tcp, udp)]
    src_at, port_at = 14 + 12, 14 + 20
    start = 1_700_000_000 * 1_000_000
    chunk = []
    with open(args.output, "wb") as out:
        out.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))
        for i in range(args.flows):
            frame = udp if i & 1 else tcp
            struct.pack_into("!I", frame, src_at, 0x0A000000 | (i + 1))
            struct.pack_into("!H", frame, port_at, 1024 + i % 64000)
            ts = start + i
            chunk.append(records[i & 1].pack(ts // 1_000_000, ts % 1_000_000, len(frame),
                                             len(frame), frame))
            if len(chunk) == 65536:
                out.write(b"".join(chunk))
                chunk.clear()
        out.write(b"".join(chunk))
    print(f"{args.output}: {args.flows} flows", file=sys.stderr)


if __name__ == "__main__":
    main()

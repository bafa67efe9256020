#!/usr/bin/env python3
"""Makes a large capture out of small real ones, for whole-tool benchmarks.

Every packet of the inputs (classic pcap files, Ethernet with VLAN tags, or
raw IP) is written COPIES times in a row, each copy with its IPv4 or IPv6
addresses and its TCP/UDP ports shifted by the copy's number, so that the
copies are distinct, concurrent connections with the same conversations.
With --high-bytes the addresses differ only in their first bytes and the
ports stay: the pattern that collapses a connection table hashed without a
seed. Inputs are played one after the other, their clocks laid end to end.
"""
import argparse
import struct
import sys

ETH_IP4, ETH_IP6, ETH_VLAN, ETH_QINQ = 0x0800, 0x86DD, 0x8100, 0x88A8


def packets(path):
    with open(path, "rb") as f:
        head = f.read(24)
        magic = struct.unpack("<I", head[:4])[0]
        if magic in (0xA1B2C3D4, 0xA1B23C4D):
            order = "<"
        elif magic in (0xD4C3B2A1, 0x4D3CB2A1):
            order = ">"
        else:
            print(f"{path}: not a classic pcap file, left out", file=sys.stderr)
            return
        nano = magic in (0xA1B23C4D, 0x4D3CB2A1)
        link = struct.unpack(order + "I", head[20:24])[0]
        while True:
            rec = f.read(16)
            if len(rec) < 16:
                return
            sec, frac, incl, orig = struct.unpack(order + "IIII", rec)
            data = f.read(incl)
            if len(data) < incl:
                return
            us = frac // 1000 if nano else frac
            yield link, sec * 1000000 + us, orig, data


def ip_offset(link, data):
    if link == 101:  # raw IP
        return 0
    if link == 113:  # Linux cooked capture: protocol at 14, IP at 16
        ok = len(data) > 16 and struct.unpack(">H", data[14:16])[0] in (ETH_IP4, ETH_IP6)
        return 16 if ok else None
    if link != 1 or len(data) < 14:
        return None
    off, etype = 12, struct.unpack(">H", data[12:14])[0]
    while etype in (ETH_VLAN, ETH_QINQ) and len(data) >= off + 6:
        off += 4
        etype = struct.unpack(">H", data[off:off + 2])[0]
    return off + 2 if etype in (ETH_IP4, ETH_IP6) else None


def shift(data, at, copy, high):
    """The packet with its addresses and ports moved for copy number `copy`."""
    b = bytearray(data)
    version = b[at] >> 4 if len(b) > at else 0
    if version == 4 and len(b) >= at + 20:
        addrs, alen, proto, l4 = at + 12, 4, b[at + 9], at + (b[at] & 15) * 4
        frag = struct.unpack(">H", b[at + 6:at + 8])[0] & 0x1FFF
    elif version == 6 and len(b) >= at + 40:
        addrs, alen, proto, l4, frag = at + 8, 16, b[at + 6], at + 40, 0
    else:
        return bytes(b)
    for a in (addrs, addrs + alen):
        if high:
            b[a] ^= copy & 0xFF
            b[a + 1] ^= (copy >> 8) & 0xFF
        else:
            value = struct.unpack(">I", b[a + alen - 4:a + alen])[0]
            b[a + alen - 4:a + alen] = struct.pack(">I", (value + (copy << 8)) & 0xFFFFFFFF)
    if not high and proto in (6, 17) and frag == 0 and len(b) >= l4 + 4:
        for p in (l4, l4 + 2):
            port = struct.unpack(">H", b[p:p + 2])[0]
            # Well-known server ports stay, so that port hints still apply.
            if port >= 1024:
                b[p:p + 2] = struct.pack(">H", 1024 + (port - 1024 + copy * 7) % 64512)
    return bytes(b)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("output")
    parser.add_argument("inputs", nargs="+")
    parser.add_argument("--copies", type=int, default=100)
    parser.add_argument("--high-bytes", action="store_true")
    args = parser.parse_args()
    if not 1 <= args.copies <= 65535:
        sys.exit("--copies must be 1 to 65535")
    with open(args.output, "wb") as out:
        out.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))
        clock = 1_700_000_000 * 1000000
        written = 0
        for path in args.inputs:
            first = None
            last = clock
            for link, ts, orig, data in packets(path):
                at = ip_offset(link, data)
                if at is None:
                    continue
                if link in (101, 113):  # as Ethernet, the output's link type
                    etype = ETH_IP6 if data[at] >> 4 == 6 else ETH_IP4
                    orig += 14 - at
                    data = bytes(12) + struct.pack(">H", etype) + data[at:]
                    at = 14
                first = ts if first is None else first
                last = clock + max(0, ts - first)
                for copy in range(args.copies):
                    pkt = shift(data, at, copy, args.high_bytes)
                    out.write(struct.pack("<IIII", last // 1000000, last % 1000000, len(pkt),
                                          max(orig, len(pkt))))
                    out.write(pkt)
                    written += 1
            clock = last + 1000000
    print(f"{args.output}: {written} packets", file=sys.stderr)


if __name__ == "__main__":
    main()

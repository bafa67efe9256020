#!/usr/bin/env python3
"""Rewrites the IP packets of an Ethernet capture behind another link layer.

  wlan  802.11 QoS data frames with a radiotap header (time stamp, flags,
        rate, channel, signal) and a frame check sequence, LLC/SNAP inside:
        the first sender of each IP version is a station, the other end lies behind
        the access point (to-DS one way, from-DS the other);
  hdlc  PPP in HDLC-like framing (address 0xFF, control 0x03, protocol).

Time stamps and packets stay as they were; frames that are not IP are left
out. Standard library only. The golden test's wlan capture is made this
way from traffic of real programs (curl and Python's http.server) in two
network namespaces joined by a veth pair.
Usage: link_pcap.py wlan|hdlc IN.pcap OUT.pcap
"""
import struct
import sys
import zlib

LINK = {"wlan": 127, "hdlc": 50}
BSSID = bytes.fromhex("020000aa0001")
STATION = bytes.fromhex("020000bb0002")
GATEWAY = bytes.fromhex("020000cc0003")


def read_pcap(path):
    with open(path, "rb") as f:
        data = f.read()
    magic = data[:4]
    order = "<" if magic in (b"\xd4\xc3\xb2\xa1", b"\x4d\x3c\xb2\xa1") else ">"
    if struct.unpack(order + "I", data[20:24])[0] != 1:
        sys.exit(f"{path}: not an Ethernet capture")
    at = 24
    while at + 16 <= len(data):
        sec, frac, caplen, wirelen = struct.unpack(order + "IIII", data[at:at + 16])
        yield sec, frac, data[at + 16:at + 16 + caplen]
        at += 16 + caplen


def radiotap(tsf):
    # Present: TSFT, flags, rate, channel, antenna signal in dBm.
    present = 1 << 0 | 1 << 1 | 1 << 2 | 1 << 3 | 1 << 5
    fields = struct.pack("<QBBHHb", tsf, 0x10, 108, 5180, 0x0140, -42)
    return struct.pack("<BBHI", 0, 0, 8 + len(fields), present) + fields


def wlan(ip, ethertype, to_ds, seq, tsf):
    if to_ds:
        flags, addresses = 0x01, BSSID + STATION + GATEWAY
    else:
        flags, addresses = 0x02, STATION + BSSID + GATEWAY
    header = struct.pack("<BBH", 0x88, flags, 44) + addresses + struct.pack("<H", seq << 4)
    header += struct.pack("<H", 0)  # QoS control: best effort
    frame = header + b"\xaa\xaa\x03\x00\x00\x00" + struct.pack("!H", ethertype) + ip
    return radiotap(tsf) + frame + struct.pack("<I", zlib.crc32(frame))


def main():
    kind, src, dst = sys.argv[1:4]
    out = [struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, LINK[kind])]
    stations = {}  # the first sender of each IP version
    for n, (sec, usec, eth) in enumerate(read_pcap(src)):
        if len(eth) < 14:
            continue
        ethertype = struct.unpack("!H", eth[12:14])[0]
        if ethertype not in (0x0800, 0x86DD):
            continue
        ip = eth[14:]
        source = ip[12:16] if ethertype == 0x0800 else ip[8:24]
        station = stations.setdefault(ethertype, source)
        if kind == "wlan":
            frame = wlan(ip, ethertype, source == station, n, sec * 1000000 + usec)
        else:
            frame = b"\xff\x03" + struct.pack("!H", 0x0021 if ethertype == 0x0800 else 0x0057) + ip
        out.append(struct.pack("<IIII", sec, usec, len(frame), len(frame)) + frame)
    with open(dst, "wb") as f:
        f.write(b"".join(out))


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""Writes a capture of QUIC client Initials under vendors' versions.

No Debian program speaks the vendor versions (mvfst's 0xfaceb00x family),
so their packets are made from a real client's: the first client Initial of
a capture (by default the draft-29 one of quic-29.pcap among the shared
captures) is opened with its own version's keys and sealed again, byte for
byte the same frames, under each version asked for, with the Initial salt
that version uses, each as a connection of its own (client ports 40001,
40002, ...). tshark opens Initials by itself, so it checks the result:

  scripts/quic_vendor_pcap.py OUT.pcap faceb002:draft23 faceb00e:draft29 ...
  tshark -r OUT.pcap -Y quic -T fields -e quic.version \\
      -e tls.handshake.extensions_server_name

Each argument is VERSION:SALT, the version in hex and the salt one of v1,
draft22, draft23 (drafts 23 to 28) or draft29 (drafts 29 to 32). Needs
python3-cryptography.
"""
import argparse
import hashlib
import hmac
import os
import struct
import sys

from cryptography.hazmat.primitives.ciphers import Cipher, algorithms, modes
from cryptography.hazmat.primitives.ciphers.aead import AESGCM

# The published Initial salts (RFC 9001 and the drafts before it).
SALTS = {
    "v1": "38762cf7f55934b34d179ae6a4c80cadccbb7f0a",
    "draft22": "7fbcdb0e7c66bbe9193a96cd21519ebd7a02644a",
    "draft23": "c3eef712c72ebb5a11a7d2432bb46365bef9f502",
    "draft29": "afbfec289993d24c9e9786f19c6111e04390a899",
}


def expand_label(secret, label, length):
    info = struct.pack("!H", length) + bytes([len(b"tls13 " + label)]) + b"tls13 " + label + b"\0"
    out, block, i = b"", b"", 1
    while len(out) < length:
        block = hmac.new(secret, block + info + bytes([i]), hashlib.sha256).digest()
        out += block
        i += 1
    return out[:length]


def client_keys(salt, dcid):
    initial = hmac.new(bytes.fromhex(SALTS[salt]), dcid, hashlib.sha256).digest()
    client = expand_label(initial, b"client in", 32)
    return (expand_label(client, b"quic key", 16), expand_label(client, b"quic iv", 12),
            expand_label(client, b"quic hp", 16))


def varint(data, at):
    size = 1 << (data[at] >> 6)
    value = data[at] & 0x3F
    for b in data[at + 1:at + size]:
        value = value << 8 | b
    return value, at + size


def mask(hp, sample):
    enc = Cipher(algorithms.AES(hp), modes.ECB()).encryptor()
    return enc.update(sample) + enc.finalize()


def open_initial(packet, salt):
    """The header fields and the frames of a client Initial."""
    at = 5
    dcid = packet[at + 1:at + 1 + packet[at]]
    at += 1 + packet[at]
    at += 1 + packet[at]  # source connection id
    token, at = varint(packet, at)
    at += token
    length, pn_at = varint(packet, at)
    key, iv, hp = client_keys(salt, dcid)
    m = mask(hp, packet[pn_at + 4:pn_at + 20])
    first = packet[0] ^ (m[0] & 0x0F)
    pn_len = (first & 3) + 1
    pn = bytes(a ^ b for a, b in zip(packet[pn_at:pn_at + pn_len], m[1:]))
    header = bytes([first]) + packet[1:pn_at] + pn
    nonce = bytes(a ^ b for a, b in zip(iv, bytes(12 - pn_len) + pn))
    end = pn_at + length
    frames = AESGCM(key).decrypt(nonce, packet[pn_at + pn_len:end], header)
    return header, dcid, pn_at, pn_len, frames


def seal_initial(header, dcid, pn_at, pn_len, frames, version, salt, tag):
    # Each connection its own Destination Connection ID (the last byte
    # changed), so that no reader takes one for another.
    dcid = dcid[:-1] + bytes([dcid[-1] ^ tag])
    header = header[:1] + struct.pack("!I", version) + header[5:6] + dcid + header[6 + len(dcid):]
    key, iv, hp = client_keys(salt, dcid)
    pn = header[pn_at:pn_at + pn_len]
    nonce = bytes(a ^ b for a, b in zip(iv, bytes(12 - pn_len) + pn))
    sealed = AESGCM(key).encrypt(nonce, frames, header)
    m = mask(hp, sealed[4 - pn_len:20 - pn_len])
    first = header[0] ^ (m[0] & 0x0F)
    pn = bytes(a ^ b for a, b in zip(pn, m[1:]))
    return bytes([first]) + header[1:pn_at] + pn + sealed


def first_client_initial(path):
    """The Ethernet frame and UDP payload of the capture's first Initial."""
    with open(path, "rb") as f:
        data = f.read()
    order = "<" if data[:4] in (b"\xd4\xc3\xb2\xa1", b"\x4d\x3c\xb2\xa1") else ">"
    at = 24
    while at + 16 <= len(data):
        caplen = struct.unpack(order + "I", data[at + 8:at + 12])[0]
        frame = data[at + 16:at + 16 + caplen]
        at += 16 + caplen
        if frame[12:14] != b"\x08\x00" or frame[23] != 17:
            continue
        ihl = (frame[14] & 0x0F) * 4
        payload = frame[14 + ihl + 8:]
        if payload and payload[0] & 0xF0 == 0xC0:
            return frame, payload
    sys.exit(f"{path}: no client Initial over IPv4")


def checksum(data):
    if len(data) % 2:
        data += b"\0"
    total = sum(struct.unpack("!%dH" % (len(data) // 2), data))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def frame_with(frame, payload, sport):
    ihl = (frame[14] & 0x0F) * 4
    ip = bytearray(frame[14:14 + ihl])
    dport = struct.unpack("!H", frame[14 + ihl + 2:14 + ihl + 4])[0]
    udp = struct.pack("!HHHH", sport, dport, 8 + len(payload), 0) + payload
    pseudo = ip[12:20] + struct.pack("!BBH", 0, 17, len(udp))
    udp = udp[:6] + struct.pack("!H", checksum(pseudo + udp) or 0xFFFF) + udp[8:]
    struct.pack_into("!H", ip, 2, ihl + len(udp))
    struct.pack_into("!H", ip, 10, 0)
    struct.pack_into("!H", ip, 10, checksum(bytes(ip)))
    return frame[:14] + bytes(ip) + udp


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("out")
    parser.add_argument("versions", nargs="+", help="VERSION:SALT, e.g. faceb002:draft23")
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    parser.add_argument("--source", default=os.path.join(root, "../shared/pcaps/quic-29.pcap"))
    parser.add_argument("--source-salt", default="draft29", choices=sorted(SALTS))
    args = parser.parse_args()
    frame, payload = first_client_initial(args.source)
    header, dcid, pn_at, pn_len, frames = open_initial(payload, args.source_salt)
    out = [struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1)]
    for i, spec in enumerate(args.versions):
        version, salt = spec.split(":")
        packet = seal_initial(header, dcid, pn_at, pn_len, frames, int(version, 16), salt, i + 1)
        # Whatever followed the Initial in its datagram (padding) goes along.
        packet += payload[len(packet):]
        record = frame_with(frame, packet, 40001 + i)
        out.append(struct.pack("<IIII", 1700000000 + i, 0, len(record), len(record)) + record)
    with open(args.out, "wb") as f:
        f.write(b"".join(out))


if __name__ == "__main__":
    main()

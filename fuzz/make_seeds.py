#!/usr/bin/env python3
"""Writes the seed inputs of fuzz/corpus from readable scripts, so that a
change of the host_api script format only needs this file run again."""
import os
import re

HERE = os.path.dirname(os.path.abspath(__file__))


def run(data):
    data = data.encode() if isinstance(data, str) else data
    assert len(data) < 256
    return bytes([len(data)]) + data


def conn(slot, mode, sport, dport, addr=b"\x0a\x00\x00\x01" + bytes(12)):
    out = bytes([0, slot, mode]) + sport.to_bytes(2, "big") + dport.to_bytes(2, "big")
    for i in range(16):
        out += bytes([addr[i], 0x55])  # source byte, xor for the destination
    return out


def payload(slot, side, data):
    return bytes([1, slot, side]) + run(data)


def other_form(selector, data):
    return bytes([4, selector]) + run(data)


def destroy(slot):
    return bytes([5, slot])


def config(prefix, suffix, value):
    return bytes([6, prefix]) + run(suffix) + run(value)


def rule(mode, text):
    return bytes([7, mode]) + run(text)


def idle(step):
    return bytes([8]) + step.to_bytes(2, "big")


def alloc(mode, attribute=0):
    return bytes([9, mode, attribute])


SEEDS = {
    "host_api": {
        "http_exchange": conn(0, 0, 49152, 80)
        + payload(0, 0, "GET / HTTP/1.1\r\nHost: example.com\r\n\r\n")
        + payload(0, 1, "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n")
        + payload(0, 1, "hello")
        + destroy(0),
        "udp_ipv6": conn(1, 3, 5353, 53, bytes([0x20, 0x01, 0x0D, 0xB8]) + bytes(11) + b"\x01")
        + payload(1, 0, bytes.fromhex("12340100000100000000000003777777076578616d706c6503636f6d0000010001"))
        + idle(600)
        + payload(1, 1, bytes(12)),
        "refused_forms": conn(2, 4, 1, 2) + conn(3, 8 | 0x30, 1, 2) + other_form(1, "abc")
        + other_form(4, "x") + other_form(5, "simple") + payload(7, 0, "no conn"),
        "config_rules": config(4, "", "64") + config(5, "", "warning") + config(0, "", "0")
        + rule(0, "10.0.0.1-10.0.0.9:80") + rule(4, ":443") + rule(4 | 128, ":443")
        + rule(1, "a=b") + rule(2, "x") + config(6, "10.1.1.1", "4") + config(9, "a.b", "c")
        + alloc(3, 0) + idle(1),
        "failing_allocator": conn(0, 0, 1024, 80) + alloc(128 | 5)
        + payload(0, 0, "GET /index.html HTTP/1.0\r\n\r\n") + conn(1, 1, 7, 8)
        + alloc(128 | 40) + payload(0, 1, "HTTP/1.0 404 Not Found\r\n\r\n") + alloc(0)
        + payload(0, 0, "more") + idle(3),
    },
    "rule_strings": {
        "range_port": b"10.0.0.1-10.0.0.255:8080",
        "port_only": b":443",
        "surplus": b"1.2.3.4.5.6-",
        "key_value": b"  Host = example.com  ",
        "empty_value": b"key=   ",
    },
    # Web inputs: a leading option byte, then (side byte and) length-prefixed
    # pieces.
    "key_value_header": {
        "folded": b"\x01" + run("a: b\r\n c\r\nHost: x") + run("\r\n\r\n"),
        "bare_newlines": b"\x00" + run("k=v\nno separator\n"),
    },
    "web_line": {
        "request": b"\x00" + run("GET / HT") + run("TP/1.1\r\n"),
        "response": b"\x01" + run("\r\nHTTP/1.1 200 OK\r\n"),
        "prefix_method": b"\x00" + run("GETX /a HTTP/1.1\n"),
    },
    "web_dpi": {
        "exchange": b"\x00" + b"\x00" + run("SAY /hi CHAT/1.0\r\nNick: bob\r\n\r\n")
        + b"\x01" + run("CHAT/1.0 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5;x\r\nhello\r\n")
        + b"\x01" + run("0\r\nT: 1\r\n\r\n"),
        "interim_and_close": b"\x00" + b"\x00" + run("ASK /q CHAT/1.0\r\nContent-Length: 2\r\n\r\nab")
        + b"\x01" + run("CHAT/1.0 100 Wait\r\n\r\nCHAT/1.0 200 OK\r\n\r\nto the close"),
        "failing": b"\xf5\x07" + b"\x00" + run("SAY /x CHAT/1.0\r\nNick: a\r\n\r\n")
        + b"\x01" + run("CHAT/1.0 204 None\r\n\r\n"),
    },
    "bencode": {
        "dht_get_peers": b"d1:ad2:id20:" + bytes(range(20)) + b"9:info_hash20:" + bytes(range(20, 40))
        + b"e1:q9:get_peers1:t2:aa1:y1:qe",
        "dht_reply_nodes": b"d1:rd2:id20:" + bytes(20) + b"5:nodes26:" + bytes(26) + b"e1:t2:aa1:y1:re",
        "dht_error": b"d1:eli201e7:Generice1:t2:aa1:y1:ee",
        "nested_lists": b"l" * 20 + b"e" * 20,
        "integers": b"li0ei-5ei1234567890123456789ee",
        "leading_zero": b"d2:id03:abce",
        "tracker_answer": b"d8:intervali1800e5:peers6:\x7f\x00\x00\x01\x1a\xe1e",
    },
}

for target, seeds in SEEDS.items():
    folder = os.path.join(HERE, "corpus", target)
    os.makedirs(folder, exist_ok=True)
    for name, data in seeds.items():
        with open(os.path.join(folder, name), "wb") as out:
            out.write(data)


# The application decoders' targets (fuzz/decoders.cmake, one line each)
# start from their conversation cases (tests/decoders/<name>/*.conv): one seed
# per connection of a case, in decoder_fuzz.cpp's form.
ROOT = os.path.dirname(HERE)


def unescape(text):
    out, i = bytearray(), 0
    while i < len(text):
        if text[i] == "\\" and i + 1 < len(text):
            kind = text[i + 1]
            if kind == "x":
                out.append(int(text[i + 2:i + 4], 16))
                i += 4
                continue
            out += {"r": b"\r", "n": b"\n", "t": b"\t", "0": b"\0"}.get(kind, kind.encode())
            i += 2
            continue
        out += text[i].encode()
        i += 1
    return bytes(out)


def decoder_ports(name):
    """The ports the decoder tries first, TCP's then UDP's, as its Spec has them."""
    text = ""
    folder = os.path.join(ROOT, "decoders", name)
    for source in sorted(os.listdir(folder)):
        if source.endswith(".cpp"):
            with open(os.path.join(folder, source)) as f:
                text += f.read()
    ports = []
    for kind in ("tcp", "udp"):
        found = re.search(r"\." + kind + r"_ports = \{([^}]*)\}", text)
        ports += [int(p) for p in found.group(1).split(",")] if found else []
    return ports


def conversations(name):
    """(case, transport, port, [(side, bytes)]) for each connection of each case."""
    folder = os.path.join(ROOT, "tests", "decoders", name)
    files = os.listdir(folder) if os.path.isdir(folder) else []
    for conv in sorted(f for f in files if f.endswith(".conv")):
        what, conn = None, None
        with open(os.path.join(folder, conv)) as f:
            for line in f.read().splitlines():
                word, _, rest = line.partition(" ")
                if word in ("case", "tcp", "udp") and conn is not None:
                    yield conn
                    conn = None
                if word == "case":
                    what = rest
                elif word in ("tcp", "udp"):
                    conn = (what, word, int(rest), [])
                elif word in ("c", "s", "cx", "sx") and conn is not None:
                    data = unescape(rest) if len(word) == 1 else bytes.fromhex(rest.replace(" ", ""))
                    conn[3].append((1 if word[0] == "s" else 0, data))
        if conn is not None:
            yield conn


def decoder_seed(ports, transport, port, steps):
    index = ports.index(port) if port in ports else 127
    out = bytes([index << 1 | (1 if transport == "udp" else 0), 0])
    for side, data in steps:
        out += bytes([side]) + len(data).to_bytes(2, "big") + data
    return out


with open(os.path.join(HERE, "decoders.cmake")) as f:
    DECODERS = re.findall(r"^kest_decoder_fuzz_target\((\w+)", f.read(), re.M)
for decoder in DECODERS:
    folder = os.path.join(HERE, "corpus", decoder + "_decoder")
    os.makedirs(folder, exist_ok=True)
    ports = decoder_ports(decoder)
    names = set()
    for what, transport, port, steps in conversations(decoder):
        name = re.sub(r"[^a-z0-9]+", "_", what.lower()).strip("_")[:60]
        base, n = name, 1
        while name in names:
            n += 1
            name = "%s_%d" % (base, n)
        names.add(name)
        with open(os.path.join(folder, name), "wb") as out:
            out.write(decoder_seed(ports, transport, port, steps))

# The HPACK reader's target (fuzz/hpack_fuzz.cpp) starts from the worked
# examples of the header compression: each a series of header blocks on one
# context, every block with a two-byte length in front (the responses first
# set the table to the examples' 256 bytes).
def hpack_blocks(*blocks):
    return b"".join(len(b).to_bytes(2, "big") + b for b in (bytes.fromhex(x) for x in blocks))


HPACK_SEEDS = {
    "literal_with_indexing": hpack_blocks(
        "400a637573746f6d2d6b65790d637573746f6d2d686561646572"),
    "literal_without_indexing": hpack_blocks("040c2f73616d706c652f70617468"),
    "literal_never_indexed": hpack_blocks("100870617373776f726406736563726574"),
    "indexed": hpack_blocks("82"),
    "requests_raw": hpack_blocks(
        "828684410f7777772e6578616d706c652e636f6d",
        "828684be58086e6f2d6361636865",
        "828785bf400a637573746f6d2d6b65790c637573746f6d2d76616c7565"),
    "requests_huffman": hpack_blocks(
        "828684418cf1e3c2e5f23a6ba0ab90f4ff",
        "828684be5886a8eb10649cbf",
        "828785bf408825a849e95ba97d7f8925a849e95bb8e8b4bf"),
    "responses_raw": hpack_blocks(
        "3fe1014803333032580770726976617465611d4d6f6e2c203231204f637420323031332032303a31333a"
        "323120474d546e1768747470733a2f2f7777772e6578616d706c652e636f6d",
        "4803333037c1c0bf",
        "88c1611d4d6f6e2c203231204f637420323031332032303a31333a323220474d54c05a04677a69707738"
        "666f6f3d4153444a4b48514b425a584f5157454f50495541585157454f49553b206d61782d6167653d33"
        "3630303b2076657273696f6e3d31"),
    "responses_huffman": hpack_blocks(
        "3fe101488264025885aec3771a4b6196d07abe941054d444a8200595040b8166e082a62d1bff6e919d29"
        "ad171863c78f0b97c8e9ae82ae43d3",
        "4883640effc1c0bf",
        "88c16196d07abe941054d444a8200595040b8166e084a62d1bffc05a839bd9ab77ad94e7821dd7f2e6c7"
        "b335dfdfcd5b3960d5af27087f3672c1ab270fb5291f9587316065c003ed4ee5b1063d5007"),
}
folder = os.path.join(HERE, "corpus", "hpack")
os.makedirs(folder, exist_ok=True)
for name, data in HPACK_SEEDS.items():
    with open(os.path.join(folder, name), "wb") as out:
        out.write(data)

#!/usr/bin/env python3
"""Compares kest's attributes with tshark's on captures, flow by flow.

For each capture, kestcap --json gives every connection's HTTP host and URI,
TLS server name and DNS query names; tshark (an independent decoder) gives
the same fields of every packet, gathered by connection (protocol and both
end points, the innermost IP header of a tunnelled packet). A value counts
once per connection and attribute: it agrees when both found it there. The
agreement of an attribute is the agreeing values over all the values either
found; every value only one side found is listed as a difference. Two
captures damaged on purpose are not counted (UNCOUNTED). tshark is set to
open Teredo and to reassemble segments out of order, as kest does; packets
quoted in ICMP errors and empty values are passed over.

  scripts/attr_check.py [--kestcap PATH] [--plugins DIR] [--min PCT]
                        [--notes FILE] CAPTURE|DIR ...

Exits 77 (skipped) without tshark or captures. With --min, exits 1 when the overall agreement is below PCT per cent, or
when a difference has no reason in the notes file (docs/accuracy-notes.tsv,
rows "attr <capture> <flow> <attribute> <value>", "*" for any of the last
three).
"""
import argparse
import collections
import fnmatch
import json
import os
import shutil
import subprocess
import sys

# Each attribute compared: kest's names for it, tshark's fields for the
# same thing. HTTP/2's pseudo headers are HTTP's host and URI to kest, as to
# anyone reading the request; SSDP's are HTTP's to tshark; gQUIC's hello
# names its server in a tag of its own.
ATTRIBUTES = {
    "http host": (["http.request.header.host", "ssdp.request.header.host"],
                  ["http.host", "http2.headers.authority"]),
    "http uri": (["http.request.uri", "ssdp.request.uri"],
                 ["http.request.uri", "http2.headers.path"]),
    "tls server name": (["tls.server_name"],
                        ["tls.handshake.extensions_server_name", "gquic.tag.sni"]),
    "dns query": (["dns.query"], ["dns.qry.name"]),
}
# Captures compared but not counted, and why.
UNCOUNTED = {
    "fuzz-2006-06-26-2594.pcap": "a fuzzed capture: bytes, ports and lengths are mutated at "
    "random, so both readers' names are guesses about noise",
    "badpackets.pcap": "DNS responses cut short: each is the first fragment of a datagram "
    "whose other fragments are not in the capture; tshark reads what the fragment holds, kest "
    "reads a datagram only once it is whole",
}
SEP = "\x1f"
ADDRESS_FIELDS = ["frame.protocols", "ip.src", "ip.dst", "ipv6.src", "ipv6.dst", "tcp.srcport",
                  "tcp.dstport", "udp.srcport", "udp.dstport"]
# A tunnel's own outer flow, which kestcap lists beside the flows inside.
TUNNELS = ("GTP", "VXLAN", "Teredo")


def flow_key(proto, a, b):
    return (proto,) + tuple(sorted([a, b]))


def kest_values(kestcap, plugins, capture):
    extra = []
    for names, _ in ATTRIBUTES.values():
        for n in names:
            extra += ["--attr", n]
    out = subprocess.run([kestcap, "--plugins", plugins, "--json"] + extra + [capture],
                         capture_output=True, text=True, check=False, errors="replace")
    values = collections.defaultdict(set)
    for line in out.stdout.splitlines():
        try:
            c = json.loads(line)
        except ValueError:
            continue
        if c.get("proto") not in ("tcp", "udp") or (c.get("stack") or [""])[-1] in TUNNELS:
            continue
        key = flow_key(c["proto"], (c["id.orig_h"], c["id.orig_p"]),
                       (c["id.resp_h"], c["id.resp_p"]))
        for name, (names, _) in ATTRIBUTES.items():
            for n in names:
                got = c.get("attrs", {}).get(n)
                for v in got if isinstance(got, list) else [got] if got is not None else []:
                    # An empty value (a request with no target) has no
                    # counterpart: tshark's empty column is a field absent.
                    if v != "":
                        values[(key, name)].add(v)
    return values


def last(text):
    return text.split(SEP)[-1] if text else ""


def dns_name(name):
    """tshark's name as kest writes it: the root is "." to kest; what tshark
    puts in angle brackets ("<Name too long>") says why there is no name."""
    if name == "<Root>":
        return "."
    return None if name.startswith("<") and name.endswith(">") else name


def tshark_values(capture, cache=None):
    """Per (connection, attribute) the values of every packet, counted."""
    fields = ADDRESS_FIELDS + [f for _, fs in ATTRIBUTES.values() for f in fs]
    # tshark set to read what kest reads: Teredo's tunnel (a heuristic, off
    # by default) and segments that come out of order.
    cmd = ["tshark", "-n", "-r", capture, "--enable-heuristic", "teredo_udp",
           "-o", "tcp.reassemble_out_of_order:TRUE",
           "-T", "fields", "-E", "occurrence=a", "-E", "aggregator=" + SEP, "-E", "separator=\t"]
    for f in fields:
        cmd += ["-e", f]
    text = None
    cached = os.path.join(cache, os.path.basename(capture) + ".tsv") if cache else None
    if cached and os.path.exists(cached):
        with open(cached, errors="replace") as f:
            text = f.read()
    if text is None:
        text = subprocess.run(cmd, capture_output=True, text=True, check=False,
                              errors="replace").stdout
        if cached:
            with open(cached, "w") as f:
                f.write(text)
    values = collections.defaultdict(collections.Counter)
    for line in text.splitlines():
        cols = line.split("\t")
        if len(cols) != len(fields):
            continue
        row = dict(zip(fields, cols))
        # The innermost header: the last IP layer of the frame's protocols
        # (a tunnel's inner packet follows its outer one).
        protocols = row["frame.protocols"].split(":")
        # An ICMP error quotes the head of the packet it answers: its bytes
        # are no connection's traffic.
        if "icmp" in protocols or "icmpv6" in protocols:
            continue
        layers = [p for p in protocols if p in ("ip", "ipv6")]
        if not layers:
            continue
        family = layers[-1]
        src, dst = last(row[family + ".src"]), last(row[family + ".dst"])
        if row["tcp.srcport"]:
            proto, sport, dport = "tcp", last(row["tcp.srcport"]), last(row["tcp.dstport"])
        elif row["udp.srcport"]:
            proto, sport, dport = "udp", last(row["udp.srcport"]), last(row["udp.dstport"])
        else:
            continue
        if not src or not sport.isdigit() or not dport.isdigit():
            continue
        key = flow_key(proto, (src, int(sport)), (dst, int(dport)))
        for name, (_, fs) in ATTRIBUTES.items():
            for f in fs:
                for v in row[f].split(SEP) if row[f] else []:
                    v = dns_name(v) if name == "dns query" else v
                    if v is not None:
                        values[(key, name)][v] += 1
    return values


def read_notes(path):
    notes = []
    if path and os.path.exists(path):
        with open(path) as f:
            for line in f:
                if line.startswith("attr "):
                    cols = line.rstrip("\n").split("\t")
                    if len(cols) == 5:
                        notes.append((cols[0][5:], cols[1], cols[2], cols[3], cols[4]))
    return notes


def reason(notes, capture, flow, name, value):
    for n_capture, n_flow, n_name, n_value, why in notes:
        if n_capture == capture and fnmatch.fnmatchcase(flow, n_flow) and \
                fnmatch.fnmatchcase(name, n_name) and fnmatch.fnmatchcase(value, n_value):
            return why
    return ""


def flow_text(key):
    proto, a, b = key
    def end(e):
        return f"[{e[0]}]:{e[1]}" if ":" in e[0] else f"{e[0]}:{e[1]}"
    return f"{proto.upper()} {end(a)} {end(b)}"


def check(kestcap, plugins, captures, notes, cache=None):
    """Per attribute (agreeing, total) and the differences: (capture, flow,
    attribute, value, who found it, how often, reason). Each value tshark
    finds counts as often as it finds it (a name in a query and in its
    response, a host in each request), and agrees when kest lists it for the
    connection; each value only kest lists counts once."""
    counts = {name: [0, 0] for name in ATTRIBUTES}
    differences = []
    for capture in captures:
        base = os.path.basename(capture)
        if base in UNCOUNTED:
            continue
        ours = kest_values(kestcap, plugins, capture)
        theirs = tshark_values(capture, cache)
        for k in sorted(set(ours) | set(theirs)):
            key, name = k
            a, b = ours.get(k, set()), theirs.get(k, collections.Counter())
            counts[name][0] += sum(n for v, n in b.items() if v in a)
            counts[name][1] += sum(b.values()) + len(a - set(b))
            flow = flow_text(key)
            for value in sorted(a ^ set(b)):
                who = "kest" if value in a else "tshark"
                differences.append((base, flow, name, value, who, b[value] or 1,
                                    reason(notes, base, flow, name, value)))
    return counts, differences


def captures_of(paths):
    out = []
    for p in paths:
        if os.path.isdir(p):
            out += sorted(os.path.join(p, n) for n in os.listdir(p)
                          if n.endswith((".pcap", ".pcapng", ".cap")))
        elif os.path.exists(p):
            out.append(p)
    return out


def main():
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--kestcap", default=os.path.join(root, "build/tools/kestcap/kestcap"))
    parser.add_argument("--plugins", default=os.path.join(root, "build/plugins"))
    parser.add_argument("--notes", default=os.path.join(root, "docs/accuracy-notes.tsv"))
    parser.add_argument("--min", type=float)
    parser.add_argument("--tshark-cache", help="a folder to keep tshark's fields in, by "
                        "capture name, for runs one after the other")
    parser.add_argument("captures", nargs="*", default=[os.path.join(root, "../shared/pcaps")])
    args = parser.parse_args()
    captures = captures_of(args.captures)
    if not captures or shutil.which("tshark") is None:
        print("no captures or no tshark: skipped")
        return 77
    counts, differences = check(args.kestcap, args.plugins, captures, read_notes(args.notes),
                                args.tshark_cache)
    agree = sum(c[0] for c in counts.values())
    total = sum(c[1] for c in counts.values())
    for name, (a, t) in counts.items():
        print(f"{name:28} {a:6} of {t:6} agree ({100.0 * a / t if t else 100.0:.2f} %)")
    share = 100.0 * agree / total if total else 100.0
    print(f"{'overall':28} {agree:6} of {total:6} agree ({share:.2f} %)")
    for base, why in UNCOUNTED.items():
        if any(os.path.basename(c) == base for c in captures):
            print(f"not counted: {base}: {why}")
    unexplained = [d for d in differences if not d[6]]
    for d in differences:
        print("\t".join(str(x) for x in d[:6]) + "\t" + (d[6] or "UNEXPLAINED"))
    if args.min is not None and (share < args.min or unexplained):
        print(f"FAIL: {share:.2f} % (at least {args.min} wanted), "
              f"{len(unexplained)} differences without a reason")
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())

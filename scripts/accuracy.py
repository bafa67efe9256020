#!/usr/bin/env python3
"""Writes docs/accuracy.md: kest's labels beside a peer tool's, flow by flow.

For every shared capture with a label file (../shared/pcaps/labels/FILE.txt,
one line per flow as the peer saw it), runs kestcap --json and matches flows
by protocol and end points (either orientation). Every flow the peer names
by content ("DPI" confidence) as one of the protocols kest decodes is listed
with kest's stack; disagreements carry a reason, from
docs/accuracy-notes.tsv where a person wrote one (flow "*": every flow of
the capture), else from what the
capture shows (no payload, one packet, not seen). Flows kest names that the
peer calls Unknown are listed too.

  scripts/accuracy.py [--kestcap PATH] [--plugins DIR] [--pcaps DIR] [--out FILE]
"""
import argparse
import collections
import ipaddress
import json
import os
import subprocess
import sys

# The peer's names for what kest decodes, by the first part of its label.
PEER_NAMES = {
    "HTTP": "HTTP", "HTTP_Connect": "HTTP", "HTTP_Proxy": "HTTP",
    "TLS": "TLS", "SMTPS": "TLS", "IMAPS": "TLS", "POP3S": "TLS", "FTPS": "TLS",
    "DoH_DoT": "TLS", "QUIC": "QUIC", "DNS": "DNS", "MDNS": "MDNS", "LLMNR": "LLMNR",
    "SSH": "SSH", "SMTP": "SMTP", "POP3": "POP3", "IMAP": "IMAP", "FTP_CONTROL": "FTP",
    "FTP_DATA": "FTP_DATA", "SIP": "SIP", "RTSP": "RTSP", "SSDP": "SSDP", "RTP": "RTP",
    "RTCP": "RTCP", "WebSocket": "WebSocket", "NTP": "NTP", "SNMP": "SNMP", "Syslog": "Syslog",
    "DHCP": "DHCP", "DHCPV6": "DHCPv6", "NetBIOS": "NetBIOS", "Kerberos": "Kerberos", "VNC": "VNC", "Telnet": "Telnet", "LDAP": "LDAP", "RDP": "RDP", "SOCKS": "SOCKS", "IRC": "IRC", "XMPP": "XMPP", "Jabber": "XMPP", "RADIUS": "RADIUS", "TFTP": "TFTP",
    "ICMP": "ICMP", "ICMPV6": "ICMPv6", "IGMP": "IGMP", "GRE": "GRE", "IPsec": "ESP",
    "SMBv1": "SMB", "SMBv23": "SMB", "BitTorrent": "BitTorrent", "Teredo": "Teredo",
    "HTTP2": "HTTP2",
    "COAP": "CoAP", "Modbus": "Modbus", "DNP3": "DNP3", "WireGuard": "WireGuard",
    "OpenVPN": "OpenVPN",
    "STUN": "STUN", "DTLS": "DTLS",
    "Redis": "Redis", "Memcached": "Memcached", "MQTT": "MQTT", "AMQP": "AMQP",
    "MySQL": "MySQL", "PostgreSQL": "PostgreSQL", "MsSQL-TDS": "TDS", "MongoDB": "MongoDB",
}
# Whole labels read before their first part: the peer puts SMB under NetBIOS
# whether or not a NetBIOS session carries it. Over UDP that SMB is a
# browser datagram's, read by kest's NetBIOS decoder only.
PEER_LABELS = {"NetBIOS.SMBv1": "SMB", "NetBIOS.SMBv23": "SMB"}
KEST_APPS = set(PEER_NAMES.values())
# Captures whose flows are listed but not counted, and why.
UNCOUNTED = {
    "fuzz-2006-06-26-2594.pcap": "a fuzzed capture: bytes, ports and lengths are mutated at "
    "random, so the peer's labels (from ports where the bytes no longer say) and kest's names "
    "are both guesses about noise",
}

# The peer's service names (the part after the dot of "TLS.YouTube") against
# the services of kest's catalogue that count as the same. The peer groups
# some services under their owner ("Google" for its advertising and public
# DNS too) where kest's catalogue keeps them apart; a flow agrees when kest
# names any of the services listed. Labels whose second part is a protocol
# (NetBIOS.SMBv1, HTTP.HTTP_Proxy, GTP.GTP_U) are not services.
GOOGLE = {"Google", "Google Ads", "Google Public DNS", "Gmail", "Google Drive", "Google Play",
          "Google Meet", "Google Maps", "Google Cloud", "Connectivity Check",
          "Google Chrome Update"}
PEER_SERVICES = {
    "Amazon": {"Amazon", "Amazon Alexa"}, "AmazonAWS": {"AWS"}, "AmazonAlexa": {"Amazon Alexa"},
    "Google": GOOGLE, "GoogleServices": GOOGLE, "GoogleHangoutDuo": {"Google", "Google Meet"},
    "GMail": {"Gmail"}, "PlayStore": {"Google Play"}, "YouTube": {"YouTube"},
    "Wikipedia": {"Wikipedia"}, "Reddit": {"Reddit"}, "Cloudflare": {"Cloudflare"},
    "QQ": {"QQ", "WeChat", "Tencent Video"},
    "OCSP": {"Let's Encrypt", "DigiCert", "Sectigo", "GlobalSign", "Entrust", "Actalis",
             "Google", "Amazon"},
    "Facebook": {"Facebook", "Facebook Messenger"}, "FacebookVoip": {"Facebook"},
    "Instagram": {"Instagram", "Facebook"}, "WhatsApp": {"WhatsApp"},
    "ntop": {"ntop"}, "DoH_DoT": {"Cloudflare", "Google Public DNS", "Quad9", "OpenDNS"},
    "Twitter": {"Twitter"}, "Tor": {"Tor Project"}, "Teams": {"Microsoft Teams"},
    "Microsoft": {"Microsoft", "Bing", "Microsoft 365"}, "Azure": {"Azure"},
    "AppleSiri": {"Apple Siri"}, "ApplePush": {"Apple Push"},
}


def endpoint(text):
    """'1.2.3.4:80' or '[::1]:80' as (address, port)."""
    host, _, port = text.rpartition(":")
    host = host.strip("[]")
    try:
        host = str(ipaddress.ip_address(host))
    except ValueError:
        pass
    return host, int(port) if port.isdigit() else 0


# The peer's transport column against kestcap's "proto".
PEER_L4 = {"icmpv6": "icmp6", "1": "icmp", "2": "igmp", "47": "gre", "50": "esp",
           "58": "icmp6", "132": "sctp"}


def key(proto, a, b):
    proto = PEER_L4.get(proto.lower(), proto.lower())
    if proto not in ("tcp", "udp"):
        # The peer keys these by address pair alone; kest's ports carry an
        # echo identifier or an SPI.
        a, b = (a[0], 0), (b[0], 0)
    return (proto,) + tuple(sorted([a, b]))


def peer_flows(path):
    flows = []
    with open(path) as f:
        for line in f:
            if line.startswith("#"):
                continue
            cols = line.rstrip("\n").split("\t")
            if len(cols) < 6:
                continue
            l4, client, server, label, host, confidence = cols[:6]
            flows.append({
                "key": key(l4, endpoint(client), endpoint(server)),
                "label": label, "master": label.split(".")[0], "confidence": confidence,
                "client": client, "server": server, "l4": l4, "host": host,
            })
    return flows


def kest_flows(kestcap, plugins, capture):
    out = subprocess.run([kestcap, "--plugins", plugins, "--json", capture],
                         capture_output=True, text=True, check=False)
    flows = collections.defaultdict(list)
    for line in out.stdout.splitlines():
        try:
            c = json.loads(line)
        except ValueError:
            continue
        a = endpoint(f'{c["id.orig_h"]}:{c["id.orig_p"]}')
        b = endpoint(f'{c["id.resp_h"]}:{c["id.resp_p"]}')
        flows[key(c["proto"], a, b)].append(c)
    return flows


def best(records):
    """The record of a flow that says most: named first, then most packets."""
    return max(records, key=lambda c: (c["app"] != "unknown",
                                       c["orig_pkts"] + c["resp_pkts"]))


def reason_from_bytes(rec):
    if rec is None:
        return "kest saw no connection for these end points"
    if rec["orig_bytes"] + rec["resp_bytes"] == 0:
        return "no payload in the capture: nothing to decide by content"
    if rec["orig_bytes"] == 0 or rec["resp_bytes"] == 0:
        return "one direction only: " + ("server" if rec["orig_bytes"] == 0 else "client") + \
            " bytes alone did not say"
    return ""


def main():
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--kestcap", default=os.path.join(root, "build/tools/kestcap/kestcap"))
    parser.add_argument("--plugins", default=os.path.join(root, "build/plugins"))
    parser.add_argument("--pcaps", default=os.path.join(root, "../shared/pcaps"))
    parser.add_argument("--out", default=os.path.join(root, "docs/accuracy.md"))
    parser.add_argument("--notes", default=os.path.join(root, "docs/accuracy-notes.tsv"))
    args = parser.parse_args()
    labels = os.path.join(args.pcaps, "labels")
    if not os.path.isdir(labels):
        sys.exit(f"no labels at {labels}")
    notes = {}
    if os.path.exists(args.notes):
        with open(args.notes) as f:
            for line in f:
                if line.strip() and not line.startswith("#"):
                    capture, flow, why = line.rstrip("\n").split("\t", 2)
                    notes[(capture, flow)] = why
    per_proto = collections.Counter()
    agreed = collections.Counter()
    disagreements = []
    uncounted = []
    extra = []
    per_service = collections.Counter()
    service_agreed = collections.Counter()
    service_disagreements = []
    for name in sorted(os.listdir(labels)):
        capture = name[:-4] if name.endswith(".txt") else name
        path = os.path.join(args.pcaps, capture)
        if not os.path.exists(path):
            continue
        peers = peer_flows(os.path.join(labels, name))
        kest = kest_flows(args.kestcap, args.plugins, path)
        for p in peers:
            records = kest.get(p["key"], [])
            rec = best(records) if records else None
            stack = rec["stack"] if rec else []
            flow = f'{p["l4"]} {p["client"]} -> {p["server"]}'
            want = PEER_LABELS.get(p["label"]) or PEER_NAMES.get(p["master"])
            if want == "SMB" and p["l4"].lower() == "udp":
                want = "NetBIOS"
            # The peer's IPsec over UDP is the key exchange (or ESP in UDP on
            # its flow); ESP itself is IP protocol 50.
            if want == "ESP" and p["l4"].lower() == "udp":
                want = "IKE"
            peer_service = p["label"].partition(".")[2]
            if peer_service in PEER_SERVICES and p["confidence"].startswith("DPI") and \
                    capture not in UNCOUNTED:
                per_service[peer_service] += 1
                ours = rec.get("service") if rec else None
                if ours in PEER_SERVICES[peer_service]:
                    service_agreed[peer_service] += 1
                else:
                    why = notes.get((capture, "service " + flow)) or \
                        notes.get((capture, "service *")) or \
                        reason_from_bytes(rec) or \
                        ("kest named " + ours if ours else "kest named no service")
                    service_disagreements.append((capture, flow, p["label"], p["host"],
                                                  ours or "-", why))
            if want and p["confidence"].startswith("DPI") and capture in UNCOUNTED:
                uncounted.append((capture, flow, p["label"], "/".join(stack) or "-"))
            elif want and p["confidence"].startswith("DPI"):
                per_proto[want] += 1
                if want in stack:
                    agreed[want] += 1
                else:
                    why = notes.get((capture, flow)) or notes.get((capture, "*")) or \
                        reason_from_bytes(rec) or \
                        "kest named it " + (rec["app"] if rec else "nothing")
                    disagreements.append((capture, flow, p["label"], "/".join(stack) or "-", why))
            elif p["master"] == "Unknown" and rec and rec["app"] in KEST_APPS:
                extra.append((capture, flow, "/".join(stack),
                              notes.get((capture, flow)) or notes.get((capture, "*"), "")))
    total = sum(per_proto.values())
    with open(args.out, "w") as out:
        out.write("# Agreement with a peer tool\n\n")
        out.write("Made by `scripts/accuracy.py` from the shared captures and the peer's "
                  "per-flow labels (`../shared/pcaps/labels/`). Only flows the peer names by "
                  "content (confidence `DPI`) as a protocol kest decodes are counted. The peer is "
                  "an opinion, not ground truth: each disagreement says why.\n\n")
        out.write(f"{sum(agreed.values())} of {total} flows agree.\n\n")
        out.write("| protocol | peer flows | kest agrees |\n|---|---:|---:|\n")
        for proto in sorted(per_proto):
            out.write(f"| {proto} | {per_proto[proto]} | {agreed[proto]} |\n")
        out.write("\n## Disagreements\n\n| capture | flow | peer | kest stack | why |\n"
                  "|---|---|---|---|---|\n")
        for row in disagreements:
            out.write("| " + " | ".join(row) + " |\n")
        write_services(out, per_service, service_agreed, service_disagreements)
        write_attributes(out, args)
        out.write("\n## Not counted\n\n")
        for capture, why in sorted(UNCOUNTED.items()):
            rows = [row for row in uncounted if row[0] == capture]
            agree = sum(1 for row in rows if PEER_NAMES.get(row[2].split(".")[0], "") in
                        row[3].split("/"))
            out.write(f"{capture}, {len(rows)} flows the peer names ({agree} as kest does): "
                      f"{why}.\n\n")
        out.write("| capture | flow | peer | kest stack |\n|---|---|---|---|\n")
        for row in uncounted:
            out.write("| " + " | ".join(row) + " |\n")
        out.write("\n## Named by kest, Unknown to the peer\n\n| capture | flow | kest stack | note |\n"
                  "|---|---|---|---|\n")
        for row in extra:
            out.write("| " + " | ".join(row) + " |\n")
    print(f"{args.out}: {sum(agreed.values())} of {total} agree, {len(disagreements)} "
          f"disagreements, {len(extra)} named where the peer found nothing; services: "
          f"{sum(service_agreed.values())} of {sum(per_service.values())} agree", file=sys.stderr)


def write_attributes(out, args):
    """The attributes held against tshark's, by scripts/attr_check.py."""
    sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
    sys.dont_write_bytecode = True
    import attr_check
    import shutil
    if shutil.which("tshark") is None:
        return
    captures = attr_check.captures_of([args.pcaps])
    counts, differences = attr_check.check(args.kestcap, args.plugins, captures,
                                           attr_check.read_notes(args.notes))
    agree = sum(c[0] for c in counts.values())
    total = sum(c[1] for c in counts.values())
    out.write("\n## Attributes against tshark\n\n")
    out.write("Made by `scripts/attr_check.py` on every shared capture: kestcap's HTTP host "
              "and URI, TLS server name (QUIC's and gQUIC's too) and DNS query names beside "
              "the same fields as tshark decodes them, connection by connection. Each value "
              "tshark finds counts as often as it finds it and agrees when kest lists it for "
              "the connection; each value only kest lists counts once. tshark opens Teredo "
              "(a heuristic it leaves off by default) and reassembles segments out of order, "
              "as kest does; the packets an ICMP error quotes are no connection's, and an "
              "empty value (a request with no target) has no counterpart in tshark's "
              "columns: neither counts. Every difference carries its reason from "
              "`docs/accuracy-notes.tsv` (rows `attr <capture>`).\n\n")
    share = 100.0 * agree / total if total else 100.0
    out.write(f"{agree} of {total} values agree ({share:.2f} %).\n\n")
    out.write("| attribute | values | agree |\n|---|---:|---:|\n")
    for name, (a, t) in counts.items():
        out.write(f"| {name} | {t} | {a} |\n")
    out.write("\nNot counted: ")
    out.write("; ".join(f"{c}, {why}" for c, why in sorted(attr_check.UNCOUNTED.items())))
    out.write(".\n\n### Attribute differences\n\n| capture | flow | attribute | value | "
              "found by | times | why |\n|---|---|---|---|---|---:|---|\n")
    for d in differences:
        value = d[3] if len(d[3]) <= 80 else d[3][:77] + "..."
        row = (d[0], d[1], d[2], "`" + value.replace("|", "\\|") + "`", d[4], str(d[5]),
               d[6] or "(no reason written)")
        out.write("| " + " | ".join(row) + " |\n")
    print(f"attributes against tshark: {agree} of {total} agree, {len(differences)} "
          "differences", file=sys.stderr)


def write_services(out, per_service, agreed, disagreements):
    total = sum(per_service.values())
    share = 100.0 * sum(agreed.values()) / total if total else 0.0
    out.write("\n## Services\n\n")
    out.write("Flows the peer names by content with a service (a label such as `TLS.YouTube`), "
              "against kestcap's `service`. The peer's names map to the catalogue's "
              "(`PEER_SERVICES` in `scripts/accuracy.py`): the peer groups an owner's services "
              "(\"Google\" for its advertising and public DNS as well), and its \"OCSP\" is "
              "the certificate authorities' responders. A reason for each disagreement comes "
              "from `docs/accuracy-notes.tsv` (flow `service <flow>`) where a person wrote one."
              "\n\n")
    out.write(f"{sum(agreed.values())} of {total} flows agree ({share:.1f} %).\n\n")
    out.write("| peer service | peer flows | kest agrees |\n|---|---:|---:|\n")
    for name in sorted(per_service, key=lambda n: (-per_service[n], n)):
        out.write(f"| {name} | {per_service[name]} | {agreed[name]} |\n")
    out.write("\n### Service disagreements\n\n| capture | flow | peer | peer's host | "
              "kest service | why |\n|---|---|---|---|---|---|\n")
    for row in disagreements:
        out.write("| " + " | ".join(row) + " |\n")


if __name__ == "__main__":
    main()

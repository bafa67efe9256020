"""The Python package against kestcap and against the capture itself.
Run by CTest (python_package) with the build's package on PYTHONPATH and
KESTCAP, KEST_PLUGINS and KEST_SOURCE set."""
import errno, json, math, os, shutil, signal, statistics, struct, subprocess, sys, time
import pytest
import kest

KESTCAP, PLUGINS, SOURCE = os.environ["KESTCAP"], os.environ["KEST_PLUGINS"], os.environ["KEST_SOURCE"]
BUNDLED = os.path.join(SOURCE, "examples/loopback.pcap")
# Many flows, and tunnels (outer flows listed beside inner ones), when present.
SHARED = ["/work/shared/pcaps/1kxun.pcap", "/work/shared/pcaps/Teredo.pcap"]
CAPTURES = [BUNDLED] + [pytest.param(p, marks=pytest.mark.skipif(
    not os.path.exists(p), reason="shared capture missing")) for p in SHARED]
RENAMED = {"orig_h": "id.orig_h", "orig_p": "id.orig_p", "resp_h": "id.resp_h", "resp_p": "id.resp_p"}


def kestcap_lines(path, *extra):
    out = subprocess.run([KESTCAP, "--plugins", PLUGINS, "--json", *extra, path],
                         check=True, capture_output=True, text=True).stdout
    return sorted(same_numbers(json.loads(line)) for line in out.splitlines())


def same_numbers(value):
    # JSON writes 81.0 as 81: every number is compared as a double.
    return json.dumps(json.loads(json.dumps(value), parse_int=float), sort_keys=True)


def as_lines(records):
    lines = []
    for r in records:
        r = {RENAMED.get(k, k): v for k, v in r.items()}
        if "features" in r:
            r["features"]["first"] = [list(p) for p in r["features"]["first"]]
        lines.append(same_numbers(r))
    return sorted(lines)


@pytest.mark.parametrize("path", CAPTURES)
@pytest.mark.parametrize("threads", [1, 2])
def test_records_equal_kestcap_json(path, threads):
    assert as_lines(kest.Flows(path, plugins=PLUGINS, threads=threads)) == kestcap_lines(path)
    flows = kest.Flows(path, plugins=PLUGINS, threads=threads, features=True)
    assert as_lines(flows) == kestcap_lines(path, "--features")
    assert len(flows.to_pandas()) == len(kestcap_lines(path))


def test_default_plugins_and_repeat_passes():
    assert os.path.samefile(kest.default_plugins(), PLUGINS)
    flows = kest.Flows(BUNDLED)
    assert len(list(flows)) == len(list(flows)) > 0
    assert len(list(kest.Flows(BUNDLED, max_flows=2))) == 2


def test_dataframe_columns_and_types():
    df = kest.Flows(BUNDLED, features=True).to_pandas()
    assert len(df) == len(kestcap_lines(BUNDLED))
    types = {c: str(t) for c, t in df.dtypes.items()}
    assert types["ts"] == "datetime64[ns, UTC]" and types["duration"] == "timedelta64[ns]"
    assert types["orig_p"] == types["resp_p"] == "uint16"
    assert {types[c] for c in ("orig_h", "resp_h", "proto", "app", "service")} == {"string"}
    assert {types[c] for c in ("orig_pkts", "resp_bytes", "orig_ip_bytes", "resp_syn")} == {"uint64"}
    assert types["orig_len_mean"] == types["resp_iat_std"] == "float64"
    assert {"stack", "risks", "attrs", "first_packets"} <= set(df.columns)
    assert df["ts"].min().year >= 2020 and (df["duration"] >= pd_zero()).all()
    first = next(iter(kest.Flows(BUNDLED)))
    assert df["ts"][0].value == round(first["ts"] * 1e6) * 1000


def pd_zero():
    import pandas
    return pandas.Timedelta(0)


def read_pcap(path):
    """(time in µs, IP bytes) of each Ethernet frame of a classic pcap."""
    data = open(path, "rb").read()
    assert struct.unpack("<I", data[:4])[0] == 0xA1B2C3D4 and struct.unpack("<I", data[20:24])[0] == 1
    at = 24
    while at + 16 <= len(data):
        sec, usec, caplen, _ = struct.unpack("<IIII", data[at:at + 16])
        frame = data[at + 16:at + 16 + caplen]
        at += 16 + caplen
        if struct.unpack("!H", frame[12:14])[0] in (0x0800, 0x86DD):
            yield sec * 1000000 + usec, frame[14:]


def packet_facts(ip):
    """(protocol, source, destination, IP length, TCP flags); ports in the end points."""
    if ip[0] >> 4 == 4:
        proto, length, header = ip[9], struct.unpack("!H", ip[2:4])[0], (ip[0] & 15) * 4
        src, dst = ip[12:16], ip[16:20]
    else:
        proto, length, header = ip[6], 40 + struct.unpack("!H", ip[4:6])[0], 40
        src, dst = ip[8:24], ip[24:40]
    sport, dport = struct.unpack("!HH", ip[header:header + 4]) if proto in (6, 17) else (0, 0)
    return proto, (src, sport), (dst, dport), length, ip[header + 13] if proto == 6 else 0


def expected_features(path):
    flows = {}
    for ts, ip in read_pcap(path):
        proto, src, dst, length, flags = packet_facts(ip)
        key = (proto, frozenset((src, dst)))
        flow = flows.setdefault(key, {"client": src, "start": ts, "packets": ([], [])})
        side = 0 if src == flow["client"] else 1
        flow["packets"][side].append((ts, length, flags))
        flow.setdefault("first", []).append((side, length, (ts - flow["start"]) / 1e6))
    return flows


def test_features_against_the_capture():
    expected = expected_features(BUNDLED)
    seen = 0
    for record in kest.Flows(BUNDLED, features=True):
        if record["proto"] not in ("tcp", "udp"):
            continue
        ends = [(bytes(map(int, record[h].split("."))), record[p]) for h, p in
                (("orig_h", "orig_p"), ("resp_h", "resp_p"))]
        flow = expected[(6 if record["proto"] == "tcp" else 17, frozenset(ends))]
        f = record["features"]
        assert [tuple(p) for p in f["first"]] == [
            (s, n, pytest.approx(t, abs=1e-9)) for s, n, t in flow["first"][:16]]
        for side, name in ((0, "orig"), (1, "resp")):
            packets = flow["packets"][side]
            lengths = [n for _, n, _ in packets]
            gaps = [(b[0] - a[0]) / 1e6 for a, b in zip(packets, packets[1:])] or [0.0]
            got = f[name]
            assert got["pkts"] == len(packets) and got["ip_bytes"] == sum(lengths)
            for kind, values in (("len", lengths or [0]), ("iat", gaps)):
                want = (min(values), statistics.fmean(values), max(values), statistics.pstdev(values))
                have = tuple(got[f"{kind}_{s}"] for s in ("min", "mean", "max", "std"))
                assert have == pytest.approx(want, rel=1e-9, abs=1e-12), (name, kind)
            for bit, flag in enumerate(kest.FEATURE_FLAGS):
                assert got[flag] == sum(1 for _, _, fl in packets if fl >> bit & 1), flag
        seen += 1
    assert seen >= 3


@pytest.mark.parametrize("call, code", [
    (lambda tmp: kest.Flows(str(tmp / "absent.pcap")), errno.ENOENT),
    (lambda tmp: kest.Flows(write(tmp / "bad.pcap", b"not a capture" * 8)), errno.EINVAL),
    (lambda tmp: kest.Flows(BUNDLED, plugins=str(tmp)), errno.ENOENT),
    (lambda tmp: kest.Flows(BUNDLED, plugins=only_wire(tmp)), errno.EPROTO),
    (lambda tmp: kest.Flows(BUNDLED, config={"conn.default_policy.tunnels": 2}), errno.EINVAL),
    (lambda tmp: kest.Flows(BUNDLED, bpf="no such (filter"), errno.EINVAL),
    (lambda tmp: kest.Flows(BUNDLED, threads=0), errno.EINVAL),
    (lambda tmp: kest.Instance().classify(b"\0" * 20, link=9999), errno.EINVAL),
    (lambda tmp: kest.Instance().classify(b""), errno.EINVAL),
    (lambda tmp: kest.Instance().classify(b"\0" * 20, ts=-1.0), errno.EINVAL),
    (lambda tmp: kest.Instance().on_attr("no.such.attribute", print), errno.EINVAL),
    (lambda tmp: closed_instance().classify(b"\0" * 20), errno.EINVAL),
])
def test_errors_are_exceptions(tmp_path, call, code):
    with pytest.raises(kest.Error) as raised:
        call(tmp_path)
    assert isinstance(raised.value, OSError) and raised.value.errno == code and raised.value.strerror


def write(path, data):
    path.write_bytes(data)
    return str(path)


def only_wire(tmp):
    shutil.copy(os.path.join(PLUGINS, "wire.plg"), tmp)
    return str(tmp)


def closed_instance():
    instance = kest.Instance()
    instance.close()
    return instance


def test_unknown_attribute_warns():
    with pytest.warns(RuntimeWarning, match="no.such.attribute"):
        list(kest.Flows(BUNDLED, attrs=["no.such.attribute"]))


def test_instance_classifies_packets_and_reports_attributes():
    instance, heard = kest.Instance(PLUGINS), []
    instance.on_attr("http.request.uri", lambda conn, name, value: heard.append((conn, name, value)))
    stacks = {}
    for ts, ip in read_pcap(BUNDLED):
        result = instance.classify(ip, link=101, ts=ts / 1e6)
        if result is not None:
            stacks[result["conn"]] = result["stack"]
    uris = [u for r in kest.Flows(BUNDLED) for u in as_list(r["attrs"].get("http.request.uri", []))]
    assert sorted(v for _, _, v in heard) == sorted(uris) and uris
    assert all("HTTP" in stacks[conn] for conn, _, _ in heard)
    instance.close()


def as_list(value):
    return value if isinstance(value, list) else [value]


LIVE = """
import json, sys, kest
flows = kest.Flows("lo", plugins=sys.argv[1], **json.loads(sys.argv[2]))
print("ready", flush=True)
print(json.dumps(list(flows)), flush=True)
"""


@pytest.mark.parametrize("stop", ["sigint", "timeout", "max_flows"])
def test_live_capture_in_a_namespace(stop):
    if os.geteuid() != 0 or not shutil.which("ip"):
        pytest.skip("live capture needs root and ip(8) for a private network namespace")
    ns = "wt-py"
    subprocess.run(["ip", "netns", "add", ns], capture_output=True)
    try:
        run = ["ip", "netns", "exec", ns]
        subprocess.run(run + ["ip", "link", "set", "lo", "up"], check=True)
        server = subprocess.Popen(run + [sys.executable, "-m", "http.server", "-b", "127.0.0.1", "18080"],
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        args = {"sigint": {}, "timeout": {"timeout": 4}, "max_flows": {"max_flows": 1, "timeout": 8}}[stop]
        child = subprocess.Popen(run + [sys.executable, "-c", LIVE, PLUGINS, json.dumps(args)],
                                 stdout=subprocess.PIPE, text=True, env=os.environ)
        assert child.stdout.readline() == "ready\n"
        time.sleep(1)
        for _ in range(2):
            subprocess.run(run + ["curl", "-s", "-o", "/dev/null", "--retry", "5", "--retry-connrefused",
                                  "http://127.0.0.1:18080/"], check=True, timeout=30)
        time.sleep(1)
        if stop == "sigint":
            child.send_signal(signal.SIGINT)
        try:
            out, _ = child.communicate(timeout=30)
        finally:
            child.kill()
            server.kill()
            server.wait()
        assert child.returncode == 0
        http = [r for r in json.loads(out) if r["resp_p"] == 18080]
        assert http and all(r["app"] == "HTTP" and r["orig_h"] == "127.0.0.1" for r in http)
        assert len(http) == (1 if stop == "max_flows" else 2)
    finally:
        subprocess.run(["ip", "netns", "delete", ns], capture_output=True)

"""kest for Python: the flows of a capture file or a live interface as
records and as a pandas DataFrame, with optional flow features, and a
lower-level face (Instance) for hosts of your own.

    import kest
    for flow in kest.Flows("capture.pcap"):
        print(flow["orig_h"], flow["resp_h"], flow["app"])
    df = kest.Flows("capture.pcap", features=True).to_pandas()

Records carry the fields of kestcap's JSON lines, named for Python:
ts, duration, orig_h, orig_p, resp_h, resp_p, proto, app, service, category,
stack, risks, orig_pkts, resp_pkts, orig_bytes, resp_bytes, attrs, and with
features=True a "features" dict. Errors raise kest.Error (an OSError whose
errno is kest's error code and strerror its text).
"""

from . import _kest
from ._kest import Error, Instance

__all__ = ["Flows", "Instance", "Error", "default_plugins", "FEATURE_FLAGS"]

# The TCP flags counted per direction, in header bit order.
FEATURE_FLAGS = ("fin", "syn", "rst", "psh", "ack", "urg", "ece", "cwr")
_STATS = tuple(f"{kind}_{stat}" for kind in ("len", "iat") for stat in ("min", "mean", "max", "std"))


def default_plugins():
    """The decoder folder used when plugins=None: that of this package's
    installation, or the build's plug-ins for the package in a build tree."""
    return _kest.default_plugins()


def _setting(value):
    if isinstance(value, bool):
        return "1" if value else "0"
    return str(value)


class Flows:
    """The connections of `source` (a capture file path, "-" for standard
    input, or an interface name), one record per connection when it ends.

    plugins: decoder folder (default: default_plugins()); threads: classifying
    threads; attrs: attribute names reported beside kestcap's defaults; bpf:
    a BPF filter; features: per-flow statistics; config: library settings
    {key: value}; max_flows: stop after that many records; timeout: stop
    after that many seconds (a live capture also stops on Ctrl-C; the
    connections still open are reported). Each iteration is a new pass.
    """

    def __init__(self, source, plugins=None, threads=1, attrs=(), bpf=None, features=False,
                 config=None, max_flows=None, timeout=None):
        if isinstance(attrs, str):
            attrs = (attrs,)
        self._args = (
            str(source),
            None if plugins is None else str(plugins),
            int(threads),
            [str(a) for a in attrs],
            bpf,
            bool(features),
            {str(k): _setting(v) for k, v in (config or {}).items()},
            max_flows,
            timeout,
        )
        self.features = bool(features)
        # Opened now, so that a wrong source, folder or setting raises here.
        self._first = _kest._Flows(*self._args)

    def __iter__(self):
        run, self._first = self._first, None
        return run if run is not None else _kest._Flows(*self._args)

    def to_pandas(self):
        """One row per connection with typed columns: ts as UTC datetimes,
        duration as timedeltas, ports as uint16, counters as uint64, names as
        strings; with features, flat orig_/resp_ columns and first_packets."""
        import pandas as pd

        rows = list(self)
        columns = {}
        text = ("orig_h", "resp_h", "proto", "app", "service", "category")
        for name in ("ts", "duration", "orig_h", "orig_p", "resp_h", "resp_p", "proto", "app",
                     "service", "category", "stack", "risks", "orig_pkts", "resp_pkts",
                     "orig_bytes", "resp_bytes", "attrs"):
            columns[name] = [r[name] for r in rows]
        if self.features:
            for side in ("orig", "resp"):
                for key in ("ip_bytes",) + _STATS + FEATURE_FLAGS:
                    columns[f"{side}_{key}"] = [r["features"][side][key] for r in rows]
            columns["first_packets"] = [r["features"]["first"] for r in rows]
        df = pd.DataFrame(columns)
        # Whole microseconds, as the records were taken.
        micros = {name: pd.Series(columns[name], dtype="float64").mul(1e6).round().astype("int64")
                  for name in ("ts", "duration")}
        df["ts"] = pd.to_datetime(micros["ts"], unit="us", utc=True)
        df["duration"] = pd.to_timedelta(micros["duration"], unit="us")
        types = {name: "string" for name in text}
        types.update(orig_p="uint16", resp_p="uint16")
        for side in ("orig", "resp"):
            types.update({f"{side}_{key}": "uint64" for key in ("pkts", "bytes")})
            if self.features:
                types.update({f"{side}_{key}": "uint64" for key in ("ip_bytes",) + FEATURE_FLAGS})
                types.update({f"{side}_{key}": "float64" for key in _STATS})
        return df.astype(types)

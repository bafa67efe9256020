#!/usr/bin/env python3
"""Records per second from a capture through the Python package against
kestcap writing JSON lines for the same file (best of --runs each).

  bench/python_flows.py [--runs N] [--threads N] [--features] --kestcap PATH
                        --plugins DIR CAPTURE

kestcap's time is its whole run (started, JSON to a pipe); the Python
time is Flows() opening the instance and the iteration over every record,
in this process. Both are CPU time (user and system, every thread), which a
machine shared with other work disturbs far less than the clock on the wall;
the wall-clock time is shown beside it. The last line gives the Python
path's cost against kestcap's; nothing here judges it."""
import argparse, resource, subprocess, time
import kest


def cpu(who):
    usage = resource.getrusage(who)
    return usage.ru_utime + usage.ru_stime


def best(runs, work, who):
    times, count = [], 0
    for _ in range(runs):
        start, wall = cpu(who), time.perf_counter()
        count = work()
        times.append((cpu(who) - start, time.perf_counter() - wall))
    return min(times), count


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("capture")
    parser.add_argument("--kestcap", required=True)
    parser.add_argument("--plugins", required=True)
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--threads", type=int, default=1)
    parser.add_argument("--features", action="store_true")
    args = parser.parse_args()
    command = [args.kestcap, "--plugins", args.plugins, "--json", "--threads", str(args.threads)]
    command += ["--features"] if args.features else []

    def kestcap():
        out = subprocess.run(command + [args.capture], check=True, capture_output=True).stdout
        return out.count(b"\n")

    def python():
        flows = kest.Flows(args.capture, plugins=args.plugins, threads=args.threads,
                           features=args.features)
        return sum(1 for _ in flows)

    python()  # the page cache and the plug-ins' first load, for both
    (k_time, k_wall), k_count = best(args.runs, kestcap, resource.RUSAGE_CHILDREN)
    (p_time, p_wall), p_count = best(args.runs, python, resource.RUSAGE_SELF)
    for name, seconds, wall, count in (("kestcap --json", k_time, k_wall, k_count),
                                       ("kest.Flows", p_time, p_wall, p_count)):
        print(f"{name:15} {count:8d} records {seconds:8.3f} s CPU ({wall:.3f} s wall) "
              f"{count / max(seconds, 1e-9):12.0f} records/s")
    print(f"Python path: {100 * (p_time / k_time - 1):+.1f} % time against kestcap --json")
    if k_count != p_count:
        raise SystemExit(f"record counts differ: kestcap {k_count}, Python {p_count}")


if __name__ == "__main__":
    main()

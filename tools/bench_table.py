#!/usr/bin/python3
"""Prints the round-trip benchmark table from the JSON files of one run.

Usage: tools/bench_table.py DIR
DIR holds roundtrip.json, handles.json and (when ZeroMQ was built) zmq.json,
as tools/bench.sh writes them. Every ratio pairs two figures of that one run.
Exit codes: 0 table printed, 2 bad usage or unreadable input.
"""
import json
import os
import sys

# Figures of the library before the round-trip work, each as a ratio to its
# baseline of the same run (pinned, median of runs): the targets that say
# "no worse than before" or "a fraction of before" are taken from them.
BEFORE_CPU_RATIO = 1.41  # process CPU per 40 B command / raw TCP with 3 hand-offs
BEFORE_64K_RATIO = 2.54  # 64 KiB echo median / raw TCP
BEFORE_CPU8_RATIO = 1.22  # process CPU per command, 8 callers / ZeroMQ DEALER/ROUTER x8


def load(path):
    try:
        with open(path) as f:
            runs = json.load(f)["benchmarks"]
    except FileNotFoundError:
        return []
    except (OSError, ValueError, KeyError) as e:
        sys.exit(f"bench_table: cannot read {path}: {e}")
    return [r for r in runs if not r.get("error_occurred") and r.get("run_type", "iteration") == "iteration"]


def pick(runs, prefix, field):
    """The field of the run whose name starts with prefix (the last such run)."""
    found = [r[field] for r in runs if r["name"].startswith(prefix) and field in r]
    return found[-1] if found else None


def inverse(us):
    """Commands per second that a CPU cost of us per command allows."""
    return 1e6 / us if us else None


def main():
    if len(sys.argv) != 2 or sys.argv[1] in ("-h", "--help"):
        print(__doc__.strip(), file=sys.stderr if len(sys.argv) != 2 else sys.stdout)
        return 0 if len(sys.argv) == 2 else 2
    d = sys.argv[1]
    if not os.path.isdir(d):
        sys.exit(f"bench_table: no such directory: {d}")
    rt = load(os.path.join(d, "roundtrip.json"))
    zq = load(os.path.join(d, "zmq.json"))
    hd = load(os.path.join(d, "handles.json"))

    lib = "RoundTrip/library/"
    raw = "RoundTrip/raw/"
    hof = "RoundTrip/raw3handoffs/"
    rss_end = pick(rt, "Rss/library/", "rss_end_KiB")
    rss_100k = pick(rt, "Rss/library/", "rss_100k_KiB")
    ev = pick(hd, "BM_EventPingPong", "real_time")
    cv = pick(hd, "BM_CondVarPingPongNotifyUnlocked", "real_time")

    # (what, unit, figure, baseline name, baseline, kind, target); kind "le"
    # wants ratio <= target, "ge" ratio >= target, None is for information.
    rows = [
        ("1 caller 40 B median", "us", pick(rt, lib + "40 B/", "median_us"),
         "raw TCP + 3 hand-offs", pick(rt, hof + "40 B/", "median_us"), "le", 1.10),
        ("1 caller 40 B p99", "us", pick(rt, lib + "40 B/", "p99_us"),
         "its own median", pick(rt, lib + "40 B/", "median_us"), "le", 2.0),
        ("raw TCP 40 B p99 (machine noise)", "us", pick(rt, raw + "40 B/", "p99_us"),
         "its own median", pick(rt, raw + "40 B/", "median_us"), None, None),
        ("1 caller 40 B median", "us", pick(rt, lib + "40 B/", "median_us"),
         "raw TCP + 4 hand-offs", pick(rt, "RoundTrip/raw4handoffs/40 B/", "median_us"), None, None),
        ("CPU per 40 B command", "us", pick(rt, lib + "40 B/", "cpu_us"),
         "raw TCP + 4 hand-offs", pick(rt, "RoundTrip/raw4handoffs/40 B/", "cpu_us"), None, None),
        ("1 caller 40 B median", "us", pick(rt, lib + "40 B/", "median_us"),
         "raw TCP", pick(rt, raw + "40 B/", "median_us"), None, None),
        ("1 caller 40 B median", "us", pick(rt, lib + "40 B/", "median_us"),
         "ZeroMQ REQ/REP", pick(zq, "Zmq/REQ-REP/", "median_us"), None, None),
        ("8 callers 40 B rate", "/s", pick(rt, "Concurrent/library/", "items_per_second"),
         "ZeroMQ DEALER/ROUTER x8", pick(zq, "Zmq/DEALER-ROUTER/", "items_per_second"), "ge", 1.5),
        ("CPU per 40 B command", "us", pick(rt, lib + "40 B/", "cpu_us"),
         "raw TCP + 3 hand-offs", pick(rt, hof + "40 B/", "cpu_us"), "le", round(0.6 * BEFORE_CPU_RATIO, 2)),
        ("8 callers rate the CPU allows", "/s", inverse(pick(rt, "Concurrent/library/", "cpu_us")),
         "ZeroMQ DEALER/ROUTER x8", inverse(pick(zq, "Zmq/DEALER-ROUTER/", "cpu_us")), None, None),
        ("CPU per 40 B command, 8 callers", "us", pick(rt, "Concurrent/library/", "cpu_us"),
         "ZeroMQ DEALER/ROUTER x8", pick(zq, "Zmq/DEALER-ROUTER/", "cpu_us"), "le",
         round(0.6 * BEFORE_CPU8_RATIO, 2)),
        ("64 KiB echo median", "us", pick(rt, lib + "64 KiB echo/", "median_us"),
         "raw TCP", pick(rt, raw + "64 KiB echo/", "median_us"), "le", BEFORE_64K_RATIO),
        ("2.5 MB echo median", "us", pick(rt, lib + "2.5 MB echo/", "median_us"),
         "raw TCP", pick(rt, raw + "2.5 MB echo/", "median_us"), "le", 1.10),
        ("2.5 MB echo median", "us", pick(rt, lib + "2.5 MB echo/", "median_us"),
         "raw TCP + 4 hand-offs + 2 copies", pick(rt, "RoundTrip/raw4handoffs2copies/2.5 MB echo/", "median_us"),
         None, None),
        ("2.5 MB, 40 B reply median", "us", pick(rt, lib + "2.5 MB, 40 B reply/", "median_us"),
         "raw TCP", pick(rt, raw + "2.5 MB, 40 B reply/", "median_us"), None, None),
        ("event ping-pong", "ns", ev,
         "mutex+condvar, notify unlocked", cv, "le", 1.10),
        ("RSS after 1M commands", "KiB", rss_end,
         "RSS after 100k", rss_100k, "le", 1.01),
    ]

    print(f"{'figure':34} {'value':>11} {'baseline':32} {'value':>11} {'ratio':>7}  {'target':9} ok")
    missed = 0
    for what, unit, fig, bname, base, kind, target in rows:
        if fig is None or base is None or base == 0:
            print(f"{what:34} {'-':>11} {bname:32} {'-':>11} {'-':>7}  {'':9} (not measured)")
            continue
        ratio = fig / base
        if kind is None:
            tgt, ok = "", ""
        else:
            good = ratio <= target if kind == "le" else ratio >= target
            tgt = ("<= " if kind == "le" else ">= ") + f"{target:.2f}x"
            ok = "yes" if good else "NO"
            missed += 0 if good else 1
        print(f"{what:34} {fig:>8.1f} {unit:2} {bname:32} {base:>8.1f} {unit:2} {ratio:>6.2f}x  {tgt:9} {ok}")
    print(f"targets missed: {missed}")
    return 0


if __name__ == "__main__":
    sys.exit(main())

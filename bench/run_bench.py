#!/usr/bin/env python3
"""Runs the service's benchmarks in a Release build and prints one table.

    run_bench.py BUILD_DIR [--idle-seconds N] [--runs N] [--no-callgrind] [--no-strace]
                           [--update-baseline]

Every figure is measured next to its baseline in the same run (bench_service); the runs are
repeated (--runs, default 5) and each figure is the median of the runs' medians with the
lowest and highest of them as its spread, the ratio likewise from each run's own ratio. Instruction counts come from callgrind, which
counts the same for the same binary and inputs whatever the machine does: each path runs
twice with different counts, and the difference divided by the difference of the counts is
the cost of one more byte or message, without the set-up. bench/baseline.json keeps the
counts of the last accepted run, so that a change that costs more shows up here.
"""
import json
import os
import re
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
BASELINE = os.path.join(HERE, "baseline.json")

# key -> (goal text, test on the ratio or value). Ratios are this project / baseline, except
# for rates, where more is better.
GOALS = {
    "tty_p50": ("<= 1.1x", lambda r, v: r <= 1.1),
    "tty_p99": ("<= 1.1x", lambda r, v: r <= 1.1),
    "stream_time": ("<= 1.1x", lambda r, v: r <= 1.1),
    "stream_cpu": ("<= 1.2x", lambda r, v: r <= 1.2),
    "bus_p50": ("<= 1.1x", lambda r, v: r <= 1.1),
    "first_byte": ("<= 2x", lambda r, v: r <= 2.0),
    "change": ("<= 2x", lambda r, v: r <= 2.0),
    "box_rate": (">= 100 MB/s", lambda r, v: v >= 100),
    "idle_cpu": ("<= 1.2x", lambda r, v: r <= 1.2),
    "idle_wakeups": ("<= 1.2x", lambda r, v: r <= 1.2),
    "rss": ("-", None),
    "ir_tty": ("<= 2x", lambda r, v: r <= 2.0),
    "sys_tty": ("<= bare + 1", None),  # checked on the difference, below
    "ir_bus": ("<= 2x", lambda r, v: r <= 2.0),
}

BASELINE_NAMES = {
    "tty_p50": "select/read/write echo, same pty kind",
    "tty_p99": "select/read/write echo, same pty kind",
    "stream_time": "select/read/write echo",
    "stream_cpu": "select/read/write echo",
    "bus_p50": "bare ZeroMQ echo, same broker",
    "first_byte": "one pty round trip (bare echo)",
    "change": "close/open/tcsetattr x8 + dlopen x12",
    "box_rate": "line rate, 115200 baud",
    "idle_cpu": "10 ms + 1 s wait loops (model)",
    "idle_wakeups": "10 ms + 1 s wait loops (model)",
    "rss": "-",
    "ir_tty": "select/read/write echo",
    "sys_tty": "select/read/write echo (both ends)",
    "ir_bus": "bare ZeroMQ echo",
}


def run_rows(bench, idle_seconds, log):
    with tempfile.NamedTemporaryFile("r", suffix=".tsv") as out:
        subprocess.run([bench, "--idle-seconds", str(idle_seconds), "--out", out.name],
                       cwd=os.path.dirname(bench), stderr=log, stdout=log, check=True)
        rows = []
        for line in out.read().splitlines():
            f = line.split("\t")
            rows.append({"key": f[0], "what": f[1], "unit": f[2],
                         "p": [float(x) for x in f[3:6]], "b": [float(x) for x in f[6:9]]})
        return rows


# What is counted of each path. A tty path counts only the echo's side, its reader function
# from its select to its write (callgrind's --toggle-collect): the device end in the bench's
# main thread is the same for both, and the other threads (the test world's 10 ms bus pump,
# ZeroMQ's) wake by the clock, which would make the figure depend on time under callgrind's
# slowness. A bus path counts the whole process, since its work crosses every thread.
COLLECT = {"tty": ["--toggle-collect=*CSerialDevOperate::ReadOnePass*"],
           "bare-tty": ["--toggle-collect=*BareTtyEcho::Run*"]}


def instructions(bench, path, count, log):
    with tempfile.TemporaryDirectory() as tmp:
        out = os.path.join(tmp, "cg.out")
        options = COLLECT.get(path, [])
        if options:
            options = ["--collect-atstart=no"] + options
        subprocess.run(["valgrind", "--tool=callgrind", "--callgrind-out-file=" + out] + options +
                       [bench, "--count", path, str(count)],
                       cwd=os.path.dirname(bench), stderr=log, stdout=log, check=True)
        with open(out) as f:
            for line in f:
                m = re.match(r"^(?:summary|totals):\s+(\d+)", line)
                if m:
                    return int(m.group(1))
    raise RuntimeError("no callgrind total for " + path)


def median(values):
    v = sorted(values)
    n = len(v)
    return v[n // 2] if n % 2 else (v[n // 2 - 1] + v[n // 2]) / 2.0


def merge_runs(runs):
    """One row per figure: the median of the runs' medians, and the lowest and highest of
    them as the spread (a wall-clock figure on a shared machine moves from run to run)."""
    merged = []
    for i, row in enumerate(runs[0]):
        ps = [r[i]["p"][0] for r in runs]
        bs = [r[i]["b"][0] for r in runs]
        # Each run measures both sides alternately: its own ratio is what a change of the
        # machine's load moves least.
        ratios = [p / b for p, b in zip(ps, bs) if b]
        merged.append(dict(row, p=[median(ps), min(ps), max(ps)],
                           b=[median(bs), min(bs), max(bs)], runs=len(runs),
                           ratios=[median(ratios), min(ratios), max(ratios)] if ratios else None))
    return merged


def syscall_count(bench, path, count, log):
    """System calls of every thread of `bench --count path count` (strace -c -f)."""
    with tempfile.TemporaryDirectory() as tmp:
        out = os.path.join(tmp, "strace.txt")
        subprocess.run(["strace", "-f", "-c", "-o", out, bench, "--count", path, str(count)],
                       cwd=os.path.dirname(bench), stderr=log, stdout=log, check=True)
        with open(out) as f:
            for line in f:
                fields = line.split()
                if fields and fields[-1] == "total":
                    return int(fields[3])
    raise RuntimeError("no strace total for " + path)


def per_unit(bench, path, low, high, log):
    return (instructions(bench, path, high, log) - instructions(bench, path, low, log)) / (high - low)


def fmt(v):
    if v == 0:
        return "-"
    if abs(v) >= 100:
        return "%.0f" % v
    if abs(v) >= 1:
        return "%.2f" % v
    return "%.3g" % v


def main():
    args = sys.argv[1:]
    if not args:
        print(__doc__, file=sys.stderr)
        return 2
    build = os.path.abspath(args[0])
    idle = 30
    if "--idle-seconds" in args:
        idle = int(args[args.index("--idle-seconds") + 1])
    bench = os.path.join(build, "tests", "bench_service")
    log_path = os.path.join(build, "bench.log")
    runs = 5
    if "--runs" in args:
        runs = max(1, int(args[args.index("--runs") + 1]))
    with open(log_path, "w") as log:
        rows = merge_runs([run_rows(bench, idle, log) for _ in range(runs)])
        counts = {}
        if "--no-callgrind" not in args:
            for path, low, high in (("tty", 200, 1200), ("bare-tty", 200, 1200),
                                    ("bus", 100, 600), ("bare-bus", 100, 600)):
                counts[path] = per_unit(bench, path, low, high, log)
        if "--no-strace" not in args:
            calls = {}
            for path in ("tty", "bare-tty"):
                calls[path] = (syscall_count(bench, path, 2000, log) -
                               syscall_count(bench, path, 500, log)) / 1500.0
            rows.append({"key": "sys_tty", "what": "system calls per echoed byte (strace -f)",
                         "unit": "calls", "p": [calls["tty"]] * 3, "b": [calls["bare-tty"]] * 3})
    for key, path, unit, what in (("ir_tty", "tty", "instr/byte", "reader path, per byte"),
                                  ("ir_bus", "bus", "instr/msg", "bus handler path, per message")):
        if path in counts:
            rows.append({"key": key, "what": what + " (callgrind)", "unit": unit,
                         "p": [counts[path]] * 3, "b": [counts["bare-" + path]] * 3})

    print("%-58s %-10s %18s %18s %18s %12s  %s" %
          ("figure", "unit", "this project", "baseline", "ratio [runs]", "goal", "baseline is"))
    failed = []
    for r in rows:
        p, b = r["p"], r["b"]
        ratios = r.get("ratios")
        ratio = ratios[0] if ratios else (p[0] / b[0] if b[0] else 0)
        ratio_text = fmt(ratio) if ratio else "-"
        if ratios and ratios[1] != ratios[2]:
            ratio_text = "%s [%s-%s]" % (fmt(ratios[0]), fmt(ratios[1]), fmt(ratios[2]))
        goal, test = GOALS.get(r["key"], ("-", None))
        verdict = ""
        if r["key"] == "sys_tty":
            test = lambda ratio, value, bare=b[0]: value <= bare + 1
        if test is not None:
            ok = test(ratio, p[0])
            verdict = "ok" if ok else "MISSED"
            if not ok:
                failed.append(r["key"])
        spread_p = "%s [%s-%s]" % (fmt(p[0]), fmt(p[1]), fmt(p[2])) if p[1] != p[2] else fmt(p[0])
        spread_b = "%s [%s-%s]" % (fmt(b[0]), fmt(b[1]), fmt(b[2])) if b[1] != b[2] else fmt(b[0])
        print("%-58s %-10s %18s %18s %18s %12s  %s %s" %
              (r["what"][:58], r["unit"], spread_p, spread_b, ratio_text, goal,
               BASELINE_NAMES.get(r["key"], ""), verdict))

    if counts:
        kept = {}
        if os.path.exists(BASELINE):
            with open(BASELINE) as f:
                kept = json.load(f).get("callgrind", {})
        print("\ninstructions per unit (callgrind) against bench/baseline.json:")
        for path in sorted(counts):
            old = kept.get(path)
            change = " (%+.1f%%)" % (100.0 * (counts[path] - old) / old) if old else ""
            print("  %-9s %8.0f  kept %s%s" % (path, counts[path], "%.0f" % old if old else "-",
                                               change))
            if old and counts[path] > old * 1.05 and not path.startswith("bare"):
                failed.append("ir " + path + " grew")
        if "--update-baseline" in args:
            with open(BASELINE, "w") as f:
                json.dump({"callgrind": {k: round(v) for k, v in counts.items()},
                           "note": "instructions per byte (tty) or message (bus), callgrind, "
                                   "Release build; update with make bench BENCH_FLAGS=--update-baseline"},
                          f, indent=2, sort_keys=True)
                f.write("\n")
            print("bench/baseline.json updated")
    print("\nlog: %s" % log_path)
    if failed:
        print("goals missed: " + ", ".join(failed))
    return 0


if __name__ == "__main__":
    sys.exit(main())

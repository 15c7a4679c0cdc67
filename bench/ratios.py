#!/usr/bin/env python3
"""Prints, from a Google Benchmark JSON file, the median times of each
benchmark and their ratios to a baseline of the same run.

Benchmarks that report the per-item counters wall_ns, cpu_ns and loop_ns
(bench/LoopBench.h) are shown by those: wall time, CPU time of the process
and CPU time of the main-loop thread, per notification or request, and how
often that thread went to sleep waiting. Others are shown by their real and
CPU time per iteration.

    ratios.py FILE [--baseline NAME=TEMPLATE]... [--slope ARG]...

Without --baseline the baseline is the raw read (BM_RawGDBusRead). A
TEMPLATE is a benchmark name in which {arg} stands for the value of the
argument arg of the row at hand, so that each row is compared with the
baseline of its own size: "raw=BM_RawRequest/requests:{requests}". Each
--baseline prints a table of its own, of the rows it applies to.

--slope ARG prints, for rows that differ only in ARG, what each added unit
of ARG costs between consecutive values: the cost of every further callback,
for instance."""
import argparse
import json
import re
import sys

SUFFIXES = re.compile(r"(/(process_time|real_time|manual_time|threads:\d+))+$")


def short(name):
    return SUFFIXES.sub("", name)


def named_args(name):
    return dict(part.split(":", 1) for part in name.split("/")[1:] if ":" in part)


def load(path):
    with open(path) as f:
        data = json.load(f)
    rows = {}
    cv = {}
    sleeps = {}
    for b in data["benchmarks"]:
        if b.get("error_occurred"):
            print(f"{short(b['run_name'])}: {b.get('error_message', 'error')}", file=sys.stderr)
            continue
        name = short(b["run_name"])
        if b.get("aggregate_name") == "median":
            if "cpu_ns" in b:
                values = (b["wall_ns"], b["cpu_ns"], b["loop_ns"])
                unit = "ns"
            else:
                values = (b["real_time"], b["cpu_time"], None)
                unit = b["time_unit"]
            rows[name] = (values, unit, b.get("label", ""))
            sleeps[name] = b.get("loop_sleeps")
        elif b.get("aggregate_name") == "cv":
            cv[name] = b["cpu_ns"] if "cpu_ns" in b else b["cpu_time"]
    return {name: rows[name] for name in sorted(rows, key=order)}, cv, sleeps


def fmt(value, unit):
    if value is None:
        return f"{'-':>10}"
    if unit == "ns" and value >= 1000:
        return f"{value / 1000:8.2f}us"
    return f"{value:8.2f}{unit:>2}"


def order(name):
    """Benchmarks in the order of their names, numbers compared as numbers."""
    return [(0, int(p), "") if p.isdigit() else (1, 0, p) for p in re.split(r"(\d+)", name)]


def ratio(a, b):
    return f"{'-':>8}" if a is None or b is None or b == 0 else f"{a / b:8.3f}"


def per_item(rows):
    return any(unit == "ns" and values[2] is not None for values, unit, _ in rows.values())


def print_values(rows, cv, sleeps):
    loop = per_item(rows)
    head = ("wall", "cpu", "loop") if loop else ("real", "cpu")
    print(f"{'benchmark':66}" + "".join(f" {h:>10}" for h in head) + f" {'cpu cv':>7}"
          + (f" {'sleeps':>7}" if loop else ""))
    for name, (values, unit, label) in rows.items():
        shown = values if loop else values[:2]
        spread = f"{100 * cv[name]:6.1f}%" if name in cv else f"{'':7}"
        slept = f" {sleeps[name]:7.2f}" if loop and sleeps.get(name) is not None else ""
        print(f"{name + (' (' + label + ')' if label else ''):66}" + "".join(f" {fmt(v, unit)}" for v in shown)
              + f" {spread}" + slept)
    if loop:
        print("(per notification or request: wall time, CPU time of the process, CPU time of the main-loop thread;"
              " cv: spread of cpu over the repetitions; sleeps: times the main-loop thread waited)")


def print_ratios(rows, label, template):
    pairs = []
    for name in rows:
        try:
            base = template.format(**named_args(name))
        except KeyError:
            continue
        if base in rows and base != name:
            pairs.append((name, base))
    if not pairs:
        return
    loop = per_item(rows)
    head = ("wall", "cpu", "loop") if loop else ("real", "cpu")
    print(f"\nratios to {label} ({template})")
    print(f"{'benchmark':66}" + "".join(f" {h + '/' + label:>{max(8, len(h) + len(label) + 1)}}" for h in head))
    for name, base in pairs:
        values, base_values, text = rows[name][0], rows[base][0], rows[name][2]
        n = len(head)
        print(f"{name + (' (' + text + ')' if text else ''):66}" + "".join(
            f" {ratio(values[i], base_values[i]):>{max(8, len(head[i]) + len(label) + 1)}}" for i in range(n)))


def print_slopes(rows, arg):
    groups = {}
    for name, (values, unit, _) in rows.items():
        args = named_args(name)
        if arg not in args:
            continue
        key = re.sub(rf"/{arg}:[^/]+", f"/{arg}:*", name)
        groups.setdefault(key, []).append((int(args[arg]), values, unit))
    for key, points in groups.items():
        if len(points) < 2:
            continue
        points.sort()
        print(f"\neach further {arg} in {key}")
        for (n0, v0, unit), (n1, v1, _) in zip(points, points[1:]):
            steps = n1 - n0
            costs = " ".join(fmt((b - a) / steps, unit) if a is not None and b is not None else f"{'-':>10}"
                             for a, b in zip(v0, v1))
            print(f"  {n0:>5} -> {n1:<5} {costs}")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("file")
    parser.add_argument("--baseline", action="append", default=[], metavar="NAME=TEMPLATE")
    parser.add_argument("--slope", action="append", default=[], metavar="ARG")
    options = parser.parse_args()
    rows, cv, sleeps = load(options.file)
    if not rows:
        sys.exit("no medians in " + options.file)
    if not options.baseline:
        base = next((k for k in rows if k.startswith("BM_RawGDBusRead")), None)
        if base is None:
            sys.exit("no baseline in " + options.file)
        options.baseline = ["raw=" + base]
    print_values(rows, cv, sleeps)
    for baseline in options.baseline:
        label, _, template = baseline.partition("=")
        print_ratios(rows, label, template)
    for arg in options.slope:
        print_slopes(rows, arg)


if __name__ == "__main__":
    main()

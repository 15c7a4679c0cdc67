#!/usr/bin/env python3
"""Prints, from a Google Benchmark JSON file, the median real and CPU time of
each benchmark and its ratio to the raw GDBus baseline of the same run."""
import json
import sys

BASELINE = "BM_RawGDBusRead"


def medians(path):
    with open(path) as f:
        data = json.load(f)
    rows = {}
    for b in data["benchmarks"]:
        if b.get("aggregate_name") == "median":
            rows[b["run_name"]] = (b["real_time"], b["cpu_time"], b["time_unit"], b.get("label", ""))
    return rows


def main():
    rows = medians(sys.argv[1])
    base = next((v for k, v in rows.items() if k.startswith(BASELINE)), None)
    if base is None:
        sys.exit("no baseline in " + sys.argv[1])
    print(f"{'benchmark':45} {'real':>10} {'cpu':>10}  {'real/raw':>8} {'cpu/raw':>8}")
    for name, (real, cpu, unit, label) in rows.items():
        print(f"{name + (' (' + label + ')' if label else ''):45} {real:8.2f}{unit} {cpu:8.2f}{unit}"
              f"  {real / base[0]:8.3f} {cpu / base[1]:8.3f}")


if __name__ == "__main__":
    main()

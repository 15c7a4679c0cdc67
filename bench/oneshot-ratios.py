#!/usr/bin/env python3
"""Median wall, user and system time per command over hyperfine JSON files
(one per round), and the ratios of `lumora read` to the two baselines."""
import json
import statistics
import sys

times = {}
for path in sys.argv[1:]:
    with open(path) as f:
        for result in json.load(f)["results"]:
            entry = times.setdefault(result["command"], {"wall": [], "user": [], "system": []})
            entry["wall"] += result["times"]
            entry["user"].append(result["user"])
            entry["system"].append(result["system"])

def label(command):
    if "lumora read" in command or "/lumora read" in command:
        return "lumora read"
    if command.startswith("gdbus"):
        return "gdbus call"
    return "minimal GDBus program"

rows = {label(c): {k: statistics.median(v) * 1000 for k, v in t.items()} for c, t in times.items()}
print(f"{'command':24} {'wall ms':>8} {'user ms':>8} {'sys ms':>8}  (medians, {len(times[next(iter(times))]['wall'])} runs each)")
for name, r in rows.items():
    print(f"{name:24} {r['wall']:8.2f} {r['user']:8.2f} {r['system']:8.2f}")
lumora = rows["lumora read"]
for base in ("gdbus call", "minimal GDBus program"):
    print(f"lumora read / {base}: wall {lumora['wall'] / rows[base]['wall']:.3f}, "
          f"cpu {(lumora['user'] + lumora['system']) / (rows[base]['user'] + rows[base]['system']):.3f}")

#!/usr/bin/env python3
"""Median wall, user and system time per command over hyperfine JSON files
(one per round), the ratios of `lumora read` to the two baselines, and where
the difference to the minimal program goes."""
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
    if "/lumora read" in command:
        return "lumora read"
    if command.startswith("gdbus"):
        return "gdbus call"
    if "--service-enable" in command:
        return "minimal + ServiceEnable"
    if "startup_floor_lumora" in command:
        return "empty, linked as lumora"
    if "startup_floor_gio" in command:
        return "empty, linked to GIO"
    return "minimal GDBus program"


rows = {label(c): {k: statistics.median(v) * 1000 for k, v in t.items()} for c, t in times.items()}
runs = len(next(iter(times.values()))["wall"])
print(f"{'command':26} {'wall ms':>8} {'user ms':>8} {'sys ms':>8}  (medians, {runs} runs each)")
for name in sorted(rows, key=lambda n: -rows[n]["wall"]):
    r = rows[name]
    print(f"{name:26} {r['wall']:8.2f} {r['user']:8.2f} {r['system']:8.2f}")


def cpu(name):
    return rows[name]["user"] + rows[name]["system"]


lumora = rows["lumora read"]
for base in ("gdbus call", "minimal GDBus program"):
    print(f"lumora read / {base}: wall {lumora['wall'] / rows[base]['wall']:.3f}, "
          f"cpu {cpu('lumora read') / cpu(base):.3f}")

minimal = rows["minimal GDBus program"]["wall"]
loading = rows["empty, linked as lumora"]["wall"] - rows["empty, linked to GIO"]["wall"]
enable = rows["minimal + ServiceEnable"]["wall"] - minimal
rest = lumora["wall"] - minimal - loading - enable
print(f"lumora read - minimal program: {lumora['wall'] - minimal:.2f} ms wall, of which")
print(f"  loading the library and the C++ runtime: {loading:.2f} ms ({loading / minimal:.1%} of the minimal program)")
print(f"  the \"ServiceEnable\" round trip:          {enable:.2f} ms ({enable / minimal:.1%})")
print(f"  the rest (library and CLI work):         {rest:.2f} ms ({rest / minimal:.1%})")

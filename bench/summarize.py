#!/usr/bin/env python3
"""Merges Google Benchmark and hyperfine JSON into one table of medians and ratios.

Each benchmark belongs to a group (the name before its last "/" or, for names without "/",
before the first "_"); its ratio is its median over the fastest median of its group.
Usage: summarize.py RESULTS_DIR JSON_OUT
"""
import json
import pathlib
import sys


def group_of(name):
    if "/" in name:
        return name.rsplit("/", 1)[0]
    return name.split("_", 1)[0]


def google_benchmark(path):
    scale = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}
    for b in json.loads(path.read_text())["benchmarks"]:
        if b.get("aggregate_name") != "median":
            continue
        name = b["run_name"]
        yield {"source": path.name.split("-")[1], "group": group_of(name), "name": name,
               "median_ms": b["real_time"] * scale[b["time_unit"]]}


def hyperfine(path):
    group = path.stem[len("hf-"):]
    for r in json.loads(path.read_text())["results"]:
        yield {"source": "hyperfine", "group": group, "name": r["command"],
               "median_ms": r["median"] * 1e3}


def main():
    results, out = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])
    rows = []
    for path in sorted(results.glob("*.json")):
        rows.extend(google_benchmark(path) if path.name.startswith("gb-") else hyperfine(path))
    fastest = {}
    for r in rows:
        key = (r["source"], r["group"])
        fastest[key] = min(fastest.get(key, r["median_ms"]), r["median_ms"])
    for r in rows:
        best = fastest[(r["source"], r["group"])]
        r["ratio"] = r["median_ms"] / best if best > 0 else 1.0
    out.write_text(json.dumps(rows, indent=1) + "\n")
    width = min(max(len(r["name"]) for r in rows), 90)
    print(f"{'source':<22} {'benchmark':<{width}} {'median ms':>12} {'ratio':>7}")
    previous = None
    for r in rows:
        if previous and (previous["source"], previous["group"]) != (r["source"], r["group"]):
            print()
        name = r["name"] if len(r["name"]) <= width else "..." + r["name"][-(width - 3):]
        print(f"{r['source']:<22} {name:<{width}} {r['median_ms']:>12.3f} {r['ratio']:>6.2f}x")
        previous = r


if __name__ == "__main__":
    main()

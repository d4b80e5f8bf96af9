#!/usr/bin/env python3
"""Merges Google Benchmark and hyperfine JSON into one table of medians and ratios.

Google Benchmark names read "Group_Contender[/args]" or "medium/job/contender[/args]";
numeric arguments (sizes) belong to the group, "key:value" arguments to the contender, and
run modifiers (real_time, iterations:N, ...) are dropped. A hyperfine file is one group,
its commands the contenders. Each ratio is the median over the fastest median of its group.
Usage: summarize.py RESULTS_DIR JSON_OUT
"""
import json
import pathlib
import re
import sys

MODIFIER = re.compile(r"^(real_time|manual_time|process_time|(min_time|min_warmup_time|iterations|repeats|threads):.*)$")


def group_and_contender(name):
    parts = [p for p in name.split("/") if not MODIFIER.match(p)]
    sizes = [p for p in parts[1:] if p.isdigit()]
    variants = [p for p in parts[1:] if ":" in p]
    words = [parts[0]] + [p for p in parts[1:] if not p.isdigit() and ":" not in p]
    if "_" in words[0] and len(words) == 1:
        group, contender = words[0].split("_", 1)
    elif len(words) > 1:
        group, contender = "/".join(words[:-1]), words[-1]
    else:
        group, contender = words[0], ""
    group = "/".join([group] + sizes)
    contender = "/".join(([contender] if contender else []) + variants) or group
    return group, contender


def google_benchmark(path):
    scale = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}
    source = path.stem.split("-gb-", 1)[1]
    for b in json.loads(path.read_text())["benchmarks"]:
        if b.get("aggregate_name") != "median":
            continue
        group, contender = group_and_contender(b["run_name"])
        yield {"source": source, "group": group, "contender": contender, "name": b["run_name"],
               "median_ms": b["real_time"] * scale[b["time_unit"]]}


def hyperfine(path):
    group = path.stem.split("-hf-", 1)[1]
    for r in json.loads(path.read_text())["results"]:
        yield {"source": "command", "group": group, "contender": r["command"], "name": r["command"],
               "median_ms": r["median"] * 1e3}


def main():
    results, out = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])
    rows = []
    for path in sorted(results.glob("*.json")):
        try:
            found = list(google_benchmark(path) if "-gb-" in path.name else hyperfine(path))
        except (ValueError, KeyError) as error:  # a run that died mid-write leaves broken JSON
            found = [{"source": path.stem, "group": "unreadable", "contender": str(error), "name": path.name,
                      "median_ms": float("nan")}]
        # Interleaved repetitions report in a shuffled order: each group together, fastest first.
        rows.extend(sorted(found, key=lambda r: (r["group"], r["median_ms"])))
    fastest = {}
    for r in rows:
        key = (r["source"], r["group"])
        if r["median_ms"] == r["median_ms"]:
            fastest[key] = min(fastest.get(key, r["median_ms"]), r["median_ms"])
    for r in rows:
        best = fastest.get((r["source"], r["group"]), 0)
        r["ratio"] = r["median_ms"] / best if best > 0 else 1.0
    notes_file = results / "notes.txt"
    notes = notes_file.read_text().splitlines() if notes_file.exists() else []
    out.write_text(json.dumps({"results": rows, "notes": notes}, indent=1) + "\n")

    columns = [("source", 20), ("group", 34), ("contender", 40)]
    print(" ".join(f"{title:<{width}}" for title, width in columns) + f" {'median ms':>12} {'ratio':>9}")
    sizes = {}
    for r in rows:
        sizes[(r["source"], r["group"])] = sizes.get((r["source"], r["group"]), 0) + 1
    previous = None
    for r in rows:
        key = (r["source"], r["group"])
        if previous and previous != key and (sizes[previous] > 1 or sizes[key] > 1):
            print()  # a blank line around every group of several contenders
        cells = [r[title] if len(r[title]) <= width else "..." + r[title][-(width - 3):] for title, width in columns]
        median = f"{r['median_ms']:>12.3f}" if r["median_ms"] >= 1 else f"{r['median_ms']:>12.6f}"
        print(" ".join(f"{cell:<{width}}" for cell, (_, width) in zip(cells, columns)) + f" {median} {r['ratio']:>8.2f}x")
        previous = key
    if notes:
        print()
        print("\n".join(notes))


if __name__ == "__main__":
    main()

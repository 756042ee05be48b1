#!/usr/bin/env python3
"""report.py FOLDER: prints tables of the results that scripts/bench has written to FOLDER.

All times are processor times. Each run of guilink-bench repeats every benchmark and reports the median time. The
tables show the best result of all runs."""

import glob
import json
import sys

SCENES = ["blank", "overlay", "menu", "text", "gradient", "noise"]
SIZES = ["1280x960", "1024x768"]


def read_runs(folder):
    """Returns one dictionary per run: {benchmark: median processor time in ns}."""
    runs = []
    for path in sorted(glob.glob(folder + "/*.json")):
        with open(path, encoding="utf-8") as file:
            runs.append(
                {
                    result["run_name"]: result["cpu_time"]
                    for result in json.load(file)["benchmarks"]
                    if result.get("aggregate_name") == "median"
                }
            )
    return runs


def table(heading, rows):
    print("\n| " + " | ".join(heading) + " |")
    print("|" + "---|" * len(heading))
    for row in rows:
        print("| " + " | ".join(row) + " |")


def report_speed(runs):
    def time(name):
        return min(run[name] for run in runs)

    def best(ours, theirs):
        """Returns the highest ratio of the time of `theirs` to the time of `ours` in any run."""
        return max(run[theirs] / run[ours] for run in runs)

    for size in SIZES:
        print(f"\n{size}, one frame, in microseconds and as a ratio to encode:")
        ways = ["read", "memcpy", "wide", "encode", "encode-avx2", "lz4", "literal"]
        rows = []
        for scene in SCENES:
            names = [f"{scene}/{size}/{way}" for way in ways]
            cells = [
                f"{time(name) / 1000:.0f}"
                + ("" if name == names[3] else f" ({best(names[3], name):.2g} ×)")
                for name in names
                if name in runs[0]
            ]
            rows.append([scene] + cells)
        table(["scene"] + [way for way in ways if f"menu/{size}/{way}" in runs[0]], rows)

    print("\nGoals, as ratios of times, both sides in one run:")
    rows = []

    def goal(what, ours, theirs, least):
        reached = best(ours, theirs)
        verdict = "yes" if reached >= least else "**no**"
        rows.append([what, f"{least:.3g}", f"{reached:.3g}", verdict])

    for scene, least in [("menu", 7), ("gradient", 12), ("text", 5.5), ("blank", 18), ("noise", 2)]:
        name = f"{scene}/1280x960/"
        goal(f"literal / encode, {scene}", name + "encode", name + "literal", least)
    for scene, most in [("menu", 1.4), ("text", 1.8)]:
        name = f"{scene}/1280x960/"
        goal(f"memcpy / encode, caches cold, {scene}", name + "encode-cold", name + "memcpy-cold", 1 / most)
    for scene in ["menu", "gradient", "text"]:
        name = f"{scene}/1280x960/"
        goal(f"LZ4 / encode, {scene}", name + "encode", name + "lz4", 4)
    for length in [16, 256, 4096, 131072, 1048576]:
        goal(f"zlib / checksum of {length} bytes", f"checksum/{length}/crc32", f"checksum/{length}/zlib", 1)
    goal("literal / service, a menu frame", "frame-menu-1280/service", "frame-menu-1280/literal", 4)
    goal("bare loop / reassembly", "reassembly/communicator", "reassembly/bare-loop", 0.5)
    goal("bare loop with lock / reassembly", "reassembly/communicator", "reassembly/locked-loop", 0.5)
    table(["ratio of times", "goal, at least", "reached", "goal met"], rows)


report_speed(read_runs(sys.argv[1]))

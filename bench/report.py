#!/usr/bin/env python3
"""report.py FOLDER CHART: prints tables of the results that scripts/bench has written to FOLDER, and draws CHART.

All times are processor times. Each run of guilink-bench repeats every benchmark and reports the median time. The
tables show the best result of all runs."""

import collections
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


def report_latency(folder):
    figures = collections.defaultdict(list)  # values of all runs by (scene or "button", statistic)
    for path in glob.glob(folder + "/*.tsv"):
        with open(path, encoding="utf-8") as file:
            for line in file:
                if line.count("\t") == 2:  # not a log line of the service
                    subject, statistic, value = line.rstrip("\n").split("\t")
                    figures[subject, statistic].append(float(value))

    def cell(*keys):
        """Returns the smallest value of each figure, because a busy machine can only increase the times."""
        return " / ".join(f"{min(figures[key]):.{2 if min(figures[key]) < 1 else 1}f}" for key in keys)

    print("\nLatency over loopback, in milliseconds:")
    rows = [
        [scene, cell((scene, "received median")), cell((scene, "decoded median"))]
        + [cell((scene, "age when shown median"), (scene, "age when shown p99"))]
        + [f"{max(figures[scene, 'frames a second']):.3g}"]
        for scene in ["overlay", "menu", "text", "largest"]
    ]
    table(["scene", "received", "decoded", "age", "frames/s"], rows)
    print("\nA press: " + cell(("button", "sent on median"), ("button", "sent on p99")))


def draw(runs, path):
    """Draws a bar chart of the microseconds for one 1280x960 frame of each scene."""
    ways = [
        ("memcpy", "memcpy of the frame", "#9aa5b1"),
        ("encode", "encode", "#1f77b4"),
        ("lz4", "LZ4", "#e0a030"),
        ("literal", "literal encoder", "#c0504d"),
    ]
    bar, left, width = 14, 90, 560
    longest = max(run[f"{scene}/1280x960/literal"] for scene in SCENES for run in runs) / 1000
    parts = []
    y = 40
    for scene in SCENES:
        parts.append(f'<text x="{left - 8}" y="{y + 2 * bar + 4}" text-anchor="end">{scene}</text>')
        for way, _, colour in ways:
            time = min(run[f"{scene}/1280x960/{way}"] for run in runs) / 1000
            length = time / longest * width
            parts.append(f'<rect x="{left}" y="{y}" width="{length:.1f}" height="{bar - 2}" fill="{colour}"/>')
            parts.append(f'<text x="{left + length + 4:.1f}" y="{y + bar - 4}">{time:.0f} µs</text>')
            y += bar
        y += bar
    x = left
    for _, label, colour in ways:
        parts.append(f'<rect x="{x}" y="12" width="12" height="12" fill="{colour}"/>')
        parts.append(f'<text x="{x + 17}" y="22">{label}</text>')
        x += 50 + 6.5 * len(label)
    with open(path, "w", encoding="utf-8") as file:
        file.write(
            f'<svg xmlns="http://www.w3.org/2000/svg" width="{left + width + 80}" height="{y}" '
            'font-family="sans-serif" font-size="11">\n<rect width="100%" height="100%" fill="white"/>\n'
        )
        file.write("\n".join(parts) + "\n</svg>\n")


def main():
    folder, chart = sys.argv[1:]
    runs = read_runs(folder)
    if runs:
        report_speed(runs)
        draw(runs, chart)
        print(f"\nThe chart is in {chart}.")
    report_latency(folder)


main()

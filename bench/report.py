#!/usr/bin/env python3
"""report.py FILE...: prints tables of the results that runs of guilink-bench have written to these files: processor
times per frame in microseconds, each the best of all runs, and how many times as long as ours zlib's checksum takes."""
import json
import sys
from pathlib import Path

SCENES = ["blank", "overlay", "menu", "text", "gradient", "noise"]
WAYS = ["memcpy", "encode", "literal"]
SIZES = ["16", "256", "4096", "1048576"]

best: dict[str, float] = {}  # ns, by benchmark
for file in sys.argv[1:]:
    for result in json.loads(Path(file).read_text("utf-8"))["benchmarks"]:
        if result.get("aggregate_name") == "median":
            name = result["run_name"]
            best[name] = min(result["cpu_time"], best.get(name, result["cpu_time"]))

print(f"\n| scene | {' | '.join(WAYS)} |\n|{'---|' * (1 + len(WAYS))}")
for scene in SCENES:
    print(f"| {scene} | " + " | ".join(f"{best[f'{scene}/{way}'] / 1000:.0f}" for way in WAYS) + " |")
print(f"\n| bytes | {' | '.join(SIZES)} |\n|{'---|' * (1 + len(SIZES))}")
print("| zlib / ours | " + " | ".join(f"{best[f'checksum/{size}/zlib'] / best[f'checksum/{size}/crc32']:.2f}"
                                      for size in SIZES) + " |")

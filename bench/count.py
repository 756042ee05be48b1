"""count.py RECORD [--record] -- COMMAND...: prints a table of instructions per pixel.

COMMAND runs guilink-instructions under the counting plugin. Exits with status 1 if a number is more than 2 %
higher than in the file RECORD. With --record, writes the numbers to RECORD instead."""

import subprocess
import sys

KNOWN_LENGTH = 10_000_000  # instructions in the loop that checks the plugin; same value in bench/mark.h
LOOP_SETUP = 16  # instructions; most that may be counted in addition to this loop
TOLERANCE = 1.02
WAYS = ["encode", "literal encode", "checksum", "table checksum", "copy"]


def count(command):
    """Returns {name: instructions per pixel}."""
    result = subprocess.run(command, capture_output=True, text=True, check=True)
    names = [line.split("\t") for line in result.stdout.splitlines()]
    counts = [int(line) for line in result.stderr.splitlines()]
    if len(names) != len(counts):
        sys.exit(f"count: {len(names)} measures, but {len(counts)} counts; did the plugin run?")
    around = counts[0]  # overhead: instructions counted when there is no code to measure
    loop = counts[1] - around
    if not KNOWN_LENGTH <= loop <= KNOWN_LENGTH + LOOP_SETUP:
        sys.exit(f"count: a loop of {KNOWN_LENGTH} instructions counts as {loop}")
    return {
        name: (instructions - around) / int(pixels)
        for (name, pixels), instructions in list(zip(names, counts))[2:]
    }


def main():
    split = sys.argv.index("--")
    record, options = sys.argv[1], sys.argv[2:split]
    counted = count(sys.argv[split + 1:])
    print("| scene | size | " + " | ".join(WAYS) + " |")
    print("|---" * (len(WAYS) + 2) + "|")
    for subject in dict.fromkeys(name.rsplit("/", 1)[0] for name in counted):
        figures = [f"{counted[f'{subject}/{way}']:.3f}" for way in WAYS]
        print("| " + " | ".join(subject.split("/") + figures) + " |")
    if "--record" in options:
        with open(record, "w", encoding="utf-8") as file:
            file.writelines(f"{name}\t{figure:.6f}\n" for name, figure in counted.items())
        return 0
    with open(record, encoding="utf-8") as file:
        recorded = {name: float(figure) for name, figure in (line.split("\t") for line in file)}
    status = 0
    for name in counted.keys() | recorded.keys():
        now, before = counted.get(name), recorded.get(name)
        # Tolerate another 0.001 instructions per pixel for rounding and start-up.
        if now is None or before is None or now > before * TOLERANCE + 0.001:
            print(f"count: {name}: {now} instructions a pixel, {before} recorded", file=sys.stderr)
            status = 1
    return status


sys.exit(main())

#!/usr/bin/env python3
"""tests/soak.py MINUTES: watches the service for a long time, while companions connect and disconnect.

Two companions take turns: the viewer, and docs/examples/minimal_companion.py (called the bare companion). The bare
companion alternately closes its link properly and resets it in the middle of an image. SIGTERM and SIGKILL alternately
end the viewer.
Writes samples to build/soak/soak.tsv and a chart to build/soak/soak.svg. Fails if the service dies,
grows, or does not end with status 0 on SIGTERM."""
import ctypes
import os
import pathlib
import signal
import socket
import statistics
import struct
import subprocess
import sys
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
BIN, OUT = ROOT / "build/release/bin", ROOT / "build/soak"
sys.path.insert(0, str(ROOT / "docs/examples"))
sys.dont_write_bytecode = True
import minimal_companion as bare  # noqa: E402

EVERY = 2       # s between samples
BARE_TURN = 16  # s; longer than SETTLED, so that there are samples of a quiet link
VIEWER_TURN = 5  # s
PAUSE = 1       # s between turns, without a companion
SETTLED = 6     # s; a link of this age counts as quiet, because connections other than the link end after 3 s
STALL = 1.5     # s without reading; shorter than 3 s, after which the device would give up its blocked send
LIMIT = 60      # s; how long each wait may take, even on a slow machine
MAY_GROW = 256  # KiB; how much RssAnon may grow between the second and the last tenth of the run
SUBREAPER = 36  # option of prctl that makes the detached service our child again
PLOTS = [("RssAnon, KiB", "#1f77b4"), ("threads", "#c0504d"), ("descriptors", "#e0a030"),
         ("frames/s, bare companion", "#4a8f5a")]


class Companions:
    """Runs the example companion and the viewer in turn, for ever. Counts the images that the example receives."""

    def __init__(self):
        self.images, self.linked_since = 0, None

    def run(self):
        while True:
            for how in "order", signal.SIGTERM, "reset", signal.SIGKILL:
                (self.visit if isinstance(how, str) else self.view)(how)
                time.sleep(PAUSE)

    @staticmethod
    def view(how):
        viewer = subprocess.Popen([BIN / "guilink-viewer"], stdout=subprocess.DEVNULL)
        time.sleep(VIEWER_TURN)
        viewer.send_signal(how)
        status = viewer.wait(LIMIT)
        assert status == (0 if how == signal.SIGTERM else -how), f"the viewer ended with {status}"

    def visit(self, how):
        discovery = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        discovery.bind(("", 3152))
        connections = bare.connections(discovery, time.monotonic() + LIMIT)
        for connection in connections:
            try:
                self.mirror(connection, discovery)
            except OSError:
                continue  # the device has closed this connection: try the next one
            if self.linked_since:
                break
        assert self.linked_since, "the bare companion has not become the link"
        self.linked_since = None
        if how == "reset":
            time.sleep(STALL)
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        else:
            connection.shutdown(socket.SHUT_WR)
            while connection.recv(1 << 20):
                pass
        connections.close()
        discovery.close()

    def mirror(self, connection, discovery):
        for kind, _ in bare.messages(connection, discovery, time.monotonic() + BARE_TURN):
            if kind == bare.IMAGE:
                self.linked_since = self.linked_since or time.monotonic()
                self.images += 1
                if self.images % 100 == 0:
                    connection.sendall(bare.frame(bare.BUTTON, b"\1"))


def soak(seconds, table):
    """Returns a list of samples and a list of failures. Each sample is a list: the time in seconds, a value (or None)
    for each of PLOTS, and whether the link is at least SETTLED seconds old."""
    ctypes.CDLL(None).prctl(SUBREAPER, 1)
    with open(OUT / "guilinkd.log", "w", encoding="utf-8") as log:
        subprocess.run(BIN / "guilinkd", stdout=log, stderr=log, check=True)
    service = int(pathlib.Path("/proc/thread-self/children").read_text("ascii"))
    proc = pathlib.Path(f"/proc/{service}")
    core = subprocess.Popen(BIN / "guilink-core", stdout=subprocess.DEVNULL)
    companions = Companions()
    turns = threading.Thread(target=companions.run, daemon=True)
    turns.start()
    samples, images, start = [], 0, time.monotonic()
    last = start
    while last < start + seconds:
        time.sleep(EVERY)
        if os.waitpid(service, os.WNOHANG)[0]:
            return samples, ["the service has died"]
        if core.poll() is not None or not turns.is_alive():
            return samples, ["the core or a companion ended early; the reason is above"]
        now, seen, since = time.monotonic(), companions.images, companions.linked_since
        status = dict(line.split(":", 1) for line in (proc / "status").read_text("ascii").splitlines())
        samples.append([now - start, int(status["RssAnon"].split()[0]), int(status["Threads"]),
                        len(os.listdir(proc / "fd")),
                        (seen - images) / (now - last) if since and since <= last else None,
                        since is not None and now - since >= SETTLED])
        print(*("" if value is None else round(value, 1) for value in samples[-1]), sep="\t",
              file=table, flush=True)
        last, images = now, seen
    os.kill(service, signal.SIGTERM)
    ended, end = (0, 0), time.monotonic() + LIMIT
    while not ended[0] and time.monotonic() < end:
        time.sleep(0.1)
        ended = os.waitpid(service, os.WNOHANG)
    return samples, [] if ended == (service, 0) else [f"SIGTERM did not end the service with status 0: {ended}"]


def values(samples, index, begin=0.0, end=1.0):
    part = samples[int(len(samples) * begin):round(len(samples) * end)]
    return [sample[index] for sample in part if sample[index] is not None] or [float("nan")]


def report(samples):
    """Prints the table. Returns a list of the values that have grown."""
    print(f"\n{'median / maximum':26}{'first tenth':>18}{'middle':>18}{'last tenth':>18}{'slope, 1/h':>14}")
    for index, (name, _) in enumerate(PLOTS, 1):
        parts = [values(samples, index, *part) for part in ((0, 0.1), (0.1, 0.9), (0.9, 1))]
        points = [(sample[0] / 3600, sample[index]) for sample in samples if sample[index] is not None]
        print(f"{name:26}" + "".join(f"{statistics.median(part):>9.4g} /{max(part):>7.4g}" for part in parts)
              + f"{statistics.linear_regression(*zip(*points)).slope:>+14.4g}")
    links = (OUT / "guilinkd.log").read_text("utf-8").splitlines().count("connected")
    print(f"{links} links in {samples[-1][0] / 60:.1f} minutes")

    before, after = (statistics.median(values(samples, 1, *part)) for part in ((0.1, 0.2), (0.9, 1)))
    wrong = [f"RssAnon went from {before} to {after} KiB"] if after > before + MAY_GROW else []
    # Compare medians, because a single sample may count short-lived threads.
    quiet = [sample for sample in samples if sample[-1]]
    for index in 2, 3:
        before, after = (statistics.median(values(quiet, index, *part)) for part in ((0, 0.2), (0.8, 1)))
        if after > before:
            wrong.append(f"{PLOTS[index - 1][0]} at quiet moments went from {before} to {after}")
    return wrong


def draw(samples, path):
    """Draws each of PLOTS over time. A dot marks a sample that was taken while the link was quiet."""
    left, width, height, pitch, longest = 60, 780, 105, 155, samples[-1][0]
    parts = [f'<text x="{left + width}" y="24" text-anchor="end" fill="#667">dots: quiet moments</text>']
    for index, (name, colour) in enumerate(PLOTS, 1):
        bottom, least, most = index * pitch - 12, min(values(samples, index)), max(values(samples, index))
        span = max(2 * MAY_GROW, most - least) if index == 1 else most  # a smaller span would show noise
        step = next(digit * 10**zeros for zeros in range(9) for digit in (1, 2, 5)
                    if span <= 4 * digit * 10**zeros)
        low = least // step * step if index == 1 else 0
        high = int(most // step + 1) * step
        points = [sample[index] is not None and f"{left + sample[0] / longest * width:.1f},"
                  f"{bottom - (sample[index] - low) / (high - low) * height:.1f}" for sample in samples]
        line = "".join(("L" if before else "M") + point
                       for before, point in zip([None] + points, points) if point)
        dots = "".join(f"M{point}h0" for point, sample in zip(points, samples) if sample[-1] and point)
        parts.append(f'<text x="{left}" y="{bottom - height - 9}" font-weight="bold">{name}</text>')
        for tick in range(low, high + 1, step):
            y = round(bottom - (tick - low) / (high - low) * height, 1)
            parts.append(f'<path d="M{left},{y}h{width}" stroke="#dde2e8"/>'
                         f'<text x="{left - 8}" y="{y + 4}" text-anchor="end">{tick}</text>')
        parts.append(f'<g fill="none" stroke="{colour}"><path d="{line}" stroke-opacity="0.6"/>'
                     f'<path d="{dots}" stroke-width="4" stroke-linecap="round"/></g>')
    parts += [f'<text x="{left + width * part / 4}" y="{bottom + 20}" text-anchor="middle">'
              f'{longest * part / 240:.3g} min</text>' for part in range(5)]
    path.write_text(f'<svg xmlns="http://www.w3.org/2000/svg" width="{left + width + 30}" '
                    f'height="{bottom + 36}" font-family="sans-serif" font-size="12">\n'
                    '<rect width="100%" height="100%" fill="white"/>\n' + "\n".join(parts) + "\n</svg>\n",
                    "utf-8")


def main():
    if sys.argv[1:2] != ["--inside"]:
        try:
            assert len(sys.argv) == 2 and float(sys.argv[1]) >= 1
        except (AssertionError, ValueError):
            sys.exit("usage: tests/soak.py MINUTES (at least 1; a slow leak shows after 30)")
        os.chdir(ROOT)
        subprocess.run(["scripts/install", "build"], check=True)
        subprocess.run(["scripts/stage", "build release", "scripts/build", "release", "guilinkd",
                        "guilink-core", "guilink-viewer"], check=True)
        os.execv("scripts/sandbox", ["sandbox", sys.executable, __file__, "--inside", sys.argv[1]])
    OUT.mkdir(exist_ok=True)
    with open(OUT / "soak.tsv", "w", encoding="utf-8") as table:
        print("seconds", *(name for name, _ in PLOTS), "quiet", sep="\t", file=table)
        samples, wrong = soak(float(sys.argv[2]) * 60, table)
    if not wrong:
        wrong = report(samples)
        draw(samples, OUT / "soak.svg")
        print(f"The chart is {OUT / 'soak.svg'}.")
    for line in wrong:
        print(f"soak: {line}", file=sys.stderr)
    return bool(wrong)


sys.exit(main())

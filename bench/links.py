#!/usr/bin/python3
"""links.py [--seconds N] [--only TABLE] GUILINKD...: measures the service over loopback, and on slow and bad networks.
Prints tables.

The device pushes 60 frames a second; the companion, bench/companion.cpp, presses a button twice a second. The network
between them is tests/support/cable.cpp. Each measurement runs in a sandbox of its own. If several builds of the service
are given, measures them at the same time, and prints a column for each.

All times are in milliseconds. Columns:
  links lost  how often the link ended
  pause       the longest time without a new picture
  age         from the core's call until the companion has received the image: median / 99 %
  decoded     the same until it has decoded the image
  presses     how many presses arrived at the control service
  press       from the press in the companion until it arrives: median / 99 % / maximum
"""
import argparse
import collections
import concurrent.futures
import json
import os
import socket
import struct
import subprocess
import sys
import threading
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
BIN = ROOT / "build/release/bin"

FRAME_TIME = 1 / 60     # s between frames
PRESS_LIMIT = 7         # s; a press that arrives later counts as lost; after 16 presses, a button is pressed again
FAULT_TIME = 10         # s from the end of a fault to the next one
LIMIT = 60              # s; how long to wait for a link
POLL = 0.01             # s between two looks at the state of the link
AT_ONCE = 6             # measurements that run at the same time; they mostly wait
WIDTH, HEIGHT = 1280, 960
ADDRESS = 0x10000000    # physical address of the frames


# --- what is measured ---------------------------------------------------------------------------------

class Scenario(collections.namedtuple("Scenario", "cable frame fault", defaults=(None,))):
    """`cable` has the settings of the cable, or is empty for loopback. `frame` is the size of an image in bytes, or a
    scene of guilink-core."""

    @property
    def heavy(self):  # needs much processor time, so it runs alone
        return not self.cable or "rate 100" in self.cable


def outage(seconds):
    def fault(rig):
        rig.set_cable("down 1")
        time.sleep(seconds)
        rig.set_cable("down 0")
    return fault


def device_moves(rig):
    rig.move([], "cable0", f"10.78.0.{101 + rig.moves}")


def companion_moves(rig):
    rig.move(rig.far, "cable1", f"10.78.0.{3 + rig.moves}")


def companion_loses_power(rig):
    """The companion falls silent. At the same moment, another one begins to listen at another address."""
    rig.move(rig.far, "cable1", f"10.78.0.{3 + rig.moves}")  # first, so that the device hears nothing of the end
    rig.companion.kill()
    rig.start_companion()


SIZES = {"40 kB": 40_000, "600 kB": 600_000, "1 MiB": 1_048_000}
RATES = {"2 Mbit/s": "rate 2", "5 Mbit/s": "rate 5", "20 Mbit/s": "rate 20", "100 Mbit/s": "rate 100", "loopback": ""}
GUI = SIZES["40 kB"]
NORMAL = "rate 20 delay 5"
TABLES = {
    "latency": {scene: Scenario("", scene) for scene in ("overlay", "menu", "gradient", "noise")},
    "presses": {name: Scenario(rate and rate + " delay 5", SIZES["600 kB"]) for name, rate in RATES.items()},
    "slow": {f"{name}, {size}": Scenario(rate and rate + " delay 5", SIZES[size]) for name, rate in RATES.items()
             if rate for size in SIZES},
    "bad": {
        "no fault": Scenario(NORMAL, GUI),
        **{f"{loss} % loss": Scenario(f"{NORMAL} loss {loss}", GUI) for loss in (1, 5, 10)},
        "1 % loss, 600 kB": Scenario(f"{NORMAL} loss 1", SIZES["600 kB"]),
        **{f"{delay} ms round trip": Scenario(f"rate 20 delay {delay / 2}", GUI) for delay in (20, 100, 300)},
        "100 ms round trip, 600 kB": Scenario("rate 20 delay 50", SIZES["600 kB"]),
        "100 ms round trip, 1 % loss": Scenario("rate 20 delay 50 loss 1", GUI),
        "100 ms round trip, 5 % loss": Scenario("rate 20 delay 50 loss 5", GUI),
        "10 % reordered": Scenario(f"{NORMAL} reorder 10", GUI),
        "10 % duplicated": Scenario(f"{NORMAL} duplicate 10", GUI),
        **{f"outages of {seconds} s": Scenario(NORMAL, GUI, outage(seconds)) for seconds in (0.3, 1, 2, 4, 8)},
        "device gets a new address": Scenario(NORMAL, GUI, device_moves),
        "companion gets a new address": Scenario(NORMAL, GUI, companion_moves),
        "companion loses power, another starts": Scenario(NORMAL, GUI, companion_loses_power),
    },
}


# --- the device, in a sandbox ---------------------------------------------------------------------------

def draw(frame):
    """Returns the pixels."""
    if isinstance(frame, str):
        file = Path("/tmp/FL0/frame")  # in the sandbox only
        subprocess.run([BIN / "guilink-core", "--still", "--frames", "1", "--scene", frame, "--dump", file], check=True,
                       stderr=subprocess.DEVNULL)
        return file.read_bytes()
    runs = frame // 4 - 2  # of one pixel each; the blank rest takes up to 20 runs
    return (struct.pack("<HH", 0xF123, 0xFABC) * runs)[:2 * runs] + bytes(2 * (WIDTH * HEIGHT - runs))


class Rig:
    """The cable, the service, its core and control service, and the companion."""

    def __init__(self, service, scenario):
        self.events = []  # those of the companion, as (name, time, number)
        self.pushed = {}  # times of frames, by stamp
        self.arrived = []  # presses at the control service, as (button, time)
        self.moves, self.far, self.cable = 0, [], None
        if scenario.cable:
            self.cable = subprocess.Popen(BIN / "guilink-cable", stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                          text=True)
            assert self.cable.stdout.readline() == "ready\n"
            self.far = ["nsenter", f"--net=/proc/{self.cable.pid}/ns/net"]
            self.set_route()
            self.set_cable(scenario.cable)
        memory = os.open("/dev/mem", os.O_RDWR)
        os.pwrite(memory, draw(scenario.frame), ADDRESS)
        control = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        control.bind(("127.0.0.1", 3426))
        subprocess.run([service], check=True, stdout=subprocess.DEVNULL)
        for task in (self.push, memory), (self.receive, control):
            threading.Thread(target=task[0], args=task[1:], daemon=True).start()
        self.start_companion()

    def set_cable(self, settings):
        self.cable.stdin.write(settings + "\n")
        self.cable.stdin.flush()

    @staticmethod
    def set_route():
        """Makes the device use cubic, the congestion control of most devices."""
        subprocess.run("ip route change $(ip route show dev cable0) dev cable0 congctl cubic", shell=True, check=True)

    def move(self, within, interface, address):
        self.moves += 1
        subprocess.run([*within, "ip", "-batch", "-"], check=True, text=True,
                       input=f"address flush dev {interface}\n"
                             f"address add {address}/24 broadcast + dev {interface}\n")
        if not within:
            self.set_route()

    def start_companion(self):
        self.companion = subprocess.Popen([*self.far, BIN / "guilink-bench-companion"], stdout=subprocess.PIPE,
                                          text=True)
        threading.Thread(target=self.read_events, args=[self.companion.stdout], daemon=True).start()

    def read_events(self, lines):
        for line in lines:
            name, at, number = line.split()
            self.events.append((name, float(at), int(number)))
        self.events.append(("lost", time.monotonic(), 0))

    def push(self, memory):
        core = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        while core.connect_ex("\0ambaipc/70000004/1"):
            time.sleep(POLL)
        stamp, due = 0, time.monotonic()
        while True:
            stamp = stamp % 0x7FFF + 1
            os.pwrite(memory, struct.pack("<H", 0x8000 | stamp), ADDRESS)
            self.pushed[0x8000 | stamp] = time.monotonic()
            core.send(bytes(32) + struct.pack("<QI", ADDRESS, 2 * WIDTH * HEIGHT))
            core.recv(100)
            due = max(due + FRAME_TIME, time.monotonic())
            time.sleep(max(0.0, due - time.monotonic()))

    def receive(self, control):
        while datagram := control.recv(512):
            self.arrived.append((json.loads(datagram)[0]["msg_id"] - 100, time.monotonic()))

    def wait_for_picture(self):
        end = time.monotonic() + LIMIT
        while not any(name == "decoded" for name, _, _ in self.events):
            if time.monotonic() > end:
                raise TimeoutError("no picture within 60 s")
            time.sleep(POLL)


def measure(service, scenario, seconds):
    rig = Rig(service, scenario)
    rig.wait_for_picture()
    time.sleep(1)
    begin = time.monotonic()
    cuts = [begin]  # the begin, the fault that follows, ..., the end
    while scenario.fault and time.monotonic() < begin + seconds:
        scenario.fault(rig)
        time.sleep(FAULT_TIME)
        cuts.append(time.monotonic())
    time.sleep(max(0.0, begin + seconds - time.monotonic()))
    end = time.monotonic()
    time.sleep(PRESS_LIMIT)  # for the last presses

    received, decoded, presses, lost = {}, {}, [], 0  # times by stamp; presses: [time, button, arrival]
    for name, at, number in list(rig.events):
        if begin <= at < end:
            if name in ("received", "decoded") and number in rig.pushed:
                (received if name == "received" else decoded).setdefault(number, at)
            if name == "press":
                presses.append([at, number % 16, None])
            lost += name == "lost"
    for button, at in rig.arrived:
        sent = [press for press in presses if press[1] == button and press[0] < at < press[0] + PRESS_LIMIT]
        if sent and sent[-1][2] is None:
            sent[-1][2] = at
    pauses = []
    for since, until in zip(cuts, cuts[1:] or [end]):
        moments = [since, *(at for at in received.values() if since <= at < until), until]
        pauses.append(max(after - before for before, after in zip(moments, moments[1:])))
    ages, decoded = ([at - rig.pushed[stamp] for stamp, at in times.items()] for times in (received, decoded))
    return {"ages": ages, "decoded": decoded, "seconds": end - begin,
            "lost": lost, "faults": len(cuts) - 1, "pauses": pauses,
            "presses": len(presses), "times": [press[2] - press[0] for press in presses if press[2]]}


# --- all measurements -----------------------------------------------------------------------------------

def run(table, name, service, seconds):
    command = [ROOT / "scripts/sandbox", sys.executable, __file__, "--inside", table, name, service, str(seconds)]
    done = subprocess.run(command, stdout=subprocess.PIPE, text=True)
    print(f"{table}: {name}: {'done' if done.returncode == 0 else 'failed'}", file=sys.stderr)
    return json.loads(done.stdout) if done.returncode == 0 else None


def spread(values, *parts):
    """Returns values in milliseconds: the median for the quantile 0.5, the maximum for 1."""
    values = sorted(values)
    chosen = [1000 * values[min(int(len(values) * part), len(values) - 1)] for part in parts if values]
    return " / ".join(f"{value:.{0 if value >= 10 else 1 if value >= 1 else 2}f}" for value in chosen) or "none"


CELLS = {
    "links lost": lambda got: f"{got['lost']} in {got['faults']} faults" if got["faults"] else str(got["lost"]),
    "pause": lambda got: spread(got["pauses"], 1),
    "pictures/s": lambda got: f"{len(got['ages']) / got['seconds']:.3g}",
    "age": lambda got: spread(got["ages"], 0.5, 0.99),
    "decoded": lambda got: spread(got["decoded"], 0.5, 0.99),
    "presses": lambda got: f"{len(got['times'])} of {got['presses']}",
    "press": lambda got: spread(got["times"], 0.5, 0.99, 1),
}
COLUMNS = {"latency": ["age", "decoded", "pictures/s", "press"],
           "presses": ["presses", "press"],
           "slow": ["age", "pictures/s", "links lost"],
           "bad": [column for column in CELLS if column != "decoded"]}


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("services", nargs="+", metavar="GUILINKD", type=os.path.abspath)
    parser.add_argument("--seconds", type=float, default=30, help="length of each measurement (default: 30)")
    parser.add_argument("--only", choices=TABLES, help="measure only this")
    options = parser.parse_args()
    failed = False
    for table in [options.only] if options.only else TABLES:
        results = {}
        for heavy, workers in (False, AT_ONCE), (True, 1):
            with concurrent.futures.ThreadPoolExecutor(workers) as pool:
                for name, scenario in TABLES[table].items():
                    if scenario.heavy == heavy:
                        for service in options.services:
                            results[name, service] = pool.submit(run, table, name, service, options.seconds)
        names = [f", {os.path.basename(service)}" if len(options.services) > 1 else "" for service in options.services]
        heading = ["network"] + [column + name for column in COLUMNS[table] for name in names]
        print("\n| " + " | ".join(heading) + " |\n|" + "---|" * len(heading))
        for name in TABLES[table]:
            figures = [results[name, service].result() for service in options.services]
            failed |= None in figures
            cells = [CELLS[column](got) if got else "failed" for column in COLUMNS[table] for got in figures]
            print(f"| {name} | " + " | ".join(cells) + " |")
        sys.stdout.flush()
    return failed


if sys.argv[1:2] == ["--inside"]:
    print(json.dumps(measure(sys.argv[4], TABLES[sys.argv[2]][sys.argv[3]], float(sys.argv[5]))))
else:
    sys.exit(main())

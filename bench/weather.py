#!/usr/bin/python3 -B
"""weather.py [SECONDS]: measures the service on the virtual board, on bad networks, SECONDS (30) on each:
`scripts/board amd64 --run bench/weather.py`. Prints a table. The kernel of the board disturbs what the board sends.

Columns:
  links lost  how often the device took a companion again
  pictures/s  how many the companion received
  pause       the longest time without one, in seconds
  age         from a press until a picture that shows it, in ms: median / maximum
"""
import statistics
import sys
import time

sys.path[:0] = ["devkit/python", "tests/support"]
from board import LIMIT, Agent, wait_until  # noqa: E402
from guilink.companion import Companion  # noqa: E402
from guilink.link import LinkError  # noqa: E402

SECONDS = float(sys.argv[1]) if sys.argv[1:] else 30
FAULT_TIME = 10  # s between two outages
UP, DOWN = 0, 1  # buttons
NETWORKS = {"no fault": "", "1 % loss": "loss 1%", "5 % loss": "loss 5%", "20 % loss": "loss 20%",
            "20 ms delay": "delay 20ms", "100 ms delay": "delay 100ms", "100 ms delay, 5 % loss": "delay 100ms loss 5%",
            "25 % reordered": "delay 20ms reorder 75%", "outages of 1 s": 1, "outages of 5 s": 5}


def press(link, number):
    """Presses a button, and waits for a picture that shows it. Returns the time, or nothing if the link ended."""
    before, start = link.pictures.recent()[-1].payload, time.monotonic()
    try:
        last = link.press((DOWN, UP)[number % 2], start + LIMIT)
        while (picture := link.pictures.newer(last, start + LIMIT)).payload == before:
            last = picture.number
            assert time.monotonic() < start + LIMIT, "no picture shows the press"
    except LinkError:
        return []
    return [picture.time - start]


def measure(agent, link, network):
    outage = isinstance(network, int)
    if network and not outage:
        agent.run(f"tc qdisc replace dev eth0 root netem {network}")
    links, arrivals, ages = connections(agent), [], []
    link.pictures.listen(listener := lambda picture: arrivals.append(picture.time))
    begin = fault = time.monotonic()
    while time.monotonic() < begin + SECONDS:
        ages += press(link, len(ages))
        if outage and time.monotonic() > fault + FAULT_TIME:
            agent.run(f"tc qdisc replace dev eth0 root netem loss 100%; sleep {network}; tc qdisc del dev eth0 root")
            fault = time.monotonic()
    end = time.monotonic()
    link.pictures.unlisten(listener)
    agent.run("tc qdisc del dev eth0 root")
    link.wait_linked(time.monotonic() + LIMIT)
    pause = max(after - before for before, after in zip([begin, *arrivals], [*arrivals, end]))
    return (connections(agent) - links, f"{len(arrivals) / (end - begin):.1f}", f"{pause:.1f}",
            f"{1000 * statistics.median(ages):.0f} / {1000 * max(ages):.0f}")


def connections(agent):
    return int(agent.run("journalctl --quiet --unit guilinkd --grep '^connected' | wc -l"))


agent = Agent("agent")
wait_until(lambda: agent.run("systemctl is-active guilinkd core") == "active\nactive", "service and core")
agent.run("sed -i 's/guilink-core/& --still/' /etc/systemd/system/core.service; systemctl daemon-reload; "
          "systemctl restart core")  # only presses shall change the picture
link = Companion()
link.wait_linked(time.monotonic() + LIMIT)
wait_until(link.pictures.recent, "a picture")
print("| network | links lost | pictures/s | pause | age |\n|---|---|---|---|---|", flush=True)
for name, network in NETWORKS.items():
    print(f"| {name} |", " | ".join(map(str, measure(agent, link, network))), "|", flush=True)

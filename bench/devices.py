#!/usr/bin/python3
"""devices.py VIEWER: measures a viewer with one device, with 16, with 16 whose tiles are looked at, and with 16 of
which three misbehave: one floods, one stalls in the middle of an image, one comes and goes every second. Prints a
table. Run it in scripts/sandbox, with devkit/python in PYTHONPATH.

The devices are plain sockets on loopback, each at an address of its own. Each sends 60 images of a menu's size a
second.
Columns:
  viewer, each  processor time in percent of a core, of all and for each device
  memory        of the viewer, in MiB
  lost          images of the well-behaved devices that did not reach the viewer
  presses       that the viewer confirmed, of those that were asked for
  age           from the send call until a program has the image through the viewer, in ms: median / 99 %
"""
import ctypes
import http.client
import json
import multiprocessing
import os
import socket
import statistics
import subprocess
import sys
import time

import numpy as np

from guilink.picture import encode
from guilink.viewer import Viewer
from guilink.wire import FrameReader, MessageType, frame

PORT = 8080
SECONDS = 10
SETTLE = 5      # s from the last link to the measurement
DEVICES = 16
LAPS = 4096     # an image carries its number, modulo this
PAIRS = 9000    # runs in an image, as in a menu
WIDTH, HEIGHT = 1280, 960


def image():
    """Returns an image whose first pixel is to be replaced by its number."""
    runs = np.repeat(0xF000 + np.arange(PAIRS, dtype=np.uint16) % LAPS, WIDTH * HEIGHT // PAIRS)
    return encode(np.pad(runs, (0, WIDTH * HEIGHT - runs.size), "edge").reshape(HEIGHT, WIDTH))


class Device:
    def __init__(self, number, fault, sent, times):
        self.address = f"127.0.1.{number}"
        self.identity = frame(MessageType.IDENTITY, b"%05d" % (10000 + number) + b"fw1.1")
        self.fault, self.sent, self.times, self.number = fault, sent, times, number
        self.payload = bytearray(image())

    def run(self):
        while True:
            with self.find() as link:
                try:
                    self.serve(link)
                except OSError:
                    pass

    def find(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as search:
            search.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
            search.bind((self.address, 3153))
            search.settimeout(1)
            while True:
                search.sendto(self.identity, ("127.255.255.255", 3152))
                try:
                    search.recv(100)
                    return socket.create_connection(("127.0.0.1", 8399), 10, (self.address, 0))
                except OSError:
                    pass

    def serve(self, link):
        link.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        reader, linked, due, end = FrameReader(), False, time.monotonic(), time.monotonic() + 1
        while True:
            link.settimeout(max(0.0001, due - time.monotonic()) if linked else 3)
            try:
                if not (data := link.recv(65536)):
                    return
                for message in reader.feed(data):
                    if message.type == MessageType.IDENTITY_REQUEST:
                        link.sendall(self.identity)
                    linked = linked or message.type == MessageType.CONNECT_REQUEST
            except TimeoutError:
                pass
            if not linked or time.monotonic() < due:
                continue
            due = max(due + 1 / 60, time.monotonic() - 1) if self.fault != "floods" else time.monotonic()
            number = self.sent[self.number] + 1
            self.payload[6:8] = (0xF000 + number % LAPS).to_bytes(2, "little")
            packed = frame(MessageType.IMAGE, bytes(self.payload))
            self.times[self.number * LAPS + number % LAPS] = time.monotonic()
            link.settimeout(10)
            if self.fault == "stalls":
                link.sendall(packed[:20000])
                time.sleep(4)
            link.sendall(packed)
            self.sent[self.number] = number
            if self.fault == "comes and goes" and time.monotonic() > end:
                return


def ask(method, path, connection=None):
    connection = connection or http.client.HTTPConnection("127.0.0.1", PORT, 30)
    connection.request(method, path)
    answer = connection.getresponse()
    return answer.status, answer.read()


def known():
    return {each["identity"]: each for each in json.loads(ask("GET", "/devices")[1])["devices"]}


def look_at_tiles():
    """Does what the page with all devices does."""
    connection = http.client.HTTPConnection("127.0.0.1", PORT, 30)
    while True:
        for device in json.loads(ask("GET", "/devices?use", connection)[1])["devices"]:
            ask("GET", f"/device/{device['id']}/tile.jpg?after={max(1, device['pictures']) - 1}", connection)
        time.sleep(0.5)


def processor_time(process):
    with open(f"/proc/{process.pid}/stat", encoding="ascii") as stat:
        return sum(map(int, stat.read().rpartition(")")[2].split()[11:13])) / os.sysconf("SC_CLK_TCK")


def measure(program, count, what="", faults=(), helpers=()):
    sent = multiprocessing.Array(ctypes.c_uint64, DEVICES + 1, lock=False)
    times = multiprocessing.Array(ctypes.c_double, (DEVICES + 1) * LAPS, lock=False)
    devices = [Device(number, dict(enumerate(faults, DEVICES - 2)).get(number), sent, times)
               for number in range(1, count + 1)]
    running = [multiprocessing.Process(target=work, daemon=True)
               for work in (*(device.run for device in devices), *helpers)]
    with subprocess.Popen([program, "--link", "all"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL) as viewer:
        wait_for(known)
        for process in running:
            process.start()
        good = [device for device in devices if not device.fault]
        names = {str(10000 + device.number): device.number for device in good}
        try:
            wait_for(lambda: sum(each["state"] == "linked" for each in known().values()) >= len(good))
            link = Viewer(f"http://127.0.0.1:{PORT}/device/10001")
            link.wait_linked(time.monotonic() + 30)
            time.sleep(SETTLE)

            ages = []
            link.pictures.listen(lambda picture: ages.append(
                time.monotonic() - times[LAPS + int.from_bytes(picture.payload[6:8], "little") % LAPS]))
            presses = []
            begin, used, before = time.monotonic(), processor_time(viewer), state(names, sent)
            while time.monotonic() < begin + SECONDS:
                presses += [ask("POST", f"/device/{name}/press/1")[0] for name in names]
                time.sleep(1)
            used, seconds, after = processor_time(viewer) - used, time.monotonic() - begin, state(names, sent)
            link.close()
            with open(f"/proc/{viewer.pid}/status", encoding="ascii") as status:
                memory = next(int(line.split()[1]) for line in status if line.startswith("VmRSS")) / 1024
        finally:
            for process in running:
                process.kill()
                process.join()
            viewer.terminate()
    # An image may be under way at either look.
    lost = sum(max(0, after[name][0] - before[name][0] - (after[name][1] - before[name][1]) - 1) for name in names)
    ages.sort()
    rate = statistics.mean((after[name][1] - before[name][1]) / seconds for name in names)
    print(f"| {count}{what} | {rate:.1f} | {100 * used / seconds:.1f} % | "
          f"{100 * used / seconds / count:.2f} % | {memory:.1f} | {lost} | {presses.count(204)} of {len(presses)} | "
          f"{1000 * statistics.median(ages):.2g} / {1000 * ages[len(ages) * 99 // 100]:.2g} |", flush=True)


def state(names, sent):
    """Returns for each device how many images it has sent and the viewer has received."""
    devices = known()
    return {name: (sent[number], devices[name]["pictures"]) for name, number in names.items()}


def wait_for(condition):
    for _ in range(600):
        try:
            if condition() is not False:
                return
        except OSError:  # the viewer does not listen yet
            pass
        time.sleep(0.1)
    sys.exit("devices.py: not all devices are linked after a minute")


print("| devices | images/s | viewer | each | memory | lost | presses | age |\n|---|---|---|---|---|---|---|---|")
measure(sys.argv[1], 1)
measure(sys.argv[1], DEVICES)
measure(sys.argv[1], DEVICES, ", a page with tiles", helpers=[look_at_tiles])
measure(sys.argv[1], DEVICES, ", three misbehave", faults=("floods", "stalls", "comes and goes"))

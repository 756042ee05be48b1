#!/usr/bin/python3
"""Tests the service with failing system and library calls. Usage: tests/faults_test.py GUILINKD LIBRARY [--all | CASE]

Each case plays the same scenario with the real service, in a sandbox of its own, and makes one call fail. The service
must continue to work, or end in a way that docs/reliability.md lists. By default, tests a sample of the cases. With
--all, first plays the scenario three times without a fault, and then tests all call sites that were reached. With
CASE, tests only this case, and prints the service's log. A CASE has the form KIND:SITE:OCCURRENCE:FAULT; see
tests/faults/fail_once.cpp, the source of LIBRARY.
"""
import collections
import concurrent.futures
import ctypes
import errno
import json
import os
import re
import resource
import select
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import zlib

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.append(ROOT + "/docs/examples")
import minimal_companion as link  # noqa: E402  the path comes first

JOBS = 16        # scenarios that run in parallel; they mostly wait
OCCURRENCES = 3  # calls per call site that --all makes fail, each in a scenario of its own
LIMIT = float(os.environ.get("GUILINK_FAULT_LIMIT", 60))  # s; a longer wait counts as a hang
FRAMES = 17      # frames of each size that one call of serve() pushes
SIZES = {2_457_600: (1280, 960), 1_572_864: (1024, 768)}
GUI, QR, TEXT = 0x70000004, 0x70000005, 6
PR_SET_CHILD_SUBREAPER = 36

# Faults that are not errno values. zero: the call returns 0, as at a time-out or at the end of a stream. short: the
# call transfers only a part of a frame's header. crash, hang and garble prove that this test can fail.
SPECIAL = {"zero": -1, "short": -2, "crash": -3, "hang": -4, "garble": -5}
ALLOCATIONS = ["malloc", "calloc", "realloc", "aligned_alloc", "mmap"]
FAULTS = {kind: faults.split() for kinds, faults in {
    ", ".join(ALLOCATIONS) + ", munmap, fstat": "ENOMEM",
    "accept4": "EAGAIN ECONNABORTED EINTR EMFILE ENFILE ENOBUFS ENOMEM",
    "bind": "EADDRINUSE EACCES EADDRNOTAVAIL ENOMEM",
    "close, fclose": "EIO EINTR",
    "connect": "ECONNREFUSED EADDRNOTAVAIL ECONNRESET EHOSTUNREACH EINTR ENETUNREACH EPERM ETIMEDOUT",
    "daemon": "EAGAIN ENOMEM",
    "dup2, fcntl": "EBUSY EINTR EPERM",
    "getifaddrs": "EMFILE ENFILE ENOBUFS ENOMEM",
    "listen": "EADDRINUSE",
    "mmap /dev/mem": "EPERM EAGAIN ENODEV ENOMEM",
    "nanosleep": "EINTR",
    "open, open /dev/mem, fopen64": "EPERM EACCES EINTR EMFILE ENFILE ENOENT ENOMEM",
    "poll": "EINTR ENOMEM zero",
    "pthread_create": "EAGAIN",
    "read": "EIO EINTR short",
    "recv": "zero EAGAIN ECONNRESET EHOSTUNREACH EINTR ENOMEM ETIMEDOUT short",
    "recv message, recvfrom": "zero EAGAIN ECONNREFUSED ECONNRESET EINTR ENETDOWN ENOMEM",
    "send": "short EAGAIN ECONNRESET EHOSTUNREACH EINTR ENOBUFS ENOMEM EPIPE ETIMEDOUT",
    "sendto": "ENOBUFS EAGAIN ECONNREFUSED EHOSTUNREACH EINTR ENETDOWN ENETUNREACH ENOMEM EPERM",
    "ioctl": "ENOMEM ENOTTY",
    "getsockopt, setsockopt": "ENOMEM ENOPROTOOPT",
    "shutdown": "ENOTCONN",
    "sigaction": "EINVAL",
    "socket": "EMFILE EACCES ENFILE ENOBUFS ENOMEM",
    "write": "short EAGAIN EINTR EIO ENOSPC EPIPE",
}.items() for kind in kinds.split(", ")}
CANNOT_FAIL = (r"_\w*|mem\w+|str\w+|inet_\w+|free\w*|exit|mallopt|"
               r"pthread_(mutex_\w+|cond_\w+|attr_\w+|self|setname_np)")


# --- one scenario, in a sandbox ----------------------------------------------------------------------

class Wrong(Exception):
    """The service did what it must never do."""


class Ended(Exception):
    """The service has ended; the text says how."""


def drawing(size, number):
    """Returns pixels in runs of 256, and the payload that the service must send for them."""
    colours = [0x1000 | colour << 8 | number % 256 for colour in range(8)]
    repeat = size // (len(colours) * 256 * 2)
    runs = b"".join(struct.pack("<HH", 256, colour) for colour in colours) * repeat
    return (b"".join(struct.pack("<H", colour) * 256 for colour in colours) * repeat,
            struct.pack("<HH", *SIZES[size]) + runs[:-4] + struct.pack("<HH", 255, colours[-1]))


class Scenario:
    """Plays the core, the companion and the control service."""

    def __init__(self, service):
        ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1)  # makes the detached service a child of this process
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
        self.identities, self.connection, self.stream, self.next_alive = [b"FIRST", b"11111"], None, None, 0
        self.links = self.presses = self.pressed = self.frames = self.shown = 0
        self.drawn, self.log, self.fed = {}, b"", set()
        with open("/tmp/FL0/kel.ini", "w", encoding="ascii") as settings:
            settings.write("X=1\nBODY_QR=FIRST\n")
        self.memory = os.open("/dev/mem", os.O_RDWR)
        self.discovery = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.discovery.bind(("", 3152))
        self.control = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.control.bind(("127.0.0.1", 3426))
        self.listener = socket.create_server(("", 8399))
        self.output, end = os.pipe()
        self.launcher = subprocess.Popen([service], stdout=end, stderr=end,
                                         env={**os.environ, "LD_PRELOAD": os.environ["GUILINK_FAIL_ONCE"]})
        os.close(end)

    def step(self):
        """Waits up to 20 ms, and handles the sockets that are ready. Raises Ended if the service has ended."""
        sockets = [self.output, self.discovery, self.control, self.connection or self.listener]
        for ready in select.select(sockets, [], [], 0.02)[0]:
            if ready == self.output:
                self.log += os.read(self.output, 1 << 16)
            elif ready is self.discovery:
                call, device = ready.recvfrom(2048)
                self.take(bytearray(call))
                if not self.connection:
                    ready.sendto(link.frame(link.CONNECT), device)
            elif ready is self.control:
                self.take_press(ready.recv(512))
            elif ready is self.listener:
                self.connection, self.stream, self.next_alive = ready.accept()[0], bytearray(), 0
            else:
                self.receive()
        if time.monotonic() >= self.next_alive:
            self.next_alive = time.monotonic() + link.KEEP_ALIVE
            self.say(link.CONNECT, link.CONTROL, link.IDENTITY_REQUEST)
        try:
            status = os.waitstatus_to_exitcode(os.waitpid(-1, os.WNOHANG)[1])
        except ChildProcessError as error:
            raise Ended("status 0") from error
        if status:
            raise Ended(f"status {status}" if status > 0 else signal.Signals(-status).name)

    def say(self, *kinds, payload=b""):
        try:
            if self.connection:
                self.connection.sendall(b"".join(link.frame(kind, payload) for kind in kinds))
        except OSError:
            self.hang_up()

    def hang_up(self):
        if self.connection:
            self.connection.close()
        self.connection = None

    def receive(self):
        try:
            data = self.connection.recv(1 << 20)
        except OSError:
            data = b""
        self.stream += data
        self.take(self.stream)
        if not data:
            self.hang_up()

    def take(self, stream):
        """Removes the complete frames from the stream. Raises Wrong if a frame is damaged, or if it carries anything
        other than a picture that was drawn or the device's identity."""
        while len(stream) >= link.HEADER.size:
            start, checksum, length, kind = link.HEADER.unpack_from(stream)
            payload = bytes(stream[link.HEADER.size:link.HEADER.size + length])
            if start != link.START or length > link.MAX_PAYLOAD:
                raise Wrong(f"torn frame: {bytes(stream[:link.HEADER.size]).hex()}")
            if len(payload) < length:
                return
            if zlib.crc32(payload) != checksum:
                raise Wrong("torn frame: checksum")
            if kind == link.IMAGE and payload in self.drawn:
                self.shown = self.drawn[payload]
            elif kind != link.IDENTITY or payload not in [one + b"fw1.1" for one in self.identities]:
                raise Wrong(f"message {kind}: {payload[:20]}, {length} bytes")
            del stream[:link.HEADER.size + length]

    def take_press(self, datagram):
        # The previous press may arrive again, because this test repeats each press until it arrives, and because the
        # service resends the previous press if it cannot allocate memory for a new one.
        valid = {b'[{"msg_id":%d,"param":"On"}]' % (100 + press % 16): press
                 for press in (self.presses - 1, self.presses)}
        if datagram not in valid:
            raise Wrong(f"datagram {datagram}")
        self.pressed = valid[datagram]

    def until(self, done, what, again=lambda: None):
        """Waits until `done` returns true. Calls `again` five times a second, to repeat what a fault may have lost."""
        end, next_try = time.monotonic() + LIMIT, 0
        while not done():
            if time.monotonic() > end:
                raise Wrong(f"hang: no {what}")
            if time.monotonic() >= next_try:
                next_try = time.monotonic() + 0.2
                again()
            self.step()

    def call(self, program, argument):
        """Calls a procedure of the service. Returns False if the procedure does not answer."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as core:
            try:
                core.connect(f"\0ambaipc/{program:08x}/1")
                self.fed.add(program)
                core.send(bytes(32) + argument)
                self.until(lambda: select.select([core], [], [], 0)[0], "answer to the core")
                answer = core.recv(100)
            except OSError:
                return False
        if any(answer[:24]):
            raise Wrong(f"answer {answer} to the core")
        return answer == bytes(32)

    def push(self, address, size):
        self.frames += 1
        pixels, payload = drawing(size, self.frames)
        self.drawn[payload] = self.frames
        os.pwrite(self.memory, pixels, address)
        self.call(GUI, struct.pack("<QI", address, size))

    def serve(self):
        """Checks that the service delivers a press, a text, and frames of each size in SIZES. The service must not send
        a frame whose encoding is too large."""
        self.links += 1
        self.presses += 1
        self.until(lambda: self.pressed == self.presses, "press",
                   lambda: self.say(link.BUTTON, payload=bytes([self.presses % 16])))
        text = b"%d " % self.links + b"x" * 200
        self.until(lambda: b"USER " + text in self.log, "text", lambda: self.say(TEXT, payload=text))
        for index, size in enumerate(SIZES):
            # The service reads the size of the frames only when it maps a new address. So use a new address for each
            # size.
            address = 0x1000000 * (2 * self.links + index)
            for _ in range(FRAMES):
                self.push(address, size)
                self.step()
            self.until(lambda: self.shown == self.frames or GUI not in self.fed, "picture",
                       lambda: self.push(address, size))
            if size == max(SIZES):
                os.pwrite(self.memory, struct.pack("<HH", 0x1234, 0x4321) * (size // 4), address)
                self.call(GUI, struct.pack("<QI", address, size))

    def play(self):
        self.serve()
        self.hang_up()
        self.serve()
        self.identities.append(b"SECND")
        self.until(lambda: self.call(QR, b"SECND\0") or QR not in self.fed, "new identity")
        self.serve()
        with open("/proc/thread-self/children", encoding="ascii") as children:
            os.kill(int(children.read()), signal.SIGTERM)
        try:
            self.until(lambda: False, "end after SIGTERM")
        except Ended as end:
            if str(end) != "status 0":
                raise Wrong(f"SIGTERM: {end}") from end


def play_scenario(service):
    scenario = Scenario(service)
    end, wrong = "serves on", None
    try:
        scenario.play()
        if scenario.fed != {GUI, QR}:
            end = "serves on unfed"
    except Ended as how:
        end = str(how)
    except Wrong as what:
        wrong = str(what)
    print(json.dumps({"end": end, "wrong": wrong, "log": scenario.log.decode("latin-1")}))


# --- all scenarios -----------------------------------------------------------------------------------

def run(case=None, **environment):
    """Plays the scenario. If `case` is given, the call that it names fails. Returns the outcome and a table, which maps
    each call site to its kind of call, the number of its calls, and whether one of these calls failed."""
    with tempfile.NamedTemporaryFile() as table:
        table.truncate(4096 * 32)
        environment |= {**os.environ, "GUILINK_FAIL_ONCE": sys.argv[2], "GUILINK_FAULT_TABLE": table.name}
        if case:
            _, site, occurrence, fault = case.split(":")
            number = SPECIAL[fault] if fault in SPECIAL else getattr(errno, fault)
            environment["GUILINK_FAULT"] = f"{site}:{occurrence}:{number}"
        done = subprocess.run([ROOT + "/scripts/sandbox", sys.executable, __file__, "--scenario", sys.argv[1]],
                              env=environment, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        sites = {f"{site:016x}": (kind.rstrip(b"\0").decode(), calls, failed)
                 for site, calls, failed, kind in struct.iter_unpack("<QII16s", table.read()) if site}
    try:
        return json.loads(done.stdout), sites
    except ValueError:
        return {"end": "", "wrong": "the day broke", "log": done.stdout}, sites


def verdict_on(case, outcome):
    """Returns what the service did wrong, or None."""
    kind, allowed = case.split(":")[0], {"serves on"}
    if kind in ALLOCATIONS + ["pthread_create", "bind"]:
        allowed.add("SIGABRT")
    if kind in ALLOCATIONS + ["bind", "listen", "pthread_create", "socket"]:
        allowed.add("serves on unfed")  # the service works, but could not register a procedure for the core
    if kind.endswith("/dev/mem"):
        allowed.add("SIGSEGV")
    if kind in ALLOCATIONS and "alloc of mem for ComLibInterface\nstd::bad_alloc\n" in outcome["log"]:
        allowed.add("status 1")
    # The service creates its socket for button commands only once. If this fails, the service drops all presses until
    # it is restarted.
    if kind == "socket" and outcome["wrong"] == "hang: no press":
        return None
    return outcome["wrong"] or (None if outcome["end"] in allowed else outcome["end"])


def play_case(case):
    for _ in range(2):  # twice, because timing decides whether the service reaches the call that must fail
        outcome, sites = run(case)
        if any(failed for _, _, failed in sites.values()):
            return case, outcome["end"], verdict_on(case, outcome), outcome["log"]
    return case, "not reached", outcome["wrong"], outcome["log"]


def unknown_calls():
    """Returns the libc functions that the service calls and that neither FAULTS nor CANNOT_FAIL lists."""
    libraries = [sys.argv[1], os.path.dirname(sys.argv[2]) + "/libambaipc.so"]
    calls = subprocess.run(["nm", "-D", "--undefined-only", *libraries], stdout=subprocess.PIPE, text=True,
                           check=True).stdout
    known = "|".join(FAULTS) + "|" + CANNOT_FAIL
    return [call for call in re.findall(r" U (\w+)@GLIBC_", calls) if not re.fullmatch(known, call)]


def main():
    if sys.argv[1] == "--scenario":
        return play_scenario(sys.argv[2])
    everything = sys.argv[3:] == ["--all"]
    if sys.argv[3:] and not everything:
        case, end, wrong, log = play_case(sys.argv[3])
        print(log, f"{case}: {end}; {wrong or 'as listed'}", sep="\n")
        return bool(wrong)
    began = time.monotonic()
    failed = [f"{call} never fails" for call in unknown_calls()]
    sites = collections.defaultdict(dict)
    for _ in range(3 if everything else 1):
        outcome, seen = run()
        if outcome["wrong"] or outcome["end"] != "serves on":
            return f"without a fault: {outcome}"
        for site, (kind, calls, _) in seen.items():
            sites[kind][site] = min(calls, sites[kind].get(site, calls))
    cases = [f"{kind}:{site}:{occurrence}:{fault}"
             for kind, places in sorted(sites.items())
             for site, calls in sorted(places.items())[:None if everything else 8 if kind == "malloc" else 1]
             for occurrence in range(1, 1 + min(calls, OCCURRENCES if everything else 1))
             for fault in FAULTS[kind][:None if everything else 1]]

    ends = collections.defaultdict(collections.Counter)
    with concurrent.futures.ThreadPoolExecutor(JOBS) as pool:
        # Prove that this test can fail: make the service crash, hang and send a damaged frame.
        proofs = [f"{kind}:{max(sites[kind], key=sites[kind].get)}:1:{fault}"
                  for kind, fault in (("poll", "crash"), ("sigaction", "hang"), ("send", "garble"))]
        noticed = pool.map(lambda proof: verdict_on(proof, run(proof, GUILINK_FAULT_LIMIT="10")[0]), proofs)
        for case, end, wrong, log in pool.map(play_case, cases):
            ends[case.split(":")[0]]["WRONG" if wrong else end] += 1
            if wrong:
                failed.append(f"{wrong}; repeat: {' '.join(sys.argv[:3])} '{case}'")
                print(failed[-1], *log.splitlines()[-24:], sep="\n    ", flush=True)
        failed += [f"{proof} was not noticed" for proof, wrong in zip(proofs, noticed) if not wrong]
    for kind, counts in ends.items():
        print(f"{kind:16}{len(sites[kind]):4} sites  "
              + ", ".join(f"{count} {end}" for end, count in counts.most_common()))
    print(f"{sum(map(len, sites.values()))} sites, {len(cases)} days, {time.monotonic() - began:.0f} s")
    if sum(counts["not reached"] for counts in ends.values()) > len(cases) / 10:
        failed.append("too many sites were not reached")
    return "\n".join(failed) or 0


if __name__ == "__main__":
    sys.exit(main())

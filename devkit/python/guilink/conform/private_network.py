"""A private network for a companion under test: two network namespaces with a veth pair between them.

The kit runs in one namespace, and the companion in the other. The network disappears when the kit ends.
"""
from __future__ import annotations

import os
import shutil
import subprocess
import sys
from typing import NoReturn, Sequence

from guilink.link import GuilinkError

DEVICE = "10.77.0.1"
OTHER_DEVICE = "10.77.0.2"
COMPANION = "10.77.0.100"
BROADCAST = "10.77.0.255"
INSIDE = "GUILINK_PRIVATE_NETWORK"  # environment variable; it is set if the kit already runs in its private network

KIT_SIDE = f"""link set dev lo up
address add {DEVICE}/24 broadcast {BROADCAST} dev guilink0
address add {OTHER_DEVICE}/24 broadcast {BROADCAST} dev guilink0
link set dev guilink0 up
"""
# The companion's receive buffers are small, so that the kit notices soon if the companion stops reading.
RECEIVE_BUFFER = "4096 16384 65536"  # bytes: least, initial and greatest
SUBJECT_SIDE = f"""link set dev lo up
address add {COMPANION}/24 broadcast {BROADCAST} dev guilink1
link set dev guilink1 up
"""


def enter(arguments: Sequence[str]) -> None:
    """Makes sure that the kit runs in a network namespace of its own. If it does not yet, replaces this process with
    `python -m guilink` in a new namespace."""
    if os.environ.pop(INSIDE, None):
        return
    for tool in ("unshare", "nsenter", "setpriv", "ip"):
        if not shutil.which(tool):
            raise GuilinkError(f"cannot make a private network: {tool} is not installed; "
                               "install the packages util-linux and iproute2")
    command = ["unshare", "--net"]
    if os.geteuid() != 0:
        command += ["--user", "--map-root-user"]
    refused = subprocess.run([*command, "true"], capture_output=True, text=True)
    if refused.returncode:
        raise GuilinkError(f"cannot make a private network: {refused.stderr.strip()}; allow user namespaces "
                           "(sysctl kernel.unprivileged_userns_clone=1), or run this as root")
    _run_again([*command, sys.executable, "-m", "guilink", *arguments])


def _run_again(command: list[str]) -> NoReturn:
    package = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
    path = os.pathsep.join(filter(None, [package, os.environ.get("PYTHONPATH")]))
    os.execvpe(command[0], command, {**os.environ, INSIDE: "1", "PYTHONPATH": path})


class PrivateNetwork:
    """A network namespace for the companion, and a veth pair that leads to it. A process keeps the namespace open."""

    def __init__(self) -> None:
        self._holder = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "unshare", "--net", "sh", "-c", "echo; exec sleep infinity"],
            stdout=subprocess.PIPE)
        assert self._holder.stdout
        self._holder.stdout.readline()  # wait until the namespace exists
        self.holder = self._holder.pid
        self.within = ["nsenter", "--target", str(self._holder.pid), "--net", "--"]
        self._ip([], "link add dev guilink0 type veth peer name guilink1 netns "
                     f"{self._holder.pid}\n" + KIT_SIDE)
        self._ip(self.within, SUBJECT_SIDE)
        # Without tail-loss probes, a segment arrives once, so that the kit can count the segments of a frame.
        subprocess.run([*self.within, "sh", "-c", f"cd /proc/sys/net/ipv4; echo {RECEIVE_BUFFER} >tcp_rmem; "
                        "echo 0 >tcp_early_retrans"], check=True)

    @staticmethod
    def _ip(within: list[str], batch: str) -> None:
        done = subprocess.run([*within, "ip", "-batch", "-"], input=batch, capture_output=True, text=True)
        if done.returncode:
            raise GuilinkError(f"cannot set up the private network: {done.stderr.strip()}")

    def close(self) -> None:
        self._holder.kill()
        self._holder.wait()

"""A network with two devices, and a viewer. A pytest plugin, whose fixtures a test has by `pytest_plugins`."""
import json
import os
import subprocess
from contextlib import contextmanager
from pathlib import Path

import pytest
from support.fake_device import LIMIT
from support.service import end_service, start_service
from support.visitor import ask, until

ROOT = Path(__file__).parents[2]
BIN = Path(os.environ["GUILINK_BIN"])


@pytest.fixture(scope="module")
def far_device():
    """Adds device 22222 to the network, at 10.77.0.2. Returns the command prefix that runs a program on it."""
    with subprocess.Popen([ROOT / "scripts/device", "2", "--still"], stderr=subprocess.DEVNULL) as device:
        first = until(lambda: Path(f"/proc/{device.pid}/task/{device.pid}/children").read_text().strip())
        yield ["nsenter", f"--net=/proc/{first}/ns/net"]
        device.kill()


@pytest.fixture(scope="module", autouse=True)
def near_core(far_device):
    """Starts device 11111 here. Returns a list of its core. Only presses change the devices' pictures."""
    start_service(BIN)
    core = [subprocess.Popen([BIN / "guilink-core", "--still"], stderr=subprocess.DEVNULL)]
    yield core
    core[0].terminate()
    core[0].wait(LIMIT)
    end_service()


def state(host="127.0.0.1"):
    try:
        return json.loads(ask("GET", "/state", host=host)[1])
    except ConnectionRefusedError:
        return {}


def linked_to(identity, host="127.0.0.1"):
    return until(lambda: (now := state(host)).get("identity") == identity and now["pictures_per_second"] > 0 and now)


@contextmanager
def running(*command):
    with subprocess.Popen(command, stdout=subprocess.DEVNULL) as process:
        try:
            yield process
        finally:
            process.terminate()
        assert process.wait(LIMIT) == 0


@pytest.fixture
def viewer(request):
    with running(BIN / "guilink-viewer", *getattr(request, "param", ["--device", "11111"])) as process:
        until(state)
        yield process

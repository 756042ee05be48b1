"""Tests the viewer with several devices: who gets which."""
import http.client
import io
import json
import os
import re
import subprocess
import sys
from contextlib import contextmanager

import PIL.Image
import pytest
from prometheus_client.openmetrics.parser import text_string_to_metric_families
from support.fake_device import LIMIT, FakeDevice
from support.two_devices import linked_to
from support.visitor import PORT, URL, Page, ask, until

import guilink

pytest_plugins = ["support.two_devices"]


def known():
    return {each["identity"]: each for each in json.loads(ask("GET", "/devices")[1])["devices"]}


@pytest.mark.parametrize("viewer", [[]], indirect=True)
def test_each_device_has_its_own_paths(viewer):
    until(lambda: {each["state"] for each in known().values()} == {"searching"} and len(known()) == 2)
    assert b"bench.js" in ask("GET", "/")[1] and b"view.js" in ask("GET", "/device/11111/")[1]
    assert ask("GET", "/device/22222")[0] == 308
    until(lambda: all((now := json.loads(ask("GET", f"/device/{identity}/state")[1]))["pictures_per_second"] > 0
                      and now["identity"] == identity for identity in ("11111", "22222")))
    before = {identity: ask("GET", f"/device/{identity}/snapshot.png")[1] for identity in known()}
    status, _, headers = ask("POST", "/device/22222/press/1")
    assert status == 204
    until(lambda: ask("GET", f"/device/22222/snapshot.png?after={headers['Guilink-Picture']}")[1] != before["22222"])
    assert ask("GET", "/device/11111/snapshot.png")[1] == before["11111"]
    tile = PIL.Image.open(io.BytesIO(ask("GET", "/device/10.77.0.2/tile.jpg")[1]))
    assert (tile.format, tile.size) == ("JPEG", (320, 240))

    def linked():
        ask("GET", "/device/22222/state")  # a link that nobody uses ends
        return {(sample.labels["device"], sample.value)
                for family in text_string_to_metric_families(ask("GET", "/metrics")[1].decode())
                for sample in family.samples if sample.name == "guilink_linked"}

    until(lambda: linked() == {("11111", 1), ("22222", 1)})
    # The main device is the first that was asked for. The other one's link ends when nobody uses it.
    assert ask("POST", "/device/22222")[0] == 409
    until(lambda: known().get("22222", {}).get("state") == "searching")
    assert known()["11111"]["state"] == "linked"


@pytest.mark.parametrize("viewer", [[]], indirect=True)
def test_made_up_names_harm_nobody(viewer):
    until(lambda: len(known()) == 2)
    assert {ask("GET", f"/device/{name}/state")[0] for name in ("a%01", "a%02", "%FE", "%FF")} == {404}
    until(lambda: 503 in [ask("GET", f"/device/made-up-{number}/state")[0] for number in range(64)])
    assert ask("GET", "/device/22222/state")[0] == 200
    series = [(sample.name, sample.labels.get("device")) for family
              in text_string_to_metric_families(ask("GET", "/metrics")[1].decode()) for sample in family.samples]
    assert len(series) == len(set(series))


@contextmanager
def own_address(address):
    """Gives this computer one more address."""
    def change(action):
        subprocess.run(["ip", "address", action, f"{address}/24", "dev", "guilink0"], check=True)

    change("add")
    try:
        yield address
    finally:
        change("del")


@pytest.mark.parametrize("viewer", [[]], indirect=True)
def test_devices_with_one_identity_are_told_apart(viewer):
    # Device 11111 searches with each address of this computer, unless it is linked. Both devices may begin as 11111.
    until(lambda: ask("GET", "/device/11111/snapshot.png?after=0")[0] == 200)
    with own_address("10.77.0.4") as address, FakeDevice("22222", address=address) as twin:
        def ids():
            twin.broadcast()
            return {each["id"] for each in json.loads(ask("GET", "/devices")[1])["devices"]}

        until(lambda: ids() == {"11111", "10.77.0.2", address})
        for method, path in ("GET", "/device/22222/state"), ("POST", "/device/22222"):
            twin.broadcast()
            assert ask(method, path)[:2] == (409, b"Several devices have this identity; name one by its address.\n")
        assert ask("GET", "/device/10.77.0.2/snapshot.png?after=0")[0] == 200
        until(lambda: json.loads(ask("GET", "/device/10.77.0.2/state")[1])["identity"] == "22222")
        assert json.loads(ask("GET", "/device/10.77.0.2/state")[1])["address"] == "10.77.0.2"
        assert json.loads(ask("GET", f"/device/{address}/state")[1])["state"] == "searching"
        twin.link()
        assert ask("GET", "/device/10.77.0.2/state")[0] == 200

        def refused():
            twin.broadcast()
            with pytest.raises(guilink.LinkError) as error:
                guilink.connect("22222", viewer=URL, link_timeout=1)
            return "several devices with the identity 22222; name one by its address" in str(error.value)

        until(refused)


@pytest.mark.parametrize("viewer", [[]], indirect=True)
def test_nobody_gets_another_device_than_asked_for(viewer):
    until(lambda: len(known()) == 2)
    assert ask("POST", "/device/11111")[0] == 204
    pictures = linked_to("11111")["pictures"]
    waiting = http.client.HTTPConnection("127.0.0.1", PORT, LIMIT)
    waiting.request("GET", f"/device/11111/snapshot.png?after={pictures + 1000000}")
    assert ask("POST", "/device/22222")[0] == 409
    assert waiting.getresponse().status == 503
    before = ask("GET", "/device/22222/snapshot.png?after=0")[1]
    until(lambda: known().get("22222", {}).get("state") == "searching")
    with Page() as one, Page() as other:
        one.send(device="22222", id=1)
        assert one.said() == {"delivered": 1}
        other.send(press=1)  # meant for the device before
        linked_to("22222")
        assert ask("GET", "/snapshot.png")[1] == before


def test_a_device_that_was_not_named_is_not_served(viewer):
    linked_to("11111")
    assert ask("GET", "/device/22222/state")[0] == 404 and list(known()) == ["11111"]


@pytest.mark.parametrize("viewer", [["--link", "all"], ["--device", "11111", "--device", "10.77.0.2"]], indirect=True)
def test_all_devices_are_linked_unasked(viewer):
    until(lambda: {name: each["state"] for name, each in known().items()} == {"11111": "linked", "22222": "linked"})
    for _ in range(3):  # every second, the viewer looks for links that nobody uses
        before = known()["22222"]["pictures"]
        until(lambda: known()["22222"]["pictures"] > before)


@pytest.mark.parametrize("viewer", [[]], indirect=True)
def test_scripts_share_the_viewers_devices(viewer):
    said = []
    until(lambda: len(known()) == 2)
    with guilink.connect("11111", viewer=URL) as left:
        assert ask("POST", "/device/22222")[0] == 409  # the main link is the script's, too
        left.press("down")
        left.press("up")
    with guilink.connect("11111", viewer=URL) as left, guilink.connect("22222", progress=said.append) as right:
        assert f"another program has the ports of this computer; going through the viewer at {URL}" in said
        shown = right.wait_stable()
        left.press("size")
        left.wait_for(lambda screen: screen.width == 1024)
        left.press("size")
        left.wait_for(lambda screen: screen.width == 1280)
        assert right.screen() == shown
        assert {each.identity: each.state for each in guilink.devices()} == {"11111": "linked", "22222": "linked"}
        with guilink.connect("22222", viewer=URL) as other:
            with right.lock(60):
                for order in (lambda: other.press("down"), lambda: other.text("hello"), lambda: other.lock(1)):
                    with pytest.raises(guilink.LinkError, match="Held by a program at 127.0.0.1 for "):
                        order()
                assert other.screen() == shown
                assert guilink.devices()[1].held_by == "a program at 127.0.0.1"
                left.press("info")
                left.press("back")
                right.press("down")
            other.press("up")


WORKER = """
import pathlib, time

def test_has_a_device_for_itself(device):
    pathlib.Path(device.identity).touch()
    while len(list(pathlib.Path(".").glob("?????"))) < 2:
        time.sleep(0.05)
    device.press("down")
    device.press("up")
"""


@pytest.mark.parametrize("viewer", [["--device", "11111", "--device", "22222"]], indirect=True)
def test_each_worker_takes_a_free_device(viewer, tmp_path):
    (tmp_path / "test_worker.py").write_text(WORKER)

    def worker(seconds=LIMIT):
        return subprocess.Popen(
            [sys.executable, "-m", "pytest", "-q", "-p", "no:cacheprovider", "-p", "guilink.pytest_plugin",
             "--guilink-free-device", f"--guilink-link-timeout={seconds}", f"--guilink-timeout={LIMIT}"],
            cwd=tmp_path, stdout=subprocess.PIPE, text=True,
            env=os.environ | {"PYTEST_DISABLE_PLUGIN_AUTOLOAD": "1"})

    workers = worker(), worker()
    for each in workers:
        said, _ = each.communicate(timeout=2 * LIMIT)
        assert each.returncode == 0, said
    with guilink.connect("11111") as left, guilink.connect("22222") as right, left.lock(60), right.lock(60):
        said, _ = worker(1).communicate(timeout=2 * LIMIT)
    assert re.search("no free device: 11111 .*held by a program.*; 22222 .*held by a program", said), said

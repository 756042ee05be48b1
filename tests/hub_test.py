"""Tests the viewer as a hub. The network has two devices, which people and programs share."""
import http.client
import io
import json
import os
import re
import socket
import subprocess
import sys
import time
from contextlib import ExitStack, contextmanager
from pathlib import Path

import PIL.Image
import pytest
from prometheus_client.openmetrics.parser import text_string_to_metric_families
from support.fake_device import LIMIT, FakeDevice
from support.service import end_service, start_service
from support.visitor import PORT, URL, Page, ask, until

import guilink

ROOT = Path(__file__).parent.parent
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


def test_list_names_both():
    until(lambda: {"11111", "22222"} == {line.split()[0] for line in subprocess.run(
        [BIN / "guilink-viewer", "--list"], text=True, capture_output=True).stdout.splitlines()})


@pytest.mark.parametrize("viewer", [[]], indirect=True)
def test_without_a_choice_it_asks(viewer):
    until(lambda: state()["state"] == "several")
    assert {(each["identity"], each["address"]) for each in state()["devices"]} >= {
        ("11111", "10.77.0.1"), ("22222", "10.77.0.2")}
    assert ask("GET", "/snapshot.png")[0] == 503
    status, why, _ = ask("POST", "/press/1")
    assert (status, why) == (409, b"No device is linked.\n")
    assert ask("POST", "/device/33333")[0] == 404
    with pytest.raises(guilink.SeveralDevicesError, match="22222"):
        guilink.connect(viewer=URL)
    for identity, address in (("22222", "10.77.0.2"), ("11111", "10.77.0.1")):
        assert ask("POST", f"/device/{address}")[0] == 204
        assert linked_to(identity)["address"] == address
    with guilink.connect("22222", viewer=URL) as device:  # the viewer links to this device, too
        assert device.address == "10.77.0.2"


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
        with pytest.raises(guilink.LinkError, match="several devices with the identity 22222; name one by its address"):
            guilink.connect("22222", viewer=URL, link_timeout=1)


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


def test_who_holds_a_device_presses_alone(viewer):
    linked_to("11111")
    with Page() as other:
        with Page() as holder:
            holder.send(hold=60, id=1)
            assert holder.said() == {"delivered": 1}
            assert state()["held"]["by"] == "a page at 127.0.0.1"
            other.send(press=1, id=2)
            refused = other.said()
            assert refused["failed"] == 2 and refused["why"].startswith("Held by a page at 127.0.0.1 for ")
            for path in ("/press/1", "/text", "/device/11111"):
                assert ask("POST", path, b"x")[0] == 423, path
            assert ask("GET", "/snapshot.png")[0] == 200
            holder.send(press=1, id=3)
            assert holder.said() == {"delivered": 3}
        until(lambda: state()["held"] is None)  # the hold ends with its holder
        other.said()  # the event of the press above
        other.send(hold=1, id=4)
        assert other.said() == {"delivered": 4}
        until(lambda: ask("POST", "/press/0")[0] == 204)  # or with its time
        assert other.said()["event"] == "press"


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


def test_each_companion_keeps_its_device(viewer, far_device):
    with running(*far_device, BIN / "guilink-viewer", "--device", "22222", "--listen", "10.77.0.2:8080",
                 "--no-token"):
        links = [linked_to("11111"), linked_to("22222", "10.77.0.2")]
        pictures = [link["pictures"] for link in links]
        until(lambda: all(state(host)["pictures"] > before + 5
                          for host, before in zip(("127.0.0.1", "10.77.0.2"), pictures)))
        assert [state()["identity"], state("10.77.0.2")["identity"]] == ["11111", "22222"]
        with guilink.connect(viewer="http://10.77.0.2:8080") as device:
            assert device.identity == "22222"


def test_other_sites_see_and_press_nothing(viewer):
    linked_to("11111")
    before = ask("GET", "/snapshot.png")[1]
    form = "application/x-www-form-urlencoded"
    for headers in ({"Origin": "http://evil.example"}, {"Origin": "null"}, {"Origin": "http://127.0.0.1:9"},
                    {"Host": "evil.example"}, {"Host": "evil.example", "Origin": "http://evil.example"},
                    {"Sec_Fetch_Site": "cross-site"}, {"Sec_Fetch_Site": "same-site"},
                    {"Origin": "http://evil.example", "Content_Type": form}):
        for method, path, body in (("POST", "/press/1", b""), ("POST", "/text", b"x=1"), ("POST", "/device/22222", b""),
                                   ("GET", "/snapshot.png", None), ("GET", "/stream.mjpg", None),
                                   ("GET", "/state", None), ("GET", "/metrics", None), ("GET", "/link", None)):
            assert ask(method, path, body, **headers)[0] == 403, (method, path, headers)
    for method, path, body, status in (
            ("GET", "/press/1", None, 405), ("PUT", "/state", b"", 405), ("POST", "/press/16", b"", 404),
            ("POST", "/press/-1", b"", 404), ("POST", "/text", b"", 400), ("POST", "/text", b"x" * 4097, 413),
            ("GET", "/snapshot.png?before=1", None, 400), ("GET", "/no", None, 404), ("GET", "/link", None, 426)):
        answer = ask(method, path, body)
        assert (answer[0], answer[1][-1:]) == (status, b"\n"), (method, path)
    assert ask("GET", "/snapshot.png")[1] == before
    assert ask("GET", "/", Sec_Fetch_Site="cross-site")[0] == 200  # another site may contain a link to the page
    status, _, headers = ask("POST", "/press/1", b"", Origin=URL, Sec_Fetch_Site="same-origin")
    assert status == 204
    until(lambda: ask("GET", f"/snapshot.png?after={headers['Guilink-Picture']}")[1] != before)


def test_pictures_figures_and_orders(viewer):
    linked_to("11111")
    with guilink.connect(viewer=URL) as device:
        device.text("hello, hub")
        device.press("up")  # the picture shows the last press; pressing "up" below leads back to this picture
        shown = device.wait_stable()
        png = ask("GET", "/snapshot.png")[1]
        assert guilink.Screen.load(io.BytesIO(png)) == shown
        until(lambda: state()["unchanged"] > 1)  # repeated pictures are no change
        pressed = time.monotonic()
        device.press("down")
        until(lambda: state()["unchanged"] < time.monotonic() - pressed)
        device.press("up")
        device.wait_for(shown)
        families = {family.name: family for family in
                    text_string_to_metric_families(ask("GET", "/metrics")[1].decode())}
        assert families["guilink_linked"].samples[0].value == 1
        assert families["guilink_device"].samples[0].labels["identity"] == "11111"
        now = state()
        assert now["size"] == [1280, 960] and now["programs"] == 1 and now["age"] < LIMIT


def test_pages_learn_what_others_do(viewer):
    linked_to("11111")
    address = {"address": "127.0.0.1"}
    with Page() as one, Page() as other, guilink.connect(viewer=URL) as program:
        assert one.first["may"] == state()["may"] == "press"
        one.send(press=1, id=1)
        assert one.said() == {"delivered": 1}  # no event about its own press
        assert other.said() == {"event": "press", "button": 1, "from": "page", **address}
        program.text("secret")
        assert ask("POST", "/device/11111")[0] == 204
        for each in one, other:
            assert each.said() == {"event": "text", "from": "program", **address}
            assert each.said() == {"event": "device", "device": "11111", "from": "program", **address}


def test_slow_readers_slow_nobody(viewer):
    linked_to("11111")
    websocket = ("Connection: Upgrade\r\nUpgrade: websocket\r\nSec-WebSocket-Version: 13\r\n"
                 "Sec-WebSocket-Key: MDEyMzQ1Njc4OWFiY2RlZg==\r\n")
    with ExitStack() as stack:
        for target, headers in 3 * (("/stream.mjpg", ""), ("/link", websocket)):  # these read only their status
            slow = stack.enter_context(socket.create_connection(("127.0.0.1", PORT), LIMIT))
            slow.sendall(f"GET {target} HTTP/1.1\r\nHost: 127.0.0.1:{PORT}\r\n{headers}\r\n".encode())
            assert slow.recv(12) == (b"HTTP/1.1 101" if headers else b"HTTP/1.1 200")
        read = ["ffmpeg", "-hide_banner", "-i", f"{URL}/stream.mjpg", "-frames:v", "30", "-f", "null", "-"]
        said = subprocess.run(read, capture_output=True, text=True, timeout=2 * LIMIT)
        assert said.returncode == 0 and "1280x960" in said.stderr and "frame=   30" in said.stderr, said.stderr
        with guilink.connect(viewer=URL, timeout=2 * LIMIT) as device:
            for width in 1024, 1280:
                device.press("size")
                device.wait_for(lambda screen: screen.width == width)
    until(lambda: state()["streams"] == 0)


def test_the_viewer_ends_and_comes_back(tmp_path):
    command = BIN / "guilink-viewer", "--device", "11111"
    with pytest.raises(guilink.LinkError, match="cannot be reached.*is it running"):
        guilink.connect(viewer=URL, link_timeout=0.1)
    with ExitStack() as stack:
        with running(*command):
            device = stack.enter_context(guilink.connect(viewer=URL, timeout=2 * LIMIT, artifacts=tmp_path))
            last = device.screen()
            device.lock(3600)
        until(lambda: not device.linked)
        for shown in (last, lambda _: True):
            with pytest.raises(guilink.WaitTimeoutError, match="no link at the moment"):
                device.wait_for(shown, timeout=0.1)
        with running(*command):
            device.press("down")
            device.press("up")
            assert device.identity == "11111" and state()["held"]


def test_faults_of_the_core_are_reported(viewer, near_core, tmp_path):
    look = {"region": (70, 260, 560, 630), "mask": [(540, 260, 60, 630)]}
    with guilink.connect(viewer=URL, timeout=LIMIT, artifacts=tmp_path) as device:

        def new_core(*options):
            near_core[0].terminate()
            near_core[0].wait(LIMIT)
            frozen = device.wait_stable()
            near_core[0] = subprocess.Popen([BIN / "guilink-core", *options], stderr=subprocess.DEVNULL)
            device.wait_for(lambda screen: screen != frozen)  # the new core draws a moving clock
            return device.wait_stable(pictures=20, **look)

        def moved_from(screen):
            device.wait_for(lambda now: now.diff(screen, look["mask"]).count > 9999)

        first = new_core()
        device.press("down")
        moved_from(first)
        second = device.wait_stable(pictures=20, **look)
        for fault, words in (("ignore", "nothing of it has changed since 'Down' was pressed.*was the button ignored"),
                             ("row", r"last picture: \d+ pixels differ .* in \[\(\d+, \d+"),
                             ("colour", "by up to 1 of 15 steps in blue"),
                             ("lost", "nothing at all has changed since 'Down' was pressed.*core still draw")):
            shown = new_core("--fault", fault)
            device.press("down")
            if fault == "ignore":
                after = device.screen()
                device.wait_for(lambda screen: screen != after)  # the clock goes on
            if fault in ("row", "colour"):
                moved_from(shown)
                device.wait_stable(pictures=20, **look)
            if fault == "lost":
                until(lambda: device.unchanged > 1)  # the pictures from before the press have arrived
                device.press("down")
            with pytest.raises(guilink.WaitTimeoutError, match=words):
                device.wait_for(second, timeout=3, **look)
        new_core("--fault", "late")
        device.press("down")
        device.wait_for(second, **look)


def test_a_lost_device_shows_nothing_through_the_viewer(viewer, tmp_path):
    with guilink.connect(viewer=URL, timeout=LIMIT, artifacts=tmp_path) as device:
        device.screen()
        end_service()
        with pytest.raises(guilink.WaitTimeoutError, match="no link at the moment"):
            while True:  # the viewer may stay linked for a moment after the service has ended
                device.wait_for(lambda _: True, timeout=0.2)
        assert device.last_screen() is not None

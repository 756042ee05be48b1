"""Tests the viewer as a hub, through which people and programs share a device."""
import io
import socket
import subprocess
import time
from contextlib import ExitStack

import pytest
from prometheus_client.openmetrics.parser import text_string_to_metric_families
from support.fake_device import LIMIT
from support.service import end_service
from support.two_devices import BIN, linked_to, running, state
from support.visitor import PORT, URL, Page, ask, until

import guilink

pytest_plugins = ["support.two_devices"]


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
    with pytest.raises(guilink.LinkError, match="cannot be reached.*is it running"):
        guilink.connect(viewer=URL, link_timeout=5)
    with ExitStack() as stack:
        with running(BIN / "guilink-viewer", "--device", "11111"):
            device = stack.enter_context(guilink.connect(viewer=URL, timeout=2 * LIMIT, artifacts=tmp_path))
            last = device.screen()
            device.lock(3600)
        until(lambda: not device.linked)
        for shown in (last, lambda _: True):
            with pytest.raises(guilink.WaitTimeoutError, match="no link at the moment"):
                device.wait_for(shown, timeout=0.1)
        with running(BIN / "guilink-viewer"):  # grants no lock before somebody chooses a device
            until(lambda: (now := state()).get("state") == "several" and now["programs"] == 1)
            assert ask("POST", "/device/11111")[0] == 204
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
                device.wait_stable(pictures=10)  # so several of them were certainly sent after this press
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

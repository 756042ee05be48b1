"""Tests the internals of the Python package: frames, pictures, screens, and the companion's end of the link."""
import asyncio
import socket
import subprocess
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from contextlib import closing

import numpy as np
import pytest
from support.fake_device import LIMIT, FakeDevice

from guilink import picture
from guilink.companion import Companion
from guilink.link import LinkError, SeveralDevicesError
from guilink.ports import Ports
from guilink.screen import Screen
from guilink.viewer import Viewer
from guilink.wire import MAX_PAYLOAD, START, FrameReader, Message, MessageType, frame

BLACK = np.full((48, 64), 0xF000, np.uint16)
DOCUMENTED = bytes.fromhex("0300 0200 0100BC0A 01000000 03000FF0")  # 3 x 2 pixels


def soon():
    return time.monotonic() + LIMIT


def until(condition):
    end = soon()
    while not condition():
        assert time.monotonic() < end
        time.sleep(0.01)


# --- wire ---------------------------------------------------------------------------------------------

def test_frame_of_the_document():
    assert frame(MessageType.DATA, b"hello") == START + bytes.fromhex("86a61036 05000000 0600 68656c6c6f")


@pytest.mark.parametrize("size", [1, 31, 32, 41, 43, 1000])
def test_reader_survives_cuts_and_damage(size):
    wrong_checksum = bytearray(frame(MessageType.DATA, b"damaged"))
    wrong_checksum[-1] ^= 1
    absurd = START + bytes.fromhex("00000000 FFFFFFFF 0200")
    good = [Message(MessageType.IMAGE, b"x" * n) for n in (0, 1, 500)] + [Message(99, b"unknown")]
    stream = b"noise" + START[:20]
    for message in good:
        stream += frame(*message) + wrong_checksum + absurd + START[:31]
    reader, found = FrameReader(), []
    for i in range(0, len(stream), size):
        found += reader.feed(stream[i:i + size])
    assert found == good


def test_reader_takes_the_largest_payload():
    largest = Message(MessageType.IMAGE, bytes(MAX_PAYLOAD))
    assert FrameReader().feed(frame(*largest)) == [largest]


# --- picture ------------------------------------------------------------------------------------------

def test_picture_of_the_document():
    pixels = picture.decode(DOCUMENTED)
    assert pixels.tolist() == [[0x0ABC, 0, 0xF00F], [0xF00F] * 3]
    assert picture.encode(np.array([[0x0ABC, 5, 0xF00F], [0xF00F, 0xF00F, 0xF123]], np.uint16)) == DOCUMENTED
    assert picture.encode(np.full((70, 1000), 0xF123, np.uint16)).hex() == "e8034600" "ffff23f1" "701123f1"
    assert picture.encode(np.array([[0xF123]], np.uint16)).hex() == "01000100"
    assert picture.decode(bytes.fromhex("01000100")).tolist() == [[0]]
    empty_runs = bytes.fromhex("03000100 0000AAAA 010034F2 0000BBBB 0000CCCC 010078F6 0000DDDD")
    assert picture.decode(empty_runs).tolist() == [[0xF234, 0xF678, 0xF678]]


@pytest.mark.parametrize("payload", [
    "", "0300", "0300 0200 01", "0300 0200 0100",                # cut off
    "0000 0200", "FFFF FFFF" + "FFFF 0000" * 9, "0100 0000",     # a size of 0, or an impossible size
    "0300 0200", "0300 0200 0400 0FF0", "0300 0200 0600 0FF0",   # no runs, or too few or too many pixels
    "0200 0100" + "FFFF 0000" * 65537 + "0200 0000",   # a sum of runs that exceeds 32 bits
], ids=lambda payload: payload[:30])
def test_damaged_pictures_are_refused(payload):
    with pytest.raises(picture.DamagedPictureError):
        picture.decode(bytes.fromhex(payload))


# --- screen -------------------------------------------------------------------------------------------

def test_screen_keeps_every_pixel_in_a_file(tmp_path):
    screen = Screen(np.arange(65536, dtype=np.uint16).reshape(256, 256))
    assert screen.rgba[0xF1, 0x2C].tolist() == [0x11, 0x22, 0xCC, 0xFF]
    screen.save(tmp_path / "all.png")
    assert Screen.load(tmp_path / "all.png") == screen
    assert screen.crop((0x2C, 0xF1, 1, 1)).pixels.tolist() == [[0xF12C]]
    with pytest.raises(ValueError, match="not within"):
        screen.crop((200, 0, 57, 1))


def test_difference_says_where_and_by_how_much():
    one, pixels = Screen(BLACK), BLACK.copy()
    pixels[10, 20], pixels[12, 25] = 0xF020, 0xF001
    other = Screen(pixels)
    assert one != other and not one.diff(Screen(BLACK.copy()))
    difference = one.diff(other)
    assert (difference.count, difference.boxes, difference.largest) == (2, [(20, 10, 6, 3)], 2)
    assert str(difference) == ("2 pixels differ (0.07%), by up to 2 of 15 steps in green, blue, in [(20, 10, 6, 3)]")
    assert str(one.diff(other, tolerance=1)).startswith("1 pixel differs")
    assert one.diff(other, tolerance=1).boxes == [(20, 10, 1, 1)] and not one.diff(other, tolerance=2)
    assert not one.diff(other, mask=[(20, 10, 1, 1), (25, -5, 99, 99)])
    assert not one.diff(other, mask=one.pixels != other.pixels)
    assert "48 x 64" in str(one.diff(Screen(BLACK.T)))


def test_each_patch_of_a_difference_has_a_box():
    pixels = np.full((960, 1280), 0xF000, np.uint16)
    one, patches = Screen(pixels), [(30, 10, 60, 20), (1000, 10, 40, 30), (94, 275, 500, 150), (700, 250, 90, 400)]
    pixels = pixels.copy()
    for x, y, width, height in patches:
        pixels[y:y + height:5, x:x + width:5] = pixels[y + height - 1, x + width - 1] = 0xFFFF
    other = Screen(pixels)
    assert sorted(one.diff(other).boxes) == sorted(patches) and not one.diff(other, mask=one.diff(other).boxes)
    pixels[::50, ::50] ^= 1
    assert 0 < len(boxes := one.diff(Screen(pixels)).boxes) <= 12 and not one.diff(Screen(pixels), mask=boxes)


def test_find_is_exact():
    pixels = np.random.default_rng(2).choice(np.array([0xF000, 0xFFFF], np.uint16), (200, 300))
    screen = Screen(pixels)
    for box in ((0, 0, 20, 20), (280, 180, 20, 20), (100, 7, 30, 9), (0, 0, 300, 200)):
        assert screen.find(screen.crop(box)) == box
    changed = pixels[50:70, 50:70].copy()
    changed[11, 13] ^= 1
    assert screen.find(Screen(changed)) is None
    assert Screen(BLACK).find(Screen(BLACK[:5, :5])) == (0, 0, 5, 5)
    assert Screen(BLACK[:5, :5]).find(Screen(BLACK)) is None


# --- companion ----------------------------------------------------------------------------------------

@pytest.fixture
def link():
    with closing(Companion("11111")) as companion:
        yield companion


@pytest.fixture
def device():
    with FakeDevice() as fake:
        yield fake


@pytest.fixture(scope="module")
def second_address():
    subprocess.run("ip address add 10.77.0.2/24 broadcast + dev guilink0".split(), check=True)


def test_links_shows_and_presses(link, device):
    device.broadcast(frame(MessageType.IDENTITY, device.identity) + b"!")  # must be ignored because of the "!"
    device.link()
    with pytest.raises(LinkError, match="answered at 10.77.0.1"):
        link.wait_linked(time.monotonic())
    device.show(BLACK)
    assert link.wait_linked(soon()).firmware == "fw1.1"
    assert np.array_equal(picture.decode(link.pictures.newer(0, soon()).payload), BLACK)
    # Keep-alives continue. Behind those that were under way, they contain no ConnectRequest.
    until(lambda: all(device.next().type != MessageType.CONNECT_REQUEST for _ in range(3)))


def test_may_be_found_before_it_has_joined_the_ports(device, monkeypatch):
    with monkeypatch.context() as patch:
        patch.setattr(Ports, "wake", lambda _: device.broadcast_until_answered())  # which ends `join`
        link = Companion("11111")
    with closing(link):
        device.connect().show(BLACK)
        link.wait_linked(soon())


def test_answers_that_share_a_chunk_with_pictures_are_counted_in_order(link, device):
    device.link().show(BLACK)
    link.wait_linked(soon())
    identity = frame(MessageType.IDENTITY, device.identity)
    image = frame(MessageType.IMAGE, picture.encode(BLACK))

    def requests_before_button():
        requests = 0
        while (message := device.next()).type != MessageType.BUTTON:
            requests += message.type == MessageType.IDENTITY_REQUEST
        return requests

    with ThreadPoolExecutor() as pool:
        first = pool.submit(link.press, 1, soon())
        earlier = requests_before_button()
        second = pool.submit(link.press, 2, soon())
        between = requests_before_button()  # that of the first press, and more if the second one comes late
        device.expect(MessageType.IDENTITY_REQUEST)
        device.send(image, identity * (earlier + 1), image, image, identity * between, image)
        assert (first.result(), second.result()) == (2, 4)


def test_is_the_link_without_a_picture_after_the_third_request(link, device):
    device.link()
    requests = 1
    while (message := device.next()).type != MessageType.IDENTITY_REQUEST:
        requests += message.type == MessageType.CONNECT_REQUEST
    assert requests == 3
    device.send(frame(MessageType.IDENTITY, device.identity))
    assert link.wait_linked(soon()).linked
    device.expect(MessageType.CONNECT_REQUEST)  # the companion repeats this request until the first image


def test_dead_connections_do_not_stand_in_the_way(link, device):
    device.broadcast_until_answered()
    dead = [socket.create_connection(("10.77.0.1", 8399), LIMIT) for _ in range(9)]
    for connection in dead[:-1]:
        connection.close()
    device.connect().expect(MessageType.CONNECT_REQUEST)  # sent when dead[-1] has been silent for 1 s
    device.show(BLACK)
    assert link.wait_linked(soon()).linked
    assert socket.create_connection(("10.77.0.1", 8399), LIMIT).recv(1) == b""  # closed, because a link already exists


def test_takes_the_wanted_device_only(link, device, second_address):
    with FakeDevice("22222", address="10.77.0.2") as other:
        other.broadcast()
        device.link()
        assert not other.answered(0)
        device.show(BLACK)
        assert link.wait_linked(soon()).address == "10.77.0.1"
        assert {heard.identity for heard in link.devices()} == {"11111", "22222"}
        # If the device returns with another identity, the companion must link to it again.
        device.disconnect()
        device.identity = b"33333fw2"
        other.broadcast()
        device.link().show(BLACK)
        assert not other.answered(0)
        assert link.pictures.newer(1, soon()) and link.status().identity == "33333"


@pytest.mark.parametrize("order", ["0101", "0011"])  # over two interfaces, each broadcast arrives twice
def test_takes_none_of_several_unless_one_is_chosen(order, device, second_address):
    with closing(Companion()) as link, FakeDevice("22222", address="10.77.0.2") as other:
        for each in order:
            (device, other)[int(each)].broadcast()
        with pytest.raises(SeveralDevicesError, match="22222 .fw1.1. at 10.77.0.2.*choose one"):
            link.wait_linked(soon())
        assert not device.answered(0) and not other.answered(0)
        other.link()  # `device` no longer broadcasts, so the companion links to `other`


def test_each_companion_of_a_process_has_a_device_of_its_own(link, device, second_address):
    with closing(Companion("22222")) as second, FakeDevice("22222", address="10.77.0.2") as other:
        other.link().show(BLACK)
        device.link().show(BLACK)
        assert link.wait_linked(soon()).address == "10.77.0.1" and second.wait_linked(soon()).address == "10.77.0.2"
        with ThreadPoolExecutor() as pool:
            for companion, its in ((second, other), (link, device)):
                press = pool.submit(companion.press, 7, soon())
                its.expect(MessageType.BUTTON)
                its.expect(MessageType.IDENTITY_REQUEST)
                its.send(frame(MessageType.IDENTITY, its.identity))
                press.result()
        # The first device takes the other's identity, and both come back: nothing is mixed up.
        device.identity = other.identity
        device.send(frame(MessageType.IDENTITY, device.identity))
        until(lambda: link.status().identity == "22222")
        for each in (device, other):
            each.disconnect()
        until(lambda: not link.status().linked and not second.status().linked)
        for companion, its in ((link, device), (second, other)):
            its.link().show(BLACK)
            assert companion.wait_linked(soon()).address == its.address


def test_never_takes_another_device_with_the_identity_of_the_lost_one(link, device, second_address, monkeypatch):
    monkeypatch.setattr("guilink.companion.SURE_AFTER", 0)
    with FakeDevice("11111", address="10.77.0.2") as other:
        device.link().show(BLACK)
        link.wait_linked(soon())
        other.broadcast()
        until(lambda: other.address in [each.address for each in link.devices()])
        device.show(BLACK)
        assert link.pictures.newer(1, soon())
        device.disconnect()
        until(lambda: other.broadcast() or not link.status().linked)
        other.broadcast()
        device.link().show(BLACK)
        assert link.wait_linked(soon()).address == "10.77.0.1" and not other.answered(0)


def test_follows_a_device_that_restarts_without_a_farewell(link, device):
    device.link().show(BLACK)
    assert link.pictures.newer(0, soon())
    with device.tcp:  # the old connection is still open
        device.link().show(BLACK)
        assert link.pictures.newer(1, soon())


def test_a_press_waits_for_the_link_and_reports_its_loss(link, device):
    with pytest.raises(LinkError, match="no device 11111 calls"):
        link.press(1, time.monotonic() + 0.01)
    with ThreadPoolExecutor() as pool:
        pressed = pool.submit(link.press, 4, soon())
        device.link().show(BLACK)
        assert device.expect(MessageType.BUTTON) == b"\4"  # not button 1, whose press had timed out
        device.disconnect()
        with pytest.raises(LinkError, match="may or may not have arrived"):
            pressed.result()


def test_flood_of_noise_does_not_end_the_link(link, device):
    device.link().show(BLACK)
    link.wait_linked(soon())
    noise = np.random.default_rng(3).bytes(1 << 20)
    for i in range(300):
        device.broadcast(frame(MessageType.IDENTITY, b"%05dfw" % i))
        device.broadcast(noise[:1000])
    device.send(noise, START, noise, frame(MessageType.IMAGE, b"no picture"))
    device.show(BLACK)
    assert picture.decode(link.pictures.newer(2, soon()).payload).shape == BLACK.shape
    assert len(link.devices()) <= 64


@pytest.mark.parametrize("kind, port", [(socket.SOCK_DGRAM, "UDP port 3152"), (socket.SOCK_STREAM, "TCP port 8399")])
def test_ports_in_use_are_reported(kind, port):
    with socket.socket(socket.AF_INET, kind) as taken:
        taken.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        taken.bind(("", int(port.split()[-1])))
        if kind == socket.SOCK_STREAM:
            taken.listen()
        with pytest.raises(LinkError, match=f"{port}.*another companion"):
            Companion()
    Companion().close()


# --- viewer -------------------------------------------------------------------------------------------

def test_link_through_a_viewer_closes_although_an_attempt_to_connect_loses_the_cancellation(monkeypatch):
    started = threading.Event()

    class Attempt:
        def __init__(self, *_, **__):
            pass

        async def __aenter__(self):
            started.set()
            try:
                await asyncio.Event().wait()
            except asyncio.CancelledError:
                raise ConnectionRefusedError from None

        async def __aexit__(self, *_):
            pass

    monkeypatch.setattr("websockets.connect", Attempt)
    link = Viewer("http://127.0.0.1:8080")
    assert started.wait(LIMIT)
    closer = threading.Thread(target=link.close, daemon=True)
    closer.start()
    closer.join(LIMIT)
    assert not closer.is_alive()

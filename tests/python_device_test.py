"""Tests the API that the Python package offers to scripts, with a simulated link whose pictures each test chooses."""
import json
import re
import subprocess
import sys
import threading
from pathlib import Path
from unittest.mock import Mock

import numpy as np
import pytest
from PIL import Image, ImageSequence

import guilink
from guilink.link import LinkError, LinkStatus, Pictures
from guilink.picture import encode
from guilink.recording import Recording


def picture(x, size=(48, 64)):
    """Returns black pixels with a white column at x, below the first row."""
    pixels = np.full(size, 0xF000, np.uint16)
    pixels[1:, x] = 0xFFFF
    return pixels


class ScriptedPictures(Pictures):
    """`script` holds the pictures that have not arrived yet. Each wait for a newer picture makes one of them arrive."""

    script = ()

    def newer(self, than, deadline):
        if self.number <= max(than, self.ended) and self.script:
            self.add(self.script.pop(0))
        return self._recent[-1] if self.number > max(than, self.ended) else None


class ScriptedLink:
    """Calls on_press for each press. on_press returns two lists: the pictures that arrive before the device confirms
    the press, and those that arrive later."""

    def __init__(self):
        self.pictures = ScriptedPictures(threading.Condition())
        self.pressed, self.on_press = [], lambda button: ([], [])

    def press(self, button, deadline):
        self.pressed.append(button)
        before, behind = self.on_press(button)
        for each in before:
            self.pictures.add(encode(each))
        self.show(*behind)
        return self.pictures.number

    send_text = press

    def show(self, *pictures):
        self.pictures.script = [*self.pictures.script, *map(encode, pictures)]

    def status(self):
        return LinkStatus(True, "10.77.0.1", "11111", "fw1.1")


@pytest.fixture
def link():
    return ScriptedLink()


@pytest.fixture
def device(link, tmp_path):
    return guilink.Device(link, timeout=5, artifacts=tmp_path / "artifacts")


TARGET = guilink.Screen(picture(9))


def test_pictures_from_before_a_press_do_not_count(link, device):
    link.show(picture(9))
    device.wait_for(TARGET)
    link.on_press = lambda _: ([picture(9)], [picture(9), picture(3)])
    device.press("down")
    link.pictures.script.pop(0)
    assert device.screen() == guilink.Screen(picture(3))
    assert link.pressed == [1]


def test_no_change_is_believed_only_after_what_was_under_way(link, device):
    link.show(picture(9))
    device.screen()
    link.on_press = lambda _: ([], [picture(9)] * 3 + [picture(3)] * 2)
    device.press("down")
    with pytest.raises(guilink.WaitTimeoutError, match="did not become the reference"):
        device.wait_for(TARGET)
    link.show(picture(9))
    device.wait_for(TARGET)
    # wait_for cannot know whether these pictures were drawn after the press. So wait_for accepts them only when its
    # timeout expires.
    link.on_press = lambda _: ([], [picture(9)] * 3)
    device.press("down")
    device.wait_for(TARGET)


def test_waits_look_at_a_region_without_its_mask(link, device):
    clock = picture(9)
    clock[0, :10] = 0xFF00
    link.pictures.add(b"damaged")
    link.show(picture(3), clock)
    device.wait_for(TARGET, mask=[(0, 0, 10, 1)])
    assert device.screen() == guilink.Screen(clock)
    for reference in (TARGET, TARGET.crop((5, 1, 30, 40))):
        device.wait_for(reference, region=(5, 1, 30, 40))
    device.wait_for(TARGET, region=(0, 0, 40, 9), mask=[(2, 0, 9, 1), (0, 0, 2, 1)])
    device.wait_for(TARGET, region=(5, 0, 40, 9), mask=clock != picture(9))
    device.wait_for(lambda part: (part.width, part.height) == (4, 2), region=(60, 46, 4, 2))
    clock[20, 9] = 0xFEFF
    link.pictures.add(encode(clock))
    for region, words in (((5, 0, 30, 19), r"in \[\(5, 0, 5, 1\)\]\n.*outside.*also in \[\(9, 20, 1, 1\)\]"),
                          ((5, 10, 30, 30), r"in \[\(9, 20, 1, 1\)\]\n.*outside.*also in \[\(0, 0, 10, 1\)\]")):
        with pytest.raises(guilink.WaitTimeoutError, match=words):
            device.wait_for(TARGET, region=region)


def test_what_cannot_fit_the_screen_is_refused_at_once(link, device, monkeypatch):
    link.show(*[picture(3)] * 9)
    device.screen()
    for what, selection, words in (
            (lambda _: True, {"region": (0, 0, 65, 1)}, r"region \(0, 0, 65, 1\) is not within the screen of 64 x 48"),
            (TARGET, {"mask": np.zeros((48, 63), bool)}, r"the mask has \(63, 48\) pixels, the screen 64 x 48"),
            (guilink.Screen(TARGET.pixels.T), {}, "the reference has 48 x 64 pixels, the screen 64 x 48")):
        with pytest.raises(guilink.WaitTimeoutError, match=words + "\n  see "):
            device.wait_for(what, **selection, timeout=threading.TIMEOUT_MAX)
    assert link.pictures.script  # it has not waited for all pictures
    for region in ((60, 0, 5, 5), (-1, 0, 5, 5), (0, 0, 5), (0, 0, 5, 0), 5):
        with pytest.raises(ValueError, match="region"):
            device.wait_for(TARGET, region=region)
    for mask in ((0, 0, 5, 5), [(0, 0, -5, 5)]):
        with pytest.raises(ValueError, match="no box of a mask"):
            device.wait_for(TARGET, mask=mask)
    monkeypatch.setattr("guilink.device.RESIZE", 60)  # so that a slow machine does not matter
    # After a press, the screen may get the expected size.
    link.show(*[picture(3)] * 9, picture(9, (50, 64)))
    device.press("size")
    link.pictures.script.pop(0)
    device.wait_for(lambda part: True, region=(0, 0, 64, 50))
    # So it may after a restart.
    device._confirmed_at = -60
    link.pictures.link_ended()
    link.show(*[picture(3)] * 9, picture(9, (50, 64)))
    device.wait_for(lambda part: True, region=(0, 0, 64, 50))


def test_pictures_of_an_ended_link_do_not_count(link, device):
    link.show(picture(9))
    assert device.wait_for(TARGET) == TARGET
    link.pictures.link_ended()
    for wait in (lambda: device.wait_for(TARGET), device.wait_stable, lambda: device.press_until("down", TARGET),
                 device.screen):
        with pytest.raises((guilink.WaitTimeoutError, LinkError), match="no link|no picture|0 have|none has"):
            wait()
    assert device.last_screen() == TARGET and link.pressed == []
    link.show(picture(9))
    assert device.wait_for(TARGET) == TARGET


def test_failure_leaves_evidence_and_says_what_to_look_at(link, device):
    link.show(picture(3))
    device.screen()
    link.on_press = lambda _: ([], [picture(3)] * 4)
    device.press("Zoom in")
    with pytest.raises(guilink.WaitTimeoutError) as failure:
        device.wait_for(TARGET, mask=[(0, 0, 1, 1)], tolerance=2, name="target.png")
    for words in ("did not become target.png within 5 s", "the whole screen, without [(0, 0, 1, 1)]",
                  "tolerance 2 of 15", "94 pixels differ", "nothing of it has changed since 'Zoom in'",
                  "4 have arrived meanwhile", "unchanged for ", "linked to 11111", "artifacts/wait-1"):
        assert words in str(failure.value)
    folder = failure.value.folder
    assert guilink.Screen.load(folder / "expected.png") == TARGET
    assert guilink.Screen.load(folder / "actual.png") == guilink.Screen(picture(3))
    red = np.asarray(Image.open(folder / "difference.png")) == (255, 40, 40)
    assert np.array_equal(red.all(axis=2), picture(3) != picture(9))
    assert "Zoom in" in (folder / "keys.txt").read_text()
    assert (folder / "message.txt").read_text().startswith("the screen did not become")
    assert Image.open(folder / "last-seconds.png").size == (32, 24 + 40)
    with pytest.raises(guilink.WaitTimeoutError, match=r"(?s)the condition never.*wait-2"):
        device.wait_for(lambda screen: False, name="the condition never")
    link.status = LinkStatus
    with pytest.raises(guilink.WaitTimeoutError, match="no link at the moment") as failure:
        device.wait_for(TARGET)
    assert "ignored" not in str(failure.value)


def test_stable_means_unchanged_where_one_looks(link, device):
    link.show(*map(picture, (1, 1, 2, 2, 3, 3, 3, 4)))
    assert device.wait_stable(still=0) == guilink.Screen(picture(3))
    link.show(*map(picture, range(5, 15)))
    device.wait_stable(region=(20, 0, 5, 5), still=0)
    with pytest.raises(guilink.WaitTimeoutError, match=r"not still.*\n.*\n.*meanwhile: \[\(5, 1, 10, 47\)\]"):
        device.wait_stable(still=0, tolerance=1)


def test_press_until_does_not_overrun_a_slow_device(link, device):
    effects = iter([[picture(1)] * 7 + [picture(2), picture(3), picture(3), picture(3)],
                    [picture(3), picture(5), picture(9), picture(5)]])
    link.on_press = lambda _: ([picture(1)], next(effects))
    link.show(picture(1))
    assert device.press_until("right", TARGET) == TARGET
    assert link.pressed == [3, 3]
    link.pictures.script.clear()
    link.pictures.add(encode(picture(9)))
    assert device.press_until("right", TARGET) == TARGET and link.pressed == [3, 3]  # already shows the target

    link.on_press = lambda _: ([], [picture(9)] * 3 + [picture(5)])
    device.press("right")
    assert device.screen() == guilink.Screen(picture(5))
    link.on_press = lambda _: ([], [picture(5)] * 3 + [picture(9)])
    device.press("right")
    assert device.press_until("right", TARGET) == TARGET and link.pressed == [3] * 4  # no superfluous press

    link.on_press = lambda _: ([], [picture(len(link.pressed))] * 4)
    with pytest.raises(guilink.WaitTimeoutError, match="'Right', pressed 5 times, did not lead to the reference"):
        device.press_until("right", guilink.Screen(picture(60)), at_most=5)
    link.on_press = lambda _: ([], [picture(len(link.pressed) - 1)] * 9)
    with pytest.raises(guilink.WaitTimeoutError, match="pressed 1 times.*no new picture.*\n.*\n.*\n.*nothing at all"):
        device.press_until("right", guilink.Screen(picture(60)))


def test_buttons_have_names_and_numbers(link, device, tmp_path):
    for button in ("down", " OK ", "zoom IN", 15, "7"):
        device.press(button)
    assert device.hold("up", 0) == 1
    device.text("hello")
    assert link.pressed == [1, 4, 8, 15, 7, 0, "hello"]
    assert [str(press) for press in device.presses][3:] == ["Info", "Power", "Up", "text 'hello'"]
    for act, wrong, words in ((device.press, ("dwn", 16, -1, "16", "²"), "there is no button.*Zoom out"),
                              (device.text, ("", "x" * 4097), "bytes")):
        for value in wrong:
            with pytest.raises(ValueError, match=words):
                act(value)
    labels = tmp_path / "labels.json"
    labels.write_text(json.dumps([{"button": 3, "label": "Fokus +", "key": "f"}]))
    assert guilink.Buttons.load(labels).number("fokus +") == 3
    labels.write_text('{"button": 3}')
    with pytest.raises(ValueError, match="labels.json"):
        guilink.Buttons.load(labels)
    link.on_press = Mock(side_effect=LinkError("the link ended"))
    with pytest.raises(LinkError, match="cannot press 'Down': the link ended"):
        device.press("down")
    assert str(device.presses[-1]) == "Down (not confirmed)"


def test_recording_keeps_each_change_and_marks_the_presses(link, device, tmp_path, monkeypatch):
    link.show(*map(picture, (1, 2, 2)))
    device.screen()
    monkeypatch.setenv("PATH", "")
    with pytest.warns(UserWarning, match="ffmpeg is not installed"):
        recording = device.record(tmp_path / "run.mp4")
    device.press("down")
    device.wait_for(guilink.Screen(picture(2)))
    path = recording.stop()
    with Image.open(path) as film:
        assert path.endswith("run.png") and film.size == (32, 24 + 40)
        bars = [np.asarray(shot.convert("RGB"))[-40:] for shot in ImageSequence.Iterator(film)]
        # At least one picture must have a bar with the background colour and the white text that mark a press.
        assert any((bar[0, 0] == (170, 60, 20)).all() and (bar == 255).any() for bar in bars)
    assert recording.stop() == path
    with pytest.raises(guilink.GuilinkError, match="no picture has arrived"):
        Recording(ScriptedLink(), tmp_path / "nothing.gif", []).stop()


# Each module may import only the modules that come before it in this list.
LAYERS = """wire picture screen link discovery connection ports companion viewer_http viewer recording evidence expect
            buttons device __init__ doctor pytest_plugin conform cli __main__""".split()


def test_imports_only_go_down():
    folder = Path(guilink.__file__).parent
    for path in folder.rglob("*.py"):
        name = path.relative_to(folder).parts[0].removesuffix(".py")
        for module in re.findall(r"^\s*(?:from|import) guilink\.?(\w*)", path.read_text(), re.MULTILINE):
            assert LAYERS.index(module or "__init__") <= LAYERS.index(name), f"{path} imports {module}"
    kit = "import sys, guilink.cli; sys.exit(any('guilink.conform' in name for name in sys.modules))"
    subprocess.run([sys.executable, "-c", kit], check=True)

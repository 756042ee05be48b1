"""A pytest plugin with the fixtures `device` and `assert_screen`. If a wait fails, the test report names the folder
with its pictures.

    def test_down(device, assert_screen):
        device.press("down")
        assert_screen("second_row")  # screens/second_row.png, beside the test
"""
from __future__ import annotations

import sys
from pathlib import Path
from typing import Iterator, Protocol

import pytest
from _pytest.terminal import TerminalReporter  # pytest has no public name for this class

import guilink
from guilink.expect import Expectation, View

REFERENCES = "screens"  # folder of the reference pictures, beside the test
UPDATE_PICTURES = 10  # number of equal consecutive pictures before `--guilink-update` saves a reference
PROPERTY = "guilink-artifacts"  # property in the JUnit report: the folder in which a failed test saved pictures
UPDATED = pytest.StashKey[list[Path]]()
USED = pytest.StashKey[dict[Path, tuple[str, guilink.Screen]]]()  # the place that used a reference, and what it saw


class AssertScreen(Protocol):
    def __call__(self, name: str, *, region: guilink.Box | None = None, mask: guilink.Mask = (),
                 tolerance: int = 0, timeout: float | None = None) -> guilink.Screen:
        """Waits until the device shows the reference picture `name`, as Device.wait_for does."""


def pytest_addoption(parser: pytest.Parser) -> None:
    group = parser.getgroup("guilink", "a device's GUI")
    group.addoption("--guilink-device", metavar="ID", help="identity or address of the device")
    group.addoption("--guilink-viewer", metavar="URL",
                    help="share the link of a running viewer, such as http://127.0.0.1:8080")
    group.addoption("--guilink-timeout", metavar="S", type=float, default=10.0,
                    help="seconds that a wait may take (default 10)")
    group.addoption("--guilink-labels", metavar="FILE", help="names of the buttons, as for the viewer")
    group.addoption("--guilink-update", action="store_true",
                    help="write the reference pictures instead of comparing with them")
    group.addoption("--guilink-artifacts", metavar="FOLDER", default="guilink-artifacts",
                    help="where failed tests leave their pictures (default guilink-artifacts)")


def pytest_configure(config: pytest.Config) -> None:
    config.stash[UPDATED] = list[Path]()
    config.stash[USED] = dict[Path, tuple[str, guilink.Screen]]()


@pytest.fixture(scope="session")
def guilink_device(pytestconfig: pytest.Config) -> Iterator[guilink.Device]:
    """The connected device, which all tests share. Override this fixture to connect in another way."""
    option, said = pytestconfig.getoption, set[str]()

    def say(text: str) -> None:
        if text not in said:
            said.add(text)
            reporter: TerminalReporter = pytestconfig.pluginmanager.getplugin("terminalreporter")
            reporter.ensure_newline()
            reporter.write_line(f"guilink: {text}")

    with guilink.connect(option("--guilink-device"), viewer=option("--guilink-viewer"),
                         timeout=option("--guilink-timeout"), labels=option("--guilink-labels"),
                         artifacts=option("--guilink-artifacts"), progress=say) as device:
        yield device


@pytest.fixture
def device(guilink_device: guilink.Device, request: pytest.FixtureRequest) -> guilink.Device:
    """The device, in the state in which the previous test left it."""
    name = request.node.name
    guilink_device.test_name = "".join(c if c.isalnum() or c in "-_" else "-" for c in name)
    guilink_device.presses.clear()
    return guilink_device


@pytest.fixture
def assert_screen(device: guilink.Device, request: pytest.FixtureRequest) -> AssertScreen:
    """Returns a function that compares the screen with a reference picture beside the test."""
    folder = request.path.parent / REFERENCES

    def check(name: str, *, region: guilink.Box | None = None, mask: guilink.Mask = (),
              tolerance: int = 0, timeout: float | None = None) -> guilink.Screen:
        __tracebackhide__ = True
        path = folder / f"{name}.png"
        if request.config.getoption("--guilink-update"):
            screen = device.wait_stable(region=region, mask=mask, tolerance=tolerance, timeout=timeout,
                                        pictures=UPDATE_PICTURES)
            view = View(region, mask, tolerance)
            part = view.of(screen)
            caller = sys._getframe(1)
            place = f"{caller.f_code.co_filename}:{caller.f_lineno} in {request.node.name}"
            first, seen = request.config.stash[USED].setdefault(path, (place, part))
            if view.diff(part, seen):
                pytest.fail(f"{path.name} has two meanings: {place} sees another picture than {first}; "
                            "give one of them another name", pytrace=False)
            if not path.exists() or not Expectation(path, view).met_by(part):
                folder.mkdir(exist_ok=True)
                part.save(path)
                request.config.stash[UPDATED].append(path)
            return screen
        if not path.exists():
            pytest.fail(f"there is no {path}: write it with --guilink-update, and look at it", pytrace=False)
        return device.wait_for(path, region=region, mask=mask, tolerance=tolerance, timeout=timeout,
                               name=path.name)

    return check


@pytest.hookimpl(tryfirst=True)
def pytest_runtest_makereport(item: pytest.Item, call: pytest.CallInfo[None]) -> None:
    if call.excinfo and isinstance(error := call.excinfo.value, guilink.WaitTimeoutError):
        item.user_properties.append((PROPERTY, str(error.folder)))


def pytest_assertrepr_compare(op: str, left: object, right: object) -> list[str] | None:
    if op == "==" and isinstance(left, guilink.Screen) and isinstance(right, guilink.Screen):
        return ["two screens are equal", str(left.diff(right))]
    return None


def pytest_terminal_summary(terminalreporter: TerminalReporter, config: pytest.Config) -> None:
    for path in config.stash[UPDATED]:
        terminalreporter.write_line(f"guilink: wrote {path}; look at it before you keep it")

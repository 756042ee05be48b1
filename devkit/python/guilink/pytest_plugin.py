"""A pytest plugin with the fixtures `device`, `assert_screen` and `press_until`. If a wait fails, the test report names
the folder with its pictures.

    def test_down(device, assert_screen):
        device.press("down")
        assert_screen("second_row")  # screens/second_row.png, beside the test
"""
from __future__ import annotations

import shutil
import sys
from pathlib import Path
from typing import Any, Callable, Generator, Iterator

import pytest
from _pytest.terminal import TerminalReporter  # pytest has no public name for this class

import guilink
from guilink.device import ARTIFACTS
from guilink.expect import Expectation, View

REFERENCES = "screens"  # folder of the reference pictures, beside the test
UPDATE_PICTURES = 10  # number of equal consecutive pictures before `--guilink-update` saves a reference
PROPERTY = "guilink-artifacts"  # property in the JUnit report: the folder in which a failed test saved pictures
DEVICES = pytest.StashKey[list[guilink.Device]]()  # the devices that a test uses
UPDATED = pytest.StashKey[list[Path]]()
USED = pytest.StashKey[dict[Path, tuple[str, guilink.Screen]]]()  # the place that used a reference, and what it saw


def pytest_addoption(parser: pytest.Parser) -> None:
    group = parser.getgroup("guilink", "a device's GUI")
    group.addoption("--guilink-device", metavar="ID", help="identity or address of the device")
    group.addoption("--guilink-viewer", metavar="URL",
                    help="share the link of a running viewer, whose URL this is, as the viewer prints it")
    group.addoption("--guilink-free-device", action="store_true",
                    help="take any device of the viewer that nobody has locked, and lock it for all tests")
    group.addoption("--guilink-timeout", metavar="S", type=float, default=10.0,
                    help="seconds that a wait may take (default 10)")
    group.addoption("--guilink-link-timeout", metavar="S", type=float, default=guilink.LINK_TIMEOUT,
                    help="seconds to wait for the device, once (default %(default)g)")
    group.addoption("--guilink-labels", metavar="FILE", help="names of the buttons, as for the viewer")
    group.addoption("--guilink-update", action="store_true",
                    help="write the reference pictures instead of comparing with them")
    group.addoption("--guilink-artifacts", metavar="FOLDER", default=ARTIFACTS,
                    help=f"where failed tests leave their pictures (default {ARTIFACTS})")
    group.addoption("--guilink-video", action="store_true",
                    help="save a video of the last seconds of each failed test, with ffmpeg")


def pytest_configure(config: pytest.Config) -> None:
    config.stash[UPDATED] = list[Path]()
    config.stash[USED] = dict[Path, tuple[str, guilink.Screen]]()
    for name in [name for name in sys.modules if name.startswith("guilink.")]:
        # For these errors, pytest shows the line of the test, not the lines of this package.
        setattr(sys.modules[name], "__tracebackhide__",
                lambda error: isinstance(getattr(error, "value", None), (guilink.GuilinkError, ValueError)))
    try:
        guilink.check_arguments(*map(config.getoption, ("--guilink-device", "--guilink-viewer", "--guilink-labels",
                                                        "--guilink-artifacts", "--guilink-timeout",
                                                        "--guilink-link-timeout")))
        if config.getoption("--guilink-free-device") and config.getoption("--guilink-device"):
            raise ValueError("--guilink-free-device and --guilink-device exclude each other")
        if config.getoption("--guilink-video") and not shutil.which("ffmpeg"):
            raise ValueError("--guilink-video needs ffmpeg, which is not installed")
    except ValueError as error:
        raise pytest.UsageError(f"guilink: {error}") from None


@pytest.fixture(scope="session")
def guilink_connect(pytestconfig: pytest.Config) -> Iterator[Callable[[str | None], guilink.Device]]:
    """Returns a function that connects to a device, once for all tests. Override this fixture to connect in another
    way."""
    option, manager = pytestconfig.getoption, pytestconfig.pluginmanager
    outcomes: dict[str | None, guilink.Device | guilink.LinkError] = {}

    def say(text: str) -> None:
        if reporter := manager.getplugin("terminalreporter"):  # a worker of pytest-xdist has none
            with manager.getplugin("capturemanager").global_and_fixture_disabled():
                reporter.ensure_newline()
                reporter.write_line(f"guilink: {text}")

    options: dict[str, Any] = {
        "viewer": option("--guilink-viewer"), "link_timeout": option("--guilink-link-timeout"),
        "timeout": option("--guilink-timeout"), "labels": option("--guilink-labels"),
        "artifacts": option("--guilink-artifacts"), "progress": say}

    def connect(name: str | None) -> guilink.Device:
        for known in outcomes.values():
            if isinstance(known, guilink.Device) and name in (known.identity, known.address):
                return known
        if name not in outcomes:
            try:
                free = name is None and option("--guilink-free-device")
                outcomes[name] = guilink.connect_free(**options) if free else guilink.connect(name, **options)
            except guilink.LinkError as error:
                outcomes[name] = error  # so that no other test waits
        outcome = outcomes[name]
        if isinstance(outcome, guilink.LinkError):
            raise pytest.fail.Exception(f"guilink: {outcome}", pytrace=False)
        return outcome

    yield connect
    for outcome in outcomes.values():
        if isinstance(outcome, guilink.Device):
            outcome.close()


@pytest.fixture
def device_named(guilink_connect: Callable[[str | None], guilink.Device],
                 request: pytest.FixtureRequest) -> Callable[[str | None], guilink.Device]:
    """Returns a function that returns the device with an identity or an address, in the state in which the previous
    test left it. A test may use several devices."""
    test_name = "".join(c if c.isalnum() or c in "-_" else "-" for c in request.node.name)
    devices = request.node.stash.setdefault(DEVICES, [])

    def named(name: str | None) -> guilink.Device:
        device = guilink_connect(name)
        if device not in devices:
            devices.append(device)
            device.test_name = test_name
            device.presses.clear()
            device.video = request.config.getoption("--guilink-video")
        return device

    return named


@pytest.fixture
def device(device_named: Callable[[str | None], guilink.Device], pytestconfig: pytest.Config) -> guilink.Device:
    """The device of --guilink-device, or the only one in sight."""
    return device_named(pytestconfig.getoption("--guilink-device"))


class References:
    """The reference pictures beside a test. Under --guilink-update, writes them."""

    def __init__(self, device: guilink.Device, request: pytest.FixtureRequest):
        self._update: bool = request.config.getoption("--guilink-update")
        self._device, self._request = device, request

    def assert_screen(self, name: str, *, region: guilink.Box | None = None, mask: guilink.Mask = (),
                      tolerance: int = 0, timeout: float | None = None) -> guilink.Screen:
        """Waits until the device shows the reference picture `name`, as Device.wait_for does."""
        path, view = self._path(name), View(region, mask, tolerance)
        if self._update:
            return self._write(path, view, self._still(view, timeout))
        return self._device.wait_for(path, region=region, mask=mask, tolerance=tolerance, timeout=timeout,
                                     name=path.name)

    def press_until(self, button: str | int, name: str, *, at_most: int, region: guilink.Box | None = None,
                    mask: guilink.Mask = (), tolerance: int = 0, timeout: float | None = None) -> guilink.Screen:
        """Presses a button until the device shows the reference picture `name`, as Device.press_until does. Under
        --guilink-update, presses `at_most` times, or until the device shows the present reference."""
        path, view = self._path(name), View(region, mask, tolerance)
        if not self._update:
            return self._device.press_until(button, path, at_most=at_most, region=region, mask=mask,
                                            tolerance=tolerance, timeout=timeout, name=path.name)
        screen = self._still(view, timeout)
        for _ in range(at_most):
            if _shows(path, view, screen):
                break
            self._device.press(button)
            screen = self._still(view, timeout)
        return self._write(path, view, screen)

    def _path(self, name: str) -> Path:
        path = self._request.path.parent / REFERENCES / f"{name}.png"
        if not self._update and not path.exists():
            pytest.fail(f"there is no {path}: write it with --guilink-update, and look at it", pytrace=False)
        return path

    def _still(self, view: View, timeout: float | None) -> guilink.Screen:
        return self._device.wait_stable(region=view.region, mask=view.mask, tolerance=view.tolerance,
                                        timeout=timeout, pictures=UPDATE_PICTURES)

    def _write(self, path: Path, view: View, screen: guilink.Screen) -> guilink.Screen:
        part, caller = view.of(screen), sys._getframe(2)
        place = f"{caller.f_code.co_filename}:{caller.f_lineno} in {self._request.node.name}"
        first, seen = self._request.config.stash[USED].setdefault(path, (place, part))
        if view.diff(part, seen):
            pytest.fail(f"{path.name} has two meanings: {place} sees another picture than {first}; "
                        "give one of them another name", pytrace=False)
        if not _shows(path, view, screen):
            path.parent.mkdir(exist_ok=True)
            part.save(path)
            self._request.config.stash[UPDATED].append(path)
        return screen


def _shows(path: Path, view: View, screen: guilink.Screen) -> bool:
    try:
        return Expectation(path, view.region, view.mask, view.tolerance).met_by(screen)
    except ValueError:  # there is no such file, or the region is now larger than the picture in it
        return False


@pytest.fixture
def assert_screen(device: guilink.Device, request: pytest.FixtureRequest) -> Callable[..., guilink.Screen]:
    """Returns a function that compares the screen with a reference picture beside the test."""
    return References(device, request).assert_screen


@pytest.fixture
def press_until(device: guilink.Device, request: pytest.FixtureRequest) -> Callable[..., guilink.Screen]:
    """Returns a function that presses a button until the screen shows a reference picture beside the test."""
    return References(device, request).press_until


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item: pytest.Item, call: pytest.CallInfo[None]) -> Generator[None, Any, None]:
    error = call.excinfo.value if call.excinfo else None
    outcome = yield
    folders = [error.folder] if isinstance(error, guilink.WaitTimeoutError) else []
    if not folders and call.when == "call" and outcome.get_result().failed:
        for device in item.stash.get(DEVICES, []):
            if not device.video:
                continue
            try:
                folders.append(device.save_evidence(str(error)))
                outcome.get_result().sections.append(("guilink", f"see {folders[-1]}"))
            except (guilink.GuilinkError, OSError) as problem:
                outcome.get_result().sections.append(("guilink", f"cannot save a video: {problem}"))
    item.user_properties += [(PROPERTY, str(folder)) for folder in folders]


def pytest_assertrepr_compare(op: str, left: object, right: object) -> list[str] | None:
    if op == "==" and isinstance(left, guilink.Screen) and isinstance(right, guilink.Screen):
        return [f"screen == screen: {left.diff(right)}"]
    return None


def pytest_terminal_summary(terminalreporter: TerminalReporter, config: pytest.Config) -> None:
    for path in config.stash[UPDATED]:
        terminalreporter.write_line(f"guilink: wrote {path}; look at it before you keep it")

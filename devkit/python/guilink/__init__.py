"""Connects a script to a device. The script can then look at the device's GUI and press its buttons.

    import guilink

    with guilink.connect(device="11111") as device:
        device.press("down")
        device.wait_for("menu.png", mask=[(30, 10, 200, 50)])

`connect` returns a Device, which presses, waits, compares and records. Its pictures are Screens. If the screen does not
show in time what it should, a wait raises WaitTimeoutError; if there is no link, LinkError. A wrong argument raises
ValueError. For tests, the pytest plugin has the fixtures `device`, `assert_screen` and `press_until`. docs/testing.md
shows how to write a first test.
"""
from __future__ import annotations

import ipaddress
import logging
import os
import time
from contextlib import suppress
from pathlib import Path
from typing import Any

from guilink.buttons import Buttons
from guilink.companion import Companion
from guilink.device import ARTIFACTS, TIMEOUT, Device, WaitTimeoutError
from guilink.discovery import INTERVAL, heard_within
from guilink.link import (AccessError, GuilinkError, HeardDevice, Link, LinkError, LinkStatus, PortsTakenError,
                          Progress, SeveralDevicesError)
from guilink.recording import Recording
from guilink.screen import Box, Difference, Mask, Screen
from guilink.viewer_http import DEFAULT_URL, ViewerDevice, ViewerUrl, viewer_devices
from guilink.wire import ID_SIZE

__all__ = ["AccessError", "Box", "Buttons", "Companion", "Device", "Difference", "GuilinkError", "HeardDevice",
           "Link", "LinkError", "LinkStatus", "Mask", "PortsTakenError", "Recording", "Screen", "SeveralDevicesError",
           "ViewerDevice", "WaitTimeoutError", "connect", "connect_free", "devices"]

__version__ = "0.1.0"

LINK_TIMEOUT = 30.0      # s; how long `connect` waits for a link by default
LISTEN = 2 * INTERVAL    # s; each device in sight broadcasts in this time
ATTEMPT = 5.0            # s; how long `connect_free` waits for each device at a time
RETRY = 0.25             # s between two looks for a free device
MAX_LOCK = 86400.0       # s; a viewer refuses a longer lock
PROGRESS = logging.getLogger("guilink").warning
PROGRESS_INTERVAL = 3.0  # s between two looks at the reason why there is no link; a healthy device needs less


def connect(device: str | None = None, *, viewer: str | None = None,
            link_timeout: float = LINK_TIMEOUT, timeout: float = TIMEOUT,
            labels: str | os.PathLike[str] | None = None,
            artifacts: str | os.PathLike[str] = ARTIFACTS,
            progress: Progress = PROGRESS) -> Device:
    """Connects this script to a device. Returns when the device accepts button presses. For several devices, call it
    once for each, with its name.

    `device` is the identity or the address of the wanted device. Without `device`, the script connects to the only
    device that broadcasts. `viewer` is the URL of a running viewer, as the viewer prints it; the script then uses the
    link to this device. Without `viewer`, while another program has the ports of this computer, the script uses the
    viewer at http://127.0.0.1:8080, if there is one. `timeout` is the default limit of each wait. `labels` is a file
    with button names, in the format of `guilink-viewer --labels`. `artifacts` is the folder for the pictures that are
    saved when a wait fails. `progress` gets the reason why there is no link yet, each reason once. If there is no link
    after `link_timeout` seconds, raises LinkError; if an argument is wrong, ValueError, before anything is started.
    """
    buttons = check_arguments(device, viewer, labels, artifacts, link_timeout, timeout)
    link = _link(device, viewer, progress)
    try:
        end, said = time.monotonic() + link_timeout, ""
        while True:
            try:
                link.wait_linked(min(end, time.monotonic() + PROGRESS_INTERVAL))
                return Device(link, buttons, timeout, artifacts)
            except (AccessError, SeveralDevicesError):
                raise
            except LinkError as error:
                if time.monotonic() >= end:
                    raise
                if str(error) != said:
                    said = str(error)
                    progress(said)
    except BaseException:
        link.close()
        raise


def connect_free(*, viewer: str | None = None, link_timeout: float = LINK_TIMEOUT, progress: Progress = PROGRESS,
                 **options: Any) -> Device:
    """Connects this script to a device of the viewer's that nobody has locked, and locks it until it is closed. Takes
    the options of `connect`. If there is no such device for `link_timeout` seconds, raises LinkError."""
    url, end, said = ViewerUrl.parse(viewer or DEFAULT_URL), time.monotonic() + link_timeout, ""
    while True:
        try:
            for each in (known := viewer_devices(url)):
                if each.state != "waiting" and not each.held_by:
                    attempt = min(ATTEMPT, max(0.0, end - time.monotonic()))
                    with suppress(LinkError):
                        return _locked(connect(each.id, viewer=viewer or DEFAULT_URL, link_timeout=attempt,
                                               progress=lambda _: None, **options))
            why = f"the viewer at {url.page} has no free device: {'; '.join(map(str, known)) or 'it knows none'}"
        except AccessError:
            raise
        except LinkError as error:
            why = str(error)
        if time.monotonic() >= end:
            raise LinkError(why)
        if why != said:
            progress(said := why)
        time.sleep(RETRY)


def _locked(device: Device) -> Device:
    try:
        device.lock(MAX_LOCK)
    except BaseException:
        device.close()
        raise
    return device


def devices(seconds: float = LISTEN, *, viewer: str | None = None,
            progress: Progress = PROGRESS) -> list[HeardDevice] | list[ViewerDevice]:
    """Listens for `seconds` and returns the devices that search for a companion. Does not answer them. With the URL of
    a viewer, or through the viewer that `connect` would use, returns the devices that the viewer knows."""
    if not viewer:
        try:
            return heard_within(seconds)
        except PortsTakenError as error:
            viewer = _viewer_instead(error, progress)
    return viewer_devices(ViewerUrl.parse(viewer))


def _link(device: str | None, viewer: str | None, progress: Progress) -> Link:
    if not viewer:
        try:
            return Companion(device)
        except PortsTakenError as error:
            viewer = _viewer_instead(error, progress)
    from guilink.viewer import Viewer  # only `Viewer` needs the package websockets

    return Viewer(viewer, device)


def _viewer_instead(taken: PortsTakenError, progress: Progress) -> str:
    """Returns the URL of the viewer that has the ports, or raises LinkError."""
    try:
        viewer_devices(ViewerUrl.parse(DEFAULT_URL))
    except AccessError as error:
        raise LinkError(f"{str(taken).partition(';')[0]}; {error} (viewer=, --viewer)") from taken
    except LinkError:
        raise taken from None
    progress(f"another program has the ports of this computer; going through the viewer at {DEFAULT_URL}")
    return DEFAULT_URL


def check_arguments(device: str | None = None, viewer: str | None = None,
                    labels: str | os.PathLike[str] | None = None, artifacts: str | os.PathLike[str] = ARTIFACTS,
                    *limits: float) -> Buttons:
    """Raises ValueError if one of these arguments of `connect` is certainly wrong. Returns the buttons."""
    if any(not limit >= 0 for limit in limits):
        raise ValueError(f"a time-out of {min(limits):g} s is impossible")
    if device is not None and len(device.encode()) != ID_SIZE and "\\" not in device:  # a \ stands for an odd byte
        try:
            ipaddress.IPv4Address(device)
        except ValueError:
            raise ValueError(f"{device!r} is neither the identity of a device, which has {ID_SIZE} characters, nor an "
                             "IPv4 address") from None
    if viewer:
        try:
            import guilink.viewer  # noqa: F401
        except ImportError as error:
            raise ValueError(f"a link through a viewer needs the Python package websockets ({error})") from None
        ViewerUrl.parse(viewer)
    folder = Path(artifacts).absolute()
    while not folder.exists():
        folder = folder.parent
    if not folder.is_dir() or not os.access(folder, os.W_OK):
        raise ValueError(f"cannot save the pictures of failures in {os.fspath(artifacts)}: "
                         f"{folder} is no folder in which this user may write")
    return Buttons.load(labels) if labels else Buttons()

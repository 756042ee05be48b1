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
from pathlib import Path

from guilink.buttons import Buttons
from guilink.companion import Companion
from guilink.device import ARTIFACTS, TIMEOUT, Device, WaitTimeoutError
from guilink.discovery import devices
from guilink.link import (AccessError, GuilinkError, HeardDevice, Link, LinkError, LinkStatus, Progress,
                          SeveralDevicesError)
from guilink.recording import Recording
from guilink.screen import Box, Difference, Mask, Screen
from guilink.wire import ID_SIZE

__all__ = ["AccessError", "Box", "Buttons", "Companion", "Device", "Difference", "GuilinkError", "HeardDevice",
           "Link", "LinkError", "LinkStatus", "Mask", "Recording", "Screen", "SeveralDevicesError", "WaitTimeoutError",
           "connect", "devices"]

__version__ = "0.1.0"

LINK_TIMEOUT = 30.0      # s; how long `connect` waits for a link by default
PROGRESS_INTERVAL = 3.0  # s between two looks at the reason why there is no link; a healthy device needs less


def connect(device: str | None = None, *, viewer: str | None = None,
            link_timeout: float = LINK_TIMEOUT, timeout: float = TIMEOUT,
            labels: str | os.PathLike[str] | None = None,
            artifacts: str | os.PathLike[str] = ARTIFACTS,
            progress: Progress = logging.getLogger("guilink").warning) -> Device:
    """Connects this script to a device. Returns when the device accepts button presses. For several devices, call it
    once for each, with its name.

    `device` is the identity or the address of the wanted device. Without `device`, the script connects to the only
    device that broadcasts. `viewer` is the URL of a running viewer, as the viewer prints it; the script then uses the
    viewer's link. `timeout` is the default limit of each wait. `labels` is a file with button names, in the
    format of `guilink-viewer --labels`. `artifacts` is the folder for the pictures that are saved when a wait fails.
    `progress` gets the reason why there is no link yet, each reason once. If there is no link after `link_timeout`
    seconds, raises LinkError; if an argument is wrong, ValueError, before anything is started.
    """
    buttons = check_arguments(device, viewer, labels, artifacts, link_timeout, timeout)
    link: Link
    if viewer:
        from guilink.viewer import Viewer  # only `Viewer` needs the package websockets

        link = Viewer(viewer, device)
    else:
        link = Companion(device)
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
            from guilink.viewer import ViewerUrl
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

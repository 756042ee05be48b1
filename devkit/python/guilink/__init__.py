"""Connects a script to a device. The script can then look at the device's GUI and press its buttons.

    import guilink

    with guilink.connect(device="11111") as device:
        device.press("down")
        device.wait_for("menu.png", mask=[(30, 10, 200, 50)])

`connect` returns a Device, which presses, waits, compares and records. Its pictures are Screens. If the screen does not
show in time what it should, a wait raises WaitTimeoutError; if there is no link, LinkError. A wrong argument raises
ValueError. For tests, the pytest plugin has the fixtures `device` and `assert_screen`. docs/testing.md shows how to
write a first test.
"""
from __future__ import annotations

import os
import time

from guilink.buttons import Buttons
from guilink.companion import Companion
from guilink.device import TIMEOUT, Device, WaitTimeoutError
from guilink.discovery import devices
from guilink.film import Progress
from guilink.link import GuilinkError, HeardDevice, Link, LinkError, LinkStatus, SeveralDevicesError
from guilink.recording import Recording
from guilink.screen import Box, Difference, Mask, Screen

__all__ = ["Box", "Buttons", "Companion", "Device", "Difference", "GuilinkError", "HeardDevice", "Link",
           "LinkError", "LinkStatus", "Mask", "Recording", "Screen", "SeveralDevicesError", "WaitTimeoutError",
           "connect", "devices"]

__version__ = "0.1.0"

LINK_TIMEOUT = 30.0     # s; how long `connect` waits for a link by default
PROGRESS_INTERVAL = 1.0  # s between two calls of `progress`


def _link(device: str | None, viewer: str | None) -> Link:
    if not viewer:
        return Companion(device)
    from guilink.viewer import Viewer  # only `Viewer` needs the package websockets

    return Viewer(viewer, device)


def connect(device: str | None = None, *, viewer: str | None = None,
            link_timeout: float = LINK_TIMEOUT, timeout: float = TIMEOUT,
            labels: str | os.PathLike[str] | None = None,
            artifacts: str | os.PathLike[str] = "guilink-artifacts",
            progress: Progress | None = None) -> Device:
    """Connects this script to a device. Returns when the device accepts button presses.

    `device` is the identity or the address of the wanted device. Without `device`, the script connects to the only
    device that broadcasts. `viewer` is the URL of a running viewer, such as http://127.0.0.1:8080; the script then
    uses the viewer's link. `timeout` is the default limit of each wait. `labels` is a file with button names, in the
    format of `guilink-viewer --labels`. `artifacts` is the folder for the pictures that are saved when a wait fails.
    `progress` is called about once a second until there is a link. If there is no link after `link_timeout`
    seconds, raises LinkError.
    """
    buttons = Buttons.load(labels) if labels else Buttons()
    link = _link(device, viewer)
    try:
        end = time.monotonic() + link_timeout
        while True:
            try:
                link.wait_linked(min(end, time.monotonic() + PROGRESS_INTERVAL))
                return Device(link, buttons, timeout, artifacts)
            except SeveralDevicesError:
                raise
            except LinkError as error:
                if time.monotonic() >= end:
                    raise
                if progress:
                    progress(str(error))
    except BaseException:
        link.close()
        raise

"""Uses a link of a running guilink-viewer. People can then watch the viewer's page while a script runs.

A thread keeps a WebSocket open to the viewer. If the connection is lost, the thread reconnects.
"""
from __future__ import annotations

import asyncio
import json
import logging
import math
import os
import re
import ssl
import threading
import time
from typing import Any, Sequence

import websockets
from websockets.exceptions import InvalidHandshake, WebSocketException

from guilink.link import AccessError, HeardDevice, Link, LinkStatus, Order
from guilink.viewer_http import ASKS_FOR_TOKEN, ViewerUrl
from guilink.wire import MAX_PAYLOAD

RECONNECT = 0.25  # s between two attempts to connect
HANDSHAKE = 10.0  # s; limit for each attempt to connect
# Debug lines of this library contain the token, so they are never written.
LOG = logging.getLogger("guilink.websockets")
LOG.setLevel(logging.INFO)
HEADERS = "additional_headers" if int(websockets.version.version.split(".")[0]) >= 14 else "extra_headers"


class Viewer(Link):
    """Implements `guilink.link.Link` through a running viewer. Without `device`, uses the viewer's main device: the
    only one in sight, or the first that somebody asked for."""

    def __init__(self, url: str, device: str | None = None):
        super().__init__()
        self._url, self._device = ViewerUrl.parse(url), device
        self._name = f"the viewer at {self._url.page}"
        # Guarded by self._changed.
        self._away = "has not answered yet"  # why there is no connection to the viewer; empty while there is one
        self._state: dict[str, Any] = {}
        self._state_time = 0.0
        self._requests = 0
        self._locked_until = 0.0  # time.monotonic()
        self._lock_ended = False  # with the connection to the viewer
        self._socket: Any = None  # the WebSocket; None while it is not connected
        self._loop = asyncio.new_event_loop()
        self._task = self._loop.create_task(self._stay_connected())
        self._thread = threading.Thread(target=self._run, name="guilink", daemon=True)
        self._thread.start()

    # --- called from any thread --------------------------------------------------------------------

    def status(self) -> LinkStatus:
        with self._changed:
            state = self._state
            if state.get("state") != "linked":
                return LinkStatus()
            return LinkStatus(True, state["address"], state["identity"], state["firmware"])

    def devices(self) -> list[HeardDevice]:
        with self._changed:
            return [HeardDevice(each["identity"], each["firmware"], each["address"],
                                self._state_time - each["seconds_ago"])
                    for each in self._state.get("devices", [])]

    def _ready(self) -> bool:
        return self._state.get("state") == "linked" and bool(self._state["identity"])

    def _rivals(self) -> Sequence[HeardDevice]:
        return self.devices() if self._state.get("state") == "several" and not self._device else ()

    def _why_not(self) -> str:
        if self._away:
            return f"{self._name} {self._away}"
        heard = "; ".join(map(str, self.devices())) or "none"
        wanted = self._device or self._state.get("wanted", "")
        wanted = f"device {wanted}" if wanted else "a device"
        return f"{self._name} has no link to {wanted}; heard: {heard}"

    def lock(self, seconds: float, deadline: float) -> None:
        with self._changed:
            self._locked_until = 0.0
        self._deliver(Order("hold", math.ceil(seconds)), deadline)

    def _wake(self) -> None:
        if self._thread.is_alive():
            self._loop.call_soon_threadsafe(self._send_orders)

    def close(self) -> None:
        super().close()
        self._wake()
        self._thread.join()

    # --- on the link's thread ----------------------------------------------------------------------

    def _run(self) -> None:
        try:
            self._loop.run_until_complete(self._task)
        except asyncio.CancelledError:
            pass
        except Exception as error:
            self._fail(error)
        finally:
            self._loop.run_until_complete(self._loop.shutdown_asyncgens())
            self._loop.close()

    def _send_orders(self) -> None:
        """Sends each unsent order; a press or a text only to a linked device. If there is a failure, ends the thread's
        work."""
        with self._changed:
            if self._failure:
                self._task.cancel()
            for order in self._orders:
                if not order.request and (self._ready() or (order.name == "hold" and self._may_lock())):
                    order.request = self._requests = self._requests + 1
                    self._send({"id": order.request, order.name: order.value})

    def _send(self, message: dict[str, Any]) -> None:
        async def send() -> None:
            try:
                if self._socket:
                    await self._socket.send(json.dumps(message))
            except WebSocketException:
                pass  # `_stay_connected` will notice that the connection has ended

        self._loop.create_task(send())

    async def _stay_connected(self) -> None:
        headers: dict[str, Any] = {HEADERS: self._url.headers}
        # `close` sets _failure before it cancels this task. If an attempt to connect fails at the same moment, it
        # raises its own error instead of CancelledError.
        while not self._failure:
            try:
                async with websockets.connect(  # type: ignore
                        self._url.link(self._device), max_size=MAX_PAYLOAD, compression=None, open_timeout=HANDSHAKE,
                        close_timeout=1, logger=LOG, **headers) as socket:
                    self._socket = socket
                    async for message in socket:
                        self._take(message)
                self._disconnected("has ended the connection")
            except InvalidHandshake as error:
                self._refused(error)
            except ssl.SSLCertVerificationError as error:
                self._give_up(f"has a certificate that this system does not trust: {error.verify_message}")
            except (OSError, WebSocketException, asyncio.TimeoutError) as error:
                self._disconnected(f"cannot be reached: {_reason(error)}; is it running?")
            finally:
                self._socket = None
            await asyncio.sleep(RECONNECT)

    def _refused(self, error: InvalidHandshake) -> None:
        response = getattr(error, "response", error)  # older versions of websockets have no response
        status = getattr(response, "status_code", None)
        why = f"refuses this program (HTTP status {status})" if status else f"does not answer like a viewer ({error})"
        if status == 401:
            why = ASKS_FOR_TOKEN.replace("asks for a", "does not know this") if self._url.token else ASKS_FOR_TOKEN
        if status == 404 and self._device:
            why = f"does not serve device {self._device}; which devices it serves, its option --device says"
        if status == 409:
            # It may pass: a device that starts has another's identity for a moment.
            self._disconnected(f"hears several devices with the identity {self._device}; name one by its address")
        elif status and 400 <= status < 500:
            self._give_up(why)
        else:
            self._disconnected(why)

    def _may_lock(self) -> bool:
        """Whether the viewer knows its device: until then, it grants no lock."""
        return self._state.get("state") == "linked" or bool(self._state.get("wanted"))

    def _lock_again(self) -> None:
        with self._changed:
            if self._lock_ended and self._may_lock():
                self._lock_ended = False
                if (left := self._locked_until - time.monotonic()) > 0:
                    self._send({"hold": math.ceil(left)})

    def _give_up(self, why: str) -> None:
        with self._changed:
            self._failure = self._failure or AccessError(f"{self._name} {why}")
            self._disconnected(why)

    def _disconnected(self, why: str) -> None:
        with self._changed:
            self._away, self._state, self._lock_ended = why, {}, True
            self._lose("the connection to the viewer")

    def _take(self, message: str | bytes) -> None:
        if isinstance(message, bytes):
            self.pictures.add(message)
            self._end_old_pictures()
            return
        said = json.loads(message)
        with self._changed:
            if "state" in said:
                self._away, self._state, self._state_time = "", said, time.monotonic()
                self._end_old_pictures()
                self._lock_again()
                self._send_orders()
            for order in self._orders:
                if order.request and order.request == said.get("delivered", said.get("failed")):
                    self._finish(order, said.get("why", ""))
                    if order.name == "hold" and not order.why_not:
                        self._locked_until = time.monotonic() + int(order.value)
            self._changed.notify_all()

    def _end_old_pictures(self) -> None:
        """While the viewer has no link, its pictures are those of the last link."""
        with self._changed:
            if self._state.get("state") != "linked":
                self.pictures.link_ended()


def _reason(error: Exception) -> str:
    """Returns why a connection failed, without the addresses, which may be many."""
    numbers = re.findall(r"\[Errno (\d+)\]", str(error))
    return os.strerror(int(numbers[0])) if numbers else str(getattr(error, "strerror", None) or error or "no answer")

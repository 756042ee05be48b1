"""Uses the link of a running guilink-viewer. People can then watch the viewer's page while a script runs.

A thread keeps a WebSocket open to the viewer. If the connection is lost, the thread reconnects.
"""
from __future__ import annotations

import asyncio
import json
import threading
import time
from dataclasses import dataclass
from typing import Any
from urllib.parse import urlsplit

import websockets
from websockets.exceptions import InvalidHandshake, WebSocketException

from guilink.link import GuilinkError, HeardDevice, LinkError, LinkStatus, Pictures, SeveralDevicesError
from guilink.wire import MAX_PAYLOAD

RECONNECT = 0.25  # s between two attempts to connect
HANDSHAKE = 10.0  # s; limit for each attempt to connect


@dataclass(eq=False)
class Order:
    """A button press or a text for the device. The viewer reports when the device has confirmed it."""

    message: dict[str, Any]
    sent: bool = False
    number: int = 0   # sequence number of the newest picture at the time of the confirmation
    done: bool = False
    why_not: str = ""


class Viewer:
    """Implements `guilink.link.Link` through a running viewer. If `device` is given, the viewer must link to it."""

    def __init__(self, url: str, device: str | None = None):
        parts = urlsplit(url if "://" in url else f"http://{url}")
        if parts.scheme != "http" or not parts.hostname:
            raise ValueError(f"{url!r} is not the URL of a viewer, such as http://127.0.0.1:8080")
        self._url, self._device = f"ws://{parts.netloc}/link", device
        self._names = {device}  # all identities and addresses that the wanted device has had
        self._name = f"the viewer at http://{parts.netloc}"
        self._changed = threading.Condition()  # guards all members below
        self.pictures = Pictures(self._changed, lambda: self._failure)
        self._failure: Exception | None = None
        self._away = "has not answered yet"  # why there is no connection to the viewer; empty while there is one
        self._state: dict[str, Any] = {}
        self._state_time = 0.0
        self._orders: dict[int, Order] = {}
        self._next_id = 1
        self._socket: Any = None  # the WebSocket; None while it is not connected
        self._loop = asyncio.new_event_loop()
        self._task = self._loop.create_task(self._run())
        self._thread = threading.Thread(target=self._work, name="guilink", daemon=True)
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

    def wait_linked(self, deadline: float) -> LinkStatus:
        with self._changed:
            while not self._is_linked():
                self._raise_failure()
                if self._state.get("state") == "several" and not self._device:
                    raise SeveralDevicesError(f"{self._name} sees several devices: "
                                              + "; ".join(map(str, self.devices()))
                                              + "; choose one by its identity or address, or on the page")
                self._wait(deadline)
            return self.status()

    def press(self, button: int, deadline: float) -> int:
        return self._deliver(Order({"press": button}), deadline)

    def send_text(self, text: bytes, deadline: float) -> int:
        return self._deliver(Order({"text": text.decode()}), deadline)

    def close(self) -> None:
        with self._changed:
            self._failure = self._failure or LinkError("the link was closed")
            self._changed.notify_all()
        if self._thread.is_alive():
            self._loop.call_soon_threadsafe(self._task.cancel)
            self._thread.join()

    def _deliver(self, order: Order, deadline: float) -> int:
        with self._changed:
            number, self._next_id = self._next_id, self._next_id + 1
            self._orders[number] = order
            try:
                while not order.done:
                    self._raise_failure()
                    if not order.sent and self._is_linked():
                        order.sent = True
                        self._send(order.message | {"id": number})
                    elif order.sent:
                        if not self._changed.wait(max(0.0, deadline - time.monotonic())):
                            raise LinkError("the device has not confirmed it")
                    else:
                        self._wait(deadline)
            finally:
                del self._orders[number]
            if order.why_not:
                raise LinkError(order.why_not)
            return order.number

    def _is_linked(self) -> bool:
        if self._state.get("state") != "linked" or not self._state["identity"]:
            return False
        names = {self._state["identity"], self._state["address"]}
        if self._device and not self._names & names:
            return False
        self._names |= names
        return True

    def _wait(self, deadline: float) -> None:
        """Waits for a change, such as a new link. Raises LinkError at the deadline."""
        if self._changed.wait(max(0.0, deadline - time.monotonic())):
            return
        if self._away:
            raise LinkError(f"{self._name} {self._away}")
        heard = "; ".join(map(str, self.devices())) or "none"
        wanted = self._device or self._state.get("wanted", "")
        raise LinkError(f"{self._name} has no link to {f'device {wanted}' if wanted else 'a device'}; "
                        f"heard: {heard}")

    def _raise_failure(self) -> None:
        if self._failure:
            raise self._failure

    def _send(self, message: dict[str, Any]) -> None:
        async def send() -> None:
            try:
                if self._socket:
                    await self._socket.send(json.dumps(message))
            except WebSocketException:
                pass  # `_run` will notice that the connection has ended

        self._loop.call_soon_threadsafe(lambda: self._loop.create_task(send()))

    # --- on the link's thread ----------------------------------------------------------------------

    def _work(self) -> None:
        try:
            self._loop.run_until_complete(self._task)
        except asyncio.CancelledError:
            pass
        except Exception as error:  # a bug in this module; the waiting threads raise this error
            with self._changed:
                self._failure = GuilinkError(f"the link's thread failed: {error!r}")
                self._failure.__cause__ = error
                self._changed.notify_all()
        finally:
            self._loop.run_until_complete(self._loop.shutdown_asyncgens())
            self._loop.close()

    async def _run(self) -> None:
        # `close` sets _failure before it cancels this task. If an attempt to connect fails at the same moment, it
        # raises its own error instead of CancelledError.
        while not self._failure:
            try:
                async with websockets.connect(self._url, max_size=MAX_PAYLOAD, compression=None,  # type: ignore
                                              open_timeout=HANDSHAKE, close_timeout=1) as socket:
                    self._socket = socket
                    async for message in socket:
                        self._take(message)
                self._lose("has ended the connection")
            except InvalidHandshake as error:
                self._lose(f"refuses this program ({error}); it must run on the same computer")
            except (OSError, WebSocketException, asyncio.TimeoutError) as error:
                self._lose(f"cannot be reached: {getattr(error, 'strerror', None) or error}; is it running?")
            finally:
                self._socket = None
            await asyncio.sleep(RECONNECT)

    def _lose(self, why: str) -> None:
        with self._changed:
            self._away, self._state = why, {}
            self.pictures.link_ended()
            for order in self._orders.values():
                if order.sent and not order.done:
                    order.done = True
                    order.why_not = ("the connection to the viewer ended before the device confirmed it, so "
                                     "it may or may not have arrived")
            self._changed.notify_all()

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
                self._choose()
            elif order := self._orders.get(said.get("delivered", said.get("failed"))):
                order.done, order.number = True, self.pictures.number
                order.why_not = said.get("why", "")
            self._changed.notify_all()

    def _end_old_pictures(self) -> None:
        """While the viewer has no link, its pictures are those of the last link."""
        with self._changed:
            if self._state.get("state") != "linked":
                self.pictures.link_ended()

    def _choose(self) -> None:
        """If the wanted device has broadcast, but is not linked, asks the viewer to link to it."""
        if self._state.get("state") == "linked" and not self._state["identity"]:
            return  # the next state will say which device is linked
        if self._device and not self._is_linked() and self._state.get("wanted") != self._device:
            if any(self._device in (each.identity, each.address) for each in self.devices()):
                self._send({"device": self._device})

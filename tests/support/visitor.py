"""Visits a viewer by HTTP and WebSocket."""
import asyncio
import http.client
import json
import time

import websockets
from support.fake_device import LIMIT

PORT = 8080
URL = f"http://127.0.0.1:{PORT}"
HEADERS = "additional_headers" if int(websockets.__version__.split(".")[0]) >= 14 else "extra_headers"


class Page:
    """The WebSocket of a page."""
    def __init__(self, url=f"ws://127.0.0.1:{PORT}/link", origin=URL, headers=(), **options):
        self._loop = asyncio.new_event_loop()
        self._socket = self._do(self._connect(url, origin=origin, **{HEADERS: dict(headers)}, **options))
        self.first = json.loads(self._do(self._socket.recv()))

    async def _connect(self, url, **options):
        return await websockets.connect(url, **options)

    def _do(self, work):
        return self._loop.run_until_complete(asyncio.wait_for(work, LIMIT))

    def send(self, **message):
        self._do(self._socket.send(json.dumps(message)))

    def said(self):
        """Returns the next message that is neither a picture nor the link's state."""
        while isinstance(message := self._do(self._socket.recv()), bytes) or "state" in json.loads(message):
            pass
        return json.loads(message)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._do(self._socket.close())
        self._loop.close()


def until(condition):
    end = time.monotonic() + LIMIT
    while not (result := condition()):
        assert time.monotonic() < end, "it has not come in time"
        time.sleep(0.05)
    return result


def ask(method, path, body=None, host="127.0.0.1", source=None, **headers):
    connection = http.client.HTTPConnection(host, PORT, LIMIT, (source, 0) if source else None)
    connection.request(method, path, body, {name.replace("_", "-"): value for name, value in headers.items()})
    answer = connection.getresponse()
    return answer.status, answer.read(), answer.headers

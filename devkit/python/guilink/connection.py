"""One connection from a device: receives and sends messages. Never blocks."""
from __future__ import annotations

import socket
import time

from guilink.wire import FrameReader, Identity, Message, MessageType, frame, identity

CHUNK = 1 << 18         # bytes; limit of one read
MAX_OUTGOING = 1 << 16  # bytes; if more wait to be sent, the connection is closed, because the device does not read
READY_REQUESTS = 3      # number of ConnectRequests before the IdentityRequest whose answer makes the connection `ready`


class Connection:
    """Sends and receives messages. The device handles messages in order, so the answer to an IdentityRequest proves
    that the device has handled everything sent before this request."""

    def __init__(self, connected: socket.socket, address: str, identity: Identity):
        self.address = address
        self.identity = identity  # first from the broadcast, later from the answers to IdentityRequests
        self.ended = False
        self.requests = 0        # number of ConnectRequests sent
        self.asked = 0           # number of IdentityRequests sent
        self.answered = 0        # number of IdentityRequests answered
        self.image_seen = False  # an image has arrived, so this connection is the link
        self.linked_since: float | None = None
        self.received_at = time.monotonic()  # when the last bytes arrived, or else when the connection began
        self._ready_from: int | None = None  # sequence number of the IdentityRequest whose answer makes `ready` true
        self._socket = connected
        self._reader = FrameReader()
        self._outgoing = bytearray()
        connected.setblocking(False)
        connected.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def fileno(self) -> int:
        return self._socket.fileno()

    def close(self) -> None:
        self._socket.close()

    @property
    def ready(self) -> bool:
        """Whether this connection is known to be the link. On the link, the device accepts button presses."""
        return self.image_seen or (self._ready_from is not None and self.answered >= self._ready_from)

    @property
    def wants_to_write(self) -> bool:
        return bool(self._outgoing)

    def receive(self) -> list[Message]:
        # Without TCP_QUICKACK, the device may wait 40 ms for an acknowledgement before it sends the end of an image.
        # Set TCP_QUICKACK before each read, because the kernel resets this option.
        if hasattr(socket, "TCP_QUICKACK"):
            self._socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_QUICKACK, 1)
        try:
            data = self._socket.recv(CHUNK)
        except (BlockingIOError, InterruptedError):
            return []
        except OSError:
            data = b""
        if not data:
            self.ended = True
            return []
        self.received_at = time.monotonic()
        return self._reader.feed(data)

    def note(self, message: Message) -> None:
        """Updates the counts and the identity. Call it with each received message, in order."""
        if message.type == MessageType.IDENTITY:
            self.answered += 1
            self.identity = identity(message.payload) or self.identity
        self.image_seen |= message.type == MessageType.IMAGE

    def send(self, kind: MessageType, payload: bytes = b"") -> None:
        self.requests += kind == MessageType.CONNECT_REQUEST
        if kind == MessageType.IDENTITY_REQUEST:
            self.asked += 1
            if self._ready_from is None and self.requests >= READY_REQUESTS:
                self._ready_from = self.asked
        self._outgoing += frame(kind, payload)
        self.flush()
        self.ended |= len(self._outgoing) > MAX_OUTGOING

    def flush(self) -> None:
        try:
            del self._outgoing[:self._socket.send(self._outgoing)]
        except (BlockingIOError, InterruptedError):
            pass
        except OSError:
            self.ended = True

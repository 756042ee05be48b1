"""A device that is simulated with plain sockets, for tests that control every byte."""
import socket

from guilink.picture import encode
from guilink.wire import FrameReader, MessageType, frame

LIMIT = 60  # s; how long each wait may take, even on a slow machine
BROADCAST = ("10.77.0.255", 3152)


class FakeDevice:
    def __init__(self, identity="11111", firmware="fw1.1", address="10.77.0.1"):
        self.identity = (identity + firmware).encode()
        self.address = address
        self.udp = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.udp.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
        self.udp.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.udp.bind((address, 3153))
        self.tcp, self.messages = None, []

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.udp.close()
        self.disconnect()

    def broadcast(self, datagram=None):
        self.udp.sendto(frame(MessageType.IDENTITY, self.identity) if datagram is None else datagram,
                        BROADCAST)

    def answered(self, within=LIMIT):
        """Returns whether the companion answers the broadcast with exactly one frame: a ConnectRequest."""
        self.udp.settimeout(within)
        try:
            return self.udp.recv(100) == bytes.fromhex(
                "5A1E9C03D7B24F6681E0C3A95B7D2E4F0C6A18B3E59D7F2041C8A6E3B9D05F17"
                "00000000 00000000 0400")
        except (TimeoutError, BlockingIOError):
            return False

    def broadcast_until_answered(self):
        for _ in range(LIMIT * 4):
            self.broadcast()
            if self.answered(0.25):
                return self
        raise AssertionError("the companion does not answer")

    def connect(self):
        self.tcp = socket.create_connection(("10.77.0.1", 8399), LIMIT, (self.address, 0))
        self.reader, self.messages = FrameReader(), []
        return self

    def disconnect(self):
        if self.tcp:
            self.tcp.close()

    def link(self):
        """Lets the companion find this device, connects, and waits for a ConnectRequest."""
        self.broadcast_until_answered().connect().expect(MessageType.CONNECT_REQUEST)
        return self

    def next(self):
        while not self.messages:
            data = self.tcp.recv(65536)
            if not data:
                raise EOFError("the companion has closed the connection")
            self.messages += self.reader.feed(data)
        return self.messages.pop(0)

    def expect(self, kind):
        """Waits for the next message of this kind and returns its payload. Skips other messages."""
        while (message := self.next()).type != kind:
            pass
        return message.payload

    def send(self, *frames):
        self.tcp.sendall(b"".join(frames))

    def show(self, pixels):
        self.send(frame(MessageType.IMAGE, encode(pixels)))

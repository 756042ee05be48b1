#!/usr/bin/env python3
"""A complete companion in plain Python: links to a device, presses a button, saves the picture.

    minimal_companion.py [--press N] [--frames N] [--follow] [--timeout S] FILE.png

It shows how little a companion needs. docs/link-protocol.md describes the link in full.
"""
import argparse
import select
import socket
import struct
import sys
import time
import zlib

START = bytes.fromhex("5A1E9C03D7B24F6681E0C3A95B7D2E4F0C6A18B3E59D7F2041C8A6E3B9D05F17")
HEADER = struct.Struct("<32sIIH")  # start sequence, checksum, payload length, message type
CONTROL, BUTTON, IMAGE, IDENTITY, CONNECT, IDENTITY_REQUEST = range(6)
MAX_PAYLOAD = 0x100000  # bytes; a header that announces more is damaged
KEEP_ALIVE = 0.5  # s between keep-alives; after 2 s without one, a device sends no new images
SILENCE = 3       # s; if nothing arrives for this long, the link is lost
TURN = 1          # s; if nothing arrives for this long before the first image, we close the connection
OLD_SEARCH = 1    # s; we ignore broadcasts for this long after the first image, because they may be late
MAX_PIXELS = 1 << 22  # no device has a larger screen


def frame(kind, payload=b""):
    return HEADER.pack(START, zlib.crc32(payload), len(payload), kind) + payload


def messages_in(buffer):
    """Removes the complete frames from the buffer; yields (type, payload) of each frame. Skips damaged bytes."""
    while (start := buffer.find(START)) >= 0:
        del buffer[:start]
        if len(buffer) < HEADER.size:
            return
        _, checksum, length, kind = HEADER.unpack_from(buffer)
        end = HEADER.size + length
        if length <= MAX_PAYLOAD and len(buffer) < end:
            return
        payload = bytes(buffer[HEADER.size:end])
        if length <= MAX_PAYLOAD and zlib.crc32(payload) == checksum:
            del buffer[:end]
            yield kind, payload
        else:
            del buffer[:1]  # damaged: continue at the next start sequence
    del buffer[:-(len(START) - 1)]  # keep the last bytes, because a start sequence may begin there


def decode(payload):
    """Returns width, height and RGBA bytes of an image, or None if it is damaged."""
    if len(payload) < 4 or len(payload) % 4:
        return None
    width, height, *runs = struct.unpack(f"<{len(payload) // 2}H", payload)
    count = width * height
    if not 0 < count <= MAX_PIXELS or sum(runs[0::2]) != count - 1:
        return None
    rgba = bytearray()
    pixel = bytes(4)
    for length, value in zip(runs[0::2], runs[1::2]):  # a value has 4 bits each of alpha, red, green and blue
        pixel = bytes((value >> shift & 15) * 17 for shift in (8, 4, 0, 12))
        rgba += pixel * length
    return width, height, rgba + pixel  # the last pixel is never sent; it gets the value of the pixel before it


def save_png(name, width, height, rgba):
    def chunk(kind, data):
        checksum = struct.pack(">I", zlib.crc32(kind + data))
        return struct.pack(">I4s", len(data), kind) + data + checksum

    rows = b"".join(b"\0" + rgba[y * width * 4:(y + 1) * width * 4] for y in range(height))
    with open(name, "wb") as file:
        file.write(b"\x89PNG\r\n\x1a\n"
                   + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 6, 0, 0, 0))
                   + chunk(b"IDAT", zlib.compress(rows, 1)) + chunk(b"IEND", b""))


def answer(discovery, only=None):
    """Reads a broadcast; answers it unless `only` has neither its address nor its identity. Returns if it did."""
    call, device = discovery.recvfrom(2048)
    text = call[HEADER.size:]
    if found := len(text) >= 5 and call == frame(IDENTITY, text) and (only is None or only & {device[0], text[:5]}):
        discovery.sendto(frame(CONNECT), device)
    return found


def connections(discovery, listener, end):
    """Answers each device that searches for a companion; yields each connection that a device opens."""
    while time.monotonic() < end:
        ready = select.select([discovery, listener], [], [], KEEP_ALIVE)[0]
        if discovery in ready:
            answer(discovery)
        if listener in ready:
            with listener.accept()[0] as connection:
                yield connection


def messages(connection, discovery, listener, end):
    """Yields the messages of a connection and keeps the connection alive. Ends when the device has gone."""
    connection.settimeout(SILENCE)  # s; limit of each send
    ours, linked = {connection.getpeername()[0]}, None  # the device's address and identity; time of the first image
    buffer, heard, next_alive, patience = bytearray(), time.monotonic(), 0, TURN
    while (now := time.monotonic()) < min(end, heard + patience):
        if now >= next_alive:
            # Always send all three frames. On the link, the device ignores the ConnectRequest.
            connection.sendall(frame(CONNECT) + frame(CONTROL) + frame(IDENTITY_REQUEST))
            next_alive = now + KEEP_ALIVE
        if message := next(messages_in(buffer), None):  # one at a time, so that keep-alives go out in between
            yield message
            heard = time.monotonic()
            if message[0] == IDENTITY:
                ours.add(message[1][:5])
            if message[0] == IMAGE and not linked:
                patience, linked = SILENCE, heard
            continue
        settled = linked is not None and now > linked + OLD_SEARCH
        wait = max(0, next_alive - time.monotonic())
        ready = select.select([connection, discovery] + [listener] * settled, [], [], wait)[0]
        if connection in ready:
            data = connection.recv(1 << 20)
            if not data:
                return
            heard = time.monotonic()
            buffer += data
        if discovery in ready:
            # Right after linking, broadcasts may be late. Later, our device broadcasts if it has dropped the link.
            if answer(discovery, None if not linked else ours if settled else set()) and linked:
                return
        if listener in ready:
            listener.accept()[0].close()  # the link needs no second connection


def mirror(connection, discovery, listener, options, end):
    """Presses a button, waits for `frames` images, then saves one. Returns False if the connection ends first."""
    identity, images, size = None, 0, 0
    for kind, payload in messages(connection, discovery, listener, end):
        if kind == IDENTITY and not identity:
            identity = payload.decode("latin-1")
            print(f"device {identity[:5]}, firmware {identity[5:]}")
        if kind != IMAGE or not identity:
            continue
        if images == 0:
            begin = time.monotonic()
            if options.press is not None:
                connection.sendall(frame(BUTTON, bytes([options.press])))
        images, size = images + 1, size + len(payload)
        rate = (images - 1) / (time.monotonic() - begin)
        if images > options.frames and (picture := decode(payload)):
            print("%d x %d" % picture[:2] + f", {rate:.1f} images/s, {size // images} bytes each")
            save_png(options.file, *picture)
            if not options.follow:
                return True
    return False


def main():
    parser = argparse.ArgumentParser(description="Links to a device and saves its picture.")
    parser.add_argument("file", metavar="FILE.png")
    parser.add_argument("--press", metavar="N", type=int, choices=range(16), help="button, 0 to 15")
    parser.add_argument("--frames", metavar="N", type=int, default=10, help="images to wait for")
    parser.add_argument("--follow", action="store_true", help="save each later image, too")
    parser.add_argument("--timeout", metavar="S", type=float, default=30, help="total seconds")
    options = parser.parse_args()
    end = time.monotonic() + options.timeout
    discovery = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    discovery.bind(("", 3152))
    listener = socket.create_server(("", 8399))
    for connection in connections(discovery, listener, end):
        try:
            if mirror(connection, discovery, listener, options, end):
                return 0
        except OSError as error:
            print(f"link lost: {error}", file=sys.stderr)
    return f"no picture within {options.timeout:g} s; check that the device is on and draws"


if __name__ == "__main__":
    sys.exit(main())

"""Tests the dissector: tshark reads streams that are split into packets at every byte, and captures that are truncated,
out of order or damaged."""
import os
import struct
import subprocess
import tempfile
import xml.etree.ElementTree
from pathlib import Path

from guilink.wire import START, frame

DISSECTOR = Path(__file__).parent.parent / "devkit/wireshark/guilink.lua"
DEVICE, COMPANION = bytes((10, 77, 0, 2)), bytes((10, 77, 0, 1))
CONTROL, BUTTON, IMAGE, IDENTITY, CONNECT_REQUEST, IDENTITY_REQUEST, DATA = range(7)
IS_DEVICE = frame(IDENTITY, b"11111fw1.1")
ONE_RUN = frame(IMAGE, struct.pack("<4H", 3, 2, 5, 0xF00F))


class Capture:
    """Packets between device and companion, in pcap format, with only the first `longest` bytes of each packet."""

    def __init__(self):
        self.packets, self.sequence, self.longest = [], {}, 1 << 18

    def _add(self, source, protocol, segment):
        target = COMPANION if source == DEVICE else DEVICE
        packet = struct.pack(">BBHHHBBH4s4s", 0x45, 0, 20 + len(segment), 0, 0, 64, protocol, 0, source,
                             target) + segment
        captured = packet[:self.longest]
        self.packets.append(struct.pack("<IIII", 0, 0, len(captured), len(packet)) + captured)

    def datagram(self, source, data):
        ports = (3153, 3152) if source == DEVICE else (3152, 3153)
        self._add(source, 17, struct.pack(">HHHH", *ports, 8 + len(data), 0) + data)

    def segments(self, source, *pieces, port=40000):
        ports = (port, 8399) if source == DEVICE else (8399, port)
        for piece in pieces:
            sequence = self.sequence.get((source, port), 1)
            self._add(source, 6, struct.pack(">HHIIHHHH", *ports, sequence, 1, 0x5018, 65535, 0, 0) + piece)
            self.sequence[source, port] = sequence + len(piece)

    def read(self, *options):
        """Returns tshark's output for the capture."""
        pcap = struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 1 << 18, 101) + b"".join(self.packets)
        # Wireshark loads no scripts for root. Another user may not be able to read the checkout, hence the copy.
        user = {} if os.geteuid() else {"user": "nobody", "group": "nogroup", "extra_groups": []}
        with tempfile.NamedTemporaryFile(suffix=".lua") as copy:
            copy.write(DISSECTOR.read_bytes())
            copy.flush()
            os.chmod(copy.name, 0o644)
            done = subprocess.run(["tshark", "-r", "-", "-X", f"lua_script:{copy.name}", "-o",
                                   "tcp.reassemble_out_of_order:TRUE", *options], input=pcap, capture_output=True,
                                  env={**os.environ, "HOME": "/nonexistent"}, **user)
        assert done.returncode == 0 and b"Lua Error" not in done.stderr + done.stdout, done
        return done.stdout.decode()

    def fields(self, *names):
        """Returns one list per packet of the link, with one string per field; commas separate a field's values."""
        names = [part for name in names for part in ("-e", name)]
        return [line.split("\t") for line in
                self.read("-Y", "guilink", "-T", "fields", *names).splitlines()]


def test_ties_discovery_and_link_together():
    capture = Capture()
    capture.segments(DEVICE, IS_DEVICE)  # the dissector does not know this device before its broadcast
    capture.datagram(DEVICE, IS_DEVICE)
    capture.datagram(COMPANION, frame(CONNECT_REQUEST))
    capture.segments(COMPANION, frame(CONNECT_REQUEST) + frame(BUTTON, b"\7"))
    assert capture.fields("guilink.type", "guilink.device", "guilink.identity", "guilink.firmware",
                          "guilink.answer_to", "guilink.answered_in", "guilink.button") == [
        ["3", "", "11111", "fw1.1", "", "", ""], ["3", "", "11111", "fw1.1", "", "", ""],
        ["4", "11111", "", "", "2", "", ""], ["4,1", "11111", "", "", "", "3,3", "7"]]


def test_reads_frames_however_they_are_cut():
    capture = Capture()
    stream = b"??" + START[:9] + ONE_RUN + frame(DATA, b"hello") + START + b"\xFF" * 10 + IS_DEVICE
    for at in range(1, len(stream)):
        capture.segments(DEVICE, stream[:at], stream[at:], port=20000 + at)
    capture.segments(DEVICE, *(stream[at:at + 1] for at in range(len(stream))))
    first, *_, last, before_last = range(len(capture.packets) - len(stream), len(capture.packets))
    capture.packets[last], capture.packets[before_last] = capture.packets[before_last], capture.packets[last]
    seen = {}
    for port, *values in capture.fields("tcp.srcport", "guilink.type", "guilink.image.runs", "guilink.text",
                                        "guilink.identity", "guilink.image.ratio"):
        seen.setdefault(port, []).append(values)
    for port, packets in seen.items():
        types, *values = (",".join(filter(None, column)) for column in zip(*packets))
        assert (types, *values) == ("2,6,65535,3", "1", "hello", "11111", "1.5"), port
    assert len(seen) == len(stream)


def test_shows_what_a_capture_has_cut_off():
    capture = Capture()
    for capture.longest in range(29, 78):
        capture.datagram(DEVICE, ONE_RUN)
        capture.segments(DEVICE, ONE_RUN, port=20000 + capture.longest)
    seen = capture.fields("_ws.col.Info", "guilink.length")
    # 12 of the 49 TCP segments are cut off before their data begins, so the dissector does not see them.

    assert len(seen) == 49 + 37
    assert all(info == "cut off" for info, _ in seen)
    assert seen[-2:] == [["cut off", "8"], ["cut off", ""]]


IMAGES = ((struct.pack("<4H", 3, 2, 5, 0xF00F), "PICT-11"),
          (struct.pack("<4H", 3, 2, 6, 0), "PICT-8"),
          (struct.pack("<4HB", 3, 2, 5, 0, 1), "PICT-8"),
          (b"\1", "PICT-8"),
          (struct.pack("<6H", 3, 2, 5, 0, 0, 0), "PICT-10"),
          (struct.pack("<6H", 3, 2, 4, 0, 1, 0x0FFF), "PICT-9"))
BROKEN = (
    (DEVICE, b"garbage" + IS_DEVICE, "FRAME-1"),
    (DEVICE, IS_DEVICE[:32] + bytes(4) + IS_DEVICE[36:], "FRAME-2"),
    (DEVICE, IS_DEVICE[:36] + b"\xFF" * 6, "FRAME-3"),
    (COMPANION, frame(DATA, bytes(1048535)), "FRAME-3"),
    (COMPANION, ONE_RUN, "FRAME-10"),
    (DEVICE, frame(BUTTON, b"\1"), "FRAME-19"),
    *((COMPANION, frame(BUTTON, pressed), "PRESS-2") for pressed in (b"", b"\x10", b"\1\2")),
    *((DEVICE, frame(IMAGE, image), rule) for image, rule in IMAGES))
BROKEN_DATAGRAMS = (
    (DEVICE, IS_DEVICE + b"!", "DISC-2"),
    (DEVICE, frame(CONNECT_REQUEST), "DISC-2"),
    (DEVICE, frame(IDENTITY, b"1111"), "DISC-6"),
    (COMPANION, frame(CONNECT_REQUEST) + b"!", "DISC-4"),
    (COMPANION, frame(CONTROL), "DISC-4"))


def test_names_the_broken_rules():
    capture = Capture()
    for port, (sender, data, _) in enumerate(BROKEN, 20000):
        capture.segments(sender, *(data[at:at + 60000] for at in range(0, len(data), 60000)), port=port)
    for sender, data, _ in BROKEN_DATAGRAMS:
        capture.datagram(sender, data)
    seen = capture.fields("_ws.expert.message")
    rules = [rule for *_, rule in BROKEN + BROKEN_DATAGRAMS]
    assert len(seen) == len(rules)
    for (messages,), rule in zip(seen, rules):
        assert any(message.startswith(rule + ":") for message in messages.split(",")), (messages, rule)


def test_fields_cover_every_byte():
    capture = Capture()
    data = b"?" + ONE_RUN + IS_DEVICE + frame(DATA, b"text") + frame(9, b"?") + frame(BUTTON, b"\1\2")
    capture.segments(DEVICE, data)
    tree = xml.etree.ElementTree.fromstring(capture.read("-T", "pdml"))
    covered = sorted((int(field.get("pos")), int(field.get("size"))) for field in tree.iter("field")
                     if field.get("name").startswith("guilink.") and field.get("size") != "0")
    end = 40  # end of the IP and TCP headers
    for position, size in covered:
        assert position == end
        end += size
    assert end == 40 + len(data)

"""The rules of docs/link-protocol.md, word for word; a test compares the two."""
from __future__ import annotations

from dataclasses import dataclass

_TABLE = """
DISC-1 device must The device broadcasts about once a second on every IPv4 interface while it has no companion.
DISC-2 device must A broadcast is one datagram that holds one IdentityMessage, from the device's own address and port 3153, to port 3152 of the subnet's broadcast address.
DISC-3 companion must The companion binds its UDP socket to port 3152 and the address 0.0.0.0 (all addresses of its host).
DISC-4 companion must The answer is one ConnectRequest frame of exactly 42 bytes, sent to the address and port that the broadcast came from.
DISC-5 companion must Until the companion is linked, it answers every broadcast of its device.
DISC-6 companion should The companion answers only a complete IdentityMessage with a correct checksum and a payload of at least 5 bytes.
DISC-7 companion must The companion listens on TCP port 8399 before it answers.
DISC-8 device must The device connects to TCP port 8399 of the address that sent the answer. The answer's source port does not matter.
DISC-9 device must The device ignores every datagram that is not exactly the 42 bytes of the answer.
DISC-10 companion should The companion does not answer another device while the companion is linked.
DISC-11 companion should The companion accepts broadcasts of up to 1472 bytes.
DISC-12 device must The device does not broadcast while it has a companion.
FRAME-1 both must Every message is exactly one frame, and no bytes are sent between two frames.
FRAME-2 both must The checksum is the CRC-32 of the payload.
FRAME-3 both must A payload sent to the device has at most 1,048,534 bytes, and a payload sent to the companion has at most 1,048,576 bytes.
FRAME-4 companion must The companion finds the same frames no matter how TCP splits the stream.
FRAME-5 companion must The companion drops bytes that belong to no frame, and finds the next frame.
FRAME-6 companion must The companion ignores a frame with a wrong checksum, and continues to receive.
FRAME-7 companion must The companion treats a length above 1,048,576 as damage, and does not wait for such a payload.
FRAME-8 companion must The companion skips frames whose type it does not use, including their payload.
FRAME-9 companion must The companion accepts payloads of up to 1,048,576 bytes.
FRAME-10 companion must The companion sends only frames of the types 0, 1, 4, 5 and 6.
FRAME-11 companion should The companion sends the header and the payload of a frame with a single `send` call.
FRAME-12 companion must A damaged length makes the companion miss at most 1,048,576 bytes.
FRAME-13 device must The device finds the same frames no matter how TCP splits the stream.
FRAME-14 device must The device drops bytes that are not a start sequence, and finds the next frame.
FRAME-15 device must If a frame has a wrong checksum, the device skips as many bytes as the frame announces.
FRAME-16 device must If a header announces a frame of more than 1,048,576 bytes, header included, the device drops all buffered bytes.
FRAME-17 device must If new bytes would make the device's buffer exceed 1,048,576 bytes, the device drops the buffered bytes and the new bytes, and continues to receive.
FRAME-18 device must The device skips frames of type 2, of type 3, and of every type above 6.
FRAME-19 device must The device sends only frames of the types 2, 3 and 6.
LINK-1 companion must A ConnectRequest is the first frame that the companion sends on a connection.
LINK-2 companion must The companion repeats the ConnectRequest with each keep-alive until an ImageMessage has arrived.
LINK-3 companion must When a connection ends, the companion uses the next connection that the device has already opened or, if there is none, answers the next broadcast.
LINK-4 companion must If nothing has arrived on a candidate for a second, the companion uses the next connection that the device has already opened.
LINK-5 companion should Once linked, the companion closes all connections except the link, even those that arrive later.
LINK-6 companion must If the companion's device broadcasts more than a second after the link's first image, the companion closes the link and answers the broadcast.
LINK-7 companion must If the companion's device broadcasts within a second after the link's first image, the companion keeps the link.
LINK-8 companion must Bytes of one connection never become part of a frame of another connection.
LINK-9 companion should Either the address or the identity of a device may change, so the companion recognises its device if at least one of the two is unchanged.
LINK-10 companion must The companion keeps running, whatever it receives.
LINK-11 companion should To end a link, the companion shuts down its sending side, reads to the end of the stream, and closes the connection.
LINK-12 device must The first candidate that delivers a ConnectRequest becomes the link, and the device closes all other candidates.
LINK-13 device must If no ConnectRequest has arrived on a candidate when the device broadcasts again, the device closes this candidate.
LINK-14 device must The device answers every IdentityRequest, whether on a candidate or on the link, in the order of arrival.
LINK-15 device must On a candidate, the device obeys only ControlMessage, ConnectRequest and IdentityRequest.
LINK-16 device must After each broadcast, the device opens at most 8 connections to any single host. The device has at most 32 candidates at a time.
LINK-17 device must When the link has ended for any reason, the device broadcasts again.
LINK-18 device must The device sends images on the link only.
TIME-1 companion must On the link, the companion sends something at least every 3 s.
TIME-2 companion must On the link, the companion sends a ControlMessage at least every 2 s.
TIME-3 companion should On the link, the companion sends a ControlMessage every 500 ms, so that a late ControlMessage does not break TIME-2.
TIME-4 companion must The companion reads from the link continuously.
TIME-5 companion should When nothing arrives from the device, the companion sends an IdentityRequest with each keep-alive.
TIME-6 companion should When the companion has received nothing for 3 s, the companion closes the link.
TIME-7 device must When there is no new image for 500 ms, the device repeats the last image.
TIME-8 device must When the device has received no ControlMessage for 2 s, the device sends no new image and repeats the last image.
TIME-9 device must When the device has received nothing for 3 s, the device closes the link.
TIME-10 device must When full buffers have kept the device from sending anything for 3 s, the device closes the link.
TIME-11 device must The device keeps no backlog: if an image waits to be sent, the next image replaces it.
PICT-1 companion must The companion draws the runs row by row from the top left; a run of 1 to 65535 pixels may cross rows.
PICT-2 companion must The last pixel, which is not sent, equals the pixel before it, or is 0 in an image of one pixel.
PICT-3 companion must A pixel holds alpha, red, green and blue, 4 bits each, alpha in the highest bits; to convert a value to 8 bits, multiply it by 17.
PICT-4 companion must The companion shows images of 1280 x 960 and 1024 x 768 pixels, and the size may change between two images.
PICT-5 companion must The companion drops an image whose runs do not add up to (width x height) - 1 pixels, or whose payload is cut off.
PICT-6 companion must The companion drops an image that has no pixels or more than 4,194,304 pixels, and reserves no memory for this image.
PICT-7 companion may The companion may skip a run of length 0, or drop the image that contains this run.
PICT-8 device must The runs of an image describe width x height - 1 pixels.
PICT-9 device must A pixel with alpha 0 is sent as 0, unless it is the first pixel of an image.
PICT-10 device must No run has length 0. Two neighbouring runs have the same pixel value only if the first of the two has length 65535.
PICT-11 device must An image has 1280 x 960 or 1024 x 768 pixels.
PICT-12 device must When the payload of an image would exceed 1,048,576 bytes, the device neither sends this image nor repeats the previous one.
PRESS-1 companion must The companion sends a ButtonMessage or DataMessage only after one of two events: the first image has arrived, or the device has answered an IdentityRequest that the companion sent after its third ConnectRequest.
PRESS-2 companion must A ButtonMessage holds one byte, 0 to 15.
PRESS-3 device must For each ButtonMessage on the link, the device sends its user interface one message, whose number is 100 plus the button's number.
PRESS-4 device must If a ButtonMessage holds a number above 15, the device repeats the last valid press. An empty ButtonMessage has no effect. The device ignores all bytes after the first.
PRESS-5 device must The device writes the text of a DataMessage to its log.
PRESS-6 companion must A DataMessage holds its text only, without a terminator.
"""

# Rules that no test case can check, with the reason.
NO_CASE = {
    "TIME-11": "what the core has drawn is not visible on the wire",
    "PICT-12": "needs a core that draws such an image; image_test proves it for our service",
}

# Rules that each test case checks in all data from the companion or device under test.
IN_EVERY_CASE = {
    "companion": ("FRAME-1", "FRAME-2", "FRAME-3", "FRAME-10", "FRAME-11", "DISC-4", "LINK-1", "LINK-10",
                  "PRESS-1", "PRESS-2", "PRESS-6", "TIME-1", "TIME-2", "TIME-3"),
    "device": ("FRAME-1", "FRAME-2", "FRAME-3", "FRAME-19", "DISC-2"),
}
# Reasons why a rule was not checked, although its test cases were run.
NEEDS = {"PRESS-2": "the companion has pressed no button; docs/conformance.md shows how to make it press",
         "PRESS-6": "the companion has sent no text"}


@dataclass(frozen=True)
class Rule:
    id: str
    side: str      # who must keep the rule: companion, device or both
    strength: str  # must, should or may
    text: str

    def binds(self, side: str) -> bool:
        return self.side in (side, "both")


RULES = {rule.id: rule for rule in (Rule(*line.split(" ", 3)) for line in _TABLE.strip().splitlines())}

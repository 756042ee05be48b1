#!/usr/bin/python3
"""Tests what the viewer's page shows, in a real browser, with the real service and the simulated core. Run it in
scripts/sandbox, with the directory of the programs in the environment variable GUILINK_BIN.
"""
import hashlib
import pathlib
import re
import socket
import struct
import time
import unittest
import urllib.request
import zlib

import numpy
from PIL import Image
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from support.page import BIN, LIMIT, URL, Browser, Loop
from support.service import end_service, start_service

START = bytes.fromhex("5A1E9C03D7B24F6681E0C3A95B7D2E4F0C6A18B3E59D7F2041C8A6E3B9D05F17")  # start sequence of a frame

# Records in window.veiled whether the cover over the picture (#veil) is still shown when the next picture is drawn.
WATCH_VEIL = """
delete window.veiled;
new MutationObserver((_, observer) => { window.veiled = !veil.hidden; observer.disconnect(); })
  .observe(canvas, {attributeFilter: ['data-frames']});
"""


def arrived(dump):
    """Returns the pixels that a companion receives if the core draws the pixels in the file `dump`."""
    pixels = numpy.fromfile(dump, "<u2")
    pixels[1:][pixels[1:] < 0x1000] = 0
    pixels[-1] = pixels[-2]
    return pixels


def shown(dump):
    """Returns the CANVAS_HASH of a canvas that shows the pixels in the file `dump`. A canvas keeps no colour in
    transparent pixels."""
    pixels = arrived(dump)
    pixels[pixels < 0x1000] = 0
    return hashlib.sha256(pixels.tobytes()).hexdigest()


class Snapshot(Loop):
    def test_is_exactly_what_the_core_drew(self):
        for size in ("1280x960", "1024x768"):
            dump, snapshot = (pathlib.Path(self.directory, name) for name in ("dump", "snapshot.png"))
            core = self.start("guilink-core", "--size", size, "--still", "--dump", dump)
            viewer = self.start("guilink-viewer", "--snapshot", snapshot)
            self.assertEqual(viewer.wait(LIMIT), 0)
            core.terminate()
            self.assertEqual(core.wait(LIMIT), 0)
            red, green, blue, alpha = numpy.moveaxis(numpy.asarray(Image.open(snapshot), "<u2") // 17, 2, 0)
            pixels = alpha << 12 | red << 8 | green << 4 | blue
            self.assertEqual(pixels.tobytes(), arrived(dump).tobytes())


class Page(Browser):
    def test_shows_exactly_what_the_core_drew(self):
        for size in ("1280x960", "1024x768"):
            for scene in ("menu", "gradient"):
                dump = pathlib.Path(self.directory, "dump")
                self.wait(lambda: self.text("link") == "Linked to 10.77.0.1")
                draw = "--size", size, "--scene", scene, "--still", "--frames", "30", "--dump", dump
                # Again, if a busy machine has lost the last frame.
                self.wait(lambda: self.start("guilink-core", *draw).wait(LIMIT) == 0 and self.hash() == shown(dump))

    def test_click_key_and_touch_move_the_menu(self):
        self.start("guilink-core", "--still")
        self.wait_for_frames(1)
        down = self.browser.find_element(By.CSS_SELECTOR, '[data-button="1"]')
        place = self.browser.execute_script(
            "const box = arguments[0].getBoundingClientRect();"
            "return {x: box.x + box.width / 2, y: box.y + box.height / 2}", down)

        def touch():
            for kind, points in (("touchStart", [place]), ("touchEnd", [])):
                self.browser.execute_cdp_cmd("Input.dispatchTouchEvent",
                                             {"type": kind, "touchPoints": points})

        def activate():  # as a screen reader does, without a pointer
            self.browser.execute_script("arguments[0].click()", down)

        body = self.browser.find_element(By.TAG_NAME, "body")
        for press in (down.click, lambda: body.send_keys(Keys.ARROW_DOWN), touch, activate):
            before = self.hash()
            press()
            self.wait(lambda: self.hash() != before)

        # If Shift is released before the "+" key, the browser reports the release of the "+" key as "=".
        self.assertEqual(self.browser.execute_script(
            "const key = (type, key) => dispatchEvent(new KeyboardEvent(type, {key, code: 'Equal'}));"
            "const down = () => document.querySelectorAll('#pad .down').length;"
            "key('keydown', '+'); const held = down(); key('keyup', '='); return [held, down()]"),
            [1, 0])

        # Enter presses OK, even just after a click on another button.
        down.click()
        self.browser.switch_to.active_element.send_keys(Keys.ENTER)
        self.wait(lambda: "OK pressed" in self.text("log"))

    def test_tells_what_others_do_and_that_nothing_changes(self):
        self.start("guilink-core", "--still")

        def is_unchanged_for(seconds):
            told = re.fullmatch(r"Unchanged for (\d+) (s|min)", self.text("unchanged"))
            return told and int(told[1]) * {"s": 1, "min": 60}[told[2]] >= seconds

        self.wait(lambda: is_unchanged_for(3))
        begin = time.monotonic()
        self.browser.refresh()  # the new page must not begin at 0
        self.wait(lambda: is_unchanged_for(1 + time.monotonic() - begin))
        self.browser.switch_to.new_window("window")
        self.browser.get(URL)
        self.wait_for_frames(1)
        self.browser.find_element(By.CSS_SELECTOR, '[data-button="1"]').click()
        self.browser.switch_to.window(self.browser.window_handles[0])
        self.wait(lambda: "Down pressed by a page at 127.0.0.1" in self.text("log"))

        def stays_unchanged(button):
            press = urllib.request.Request(f"{URL}press/{button}", method="POST")
            urllib.request.urlopen(press, timeout=LIMIT).close()
            return self.element("unchanged").is_displayed()

        self.wait(lambda: not (stays_unchanged(5) and stays_unchanged(6)))  # "Back" and "Menu" change the picture
        self.wait(lambda: "Back pressed by a program at 127.0.0.1" in self.text("log"))
        self.wait(lambda: self.browser.title == "11111: linked – Guilink")

    def test_service_ends_and_comes_back(self):
        self.start("guilink-core")
        for _ in range(2):
            self.wait(lambda: self.text("link") == "Linked to 10.77.0.1")
            self.wait_for_frames(1)
            end_service()
            self.wait(lambda: self.text("link") == "Searching for 11111")
            self.wait(lambda: "Frozen" in self.text("veil"))
            self.assertFalse(any(button.is_enabled() for button in self.browser.find_elements(
                By.CSS_SELECTOR, "#pad button, #send")))
            self.browser.execute_script(WATCH_VEIL)
            start_service(BIN)
            self.wait(lambda: self.browser.execute_script("return window.veiled !== undefined"))
            self.assertFalse(self.browser.execute_script("return veiled"))

    def test_lists_devices_and_links_to_the_one_clicked(self):
        self.start("guilink-core")
        self.wait(lambda: self.text("link") == "Linked to 10.77.0.1")
        identity = b"22222fw9"
        call = START + struct.pack("<IIH", zlib.crc32(identity), len(identity), 3) + identity
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as other:
            other.bind(("127.0.0.2", 0))

            def listed():
                other.sendto(call, ("127.0.0.1", 3152))
                return self.text("devices").split()

            self.wait(lambda: listed() == ["11111", "fw1.1", "10.77.0.1", "22222", "fw9", "127.0.0.2"])
            self.assertRaises(BlockingIOError, other.recv, 100, socket.MSG_DONTWAIT)
            self.browser.find_element(By.CSS_SELECTOR, '#devices [aria-pressed="false"]').click()
            self.wait(lambda: self.text("link") == "Searching for 127.0.0.2")
            listed()
            other.settimeout(LIMIT)
            self.assertEqual(other.recv(100), START + bytes(8) + b"\4\0")
            self.wait(lambda: len(listed()) == 6)  # the first device has lost its link and searches again
            self.browser.find_element(By.CSS_SELECTOR, "#devices button").click()
            self.wait(lambda: self.text("link") == "Linked to 10.77.0.1")


if __name__ == "__main__":
    unittest.main()

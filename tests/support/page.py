"""Starts the service, the programs of the environment variable GUILINK_BIN, and a browser with the viewer's page."""
import os
import pathlib
import shutil
import socket
import subprocess
import tempfile
import time
import unittest

from selenium import webdriver
from selenium.webdriver.common.by import By
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.support.ui import WebDriverWait
from support.service import end_service, start_service

BIN = pathlib.Path(os.environ["GUILINK_BIN"]).resolve()
ADDRESS = ("127.0.0.1", 8080)
URL = "http://127.0.0.1:8080/"
LIMIT = 240  # s; how long each wait may take, even on a slow machine

# Hashes the canvas's pixels, rounded to ARGB 4:4:4:4, because a canvas does not keep the low bits of 8-bit colours.
CANVAS_HASH = """
const done = arguments[0], canvas = document.getElementById('canvas');
const {data} = canvas.getContext('2d').getImageData(0, 0, canvas.width, canvas.height);
const pixels = new Uint16Array(data.length / 4), nibble = (i) => Math.floor((data[i] + 8) / 17);
for (let i = 0; i < pixels.length; ++i)
  pixels[i] = nibble(4*i+3) << 12 | nibble(4*i) << 8 | nibble(4*i+1) << 4 | nibble(4*i+2);
crypto.subtle.digest('SHA-256', pixels).then((hash) =>
  done([...new Uint8Array(hash)].map((byte) => byte.toString(16).padStart(2, '0')).join('')));
"""


class Loop(unittest.TestCase):
    """Starts the service before each test. Ends the service and the test's programs after each test."""

    def setUp(self):
        self.processes = []
        self.directory = tempfile.mkdtemp()
        start_service(BIN)

    def tearDown(self):
        for process in reversed(self.processes):
            process.terminate()
            self.assertEqual(process.wait(LIMIT), 0, "also what a sanitizer finds at the end")
        end_service()
        shutil.rmtree(self.directory)

    def start(self, name, *arguments):
        process = subprocess.Popen([BIN / name, *arguments], stdout=subprocess.DEVNULL)
        self.processes.append(process)
        return process


class Browser(Loop):
    url = URL

    def setUp(self):
        super().setUp()
        self.viewer = self.start_viewer()
        self.browser = self.open_browser()

    def start_viewer(self):
        return self.start("guilink-viewer")

    def tearDown(self):
        self.browser.quit()
        super().tearDown()

    def open_browser(self):
        options = webdriver.ChromeOptions()
        for argument in ("headless=new", "no-sandbox", "disable-gpu", "disable-quic", "no-first-run",
                         "disable-background-networking", "disable-component-update", "disable-sync",
                         "window-size=1280,900", f"user-data-dir={self.directory}/profile"):
            options.add_argument("--" + argument)
        browser = webdriver.Chrome(service=Service(shutil.which("chromedriver")), options=options)
        browser.set_script_timeout(LIMIT)
        for _ in range(LIMIT * 10):
            try:
                socket.create_connection(ADDRESS).close()
                break
            except ConnectionRefusedError:
                time.sleep(0.1)
        browser.get(self.url)
        return browser

    def wait(self, condition):
        WebDriverWait(self.browser, LIMIT, poll_frequency=0.05).until(lambda _: condition())

    def element(self, name):
        return self.browser.find_element(By.ID, name)

    def text(self, name):
        return self.element(name).text

    def wait_for_frames(self, count):
        def frames():
            return int(self.browser.execute_script("return canvas.dataset.frames ?? 0"))

        end = frames() + count
        self.wait(lambda: frames() >= end)

    def hash(self):
        return self.browser.execute_async_script(CANVAS_HASH)

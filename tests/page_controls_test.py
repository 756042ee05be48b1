"""Tests the controls of the viewer's page in a real browser."""
import pathlib
import subprocess
import time

from selenium.webdriver import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from support.page import Browser


class Controls(Browser):
    def test_fits_a_phone(self):
        self.start("guilink-core")
        self.wait_for_frames(1)
        for width, height in ((320, 568), (390, 844), (844, 390)):
            self.browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
                "width": width, "height": height, "deviceScaleFactor": 1, "mobile": True})
            self.wait(lambda: self.browser.execute_script("return innerWidth") == width)
            screen, pad = (self.browser.find_element(By.ID, name).rect for name in ("screen", "pad"))
            ends = [(box["x"] + box["width"], box["y"] + box["height"]) for box in (screen, pad)]
            below, beside = pad["y"] >= ends[0][1], pad["x"] >= ends[0][0]
            self.assertEqual((below, beside), (width < height, width > height))
            for right, bottom in ends:
                self.assertLessEqual(right, width)
                self.assertLessEqual(bottom, height)
            buttons = self.browser.find_elements(By.CSS_SELECTOR, "#pad button")
            self.assertEqual(len(buttons), 16)
            for button in buttons:
                self.assertGreaterEqual(button.rect["height"], 32)

        # Browsers on small phones have no full screen.
        self.browser.execute_cdp_cmd("Page.addScriptToEvaluateOnNewDocument", {
            "source": "delete Document.prototype.fullscreenEnabled; delete Element.prototype.requestFullscreen"})
        self.assertTrue(self.element("fullscreen").is_displayed())
        self.browser.refresh()
        self.wait_for_frames(1)
        self.assertFalse(self.element("fullscreen").is_displayed())

    def test_keeps_what_a_visitor_has_chosen(self):
        self.start("guilink-core", "--still")
        self.wait_for_frames(1)
        self.browser.find_element(By.CSS_SELECTOR, '[data-backdrop="green"][aria-label]').click()
        self.element("sharp").click()
        self.browser.switch_to.active_element.send_keys(Keys.ARROW_DOWN, Keys.ENTER)
        self.wait(lambda: "OK pressed" in self.text("log") and "Down pressed" in self.text("log"))
        self.element("shortcuts").click()

        self.browser.refresh()
        self.wait_for_frames(1)
        pressed = self.browser.find_elements(By.CSS_SELECTOR, ".actions [aria-pressed=true]")
        self.assertEqual([button.accessible_name for button in pressed], ["Green", "Sharp pixels"])
        self.assertEqual(self.browser.find_elements(By.CSS_SELECTOR, "[aria-keyshortcuts]"), [])
        self.browser.find_element(By.TAG_NAME, "body").send_keys(Keys.ARROW_DOWN)
        self.browser.find_element(By.CSS_SELECTOR, '[data-button="0"]').click()
        self.wait(lambda: "Up pressed" in self.text("log"))
        self.assertNotIn("Down pressed", self.text("log"))

    def test_power_asks_first(self):
        self.start("guilink-core", "--still")
        self.wait_for_frames(1)
        dialog = self.element("confirm")
        before = self.hash()
        for ask in (lambda: self.browser.find_element(By.TAG_NAME, "body").send_keys("p"),
                    self.browser.find_element(By.CSS_SELECTOR, '[data-button="7"]').click):
            ask()
            self.assertTrue(dialog.is_displayed())
            self.browser.switch_to.active_element.send_keys(Keys.ARROW_DOWN, Keys.ENTER)  # on "Cancel"
            self.assertFalse(dialog.is_displayed())
        self.wait_for_frames(60)
        self.assertEqual(self.hash(), before)
        self.assertNotIn("pressed", self.text("log"))
        self.browser.find_element(By.CSS_SELECTOR, '[data-button="7"]').send_keys(Keys.ENTER)
        dialog.find_element(By.CSS_SELECTOR, "[value=press]").click()
        self.wait(lambda: self.hash() != before)
        self.assertIn("Power pressed", self.text("log"))

    def test_picks_pixels_and_boxes(self):
        self.start("guilink-core", "--size", "1024x768", "--still")
        self.wait(lambda: self.text("size") == "1024 × 768")
        left, top, width = self.browser.execute_script(
            "window.ends = [];"
            "for (const end of ['pointerdown', 'pointerup']) addEventListener(end, ({x, y}) => ends.push([x, y]));"
            "const {x, y, width} = canvas.getBoundingClientRect(); return [x, y, width]")

        def drag(x, y):
            actions = ActionChains(self.browser).move_to_element_with_offset(self.element("overlay"), 50, 30)
            actions.click_and_hold().move_by_offset(x, y).release().perform()
            return [[int((a - left) * 1024 / width), int((b - top) * 1024 / width)]
                    for a, b in self.browser.execute_script("return ends.splice(0)")]

        (x, y), _ = drag(0, 0)
        self.assertEqual(self.element("place").get_attribute("value"), f"({x}, {y})")
        (right, bottom), (x, y) = drag(-200, -100)
        picked = f"({x}, {y}, {right - x + 1}, {bottom - y + 1})"
        self.assertEqual(self.element("place").get_attribute("value"), picked)
        self.assertEqual(self.text("pixel"), f"({x}, {y})")
        self.element("copy").click()
        self.element("line").send_keys(Keys.CONTROL, "v")
        self.assertEqual(self.element("line").get_attribute("value"), picked)

        self.element("place").clear()
        self.element("place").send_keys("(10, 20, 30, 40)")
        box = self.browser.find_element(By.CSS_SELECTOR, "#overlay rect")
        self.assertEqual([box.get_attribute(name) for name in ("x", "y", "width", "height")], ["10", "20", "30", "40"])

    def test_recording_knows_its_duration(self):
        self.browser.execute_cdp_cmd("Browser.setDownloadBehavior",
                                     {"behavior": "allow", "downloadPath": self.directory})
        self.start("guilink-core")
        self.wait_for_frames(1)
        # A browser without time to encode leaves out frames: each later part that is not empty has at least one.
        self.browser.execute_script("""
            window.parts = 0;
            const start = MediaRecorder.prototype.start;
            MediaRecorder.prototype.start = function (...options) {
              this.addEventListener('dataavailable', ({ data }) => { parts += data.size > 0; });
              return start.apply(this, options);
            };""")
        begin = time.monotonic()
        self.element("record").click()
        self.wait(lambda: self.browser.execute_script("return parts") >= 3)
        may_leave = "return dispatchEvent(new Event('beforeunload', {cancelable: true}))"
        self.assertFalse(self.browser.execute_script(may_leave))
        self.element("record").click()
        self.wait(lambda: list(pathlib.Path(self.directory).glob("*.webm")))
        elapsed = time.monotonic() - begin
        self.assertTrue(self.browser.execute_script(may_leave))
        video, = pathlib.Path(self.directory).glob("*.webm")
        ffprobe = ["ffprobe", "-loglevel", "error", "-count_frames", "-of", "csv=p=0", "-show_entries"]
        told = subprocess.run([*ffprobe, "format=duration:stream=nb_read_frames", video],
                              check=True, capture_output=True)
        frames, duration = told.stdout.split()
        self.assertGreater(int(frames), 1)
        self.assertGreater(float(duration), 0)
        self.assertLessEqual(float(duration), elapsed)
        self.assertEqual(told.stderr, b"")


class Token(Browser):
    url = "http://10.77.0.1:8080/"  # not encrypted and not on loopback: the browser tells the viewer less about itself

    def start_viewer(self, press="p" * 32):
        tokens = pathlib.Path(self.directory, "tokens")
        tokens.touch(0o600)
        tokens.write_text(f"{press}\n{'v' * 32}\n")
        return self.start("guilink-viewer", "--listen", "0.0.0.0:8080", "--token-file", tokens)

    def log_in(self, token):
        self.browser.find_element(By.NAME, "token").send_keys(token, Keys.ENTER)

    def test_says_what_a_visitor_may_do(self):
        self.start("guilink-core")
        self.log_in("w" * 32)
        self.wait(lambda: "This token is wrong" in self.browser.find_element(By.TAG_NAME, "body").text)
        self.log_in("v" * 32)
        self.wait(lambda: self.text("link") == "Linked to 10.77.0.1, view only")
        self.wait_for_frames(1)
        self.assertEqual(self.browser.current_url, self.url)
        button = self.browser.find_element(By.CSS_SELECTOR, '[data-button="1"]')
        self.assertEqual([button.is_enabled(), self.element("text").is_displayed()], [False, False])

        self.browser.switch_to.new_window("window")
        self.browser.get(self.url + "?token=" + "p" * 32)
        self.wait(lambda: self.text("link") == "Linked to 10.77.0.1")
        self.browser.find_element(By.CSS_SELECTOR, '[data-button="1"]').click()
        self.wait(lambda: "Down pressed" in self.text("log"))
        self.viewer.terminate()
        self.viewer.wait()
        self.viewer = self.start_viewer("q" * 32)
        self.wait(lambda: self.text("link") == "The viewer asks for its token: reload this page")
        self.browser.refresh()
        self.log_in("q" * 32)
        self.wait(lambda: self.text("link") == "Linked to 10.77.0.1")

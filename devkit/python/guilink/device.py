"""The interface for scripts: press buttons, look at the screen, wait, compare, record."""
from __future__ import annotations

import os
import time
from collections import deque
from contextlib import ExitStack
from pathlib import Path
from typing import Callable, Iterator, NoReturn

from guilink.buttons import Buttons
from guilink.evidence import new_folder, write_evidence
from guilink.expect import Expectation, Reference, View
from guilink.link import GuilinkError, HeardDevice, Link, LinkError
from guilink.picture import DamagedPictureError
from guilink.recording import Press, Recording
from guilink.screen import Box, Difference, Mask, Screen

TIMEOUT = 10.0       # s; default limit of every wait
ARTIFACTS = "guilink-artifacts"  # default folder for what failed waits save
STILL = 0.5          # s; a screen is stable if it has not changed for this long
STILL_PICTURES = 3   # number of consecutive equal pictures that a stable screen needs
HOLD_INTERVAL = 0.12  # s between two presses of a held button; the viewer's page uses the same value
# Number of old pictures, drawn before a press, that may arrive after it. The device holds up to three such pictures;
# the fourth is a margin.
UNDER_WAY = 4
RESIZE = 2.0         # s; after a press or a restart, the screen may take this long to get its size
MAX_TEXT = 4096      # bytes; longest text that `text` sends; the viewer has the same limit
MAX_PRESSES = 10000  # number of presses that are remembered


class WaitTimeoutError(GuilinkError, AssertionError):
    """The screen did not show in time what the script expects. `folder` holds the saved pictures and the message."""

    def __init__(self, message: str, folder: Path, difference: Difference | None):
        super().__init__(message)
        self.folder, self.difference = folder, difference


class Device:
    """Controls a device for a script. Close it, or use it in a `with`. Use it in one thread at a time.

    The methods that look at the screen ignore all pictures that arrive before the device confirms the last press. The
    first UNDER_WAY pictures after the confirmation may still show an old screen. A method uses such a picture only if
    it differs from the picture at the time of the press.
    """

    def __init__(self, link: Link, buttons: Buttons | None = None, timeout: float = TIMEOUT,
                 artifacts: str | os.PathLike[str] = ARTIFACTS):
        self.timeout = timeout          # s; limit of each call that passes no `timeout`
        self.artifacts = Path(artifacts)  # folder in which each failed wait creates its own folder
        self.test_name = "wait"         # the folders of failed waits get this name and a number: wait-1, wait-2
        self.presses: deque[Press] = deque(maxlen=MAX_PRESSES)
        self.buttons = buttons or Buttons()
        self._link = link
        self.video = False              # whether failed waits save a video instead of an animation; needs ffmpeg
        self._confirmed_at = -RESIZE    # time.monotonic() when the last press was confirmed
        self._after = 0                 # number of the newest picture when the last press was confirmed
        self._decoded: tuple[bytes, Screen] | None = None
        self._shown_at_press: bytes | None = None
        self._recordings: list[Recording] = []

    def __enter__(self) -> Device:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        """Ends the recordings, then the link."""
        try:
            for recording in list(self._recordings):
                recording.stop()
        finally:
            self._link.close()

    @property
    def identity(self) -> str:
        """The device's identity; empty while there is no link."""
        return self._link.status().identity

    @property
    def firmware(self) -> str:
        """The version of the device's firmware; empty while there is no link."""
        return self._link.status().firmware

    @property
    def address(self) -> str:
        """The device's IPv4 address; empty while there is no link."""
        return self._link.status().address

    @property
    def linked(self) -> bool:
        """Whether there is a link to the device."""
        return self._link.status().linked

    @property
    def unchanged(self) -> float:
        """For how many seconds all pictures have been equal: the screen rests, or nothing draws it any more."""
        return self._link.pictures.unchanged

    def devices(self) -> list[HeardDevice]:
        """Returns all devices whose broadcasts this script has received. The newest broadcast comes first."""
        return self._link.devices()

    # --- press -------------------------------------------------------------------------------------

    def press(self, button: str | int, timeout: float | None = None) -> None:
        """Presses a button, by name or number. Returns when the device has handled the press. Raises LinkError if it
        has not done so by the time-out."""
        number = self.buttons.number(button)
        recent = self._link.pictures.recent()
        self._shown_at_press = recent[-1].payload if recent else None
        name = self.buttons.name(number)
        self._send(name, f"press {name!r}", lambda end: self._link.press(number, end), timeout)

    def hold(self, button: str | int, seconds: float, interval: float = HOLD_INTERVAL) -> int:
        """Presses a button repeatedly, as if it were held down. Returns the number of presses.

        The link has no message for the release of a button."""
        start, count = time.monotonic(), 0
        while count == 0 or time.monotonic() < start + seconds:
            self.press(button)
            count += 1
            time.sleep(max(0.0, min(start + count * interval, start + seconds) - time.monotonic()))
        return count

    def text(self, text: str, timeout: float | None = None) -> None:
        """Sends a text, which the device writes to its log."""
        if not 0 < (size := len(text.encode())) <= MAX_TEXT:
            raise ValueError(f"the text has {size} bytes; it must have 1 to {MAX_TEXT}")
        self._send(f"text {text!r}", f"send the text {text!r}", lambda end: self._link.send_text(text, end), timeout)

    def lock(self, seconds: float, timeout: float | None = None) -> ExitStack:
        """For this long, lets nobody else press or send texts, through the same viewer. Others may look.

            with device.lock(60):
                device.press("down")

        Ends with the `with`, with the `close()` of what it returns, or with the device's. Raises LinkError if another
        has a lock. Without a viewer, nobody else could press, so it does nothing."""
        self._link.lock(seconds, self._end(timeout))
        stack = ExitStack()
        stack.callback(self._unlock)
        return stack

    # --- look --------------------------------------------------------------------------------------

    def screen(self, timeout: float | None = None) -> Screen:
        """Waits for a screen that was certainly drawn after the last press, and returns it. If there is none before the
        time-out, returns the newest screen of this link. Raises LinkError if no screen has arrived on this link."""
        return self._news(View(), self._end(timeout))

    def last_screen(self) -> Screen | None:
        """Returns the newest screen at once, even if it is old or the link has ended. None if no screen has arrived."""
        screens = (self._decode(picture.payload) for picture in reversed(self._link.pictures.recent()))
        return next(filter(None, screens), None)

    def wait_for(self, what: Reference, *, region: Box | None = None, mask: Mask = (),
                 tolerance: int = 0, timeout: float | None = None, name: str | None = None) -> Screen:
        """Waits until the screen shows a reference (a Screen or a file) or meets a condition. Returns the screen.

        Compares only `region`, without the parts that `mask` covers. A colour channel may differ by up to `tolerance`,
        0 to 15. If the screen was as expected before the last press, ignores the first UNDER_WAY pictures after that
        press. Raises WaitTimeoutError at the time-out, or earlier if the region or the reference does not fit the
        screen's size.
        """
        expectation = Expectation(what, region, mask, tolerance, name)
        start, last = time.monotonic(), None
        end = self._end(timeout)
        before = self._screen_at_press()
        no_news = before is not None and expectation.met_by(before)
        met = False
        for number, last in self._screens(expectation, end):
            met = expectation.met_by(last)
            no_news &= met
            if met and (number > self._after + UNDER_WAY or not no_news):
                return last
        if met and last and number > self._link.pictures.ended:  # the last screen before the time-out was as expected
            return last
        self._fail(f"the screen did not become {expectation.name} within {round(end - start, 1):g} s",
                   start, expectation, last, expectation.difference(last) if last else None)

    def wait_stable(self, *, region: Box | None = None, mask: Mask = (), tolerance: int = 0,
                    still: float = STILL, pictures: int = STILL_PICTURES,
                    timeout: float | None = None) -> Screen:
        """Waits until the screen has not changed for `still` seconds and for `pictures` pictures. Returns the screen.
        Raises WaitTimeoutError.

        If you know what the screen will show, use wait_for. A busy device may react to a press only
        after `still` seconds."""
        view = View(region, mask, tolerance)
        start, end = time.monotonic(), self._end(timeout)
        first: Screen | None = None  # the first screen after the most recent change
        last: Screen | None = None   # the most recent screen
        changes: Difference | None = None  # all pixels that have changed
        since, count = 0.0, 0
        for _, screen in self._screens(view, end):
            change = view.diff(view.of(screen), view.of(first)) if first and screen is not last else None
            if first and not change:
                count += 1
                if count >= pictures and time.monotonic() >= since + still:
                    return screen
            else:
                changes = change.joined(changes) if change else changes
                first, since, count = screen, time.monotonic(), 1
            last = screen
        self._fail(f"the screen was not still for {still:g} s within {round(end - start, 1):g} s; mask what "
                   "moves, or choose a region", start, view, last, changes)

    def press_until(self, button: str | int, what: Reference, *, at_most: int = 20,
                    region: Box | None = None, mask: Mask = (), tolerance: int = 0,
                    timeout: float | None = None, name: str | None = None) -> Screen:
        """Presses a button until the screen shows `what`, at most `at_most` times. If the screen already shows
        `what`, does not press. Raises WaitTimeoutError.

        Presses again only after the region has changed and is stable again. If a part of the region moves by itself,
        mask this part. `timeout` limits the wait after each press.
        """
        expectation = Expectation(what, region, mask, tolerance, name)
        pressed, start = self.buttons.name(self.buttons.number(button)), time.monotonic()
        screen = self._news(expectation, self._end(timeout))
        for count in range(at_most + 1):
            if expectation.met_by(before := screen):
                return screen
            if count == at_most:
                break
            self.press(button)
            end = self._end(timeout)
            seen: list[Screen] = []  # the screens since the most recent change, which are all equal
            for _, screen in self._screens(expectation, end):
                if expectation.met_by(screen):
                    return screen
                part = expectation.of(screen)
                if seen and expectation.diff(part, seen[-1]):
                    seen.clear()
                seen.append(part)
                if len(seen) >= STILL_PICTURES and expectation.diff(part, expectation.of(before)):
                    break
            else:
                self._fail(f"{pressed!r}, pressed {count + 1} times for {expectation.name}, has "
                           "led to no new picture that is still", start, expectation, screen,
                           expectation.difference(screen))
        self._fail(f"{pressed!r}, pressed {at_most} times, did not lead to {expectation.name}",
                   start, expectation, screen, expectation.difference(screen))

    def record(self, path: str | os.PathLike[str]) -> Recording:
        """Records pictures and presses, until the recording's `stop()` or end of `with`, or the device's `close()`."""
        self._recordings.append(Recording(self._link, path, self.presses, self._recordings.remove))
        return self._recordings[-1]

    def save_evidence(self, message: str, *, expected: Screen | None = None, actual: Screen | None = None,
                      difference: Difference | None = None) -> Path:
        """Saves the pictures of the last seconds, the presses and these arguments in a new folder below `artifacts`.
        Returns the folder."""
        folder = new_folder(self.artifacts, self.test_name)
        write_evidence(folder, message, expected, actual or self.last_screen(), difference,
                       self._link.pictures.recent(), list(self.presses), self.video)
        return folder

    # --- private -----------------------------------------------------------------------------------

    def _unlock(self) -> None:
        try:
            self._link.lock(0, self._end(None))
        except LinkError:
            pass  # the viewer ends the lock with the connection

    def _end(self, timeout: float | None) -> float:
        return time.monotonic() + (self.timeout if timeout is None else timeout)

    def _send(self, name: str, attempt: str, send: Callable[[float], int], timeout: float | None) -> None:
        press = Press(time.monotonic(), name)
        self.presses.append(press)
        try:
            self._after = send(self._end(timeout))
        except LinkError as error:
            raise LinkError(f"cannot {attempt}: {error}") from None
        press.confirmed, self._confirmed_at = True, time.monotonic()

    def _screens(self, view: View, end: float) -> Iterator[tuple[int, Screen]]:
        """Yields the screens that arrive on this link, after the confirmation of the last press, with their numbers,
        until `end`. If several screens arrive while the caller is busy, yields only the newest of them. Equal
        consecutive pictures give the same Screen object. Raises WaitTimeoutError if the view does not fit their size,
        and neither a press nor a restart can be the reason."""
        number, start, unfit = self._after, time.monotonic(), None
        while picture := self._link.pictures.newer(number, end):
            number = picture.number
            if screen := self._decode(picture.payload):
                unfit = screen if view.misfit(screen) else None
                if not unfit:
                    yield number, screen
                elif number > self._after + UNDER_WAY and time.monotonic() > RESIZE + max(
                        self._confirmed_at, self._link.pictures.returned_at):
                    break
            if time.monotonic() >= end:
                break
        if unfit:
            self._fail(view.misfit(unfit), start, view, unfit)

    def _news(self, view: View, end: float) -> Screen:
        """Returns the first screen that was certainly drawn after the last press. If there is none by `end`, returns
        the newest screen."""
        before, screen, number = self._screen_at_press(), None, 0
        for number, screen in self._screens(view, end):
            if before is None or number > self._after + UNDER_WAY or view.differs(before, screen):
                break
        if screen is None or number <= self._link.pictures.ended:
            raise LinkError(f"no picture in time: {self._pictures_since(0)}")
        return screen

    def _decode(self, payload: bytes) -> Screen | None:
        if self._decoded is None or self._decoded[0] is not payload:
            try:
                self._decoded = payload, Screen.decode(payload)
            except DamagedPictureError:
                return None  # skip a damaged picture, because the next one comes soon
        return self._decoded[1]

    def _pictures_since(self, start: float) -> str:
        arrived = [picture for picture in self._link.pictures.recent() if picture.time >= start]
        link = self._link.status()
        state = (f"linked to {link.identity} at {link.address}" if link.linked
                 else "there is no link at the moment")
        if not arrived:
            return f"none has arrived meanwhile; {state}"
        age = time.monotonic() - arrived[-1].time
        return (f"{len(arrived)} have arrived meanwhile, the last {age:.1f} s ago, "
                f"unchanged for {self.unchanged:.1f} s; {state}")

    def _fail(self, headline: str, start: float, view: View, screen: Screen | None,
              difference: Difference | None = None) -> NoReturn:
        lines, reference = [headline], view.reference if isinstance(view, Expectation) else None
        if screen is None or not view.misfit(screen):
            lines.append(f"compared: {view}")
            if screen and difference:
                lines += view.explain(screen, difference)
            if screen and self.linked and self._press_changed_nothing(view, screen):
                ago = time.monotonic() - self.presses[-1].time
                what, why = (("nothing at all", "does the device's core still draw?") if self._frozen()
                             else ("nothing of it", "was the button ignored?"))
                lines.append(f"{what} has changed since {self.presses[-1].name!r} was pressed, {ago:.1f} s ago: {why}")
            lines.append(f"pictures: {self._pictures_since(start)}")
            screen = screen and view.of(screen)
        folder = self.save_evidence("\n".join(lines), expected=reference, actual=screen, difference=difference)
        raise WaitTimeoutError("\n  ".join([*lines, f"see {folder}"]), folder, difference)

    def _frozen(self) -> bool:
        """Whether several pictures that were certainly drawn after the last press are all equal."""
        drawn = [each.payload for each in self._link.pictures.recent() if each.number > self._after + UNDER_WAY]
        return len(drawn) > 1 and all(payload is drawn[0] for payload in drawn)

    def _press_changed_nothing(self, view: View, screen: Screen) -> bool:
        before = self._screen_at_press()
        return before is not None and bool(self.presses) and not view.differs(before, screen)

    def _screen_at_press(self) -> Screen | None:
        return self._decode(self._shown_at_press) if self._shown_at_press else None

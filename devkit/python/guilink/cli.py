"""The command line: `guilink devices | snapshot | press | wait | record | shell | conform | doctor`.

Exit status 0: done. 1: no device, or the device did not show what was expected. 2: a mistake in the command.
128 + N: ended by signal N. The arguments of a command are checked before it connects.
"""
from __future__ import annotations

import argparse
import code
import json
import os
import readline
import rlcompleter
import signal
import sys
import threading
import time
from contextlib import contextmanager
from dataclasses import asdict
from types import FrameType
from typing import Any, Callable, Iterator, NoReturn, Sequence

import guilink
from guilink import doctor
from guilink.device import ARTIFACTS, TIMEOUT
from guilink.expect import Expectation, View
from guilink.recording import can_save, check_writable
from guilink.viewer_http import DEFAULT_URL

Result = tuple[dict[str, Any], str]  # as JSON, and as text; "status" in the JSON is the exit status


def main(arguments: Sequence[str] | None = None) -> int:
    arguments = sys.argv[1:] if arguments is None else arguments
    signal.signal(signal.SIGTERM, interrupt)  # so that a recording is saved
    options = parser(arguments[0] if arguments else "").parse_args(arguments)
    options.said = set[str]()
    try:
        result, text = options.run(options)
        status = 1 if result.get("devices") == [] else 0
        return report(options, result, text, result.get("status", status))
    except BrokenPipeError:  # for example, `| head` has read enough
        # Python flushes stdout at exit. Without this line, the flush would raise BrokenPipeError again.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 1
    except (ValueError, OSError) as error:  # a button, region or file that does not exist
        return report(options, {"error": str(error)}, f"guilink: {error}", 2)
    except guilink.GuilinkError as error:
        folder = getattr(error, "folder", None)
        result = {"error": str(error)} | ({"artifacts": str(folder)} if folder else {})
        text = f"gave up after {options.link_timeout:g} s" if str(error) in options.said else str(error)
        return report(options, result, f"guilink: {text}", 1)
    except KeyboardInterrupt as error:
        number = error.args[0] if error.args else signal.SIGINT
        return report(options, {"error": "interrupted"}, "guilink: interrupted", 128 + number)


def interrupt(number: int, _: FrameType | None) -> None:
    raise KeyboardInterrupt(number)


def report(options: argparse.Namespace, result: dict[str, Any], text: str, status: int) -> int:
    if options.json:
        print(json.dumps(result), flush=True)
    elif text:
        print(text, file=sys.stderr if "error" in result else sys.stdout, flush=True)
    return status


class Parser(argparse.ArgumentParser):
    def error(self, message: str) -> NoReturn:
        self.exit(2, f"{self.prog}: {message}; see {self.prog} --help\n")


def parser(chosen: str = "") -> Parser:
    """Returns the parser. `chosen` is the command for which it must know all options."""
    common = Parser(add_help=False)
    common.add_argument("--json", action="store_true", help="print the result as JSON")
    shared = Parser(add_help=False)
    shared.add_argument("--viewer", metavar="URL",
                        help="share the link of a running viewer, whose URL this is, as the viewer prints it (default: "
                        f"{DEFAULT_URL}, if a viewer there has the ports of this computer)")
    linked = Parser(add_help=False, parents=[common, shared])
    linked.add_argument("--device", metavar="ID", help="identity or address of the device")
    linked.add_argument("--link-timeout", metavar="S", type=seconds, default=guilink.LINK_TIMEOUT,
                        help="seconds to wait for the device (default %(default)g)")
    linked.add_argument("--timeout", metavar="S", type=seconds, default=TIMEOUT,
                        help="seconds to wait for a picture (default %(default)g)")
    linked.add_argument("--labels", metavar="FILE", help="names of the buttons, as for the viewer")
    linked.add_argument("--artifacts", metavar="FOLDER", default=ARTIFACTS,
                        help="folder for the pictures of a failed wait (default %(default)s)")
    viewed = Parser(add_help=False)
    viewed.add_argument("--region", metavar="X,Y,W,H", type=box, help="compare only this part of the screen")
    viewed.add_argument("--mask", metavar="X,Y,W,H", type=box, action="append", default=[],
                        help="ignore this part of the screen; may be repeated")
    viewed.add_argument("--tolerance", metavar="N", type=int, default=0, choices=range(16),
                        help="difference of a channel that is ignored, 0 to 15")

    whole = Parser(prog="guilink", description="Controls a device's GUI.")
    whole.add_argument("--version", action="version", version=f"guilink {guilink.__version__}")
    commands = whole.add_subparsers(required=True, metavar="COMMAND")

    def add(run: Callable[[argparse.Namespace], Result] | None, name: str, text: str,
            *parents: Parser) -> argparse.ArgumentParser:
        command = commands.add_parser(name, help=text, description=text, parents=list(parents))
        command.set_defaults(run=run)
        return command

    add(list_devices, "devices", "List the devices that search for a companion.", common, shared).add_argument(
        "--seconds", metavar="S", type=seconds, default=3.0, help="how long to listen (default 3)")
    add(snapshot, "snapshot", "Save what the device shows.", linked).add_argument("file", metavar="FILE.png")
    add(press, "press", "Press buttons, one after the other.", linked).add_argument(
        "buttons", metavar="BUTTON", nargs="+", help="a name, or a number from 0 to 15")
    wait = add(wait_for, "wait", "Wait until the screen shows a picture, or is still.", linked, viewed)
    wait.add_argument("reference", metavar="FILE.png", nargs="?", help="without it: wait until the screen is still")
    film = add(record, "record", "Record a video, until Ctrl-C.", linked)
    film.add_argument("file", metavar="FILE.mp4", help="without ffmpeg: FILE.png or FILE.gif")
    film.add_argument("--seconds", metavar="S", type=seconds, help="end after this many seconds")
    add(shell, "shell", "Start Python, with the device as `device`.", linked)
    doctor.add_options(add(None, "doctor", "Find out why there is no picture."))
    kit = add(None, "conform", "Test a companion or a device against the rules of the link.")
    if chosen == "conform":  # import the kit only for its own command
        from guilink.conform.command import add_options

        add_options(kit)
    return whole


def box(text: str) -> guilink.Box:
    try:
        return View([int(part) for part in text.split(",")]).region  # type: ignore
    except ValueError:
        raise argparse.ArgumentTypeError(f"{text!r} is no box X,Y,WIDTH,HEIGHT, such as 30,10,200,50") from None


def seconds(text: str) -> float:
    try:
        if 0 <= (value := float(text)) < threading.TIMEOUT_MAX:
            return value
    except ValueError:
        pass
    raise argparse.ArgumentTypeError(f"{text!r} is no number of seconds")


def progress(text: str) -> None:
    print(f"guilink: {text}", file=sys.stderr, flush=True)


def connect(options: argparse.Namespace) -> guilink.Device:
    def say(text: str) -> None:
        options.said.add(text)
        progress(text)

    return guilink.connect(options.device, viewer=options.viewer, link_timeout=options.link_timeout,
                           timeout=options.timeout, labels=options.labels, artifacts=options.artifacts,
                           progress=say)


@contextmanager
def slow(text: str) -> Iterator[None]:
    """Prints `text` if the body of the `with` runs for more than a second."""
    timer = threading.Timer(1, progress, [text])
    timer.start()
    try:
        yield
    finally:
        timer.cancel()


def list_devices(options: argparse.Namespace) -> Result:
    with slow(f"listening for {options.seconds:g} s"):
        heard = guilink.devices(options.seconds, viewer=options.viewer, progress=progress)
    result = [asdict(each) for each in heard]
    for each in result:
        if "heard" in each:
            each["seconds_ago"] = round(time.monotonic() - each.pop("heard"), 1)
    return {"devices": result}, "\n".join(map(str, heard)) or "no device searches for a companion"


def snapshot(options: argparse.Namespace) -> Result:
    check_writable(options.file, [".png"])
    with connect(options) as device:
        screen = device.screen()
        screen.save(options.file)
        return ({"device": device.identity, "file": options.file, "size": [screen.width, screen.height]},
                f"{options.file}: {screen.width} x {screen.height}, device {device.identity}")


def press(options: argparse.Namespace) -> Result:
    buttons = guilink.Buttons.load(options.labels) if options.labels else guilink.Buttons()
    numbers = [buttons.number(button) for button in options.buttons]
    with connect(options) as device:
        for number in numbers:
            device.press(number)
        return {"device": device.identity, "pressed": numbers}, ""


def wait_for(options: argparse.Namespace) -> Result:
    selection = {"region": options.region, "mask": options.mask, "tolerance": options.tolerance}
    if options.reference:
        Expectation(options.reference, **selection)
    with connect(options) as device:
        started = time.monotonic()
        with slow(f"waiting for {options.reference or 'a still screen'}"):
            if options.reference:
                device.wait_for(options.reference, **selection)
            else:
                device.wait_stable(**selection)
        seconds = round(time.monotonic() - started, 3)
        return {"device": device.identity, "seconds": seconds}, f"after {seconds:g} s"


def record(options: argparse.Namespace) -> Result:
    can_save(options.file)
    with connect(options) as device:
        recording = device.record(options.file)
        try:
            progress(f"recording {recording.path}"
                     + (f" for {options.seconds:g} s" if options.seconds else "; Ctrl-C ends it"))
            threading.Event().wait(options.seconds)
        except KeyboardInterrupt:
            pass
        path = recording.stop(progress)
        return {"device": device.identity, "file": path}, path


@contextmanager
def end_by_sigterm() -> Iterator[None]:
    """Lets SIGTERM end an interactive program, which catches KeyboardInterrupt."""
    def end(number: int, _: FrameType | None) -> None:
        signal.signal(number, signal.SIG_IGN)
        sys.exit(128 + number)

    signal.signal(signal.SIGTERM, end)
    # readline waits for a key even if a signal came just before its wait, so let another one follow.
    signal.signal(signal.SIGALRM, lambda *_: None)
    signal.setitimer(signal.ITIMER_REAL, 0.5, 0.5)
    try:
        yield
    finally:
        signal.setitimer(signal.ITIMER_REAL, 0)  # without the handler, which Python removes at its end, it would kill


def shell(options: argparse.Namespace) -> Result:
    with connect(options) as device:
        names = {"device": device, "guilink": guilink}
        readline.set_completer(rlcompleter.Completer(names).complete)
        readline.parse_and_bind("tab: complete")
        banner = (f"device {device.identity} at {device.address}; try device.press('down'), "
                  "device.screen().save('x.png'), help(device)")
        with end_by_sigterm():
            code.interact(banner, local=names, exitmsg="")
        return {"device": device.identity}, ""

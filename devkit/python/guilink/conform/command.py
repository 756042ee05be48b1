"""`guilink conform companion -- COMMAND...` and `guilink conform device`."""
from __future__ import annotations

import argparse
import os
import shlex
import sys
from pathlib import Path
from typing import Any, Callable, Sequence

from guilink.conform import (companion_discovery, companion_frames, companion_link,  # noqa: F401  registers the cases
                             companion_pictures, companion_plain, device_link, device_stream, private_network)
from guilink.conform.case import Attempt, Subject
from guilink.conform.companion_attempt import Shown, CompanionAttempt
from guilink.conform.companion_process import CompanionProcess
from guilink.conform.device_attempt import DeviceAttempt, Wanted
from guilink.conform.engine import Options, Run, run, select
from guilink.conform.golden import write_golden
from guilink.conform.html import write_html
from guilink.conform.pcap import capture
from guilink.conform.report import as_json, listing, summary, write_json, write_junit
from guilink.conform.rules import RULES
from guilink.conform.event_loop import EventLoop
from guilink.recording import check_writable


def add_options(parser: argparse.ArgumentParser) -> None:
    sides = parser.add_subparsers(required=True, metavar="SIDE")
    common = argparse.ArgumentParser(add_help=False)
    common.add_argument("--list", action="store_true", help="list the cases, and the rules without one")
    common.add_argument("-k", dest="names", metavar="NAME", action="append", default=[],
                        help="only the case NAME, or all with NAME in their names; may be repeated")
    common.add_argument("--rule", dest="rules", metavar="RULE", action="append", default=[], choices=list(RULES),
                        help="only cases that check RULE; may be repeated")
    common.add_argument("--baseline", metavar="FILE", help="cases that are expected to fail: CASE RULE a line")
    common.add_argument("--junit", metavar="FILE", help="write a JUnit report")
    common.add_argument("--html", metavar="FILE", help="write a page with every exchange that went wrong")
    common.add_argument("--report", metavar="FILE", help="write all verdicts as JSON")
    common.add_argument("--captures", metavar="FOLDER", help="write a capture file of each case")
    common.add_argument("--json", action="store_true", help="print the result as JSON, and nothing else")
    common.add_argument("--patience", metavar="S", type=float, default=Options.patience,
                        help="seconds to wait for what must happen (default %(default)g)")
    common.add_argument("--attempts", metavar="N", type=int, default=Options.attempts,
                        help="attempts; a case fails only if all of them fail (default %(default)s)")
    common.add_argument("-x", "--fail-fast", action="store_true", help="end at the first failure; warnings are none")
    companion = sides.add_parser("companion", parents=[common], help="start a companion and test it",
                                 usage="guilink conform companion [OPTION...] -- COMMAND...")
    companion.add_argument("--picture", metavar="FILE",
                           help="the file in which COMMAND saves its picture; without it, images are untestable")
    companion.add_argument("--picture-from", metavar="COMMAND",
                           help="a command that prints the companion's picture as PNG")
    companion.add_argument("--press", metavar="COMMAND",
                           help="a command that makes the companion press button {}, a number that the kit fills in")
    companion.add_argument("command", metavar="COMMAND", nargs="*", help="the command that starts the companion")
    companion.set_defaults(run=conform_companion)
    device = sides.add_parser("device", parents=[common], help="test a device in this network")
    device.add_argument("--identity", metavar="ID", help="identity or address of the device")
    device.add_argument("--log", metavar="FILE", help="the file to which the device writes its log")
    device.add_argument("--gentle", action="store_true", help="leave out floods, damage and presses")
    device.set_defaults(run=conform_device)
    golden = sides.add_parser("golden", help="write files to test a decoder with")
    golden.add_argument("folder", metavar="FOLDER")
    golden.set_defaults(run=lambda options: ({"files": write_golden(Path(options.folder))}, ""), json=False)


def conform_companion(options: argparse.Namespace) -> tuple[dict[str, Any], str]:
    if options.list:
        return {}, listing("companion")
    if not options.command:
        raise ValueError("no companion was given; usage: guilink conform companion [OPTION...] -- COMMAND...")
    private_network.enter(sys.argv[1:])
    network = private_network.PrivateNetwork()
    process = CompanionProcess(options.command, network.within, network.holder)
    try:
        looking = [*network.within, *shlex.split(options.picture_from)] if options.picture_from else []
        shown = Shown(Path(options.picture) if options.picture else None, looking)
        pressing = [*network.within, *shlex.split(options.press)] if options.press else []
        return conform("companion", options, process,
                       lambda loop: CompanionAttempt(loop, process, shown, pressing))
    finally:
        process.stop()
        network.close()


def conform_device(options: argparse.Namespace) -> tuple[dict[str, Any], str]:
    if options.list:
        return {}, listing("device")
    wanted = Wanted(options.identity, log=Path(options.log) if options.log else None)
    return conform("device", options, wanted, lambda loop: DeviceAttempt(loop, wanted))


def conform(side: str, options: argparse.Namespace, subject: Subject,
            attempt: Callable[[EventLoop], Attempt]) -> tuple[dict[str, Any], str]:
    for path in (options.report, options.junit, options.html, getattr(options, "picture", None)):
        if path:
            check_writable(path)
    cases = select(side, options.names, options.rules, getattr(options, "gentle", False))
    if not cases:
        raise ValueError(f"no case is selected; guilink conform {side} --list lists them")
    whole = run(side, cases, subject, attempt, Options(
        options.patience, options.attempts, read_baseline(options.baseline), options.fail_fast,
        tell=lambda text, end="\n": None if options.json else print(text, end=end, flush=True)))
    write_reports(whole, options, repeated(options))
    result = as_json(whole, repeated(options))
    result["status"] = 128 + whole.signal if whole.signal else int(whole.failed())
    return result, summary(whole)


def repeated(options: argparse.Namespace) -> list[str]:
    """Returns those arguments of this run that are also needed to repeat a single case."""
    words: list[str] = []
    for name in ("picture", "picture_from", "press", "identity", "log"):
        if value := getattr(options, name, None):
            words += [f"--{name.replace('_', '-')}", value]
    return words + (["--", *options.command] if getattr(options, "command", None) else [])


def read_baseline(path: str | None) -> frozenset[str]:
    if path is None:
        return frozenset()
    lines = Path(path).read_text(encoding="utf-8").splitlines()
    return frozenset(line.split("#")[0].strip() for line in lines) - {""}


def write_reports(whole: Run, options: argparse.Namespace, arguments: Sequence[str]) -> None:
    for path, write in ((options.report, write_json), (options.junit, write_junit), (options.html, write_html)):
        if path:
            write(path, whole, arguments)
    if options.captures:
        os.makedirs(options.captures, exist_ok=True)
        for result in whole.results:
            (Path(options.captures) / f"{result.case.name}.pcap").write_bytes(capture(result.exchange))

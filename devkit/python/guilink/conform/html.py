"""Writes a self-contained HTML page with the verdicts of all cases. For each case with a fault, the page has a drawing
of the exchanged messages."""
from __future__ import annotations

import base64
import io
import time
from html import escape
from itertools import groupby
from typing import Iterable, Iterator, Sequence

import numpy as np
from numpy.typing import NDArray
from PIL import Image

from guilink.conform.case import FAILED, RESTARTED, WARNED, Result
from guilink.conform.engine import Run
from guilink.conform.exchange import KIT, Event, Exchange
from guilink.conform.pcap import capture
from guilink.conform.report import VERDICTS, repeat_command
from guilink.conform.rules import RULES
from guilink.wire import HEADER, START, FrameReader, MessageType

MOST_EVENTS = 60   # number of events that a drawing shows; it omits earlier events
MOST_BYTES = 96    # bytes; a hexadecimal dump is cut off after this many
ROW = 22           # pixels; height of one event in a drawing

KEEP_ALIVE = (MessageType.CONTROL, MessageType.CONNECT_REQUEST, MessageType.IDENTITY_REQUEST, MessageType.IDENTITY)

STYLE = """
body { font: 15px/1.45 system-ui, sans-serif; margin: 2rem auto; max-width: 62rem; padding: 0 1rem; color: #222 }
table { border-collapse: collapse; width: 100% } td, th { text-align: left; padding: .2rem .6rem;
border-bottom: 1px solid #ddd; vertical-align: top } code, pre, svg text { font-family: ui-monospace, monospace }
pre { background: #f4f4f4; padding: .6rem; overflow-x: auto; white-space: pre-wrap } .bytes { display: grid;
grid-template-columns: 1fr 1fr; gap: 1rem } b.passed { color: #17703a } b.failed, b.restarted { color: #b3261e }
b.warned { color: #8a5a00 } b.untestable, b.expected { color: #666 } mark { background: #ffd0cc }
img { display: block; max-width: 100%; background: repeating-conic-gradient(#ccc 0 25%, #eee 0 50%) 0 / 16px 16px }
section { border: 1px solid #ccc; border-radius: 6px; padding: 0 1rem 1rem; margin: 1.2rem 0 }
"""


def write_html(path: str, run: Run, arguments: Sequence[str]) -> None:
    counts = ", ".join(f"<b class={v}>{run.count(v)} {v}</b>" for v in VERDICTS if run.count(v))
    wrong = [result for result in run.results if result.fault]
    cases = "".join(_row(result) for result in run.results)
    rules = "".join(f"<tr><td>{rule}<td>{RULES[rule].strength}<td><b class={verdict}>{verdict}</b>"
                    f"<td>{escape(RULES[rule].text)}<br><small>{escape(reason)}</small>"
                    for rule, (verdict, reason) in run.rule_verdicts().items())
    with open(path, "w", encoding="utf-8") as file:
        file.write(f"<!doctype html><html lang=en><meta charset=utf-8><title>guilink conform {run.side}</title>"
                   f"<style>{STYLE}</style><h1>guilink conform {run.side}</h1><p>{counts}"
                   + "".join(_section(result, arguments) for result in wrong)
                   + f"<h2>Cases</h2><table>{cases}</table><h2>Rules</h2><table>{rules}</table></html>\n")


def _row(result: Result) -> str:
    reason = f"{result.fault.rule}: {result.fault.text}" if result.fault else result.reason
    return (f"<tr><td>{result.case.name}<td><b class={result.verdict}>{result.verdict}</b>"
            f"<td>{result.seconds:.1f} s<td>{escape(reason)}")


def _section(result: Result, arguments: Sequence[str]) -> str:
    fault = result.fault
    assert fault
    wall = time.time() - time.monotonic()
    file = base64.b64encode(capture(result.exchange, wall)).decode()
    parts = [f"<section id={result.case.name}><h2>{result.case.name}: <b class={result.verdict}>"
             f"{result.verdict}</b></h2><p>{escape(result.case.text)}",
             f"<p><b>{fault.rule}</b> ({RULES[fault.rule].strength}): {escape(RULES[fault.rule].text)}",
             f"<p>Seen: {escape(fault.text)}"]
    if fault.expected or fault.actual:
        expected, actual = _side_by_side(fault.expected, fault.actual)
        parts.append(f"<div class=bytes><div>expected<pre>{expected}</pre></div>"
                     f"<div>actual<pre>{actual}</pre></div></div>")
    if fault.screens:
        parts.append("<div class=bytes>" + "".join(
            f'<div>{what}<img src="data:image/png;base64,{_png(screen)}"></div>'
            for what, screen in zip(("expected", "shown"), fault.screens)) + "</div>")
    parts += [_drawing(result.exchange, not fault.screens),
              f"<p>Again: <code>{escape(repeat_command(result, arguments))}</code>",
              f'<p><a download="{result.case.name}.pcap" href="data:application/vnd.tcpdump.pcap;base64,{file}">'
              "capture file</a>"]
    if result.output and result.verdict in (FAILED, RESTARTED, WARNED):
        parts.append(f"<details><summary>its output</summary><pre>{escape(result.output)}</pre></details>")
    return "".join(parts) + "</section>"


def _png(screen: NDArray[np.uint8]) -> str:
    file = io.BytesIO()
    Image.fromarray(screen).save(file, "PNG")
    return base64.b64encode(file.getvalue()).decode()


def _side_by_side(expected: bytes, actual: bytes) -> tuple[str, str]:
    """Returns expected and actual bytes in hexadecimal, 16 per line, with the differences marked."""
    def dump(data: bytes, other: bytes) -> str:
        cells = []
        for i, byte in enumerate(data[:MOST_BYTES]):
            same = not other or (i < len(other) and other[i] == byte)
            cells.append((f"{byte:02X}" if same else f"<mark>{byte:02X}</mark>")
                         + ("\n" if i % 16 == 15 else " "))
        return "".join(cells) + (f"... {len(data)} bytes" if len(data) > MOST_BYTES else "")

    return dump(expected, actual) or "-", dump(actual, expected) or "-"


def describe(data: bytes) -> str:
    words, position = [], 0
    while position < len(data):
        start = data.find(START, position)
        if start != position:
            end = start if start > 0 else len(data)
            words.append(f"{end - position} bytes")
        elif len(data) < position + HEADER.size:
            words.append(f"{len(data) - position} bytes of a header")
            break
        else:
            _, _, length, kind = HEADER.unpack_from(data, position)
            name = MessageType(kind).name if kind in MessageType.__members__.values() else f"type {kind}"
            end = position + HEADER.size + length
            words.append(name + (f" ({length} bytes)" if length else "") + (" ..." if end > len(data) else ""))
        position = end
        if len(words) == 6 and position < len(data):
            return ", ".join(words) + ", ..."
    return ", ".join(words)


def _is_news(event: Event) -> bool:
    """Whether the event is more than a keep-alive or the answer to one."""
    return event.kind != "bytes" or event.transport == "udp" or any(
        each.type not in KEEP_ALIVE for each in FrameReader().feed(event.data))


def _joined(exchange: Iterable[Event]) -> Iterator[tuple[Event, str, int]]:
    """Combines equal consecutive events, because the drawing shows them as one arrow. Yields the first event, its
    label and the number of events."""
    def label(event: Event) -> tuple[str, str, int]:
        text = describe(event.data) or "empty" if event.kind == "bytes" else event.kind
        return text, event.speaker, event.channel

    for (text, _, _), group in groupby(exchange, label):
        events = list(group)
        yield events[0], text, len(events)


def _drawing(exchange: Exchange, keep_alives: bool) -> str:
    events = list(_joined(each for each in exchange if keep_alives or _is_news(each)))
    if not events:
        return ""
    began, shown = events[0][0].time, events[-MOST_EVENTS:]
    height = ROW * (len(shown) + 2)
    parts = [f'<svg width=100% viewBox="0 0 960 {height}" role=img><g font-size=12 fill=#222>'
             f'<text x=90 y=14>kit</text><text x=880 y=14 text-anchor=end>subject</text>'
             f'<path d="M100 20V{height}M870 20V{height}" stroke=#999 />']
    for i, (event, text, times) in enumerate(shown):
        y = ROW * (i + 2)
        label = escape(f"{event.transport} {event.channel}: {text}") + (f" x {times}" if times > 1 else "")
        right = event.speaker == KIT
        colour = "#1a56b0" if right else "#9a3412"
        tip = f"M870 {y}l-8 -4v8z" if right else f"M100 {y}l8 -4v8z"
        parts.append(f"<text x=0 y={y}>{event.time - began:8.3f} s</text>"
                     f'<path d="M100 {y}H870" stroke="{colour}"/><path d="{tip}" fill="{colour}"/>'
                     f"<text x=485 y={y - 4} text-anchor=middle>{label}</text>")
    if len(events) > MOST_EVENTS:
        parts.append(f"<text x=485 y=14 text-anchor=middle>the last {MOST_EVENTS} of {len(events)}</text>")
    return "".join(parts) + "</g></svg>"

"""Test cases and their verdicts. The subject is the companion or device under test. Each case checks some rules,
and has a function that plays the other end of the link."""
from __future__ import annotations

import time
from dataclasses import dataclass, field
from typing import Any, Callable

from guilink.conform.exchange import Exchange
from guilink.conform.rules import RULES
from guilink.conform.event_loop import DeadlineError, EventLoop
from guilink.conform.strict import Fault, Screens

PASSED, FAILED, WARNED, UNTESTABLE, EXPECTED = "passed", "failed", "warned", "untestable", "expected"
RESTARTED = "restarted"  # passed only after the subject was started afresh


class RuleBrokenError(Exception):
    """A rule was broken; the case ends."""

    def __init__(self, fault: Fault):
        super().__init__(fault.text)
        self.fault = fault


class UntestableError(Exception):
    """The case cannot find out whether the subject keeps the rules."""


@dataclass(frozen=True)
class Case:
    name: str
    side: str                     # what the case tests: "companion" or "device"
    rules: tuple[str, ...]
    play: Callable[[Any], None]   # called with a CompanionAttempt or a DeviceAttempt
    gentle: bool = True           # whether the case is harmless for a real device
    needs: tuple[str, ...] = ()   # if one of these cases has failed, this case would fail for the same reason
    fresh: bool = False           # whether the subject is started afresh before the case

    @property
    def text(self) -> str:
        return (self.play.__doc__ or "").strip()


CASES: dict[str, list[Case]] = {"companion": [], "device": []}


def case(side: str, *rules: str, gentle: bool = True, needs: tuple[str, ...] = (),
         fresh: bool = False) -> Callable[[Any], Any]:
    """Registers a function as a case. The case gets the function's name and docstring."""
    unknown = [rule for rule in rules if not RULES[rule].binds(side)]
    unknown += set(needs) - {each.name for each in CASES[side]}
    assert not unknown, unknown

    def register(play: Callable[[Any], None]) -> Callable[[Any], None]:
        CASES[side].append(Case(play.__name__, side, rules, play, gentle, needs, fresh))
        return play

    return register


class Subject:
    """The companion or device under test. A device is no process of the kit's, so nothing of this concerns it."""

    def stop(self) -> None:
        """Ends its process. The next attempt starts it afresh."""

    def crash(self) -> Fault | None:
        """Returns a fault if it has ended by itself since it was started."""
        return None

    def last_output(self) -> str:
        return ""


class Attempt:
    """One attempt to run one case. Records which rules were kept and broken."""

    def __init__(self, loop: EventLoop):
        self.loop = loop
        self.kept: set[str] = set()
        self.warnings: list[Fault] = []
        self.final = False  # no busy machine can have caused the fault

    def require(self, rule: str, holds: object, text: str, expected: bytes = b"",
                actual: bytes = b"") -> None:
        """Records the rule as kept or broken. If the rule is broken, `text` says what was seen."""
        if holds:
            self.kept.add(rule)
        else:
            self.fail(rule, text, expected, actual)

    def forbid(self, rule: str, broken: object, text: str, actual: bytes = b"") -> None:
        """If `broken` is true, records the rule as broken. Otherwise records nothing."""
        if broken:
            self.fail(rule, text, b"", actual)

    def fail(self, rule: str, text: str, expected: bytes = b"", actual: bytes = b"",
             screens: Screens | None = None) -> None:
        """Records the rule as broken. If its strength is "must", raises RuleBrokenError."""
        fault = Fault(rule, text, expected, actual, screens)
        if RULES[rule].strength == "must":
            raise RuleBrokenError(fault)
        self.warnings.append(fault)

    def subject_ended(self) -> bool:
        return False

    def crash(self, suspected: bool) -> Fault | None:
        """Returns a fault if the subject has crashed. If `suspected`, waits a little for its end."""
        return None

    def late(self) -> list[Fault]:
        """Returns what the subject did too late on any connection of the case."""
        return []


@dataclass
class Result:
    case: Case
    verdict: str
    fault: Fault | None = None  # not for the verdicts "passed" and "untestable"
    final: bool = False         # a further attempt cannot excuse the fault
    reason: str = ""            # only for the verdict "untestable"
    kept: set[str] = field(default_factory=set)
    exchange: Exchange = field(default_factory=Exchange)
    seconds: float = 0.0
    attempts: int = 1
    earlier: str = ""           # what was wrong in an earlier attempt
    output: str = ""            # the end of the subject's output

    @property
    def identifier(self) -> str:
        """The line for this result in a baseline file, which lists expected faults."""
        return f"{self.case.name} {self.fault.rule if self.fault else ''}".strip()


def run_once(case: Case, attempt: Attempt) -> Result:
    started, loop = time.monotonic(), attempt.loop
    result = Result(case, PASSED, kept=attempt.kept, exchange=loop.exchange)
    broken: list[Fault] = []
    try:
        case.play(attempt)
    except RuleBrokenError as error:
        broken = [error.fault]
    except DeadlineError as error:
        broken = [Fault(case.rules[0], str(error))]
    except UntestableError as error:
        result.verdict, result.reason = UNTESTABLE, str(error)
    late = attempt.late()
    crash = attempt.crash(bool(broken))
    result.final = attempt.final or crash is not None
    # Report a crash or faulty bytes first, because they may be the cause of the fault that `case.play` found.
    faults = [*([crash] if crash else []), *filter(_required, loop.faults), *broken, *filter(_required, late)]
    if faults:
        result.verdict, result.fault = FAILED, faults[0]
    elif warned := attempt.warnings + loop.faults + late:
        result.verdict, result.fault = WARNED, warned[0]
    result.kept -= {each.rule for each in faults + attempt.warnings + loop.faults + late}
    result.seconds = time.monotonic() - started
    return result


def _required(fault: Fault) -> bool:
    return RULES[fault.rule].strength == "must"

"""Test cases and their verdicts. The subject is the companion or device under test. Each case checks some rules,
and has a function that plays the other end of the link."""
from __future__ import annotations

import time
from dataclasses import dataclass, field
from typing import Any, Callable

from guilink.conform.exchange import Exchange
from guilink.conform.rules import RULES
from guilink.conform.stage import Stage
from guilink.conform.strict import Fault

PASSED, FAILED, WARNED, UNTESTABLE, EXPECTED = "passed", "failed", "warned", "untestable", "expected"


class Broken(Exception):
    """A rule was broken; the case ends."""

    def __init__(self, fault: Fault):
        super().__init__(fault.text)
        self.fault = fault


class Untestable(Exception):
    """The case cannot find out whether the subject keeps the rules."""


@dataclass(frozen=True)
class Case:
    name: str
    side: str                     # what the case tests: "companion" or "device"
    rules: tuple[str, ...]
    play: Callable[[Any], None]   # called with a Trial or a DeviceTrial
    gentle: bool = True           # whether the case is harmless for a real device

    @property
    def text(self) -> str:
        return (self.play.__doc__ or "").strip()


CASES: dict[str, list[Case]] = {"companion": [], "device": []}


def case(side: str, *rules: str, gentle: bool = True) -> Callable[[Any], Any]:
    """Registers a function as a case. The case gets the function's name and docstring."""
    unknown = [rule for rule in rules if not RULES[rule].binds(side)]
    assert not unknown, unknown

    def register(play: Callable[[Any], None]) -> Callable[[Any], None]:
        CASES[side].append(Case(play.__name__, side, rules, play, gentle))
        return play

    return register


@dataclass
class Judge:
    """Records which rules were kept, and throws Broken at the first broken rule whose strength is "must"."""

    kept: set[str] = field(default_factory=set)
    warnings: list[Fault] = field(default_factory=list)

    def require(self, rule: str, holds: object, text: str, expected: bytes = b"",
                actual: bytes = b"") -> None:
        """Records the rule as kept or broken. If the rule is broken, `text` says what was seen."""
        if holds:
            self.kept.add(rule)
        else:
            self.blame(rule, text, expected, actual)

    def refuse(self, rule: str, broken: object, text: str, actual: bytes = b"") -> None:
        """If `broken` is true, records the rule as broken. Otherwise records nothing."""
        if broken:
            self.blame(rule, text, b"", actual)

    def blame(self, rule: str, text: str, expected: bytes = b"", actual: bytes = b"") -> None:
        if RULES[rule].strength == "must":
            raise Broken(Fault(rule, text, expected, actual))
        else:
            self.warnings.append(Fault(rule, text, expected, actual))


@dataclass
class Result:
    case: Case
    verdict: str
    fault: Fault | None = None  # only for the verdicts "failed", "warned" and "expected"
    reason: str = ""            # only for the verdict "untestable"
    kept: set[str] = field(default_factory=set)
    exchange: Exchange = field(default_factory=Exchange)
    seconds: float = 0.0
    attempts: int = 1
    output: str = ""            # the end of the subject's output

    @property
    def identifier(self) -> str:
        """The line for this result in a baseline file, which lists expected faults."""
        return f"{self.case.name} {self.fault.rule if self.fault else ''}".strip()


def run_once(case: Case, trial: Any, stage: Stage) -> Result:
    """Runs a case once, and determines the verdict."""
    started, judge = time.monotonic(), trial.judge
    result = Result(case, PASSED, kept=judge.kept, exchange=stage.exchange)
    broken: list[Fault] = []
    try:
        case.play(trial)
    except Broken as error:
        broken = [error.fault]
    except Untestable as error:
        result.verdict, result.reason = UNTESTABLE, str(error)
    # Report a crash or faulty bytes first, because they may be the cause of the fault that `case.play` found.
    faults = trial.died() + [f for f in stage.faults if RULES[f.rule].strength == "must"] + broken
    if faults and not (broken and trial.gave_up()):
        result.verdict, result.fault = FAILED, faults[0]
    elif faults:
        result.verdict, result.reason = UNTESTABLE, trial.gave_up()
    elif warned := judge.warnings + stage.faults:
        result.verdict, result.fault = WARNED, warned[0]
    result.kept -= {each.rule for each in faults + judge.warnings + stage.faults}
    result.seconds = time.monotonic() - started
    return result

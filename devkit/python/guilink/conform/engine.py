"""Runs the cases, prints one line for each case, and returns a verdict for each rule."""
from __future__ import annotations

from dataclasses import dataclass, field
from typing import Callable, Protocol, Sequence

from guilink.conform.case import (CASES, EXPECTED, FAILED, PASSED, UNTESTABLE, WARNED, Attempt, Case, Result,
                                  run_once)
from guilink.conform.rules import NEEDS, NO_CASE, RULES
from guilink.conform.event_loop import EventLoop
from guilink.link import GuilinkError

# If one of these rules is broken, no other rule can be judged.
BASIC = {"DISC-1", "DISC-3", "DISC-5", "DISC-7", "DISC-8", "LINK-1", "LINK-10"}
GIVE_UP = 2  # if this many consecutive cases find that a BASIC rule is broken, the kit runs no further case
NOT_RUN = "no case was run"


class Subject(Protocol):
    """The companion or device under test."""

    def attempt(self, loop: EventLoop) -> Attempt: ...

    def restart(self) -> None:
        """Is called after each failed attempt."""

    def output(self) -> str: ...


@dataclass
class Options:
    patience: float = 8.0
    attempts: int = 3
    baseline: frozenset[str] = frozenset()
    fail_fast: bool = False
    tell: Callable[[str], None] = print
    begin: Callable[[str], None] = lambda text: None


@dataclass
class Run:
    side: str
    results: list[Result] = field(default_factory=list)

    def count(self, verdict: str) -> int:
        return sum(result.verdict == verdict for result in self.results)

    def rule_verdicts(self) -> dict[str, tuple[str, str]]:
        """Returns the verdict and the reason for each rule that applies to the companion or device under test."""
        return {rule.id: self._verdict_of(rule.id) for rule in RULES.values() if rule.binds(self.side)}

    def _verdict_of(self, rule: str) -> tuple[str, str]:
        blamed = {r.verdict: r for r in reversed(self.results) if r.fault and r.fault.rule == rule}
        for verdict in (FAILED, WARNED, EXPECTED):
            if result := blamed.get(verdict):
                return verdict, f"{result.case.name}: {result.fault.text if result.fault else ''}"
        if any(rule in result.kept for result in self.results):
            return PASSED, ""
        if rule in NO_CASE:
            return UNTESTABLE, NO_CASE[rule]
        about = [result for result in self.results if rule in result.case.rules]
        if not about:
            return UNTESTABLE, NOT_RUN
        reason = next((f"{r.case.name}: {r.reason}" for r in about if r.reason), "")
        failed = next((f"{r.case.name} failed before it was checked" for r in about if r.verdict == FAILED), "")
        return UNTESTABLE, reason or failed or NEEDS.get(rule, "what it is about has not happened")


def select(side: str, names: Sequence[str], rules: Sequence[str], gentle: bool) -> list[Case]:
    exact = {case.name for case in CASES[side]} & set(names)

    def wanted(case: Case) -> bool:
        named = case.name in exact or any(name in case.name for name in set(names) - exact)
        return ((not names or named)
                and (not rules or any(rule in case.rules for rule in rules)) and (case.gentle or not gentle))

    return [case for case in CASES[side] if wanted(case)]


def run(side: str, cases: Sequence[Case], subject: Subject, options: Options) -> Run:
    whole, lost = Run(side), 0
    for number, case in enumerate(cases, 1):
        options.begin(f"[{number:2}/{len(cases)}] {case.name} ")
        if lost >= GIVE_UP:
            last = next(result.fault for result in reversed(whole.results) if result.fault)
            result = Result(case, UNTESTABLE, reason=f"not run: {last.rule} is broken")
        else:
            try:
                result = run_attempts(case, subject, options)
            except (ValueError, GuilinkError):
                options.tell("error")
                raise
            lost = lost + 1 if result.fault and result.fault.rule in BASIC else 0
        if result.identifier in options.baseline and result.verdict in (FAILED, WARNED):
            result.verdict = EXPECTED
        whole.results.append(result)
        options.tell(line(result))
        if options.fail_fast and result.fault and result.verdict != EXPECTED:
            break
    return whole


def run_attempts(case: Case, subject: Subject, options: Options) -> Result:
    """Runs a case. If it fails, runs it again, because a busy machine may have caused the failure."""
    for attempt in range(1, options.attempts + 1):
        loop = EventLoop(options.patience)
        try:
            result = run_once(case, subject.attempt(loop))
        finally:
            loop.close()
        result.attempts, result.output = attempt, subject.output()
        if result.verdict not in (FAILED, WARNED):
            break
        subject.restart()
    return result


def line(result: Result) -> str:
    text = f"{result.verdict}  {result.seconds:.1f} s"
    if result.fault:
        text += f"\n        {result.fault.rule}: {result.fault.text}"
    elif result.reason:
        text += f"\n        {result.reason}"
    elif result.attempts > 1:
        text += f" (in attempt {result.attempts})"
    return text

"""Runs the cases, prints one line for each case, and returns a verdict for each rule."""
from __future__ import annotations

import signal
import time
from dataclasses import dataclass, field
from typing import Callable, Sequence

from guilink.conform.case import (CASES, EXPECTED, FAILED, PASSED, RESTARTED, UNTESTABLE, WARNED, Attempt, Case,
                                  Result, Subject, run_once)
from guilink.conform.rules import NEEDS, NO_CASE, RULES
from guilink.conform.strict import Fault
from guilink.conform.event_loop import EventLoop
from guilink.link import GuilinkError

RESTART = 3  # number of the attempt before which the subject is started afresh
LIMIT = 90   # s; if a rule is broken, no further case begins after this time
MOST_BYTES = 64  # a line shows this many bytes of a message
NOT_RUN = "no case was run"


@dataclass
class Options:
    patience: float = 8.0
    attempts: int = 3
    baseline: frozenset[str] = frozenset()
    fail_fast: bool = False
    tell: Callable[..., None] = print


@dataclass
class Run:
    side: str
    results: list[Result] = field(default_factory=list)
    signal: int = 0  # the signal that has interrupted the run

    def count(self, verdict: str) -> int:
        return sum(result.verdict == verdict for result in self.results)

    def failed(self) -> bool:
        """Whether a case has failed. Warnings are no failures."""
        return any(result.verdict in (FAILED, RESTARTED) for result in self.results)

    def rule_verdicts(self) -> dict[str, tuple[str, str]]:
        return {rule.id: self._verdict_of(rule.id) for rule in RULES.values() if rule.binds(self.side)}

    def _verdict_of(self, rule: str) -> tuple[str, str]:
        blamed = {r.verdict: r for r in reversed(self.results) if r.fault and r.fault.rule == rule}
        for verdict in (FAILED, RESTARTED, WARNED, EXPECTED):
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

    found = [case for case in CASES[side] if wanted(case)]
    needed = {name for case in found for name in case.needs} if rules else ()
    return [case for case in CASES[side] if case in found or case.name in needed]


def run(side: str, cases: Sequence[Case], subject: Subject, attempt: Callable[[EventLoop], Attempt],
        options: Options) -> Run:
    """Runs each case in an `attempt` of its own. If Ctrl-C or a signal ends the run, returns the results so far."""
    whole = Run(side)
    try:
        run_cases(whole, cases, subject, attempt, options)
        note_late_crash(whole, subject, options)
    except KeyboardInterrupt as error:
        options.tell("interrupted")
        whole.signal = error.args[0] if error.args else signal.SIGINT
    return whole


def run_cases(whole: Run, cases: Sequence[Case], subject: Subject, attempt: Callable[[EventLoop], Attempt],
              options: Options) -> None:
    failed: dict[str, str] = {}  # the rule that each failed case found broken
    end = time.monotonic() + LIMIT
    for number, case in enumerate(cases, 1):
        note_late_crash(whole, subject, options)
        if options.fail_fast and whole.failed():
            break
        options.tell(f"[{number:2}/{len(cases)}] {case.name} ", end="")
        if lacking := [name for name in case.needs if name in failed]:
            result = Result(case, UNTESTABLE, reason=f"not run: {lacking[0]} has failed ({failed[lacking[0]]})")
        elif failed and time.monotonic() > end:
            result = Result(case, UNTESTABLE, reason=f"not run: the failures have taken {LIMIT} s")
        else:
            try:
                broken = {each.fault.rule for each in whole.results if each.fault}
                result = run_attempts(case, subject, attempt, options, broken)
            except (ValueError, GuilinkError):
                options.tell("error")
                raise
            if result.fault and result.verdict in (FAILED, RESTARTED):
                failed[case.name] = result.fault.rule
        if result.identifier in options.baseline and result.verdict in (FAILED, RESTARTED, WARNED):
            result.verdict = EXPECTED
        whole.results.append(result)
        options.tell(line(result) + (dump(result.fault) if result.fault and len(failed) == 1 else ""))


def note_late_crash(whole: Run, subject: Subject, options: Options) -> None:
    if whole.results and (crash := subject.crash()):
        result = whole.results[-1]
        result.verdict, result.fault, result.final = FAILED, crash, True
        result.output = subject.last_output()
        options.tell(f"        after {result.case.name}: {line(result)}")
        subject.stop()


def run_attempts(case: Case, subject: Subject, begin: Callable[[EventLoop], Attempt], options: Options,
                 broken: set[str]) -> Result:
    """Runs a case. If it fails, runs it again, because a busy machine may have caused the failure. Starts the subject
    afresh only from attempt RESTART on, because a fault that a restart cures is a fault. Never forgives a crash, and
    does not try again what breaks one of the rules that are known to be broken."""
    failed: Result | None = None
    for attempt in range(1, options.attempts + 1):
        if attempt >= RESTART or case.fresh:
            subject.stop()
        loop = EventLoop(options.patience)
        try:
            result = run_once(case, begin(loop))
        finally:
            loop.close()
        result.attempts, result.output = attempt, subject.last_output()
        if result.verdict not in (FAILED, WARNED):
            if failed is None or attempt < RESTART:
                result.earlier = f"{failed.fault.rule}: {failed.fault.text}" if failed and failed.fault else ""
                return result
            failed.verdict = RESTARTED if failed.verdict == FAILED else WARNED
            return failed
        if result.final or result.fault and result.fault.rule in broken:
            break
        failed = failed or result
    subject.stop()
    return result


def line(result: Result) -> str:
    text = f"{result.verdict}  {result.seconds:.1f} s"
    if result.fault:
        text += f"\n        {result.fault.rule}: {result.fault.text}"
        text += "; passed only after a restart" if result.verdict == RESTARTED else ""
    elif result.reason:
        text += f"\n        {result.reason}"
    elif result.attempts > 1:
        text += f" (in attempt {result.attempts}; before: {result.earlier})"
    return text


def dump(fault: Fault) -> str:
    return "".join(f"\n        {what}: {data[:MOST_BYTES].hex(' ')}" + (" ..." if len(data) > MOST_BYTES else "")
                   for what, data in (("expected", fault.expected), ("actual", fault.actual)) if data)

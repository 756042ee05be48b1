"""Reports the verdicts as text, JSON and JUnit."""
from __future__ import annotations

import json
import shlex
from typing import Any, Sequence
from xml.etree import ElementTree

from guilink.conform.case import CASES, EXPECTED, FAILED, PASSED, RESTARTED, UNTESTABLE, WARNED, Result
from guilink.conform.engine import NOT_RUN, Run
from guilink.conform.rules import IN_EVERY_CASE, NO_CASE, RULES

VERDICTS = (PASSED, FAILED, RESTARTED, WARNED, UNTESTABLE, EXPECTED)


def repeat_command(result: Result, arguments: Sequence[str]) -> str:
    return shlex.join(["guilink", "conform", result.case.side, "-k", result.case.name, *arguments])


def summary(run: Run) -> str:
    lines = ["", "by rule:"]
    verdicts, part = run.rule_verdicts(), len(run.results) < len(CASES[run.side])
    for rule, (verdict, reason) in verdicts.items():
        if not (part and (reason == NOT_RUN or rule in NO_CASE)):
            lines.append(f"  {rule:9} {RULES[rule].strength:6} {verdict:10} {reason}".rstrip())
    if part:
        lines.append("  others: not run")
    lines += ["", ", ".join(f"{run.count(verdict)} {verdict}" for verdict in VERDICTS if run.count(verdict))]
    return "\n".join(lines)


def listing(side: str) -> str:
    lines = []
    for case in CASES[side]:
        gentle = "" if case.gentle or side == "companion" else "  (not with --gentle)"
        lines += [f"{case.name}  {' '.join(case.rules)}{gentle}", f"    {case.text.splitlines()[0]}"]
    checked = {rule for case in CASES[side] for rule in case.rules}
    lines += ["", "in every case: " + " ".join(IN_EVERY_CASE[side]), ""]
    for rule in RULES.values():
        if rule.binds(side) and rule.id not in checked and rule.id in NO_CASE:
            lines.append(f"without a case: {rule.id}: {NO_CASE[rule.id]}")
    return "\n".join(lines)


def as_json(run: Run, arguments: Sequence[str]) -> dict[str, Any]:
    return {
        "side": run.side,
        "counts": {verdict: run.count(verdict) for verdict in VERDICTS},
        "rules": {rule: {"verdict": verdict, "reason": reason}
                  for rule, (verdict, reason) in run.rule_verdicts().items()},
        "cases": [{
            "name": result.case.name, "verdict": result.verdict, "seconds": round(result.seconds, 3),
            "attempts": result.attempts, "rule": result.fault.rule if result.fault else None,
            "text": result.fault.text if result.fault else result.reason,
            "expected": result.fault.expected.hex() if result.fault else "",
            "actual": result.fault.actual.hex() if result.fault else "",
            "kept": sorted(result.kept), "repeat": repeat_command(result, arguments),
        } for result in run.results],
    }


def write_json(path: str, run: Run, arguments: Sequence[str]) -> None:
    with open(path, "w", encoding="utf-8") as file:
        json.dump(as_json(run, arguments), file, indent=1)


def write_junit(path: str, run: Run, arguments: Sequence[str]) -> None:
    """Writes a JUnit report. UntestableError cases and expected failures count as skipped, and warnings count as
    passed."""
    suite = ElementTree.Element("testsuite", name=f"guilink conform {run.side}", tests=str(len(run.results)),
                                failures=str(run.count(FAILED) + run.count(RESTARTED)),
                                skipped=str(run.count(UNTESTABLE) + run.count(EXPECTED)))
    for result in run.results:
        test = ElementTree.SubElement(suite, "testcase", classname=f"conform.{run.side}",
                                      name=result.case.name, time=f"{result.seconds:.3f}")
        text = f"{result.fault.rule}: {result.fault.text}" if result.fault else result.reason
        if result.verdict in (FAILED, RESTARTED):
            ElementTree.SubElement(test, "failure", message=text).text = repeat_command(result, arguments)
        elif result.verdict in (UNTESTABLE, EXPECTED):
            ElementTree.SubElement(test, "skipped", message=f"{result.verdict}: {text}")
        elif result.verdict == WARNED:
            ElementTree.SubElement(test, "system-out").text = f"warned: {text}"
    ElementTree.ElementTree(suite).write(path, encoding="utf-8", xml_declaration=True)

#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Counts what the test runners wrote down: prints "PASSED FAILED SKIPPED" and, on stderr, each that did not pass.

    count-results.py meson TESTLOG.JSON GTEST-FOLDER
    count-results.py pytest JUNIT.XML

For meson, a GoogleTest program counts case by case, by the report that it left in the folder. A program
that ended badly without a failed case (a crash, a time-out) is one failure more.
A report that is not there or cannot be read is a failure.
"""

import json
import pathlib
import sys
import xml.etree.ElementTree

PASSED, FAILED, SKIPPED = "passed", "failed", "skipped"


def cases(path):
    """The (name, outcome) pairs of a JUnit report, whether GoogleTest's or pytest's."""
    for case in xml.etree.ElementTree.parse(path).iter("testcase"):
        name = f"{case.get('classname')}.{case.get('name')}"
        if case.find("failure") is not None or case.find("error") is not None:
            yield name, FAILED
        elif case.find("skipped") is not None:
            yield name, SKIPPED
        elif case.get("status") != "notrun":
            yield name, PASSED


def of_meson(testlog, reports):
    for line in pathlib.Path(testlog).read_text(encoding="utf-8").splitlines():
        test = json.loads(line)
        found = []
        # An emulator or valgrind, with its options, comes before the program.
        for word in test["command"]:
            try:
                found = found or list(cases(pathlib.Path(reports) / (pathlib.Path(word).name + ".xml")))
            except (OSError, xml.etree.ElementTree.ParseError):
                pass
        yield from found
        result = test["result"]
        if result in ("OK", "EXPECTEDFAIL"):
            if not found:
                yield test["name"], PASSED
        elif result == "SKIP":
            yield test["name"], SKIPPED
        elif FAILED not in (outcome for _, outcome in found):
            yield f"{test['name']} ({result})", FAILED


def main():
    kind, *paths = sys.argv[1:]
    try:
        results = list(of_meson(*paths) if kind == "meson" else cases(*paths))
        if not results:
            results = [("no test was run: " + paths[0], FAILED)]
    except (OSError, ValueError, xml.etree.ElementTree.ParseError) as error:
        results = [(f"no result: {error}", FAILED)]
    for name, outcome in results:
        if outcome != PASSED:
            print(f"    {outcome}: {name}", file=sys.stderr)
    outcomes = [outcome for _, outcome in results]
    print(outcomes.count(PASSED), outcomes.count(FAILED), outcomes.count(SKIPPED))


main()

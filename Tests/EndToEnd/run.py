"""Runs the end-to-end tests: whole processes, each with directories of its own.

    python3 Tests/EndToEnd/run.py --build build/release [--results FILE] [--jobs N] [name ...]

A name picks test files, classes or cases by a part of their name. Every outcome is printed, and
with --results appended as "passed|failed|skipped<TAB>name<TAB>why", a line each.
"""

import argparse
import os
import pathlib
import sys
import time
import unittest

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))
sys.dont_write_bytecode = True


class Report(unittest.TestResult):
    """Prints each case as it ends and keeps its outcome."""

    def __init__(self, results):
        super().__init__()
        self.lines = []
        self.results = results

    def startTest(self, test):
        super().startTest(test)
        self.began = time.monotonic()

    def note(self, outcome, test, why=""):
        name = test.id().removeprefix("test_")
        took = time.monotonic() - getattr(self, "began", time.monotonic())
        print(f"{outcome:8}{took:7.1f} s  {name}" + (f"\n{why}" if outcome == "failed" else ""), flush=True)
        short = " ".join((why.strip().split("\n") or [""])[-1].split())
        if self.results:
            with open(self.results, "a", encoding="utf-8") as out:
                out.write(f"{outcome}\tend to end: {name}\t{short}\n")

    def addSuccess(self, test):
        self.note("passed", test)

    def addError(self, test, err):
        super().addError(test, err)
        self.note("failed", test, self._exc_info_to_string(err, test))

    def addFailure(self, test, err):
        super().addFailure(test, err)
        self.note("failed", test, self._exc_info_to_string(err, test))

    def addSubTest(self, test, subtest, err):
        super().addSubTest(test, subtest, err)
        if err is not None:
            self.note("failed", subtest, self._exc_info_to_string(err, test))

    def addSkip(self, test, reason):
        super().addSkip(test, reason)
        self.note("skipped", test, reason)


def flatten(suite):
    for item in suite:
        if isinstance(item, unittest.TestSuite):
            yield from flatten(item)
        else:
            yield item


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", default="build/release")
    parser.add_argument("--results")
    parser.add_argument("names", nargs="*")
    arguments = parser.parse_args()
    os.environ["SKELDA_BUILD"] = str(pathlib.Path(arguments.build).resolve())

    found = unittest.defaultTestLoader.discover(str(HERE), pattern="test_*.py")
    cases = [c for c in flatten(found) if not arguments.names or any(n in c.id() for n in arguments.names)]
    report = Report(arguments.results)
    unittest.TestSuite(cases).run(report)
    bad = len(report.failures) + len(report.errors)
    print(f"end to end: {report.testsRun - bad - len(report.skipped)} passed, {bad} failed")
    return 1 if bad or not report.testsRun else 0


if __name__ == "__main__":
    sys.exit(main())

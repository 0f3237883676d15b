"""Runs the end-to-end tests: whole processes, each with directories of its own.

    python3 Tests/EndToEnd/run.py --build build/release [--results FILE] [--jobs N] [name ...]

A name picks test files, classes or cases by a part of their name. Every outcome is printed, and
with --results appended as "passed|failed|skipped<TAB>name<TAB>why", a line each. With --jobs, as
many test files run side by side.
"""

import argparse
import concurrent.futures
import functools
import os
import pathlib
import sys
import time
import unittest

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))
sys.dont_write_bytecode = True

# Those that take longest begin first.
LONG = ("test_documents", "test_at_length", "test_surroundings")


class Report(unittest.TestResult):
    """Prints each outcome as it comes. A case whose parts fail counts once for each of these."""

    def __init__(self, results, label):
        super().__init__()
        self.results, self.label, self.began = results, label, time.monotonic()

    def note(self, outcome, test, why=""):
        name = test.id().removeprefix("test_")
        print(f"{outcome:8}{time.monotonic() - self.began:7.1f} s  {name}"
              + (f"\n{why}" if outcome == "failed" else ""), flush=True)
        if self.results:
            short = " ".join(why.strip().split("\n")[-1].split())[:300]
            with open(self.results, "a", encoding="utf-8") as out:
                out.write(f"{outcome}\t{self.label}: {name}\t{short}\n")
        self.began = time.monotonic()

    addSuccess = functools.partialmethod(note, "passed")
    addSkip = functools.partialmethod(note, "skipped")

    def addError(self, test, err):
        super().addError(test, err)
        self.note("failed", test, self.errors[-1][1])

    addFailure = addError

    def addSubTest(self, test, subtest, err):
        if err is not None:
            self.addError(subtest, err)


def run(results, label, names):
    loader = unittest.TestLoader()
    loader.testNamePatterns = [f"*{name}*" for name in names] or None
    cases, report = loader.discover(str(HERE), pattern="test_*.py"), Report(results, label)
    cases.run(report)
    return report.wasSuccessful() and cases.countTestCases() > 0


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", default="build/release")
    parser.add_argument("--results")
    parser.add_argument("--label", default="end to end", help="what the outcomes are listed under")
    parser.add_argument("--jobs", type=int, default=1)
    parser.add_argument("--emulator", help="the command that runs the programs of another processor")
    parser.add_argument("names", nargs="*")
    arguments = parser.parse_args()
    os.environ["SKELDA_BUILD"] = str(pathlib.Path(arguments.build).resolve())
    if arguments.emulator:
        os.environ["SKELDA_EMULATOR"] = arguments.emulator
    files = sorted((path.stem for path in HERE.glob("test_*.py")), key=lambda name: (name not in LONG, name))
    beside = arguments.jobs > 1 and not arguments.names
    groups = [[f"{name}."] for name in files] if beside else [arguments.names]
    with concurrent.futures.ProcessPoolExecutor(arguments.jobs) as pool:
        return not all(list(pool.map(functools.partial(run, arguments.results, arguments.label), groups)))


if __name__ == "__main__":
    sys.exit(main())

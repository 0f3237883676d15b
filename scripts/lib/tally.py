"""Counts what a test run left in its results folder; the last line is "N passed, N failed".

<preset>.ctest.xml   what the test runner says of each program of a preset
<preset>/<program>.xml   the cases of one program
other.tsv   outcome, name, why: everything that is not a case of a test program
"""

import pathlib
import sys
import xml.etree.ElementTree as ET


def cases_of(report):
    """The (name, outcome, why) of every case in one program's report."""
    for case in ET.parse(report).getroot().iter("testcase"):
        name = f"{case.get('classname')}.{case.get('name')}"
        failure, skipped = case.find("failure"), case.find("skipped")
        if failure is not None:
            yield name, "failed", (failure.get("message") or "").split("\n")[0]
        elif skipped is not None or case.get("result") == "skipped":
            yield name, "skipped", " ".join((skipped.get("message") or "").split()) if skipped is not None else ""
        elif case.get("status") == "run":
            yield name, "passed", ""


def outcomes(results):
    for summary in sorted(results.glob("*.ctest.xml")):
        preset = summary.name.removesuffix(".ctest.xml")
        for program in ET.parse(summary).getroot().iter("testcase"):
            name = program.get("name")
            report = results / preset / f"{name}.xml"
            failed_inside = False
            counted = False
            if report.exists():
                for case, outcome, why in cases_of(report):
                    counted = True
                    failed_inside |= outcome == "failed"
                    yield f"{preset}: {name}: {case}", outcome, why
            ended_well = program.get("status") == "run"
            if not ended_well and not failed_inside:
                # A crash, a sanitizer's report, a time-out: no case says so, the program does.
                yield f"{preset}: {name}", "failed", "the program did not end well"
            elif ended_well and not counted:
                yield f"{preset}: {name}", "passed", ""
    other = results / "other.tsv"
    if other.exists():
        for line in other.read_text().splitlines():
            outcome, name, why = line.split("\t", 2)
            yield name, outcome, why


def main():
    results = pathlib.Path(sys.argv[1])
    count = {"passed": 0, "failed": 0, "skipped": 0}
    for name, outcome, why in outcomes(results):
        count[outcome] += 1
        if outcome != "passed":
            print(f"{outcome}: {name}" + (f" ({why})" if why else ""))
    if (results / "endtoend.failed").exists() and not count["failed"]:
        # A run that broke off, or found no test, wrote no outcome that says so.
        count["failed"] += 1
        print("failed: end to end (it did not run to its end)")
    if count["skipped"]:
        print(f"{count['skipped']} skipped")
    print(f"{count['passed']} passed, {count['failed']} failed")
    return 1 if count["failed"] or not count["passed"] else 0


sys.exit(main())

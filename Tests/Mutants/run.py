"""Changes the code by one line at a time and asks the tests whether they notice.

    python3 Tests/Mutants/run.py [FILTER ...] [--resume] [--matrix FILE] [--jobs N]

mutants.tsv has a mutant a line: the file, what is replaced, by what, and, for one that changes nothing
that anybody could notice, the reason. What is replaced stands in its file, a source file, exactly once.
FILTER picks mutants whose line has that text in it. A mutant's one object is compiled and put before
the libraries of a test program. The program of its own room runs first, its quick tests before its slow
ones, and where it notices nothing all but the slowest of every other that links the library of that object.
A test that fails or hangs must do so twice, a crash is one at once; one that takes several times as long
as it does undisturbed hangs. Equivalents are judged at home: one that is noticed is none.

What was judged is in build/mutants/judged.tsv as it comes. --resume goes on where a run was
interrupted, in the copy of the tree as it was. With --matrix no program stops at the first test that
notices, and FILE gets a line for each mutant with all of them: a test that is the only one is not to
be cut.

Builds in a copy of the tree, build/mutants/tree, which a later run uses again: the tree may change
meanwhile. Ends with 1 where a mutant lives that is not said to be equivalent, or does not compile or
apply.
"""

import argparse
import collections
import concurrent.futures
import functools
import json
import os
import pathlib
import re
import shlex
import shutil
import subprocess
import sys
import tempfile
import time
import typing
import zlib

ROOT = pathlib.Path(__file__).resolve().parents[2]
LIST = pathlib.Path(__file__).with_name("mutants.tsv")
WORK = ROOT / "build/mutants"
# Where a file's own tests are: the longest folder that fits.
PROGRAMS = {folder: name for name, folder in re.findall(
    r'^skelda_test\((\w+) "?([^"\n]+?)"?(?: WITHOUT .*| DEPENDS .*)?$', (ROOT / "Tests/CMakeLists.txt").read_text(), re.M)}
PROGRAMS |= {"Platform/Kernel": "device_tests", "Platform/Reachability": "reachability_tests", "Analytics": "watch_tests"}
# Run by its tests as a process; it may lie elsewhere, as SKELDA_FRAMES.
TOOL = {"tools_tests": "Tools/skelda-frames/skelda-frames"}
# Where another needs something of the member that the mutant has no more, the mutant's still come first.
TWICE = "-Wl,--allow-multiple-definition"
QUICK, SLOW = 300, 1500  # milliseconds of a test
KILLED = (-9, 128 + 9)  # statuses of what was given a time and of who gave it
COMMON = "algorithm array atomic chrono filesystem fmt/format.h functional map memory mutex optional span string vector"


class Mutant(typing.NamedTuple):
    file: str
    old: str
    new: str
    equivalent: str = ""

    def __str__(self):
        return f"{self.file}: {self.old} -> {self.new}"

    @property
    def own_program(self):
        return PROGRAMS[max((folder for folder in PROGRAMS if self.file.startswith(folder + "/")), key=len)]


class Verdict(typing.NamedTuple):
    kind: str  # noticed, lives or broken
    why: list  # the tests that noticed, or what is wrong with the mutant


class Run(typing.NamedTuple):
    took: dict  # milliseconds of each test that ended
    failed: list  # tests
    broken: list  # those that began and did not end
    status: int  # None when it hung


def rows(path):
    lines = path.read_text().splitlines() if path.exists() else []
    return [line.split("\t") for line in lines if line and not line.startswith("#")]


class Build:
    """A copy of the tree, its test programs, and how each object and program of it is made."""

    def __init__(self, as_it_was):
        self.tree, self.folder = WORK / "tree", WORK / "tree/build/debug"
        self.programs = sorted(set(PROGRAMS.values()))
        if not as_it_was or not self.folder.exists():
            self.make()
        self.compiling = {entry["file"]: entry["command"]
                          for entry in json.loads((self.folder / "compile_commands.json").read_text())}
        # What most files include, read once.
        (WORK / "common.h").write_text("".join(f"#include <{name}>\n" for name in COMMON.split()))
        self.call(*self.compiler("Platform/Base/Log.cpp", WORK / "common.h", WORK / "common.h.gch"))
        ninja = "ninja", "-C", self.folder, "-t", "commands"
        targets = [*(f"Tests/{name}" for name in self.programs), *TOOL.values()]
        self.linking = {target: self.call(*ninja, "-s", target).strip() for target in targets}
        archives = re.findall(r"ar qc (\S+) (.*?) && ", self.call(*ninja, *self.programs))
        self.library = {member: library for library, members in archives for member in members.split()}

    def make(self):
        """Files that differ alone are written, so that little is built anew."""
        self.tree.mkdir(exist_ok=True)
        self.call("rsync", "-rlpc", "--delete", "--exclude=/.git", "--exclude=/build", f"{ROOT}/", ".")
        launcher = ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"] if shutil.which("ccache") else []
        linker = ["-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=mold"] if shutil.which("mold") else []
        self.call("cmake", "--preset", "debug", "-DCMAKE_CXX_FLAGS_DEBUG=-O0", *launcher, *linker)
        self.call("ninja", "-C", self.folder, *self.programs)

    def call(self, *command):
        run = subprocess.run(command, cwd=self.tree, capture_output=True, text=True)
        if run.returncode:
            raise SystemExit(f"{' '.join(map(str, command))}: {run.stdout}{run.stderr}")
        return run.stdout

    @functools.cache
    def calm(self, name):
        """Each test's milliseconds where nothing is changed."""
        for _ in range(2):
            run = self.run(self.folder / "Tests" / name, 0)
            if run.status == 0:
                return run.took
        raise SystemExit(f"{name} fails without a mutant: {run.failed + run.broken}")

    def run(self, program, limit, *options):
        frames = program.with_name("skelda-frames")
        environment = {**os.environ, **({"SKELDA_FRAMES": str(frames)} if frames.exists() else {})}
        # With what it has started: a death test's process, say, hangs as well.
        done = subprocess.run(["timeout", "--signal=KILL", str(limit), program, *options], cwd=self.tree, env=environment,
                              text=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, errors="replace")
        ended = re.findall(r"^\[(       OK|  FAILED | SKIPPED ) \] ([^\s,]+).* \((\d+) ms\)$", done.stdout, re.MULTILINE)
        took = {test: int(took) for _, test, took in ended}
        broken = [test for test in re.findall(r"^\[ RUN      \] (\S+)", done.stdout, re.MULTILINE) if test not in took]
        return Run(took, [test for word, test, _ in ended if word == "  FAILED "], broken,
                   None if done.returncode in KILLED else done.returncode)

    def compiler(self, like, source, target):
        words = shlex.split(self.compiling[str(self.tree / like)])
        words[words.index("-o") + 1], words[words.index("-c") + 1] = target, source
        return [word for word in words if word not in ("ccache", "-Werror")] + ["-w"]

    def compiled(self, source, text, folder):
        """The object that is to be replaced, where the other text of a source file is a program."""
        (folder / "mutant.cpp").write_text(text)
        words = self.compiler(source, folder / "mutant.cpp", folder / "mutant.o")
        run = subprocess.run([*words, "-include", WORK / "common.h"], cwd=self.folder, capture_output=True)
        return None if run.returncode else re.search(r" -o (\S+) ", self.compiling[str(self.tree / source)])[1]

    def concerns(self, target, member):
        linking = self.linking[target]
        return member in linking or f" {self.library.get(member)} " in linking

    def link(self, target, member, folder, mutated):
        """Makes a program with the mutant's object in place of that member of its library."""
        command = self.linking[target].replace(f" {member} ", " ")
        inserted = f" {folder / 'mutant.o'} {TWICE} -o {mutated} "
        command, found = re.subn(r" -o \S+ ", lambda _: inserted, command, count=1)
        run = subprocess.run(command, shell=True, cwd=self.folder, capture_output=True, text=True)
        if run.returncode or not found:
            raise SystemExit(f"{command}: {run.stderr}")


class Trial:
    """A mutant's object in a test program, or, where the tests are a tool's, in the tool beside it."""

    def __init__(self, build, member, folder, name):
        self.build, self.program, self.calm = build, folder / name, build.calm(name)
        for target in filter(None, (f"Tests/{name}", TOOL.get(name))):
            mutated = folder / pathlib.Path(target).name
            if build.concerns(target, member):
                build.link(target, member, folder, mutated)
            else:
                mutated.symlink_to(build.folder / target)

    def chosen(self, tests, *options):
        limit = 5 + 4 * sum(self.calm[test] for test in tests) / 1000
        return self.build.run(self.program, limit, f"--gtest_filter={':'.join(tests)}", *options)

    def first(self, slowest):
        """[One test that notices], or []."""
        for least, most in (0, QUICK), (QUICK, slowest):
            tests = [test for test, took in self.calm.items() if least <= took < most]
            for again in range(2 if tests else 0):
                run = self.chosen(tests, "--gtest_fail_fast")
                if run.status == 0:
                    break
                failed = (run.failed + run.broken)[:1]
                crashed = run.broken and run.status is not None
                # Behind "?" stands what fails before or behind all tests.
                if not failed or again or crashed or self.chosen(failed).status != 0:
                    return failed or ["?"]
        return []

    def every(self):
        found, tests = [], list(self.calm)
        while tests:
            run = self.chosen(tests)
            found += run.failed + run.broken
            if not run.broken:
                found += [] if run.status == 0 or run.failed else ["?"]
                break
            tests = tests[tests.index(run.broken[-1]) + 1:]
        return list(dict.fromkeys(found))


def judge(build, mutant, whole):
    """What the program of its own room says of a mutant, or, where that has noticed nothing, what the others do."""
    source = build.tree / mutant.file
    text = source.read_text() if source.exists() else ""
    if text.count(mutant.old) != 1:
        return Verdict("broken", [f"stands there {text.count(mutant.old)} times"])
    with tempfile.TemporaryDirectory(dir=WORK) as folder:
        folder = pathlib.Path(folder)
        member = build.compiled(mutant.file, text.replace(mutant.old, mutant.new), folder)
        if member is None:
            return Verdict("broken", ["does not compile"])
        found, own = [], mutant.own_program
        others = [name for name in build.programs if name != own and build.concerns(f"Tests/{name}", member)]
        for name in [own] if mutant.equivalent and not whole else [own, *others]:
            if whole or not found:
                trial = Trial(build, member, folder, name)
                noticed = trial.every() if whole else trial.first(float("inf") if name == own else SLOW)
                found += [f"{name}:{test}" for test in noticed]
    return Verdict("noticed" if found else "lives", found)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("filters", nargs="*")
    parser.add_argument("--matrix", type=pathlib.Path)
    parser.add_argument("--jobs", type=int, default=os.cpu_count() or 1)
    parser.add_argument("--resume", action="store_true")
    options = parser.parse_args()
    WORK.mkdir(parents=True, exist_ok=True)
    known = {(file, old, new): Verdict(kind, why) for kind, file, old, new, *why in rows(WORK / "judged.tsv")}
    mutants = [Mutant(*row) for row in rows(LIST)
               if not options.filters or any(text in "\t".join(row) for text in options.filters)]

    verdicts = {mutant: known[mutant[:3]] for mutant in mutants if options.resume and mutant[:3] in known}
    # Mixed, but always in the same way: a run that is interrupted has seen every room.
    todo = sorted(set(mutants) - set(verdicts), key=lambda mutant: zlib.crc32(str(mutant).encode()))
    started, build = time.monotonic(), Build(options.resume) if todo else None
    with concurrent.futures.ThreadPoolExecutor(options.jobs) as jobs:
        judging = {jobs.submit(judge, build, mutant, options.matrix is not None): mutant for mutant in todo}
        try:
            for done in concurrent.futures.as_completed(judging):
                mutant, verdict = judging[done], done.result()
                verdicts[mutant] = verdict
                for path, begin in (WORK / "judged.tsv", [verdict.kind]), (options.matrix, []):
                    if path:
                        with path.open("a") as file:
                            print(*begin, *mutant[:3], *verdict.why, sep="\t", file=file)
                if (verdict.kind == "noticed") == bool(mutant.equivalent) or verdict.kind == "broken":
                    print(f"{' '.join([verdict.kind, *verdict.why])}: {mutant}", flush=True)
        except BaseException:
            jobs.shutdown(wait=False, cancel_futures=True)
            raise
    counts = collections.Counter("equivalent" if mutant.equivalent and verdict.kind == "lives" else verdict.kind
                                 for mutant, verdict in verdicts.items())
    share = 100 * counts["noticed"] / max(counts["noticed"] + counts["lives"], 1)
    print(f"{len(verdicts)} mutants, {len(todo)} of them judged now: {counts['noticed']} noticed, {counts['lives']} live, "
          f"{counts['equivalent']} equivalent, {counts['broken']} do not compile or apply; {share:.1f} % noticed, "
          f"{time.monotonic() - started:.0f} s")
    return 1 if counts["lives"] or counts["broken"] else 0


if __name__ == "__main__":
    sys.exit(main())

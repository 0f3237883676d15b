"""Lets one of the system's calls go wrong under a host, starts the host again, and gives an account.

    python3 Tests/EndToEnd/faults.py [RUNS] [--seed N] [--only KIND[:N:WHAT[:MS]]] [--jobs N]

Each run has a fault of its own: at the n-th call of a kind the call fails, comes short, fails for
0.8 s, or the process is killed. RUNS are spread over all of these; without RUNS it is all of them.
After each: no crash and no hang, every closed log whole, nothing gone that was there before, and
every event whose call answered 1 found again, or named by the account.
"""

import argparse
import collections
import concurrent.futures
import contextlib
import dataclasses
import errno
import os
import pathlib
import random
import re
import shutil
import signal
import struct
import sys
import tempfile

sys.dont_write_bytecode = True

import account_file  # noqa: E402
import frame_log  # noqa: E402
from support import Home, bundle_of, give_identifiers, scratch_root  # noqa: E402

HOST = bundle_of("FaultHost")
EVENTS = 16
LONG = 800  # milliseconds for which something is not to be had

FULL, BROKEN, BUSY, NONE, BARRED = errno.ENOSPC, errno.EIO, errno.EINTR, errno.EMFILE, errno.EACCES
MEMORY = errno.ENOMEM
# Methods of platform::FileCalls, calls of the system and allocations, and what may go wrong with each.
KINDS = {
    "open": (NONE, BARRED, FULL, BUSY, MEMORY, "kill"),
    "read": (BROKEN, BUSY, "short", "kill"),
    "write": (FULL, BROKEN, errno.EFBIG, BUSY, "short", "torn", "kill"),
    "close": (BROKEN,),
    "sync": (FULL, BROKEN, "kill"),
    "syncData": (FULL, BROKEN, "kill"),
    "rename": (FULL, BARRED, BROKEN, "kill"),
    "renameNoReplace": (FULL, BARRED, BROKEN, "kill"),
    "link": (FULL, BARRED, "kill"),
    "copyRange": (FULL, BROKEN, BUSY, "short", "torn", "kill"),
    "truncate": (BROKEN, BUSY, BARRED, "kill"),
    "allocate": (FULL, BUSY, BROKEN, "kill"),
    "makeDirectory": (FULL, BARRED, "kill"),
    "removeDirectory": (BARRED, BROKEN, "kill"),
    "unlink": (BARRED, BROKEN, "kill"),
    "status": (BARRED, BROKEN, MEMORY, "kill"),
    "statusAt": (BARRED, BROKEN, MEMORY, "kill"),
    "linkStatusAt": (BARRED, BROKEN, MEMORY, "kill"),
    "entries": (BROKEN,),
    "lock": (BUSY, errno.ENOLCK),
    "attribute": (BROKEN, errno.ENOTSUP, "kill"),
    "setAttribute": (FULL, errno.ENOTSUP, "kill"),
    "mmap": (MEMORY, BARRED, "kill"),
    "inotify_init1": (NONE, MEMORY),
    "inotify_add_watch": (FULL, BARRED, MEMORY),
    "epoll_create1": (NONE, MEMORY),
    "epoll_ctl": (FULL, MEMORY),
    "epoll_wait": (BUSY,),
    "pthread_create": (errno.EAGAIN,),
    "new_caller": (MEMORY, "kill"),
    "new_agent": (MEMORY, "kill"),
}
# Allocations come by the thousand: every so manieth is tried.
STRIDE = {"new_caller": 7, "new_agent": 29}


@dataclasses.dataclass(frozen=True)
class Fault:
    kind: str
    at: int
    what: object
    milliseconds: int = 0

    def __str__(self):
        return f"{self.kind}:{self.at}:{self.what}" + (f":{self.milliseconds}" if self.milliseconds else "")

    @property
    def kills(self):
        return self.what in ("kill", "torn")


class Template:
    """An installation that knows its phone, and has a log left open and blocks that wait: every run
    begins with a copy."""

    def __init__(self, path):
        self.path = pathlib.Path(path)
        home = Home(bundle=HOST, path=self.path)
        give_identifiers(home)
        before = home.run("before", "6")
        assert before.status == 0 and answers_of(before) == {n: 1 for n in range(1, 7)}, before.output
        self.events = events_in(home)
        self.has_account = account_file.of(home) is not None
        assert sum(self.events.values()) >= 3, self.events  # on disk before: there after every fault

    def home(self, path):
        shutil.copytree(self.path, path, symlinks=True)
        home = Home(bundle=HOST, path=path)
        home.log.unlink(missing_ok=True)
        return home


def answers_of(run):
    return {int(number): int(answer) for number, answer in re.findall(r"^event (\d+): (\d+)$", run.output, re.MULTILINE)}


def logs_of(home):
    return [*home.committed_logs(), *home.blocks(), *([home.current_log] if home.current_log.exists() else [])]


def events_in(home):
    """How often each event is there, by start and number. A log that is there twice, byte for byte, is
    one that was taken over and not yet removed."""
    found = collections.Counter()
    for log in {path.read_bytes() for path in logs_of(home)}:
        for frame in frame_log.readable(log)[0]:
            if frame.type == frame_log.EVENT:
                parameters = frame.event_parameters
                found[parameters["start"], int(parameters["number"])] += 1
    return found


class Run:
    """One fault, from a fresh installation to the account."""

    def __init__(self, template, folder, fault):
        self.fault = fault
        self.problems, self.missing = [], []
        self.page = pathlib.Path(folder) / "page"
        self.counts = {}
        self.happened = 0
        home = template.home(pathlib.Path(folder) / "home")
        try:
            first, second = self.start_twice(home)
            self.check(home, template, first, second)
        finally:
            home.close()

    def start_twice(self, home):
        environment = home.environment(FAULT_PAGE=self.page, FAULT_UNDER=home.path, FAULT_KINDS=":".join(KINDS))
        if self.fault:
            environment["FAULT"] = str(self.fault)
        first = self.start(home, "first", EVENTS, environment)
        # What a start accepts that had no journal stands in no file, and it says so.
        self.was_unprotected = any("no intake journal" in line for line in home.log_lines())
        *counts, self.happened = struct.unpack_from(f"={len(KINDS) + 1}Q", self.page.read_bytes())
        self.counts = dict(zip(KINDS, counts))
        fine = (0, -signal.SIGKILL) if self.fault and self.fault.kills else (0,)
        if first.status not in fine:
            self.problems.append(f"the host ended with {first.status}: {first.output[-300:]}")
        second = self.start(home, "second", 4, home.environment())
        if second.status != 0 or answers_of(second) != {n: 1 for n in range(1, 5)} or "rest: 1" not in second.output:
            self.problems.append(f"the next start: {second.status}: {second.output[-300:]}")
        return first, second

    def start(self, home, name, events, environment):
        process = home.start(name, str(events), environment=environment)
        with process:
            try:
                process.wait(60)
            except AssertionError:
                self.problems.append(f"start {name} hangs")
            return process

    def check(self, home, template, first, second):
        for path in logs_of(home):
            frames, torn = frame_log.readable(path.read_bytes())
            if torn:
                self.problems.append(f"{path.name}: {torn}")
            ids = [frame.payload.get("sk.frame.log.counter") for frame in frames if frame.type == frame_log.COUNTER]
            if len(ids) > 1:
                self.problems.append(f"{path.name}: counters {ids}")
        found = events_in(home)
        many = [event for event, count in found.items() if count > 2]
        if many:
            self.problems.append(f"more than twice: {many}")
        taken = list(template.events)
        taken += [("first", n) for n, answer in answers_of(first).items() if answer == 1]
        taken += [("second", n) for n, answer in answers_of(second).items() if answer == 1]
        self.missing = [event for event in taken if not found[event]]
        if template.has_account:
            self.check_account(home, len(taken))

    def check_account(self, home, answered):
        """What is missing has been named, and nothing else is wrong."""
        account = account_file.of(home)
        if account is None:
            self.problems.append("there is no account")
            return
        self.problems += account.problems(home)
        events = account.events
        # A kill may fall between a call's end and the line that says so.
        more = events.accepted - events.cut_off - answered
        if not (0 <= more <= (self.fault is not None and self.fault.kills) or self.was_unprotected):
            self.problems.append(f"{answered} calls answered 1, the account has {events}")
        named = sum(events.dropped.values()) + events.waiting + account.numbers["framesLost"]
        if len(self.missing) > named:
            self.problems.append(f"missing, and not named by {account}: {self.missing}")
        self.missing = []


class Runner(contextlib.AbstractContextManager):
    def __init__(self):
        self.folder = tempfile.TemporaryDirectory(prefix="skelda-faults-", dir=scratch_root())
        self.template = Template(pathlib.Path(self.folder.name) / "template")

    def __exit__(self, *_):
        self.folder.cleanup()

    def run(self, fault):
        with tempfile.TemporaryDirectory(dir=self.folder.name) as folder:
            return Run(self.template, folder, fault)

    def all_faults(self):
        """What can go wrong in a start in which nothing does: its calls are counted."""
        calm = self.run(None)
        if calm.problems or calm.missing:
            raise AssertionError(f"without a fault: {calm.problems}, missing {calm.missing}")
        if not all(calm.counts[kind] for kind in ("write", "mmap", "epoll_wait", "pthread_create", "new_agent")):
            raise AssertionError(f"calls go past the host's: {calm.counts}")
        faults = []
        for kind, whats in KINDS.items():
            for at in range(1, calm.counts[kind] + 1, STRIDE.get(kind, 1)):
                faults += [Fault(kind, at, what) for what in whats]
                faults += [Fault(kind, at, what, LONG) for what in whats if isinstance(what, int)][:2]
        return faults


def spread(faults, count, seed):
    """So many of them, of every kind about as many."""
    chance = random.Random(seed)
    by_kind = collections.defaultdict(list)
    for fault in faults:
        by_kind[fault.kind].append(fault)
    for of_kind in by_kind.values():
        chance.shuffle(of_kind)
    chosen = []
    while len(chosen) < count and any(by_kind.values()):
        chosen += [of_kind.pop() for of_kind in by_kind.values() if of_kind]
    return chosen[:count]


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("runs", nargs="?", type=int)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--only", default="")
    parser.add_argument("--jobs", type=int, default=max(2, os.cpu_count() or 2))
    options = parser.parse_args()
    with Runner() as runner, concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        if options.only.count(":") >= 2:
            kind, at, what, *milliseconds = options.only.split(":")
            faults = [Fault(kind, int(at), int(what) if what.isdigit() else what, *map(int, milliseconds))]
        else:
            faults = [f for f in runner.all_faults() if str(f).startswith(options.only)]
            if options.runs is not None:
                faults = spread(faults, options.runs, options.seed)
        bad = unreached = short = 0
        for run in pool.map(runner.run, faults):
            bad += bool(run.problems)
            unreached += run.happened == 0
            short += bool(run.missing)
            for problem in run.problems:
                print(f"{run.fault}: {problem}", flush=True)
            if run.missing:
                print(f"{run.fault}: missing: {run.missing}", flush=True)
        print(f"{len(faults)} faults, {unreached} of them not reached; {bad} runs with problems, {short} with events missing")
    return 1 if bad or not faults else 0


if __name__ == "__main__":
    sys.exit(main())

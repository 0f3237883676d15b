"""Lets one of the system's calls go wrong under a host, starts the host again, and gives an account.

    python3 Tests/EndToEnd/faults.py [RUNS] [--seed N] [--only BEGINNING] [--jobs N]

Each run has a fault of its own: at the n-th call of a kind the call fails, comes short, fails for
0.8 s, or the process is killed. RUNS are spread over all of these, or over those whose name,
KIND:N:WHAT[:MS], has that BEGINNING; without RUNS it is all of them.
After each: no crash and no hang, every closed log whole, nothing gone that was there before, and
every event whose call answered 1 found again, or named by the account.
"""

import collections
import concurrent.futures
import errno
import itertools
import os
import shutil
import signal
import struct
import sys
import typing

import account_file
import frame_log
from support import ACCEPTED, Home, Run, bundle_of, give_identifiers, numbers_of, play

HOST = bundle_of("FaultHost")
BEFORE, EVENTS, AFTER = 6, 16, 4  # how many are logged by each of the starts
LONG = 800  # milliseconds for which something is not to be had

FULL, BROKEN, BUSY, NONE, BARRED, MEMORY = errno.ENOSPC, errno.EIO, errno.EINTR, errno.EMFILE, errno.EACCES, errno.ENOMEM
# Methods of platform::FileCalls, calls of the system and allocations, and what may go wrong with each.
KINDS = {kind: whats for kinds, whats in {
    "open": (NONE, BARRED, FULL, BUSY, MEMORY, "kill"),
    "read": (BROKEN, BUSY, "short", "kill"),
    "write": (FULL, BROKEN, errno.EFBIG, BUSY, "short", "torn", "kill"),
    "close entries": (BROKEN,),
    "sync syncData": (FULL, BROKEN, "kill"),
    "rename renameNoReplace": (FULL, BARRED, BROKEN, "kill"),
    "link makeDirectory": (FULL, BARRED, "kill"),
    "copyRange": (FULL, BROKEN, BUSY, "short", "torn", "kill"),
    "truncate": (BROKEN, BUSY, BARRED, "kill"),
    "allocate": (FULL, BUSY, BROKEN, "kill"),
    "removeDirectory unlink": (BARRED, BROKEN, "kill"),
    "status statusAt linkStatusAt": (BARRED, BROKEN, MEMORY, "kill"),
    "lock": (BUSY, errno.ENOLCK),
    "attribute": (BROKEN, errno.ENOTSUP, "kill"),
    "setAttribute": (FULL, errno.ENOTSUP, "kill"),
    "mmap": (MEMORY, BARRED, "kill"),
    "inotify_init1 epoll_create1": (NONE, MEMORY),
    "inotify_add_watch": (FULL, BARRED, MEMORY),
    "epoll_ctl": (FULL, MEMORY),
    "epoll_wait": (BUSY,),
    "pthread_create": (errno.EAGAIN,),
    "new_caller new_agent": (MEMORY, "kill"),
}.items() for kind in kinds.split()}
# Allocations come by the thousand: every so manieth is tried.
STRIDE = {"new_caller": 7, "new_agent": 29}
# What the host is told, how often that happened, and how many calls of each kind there were.
PAGE = struct.Struct("=256s24s6QQ" + "24sQ" * len(KINDS))


class Fault(typing.NamedTuple):
    kind: str
    at: int
    what: object
    milliseconds: int = 0

    def __str__(self):
        return ":".join(str(part) for part in self if part)

    def page(self, folder):
        """What the host is told: only files in that folder count."""
        error, is_short = self.what if isinstance(self.what, int) else 0, self.what in ("short", "torn")
        none_yet = itertools.chain(*((kind.encode(), 0) for kind in KINDS))
        return PAGE.pack(bytes(folder), self.kind.encode(), self.at, self.milliseconds, error, is_short,
                         self.what == "kill", self.what == "torn", 0, *none_yet)


# None: what comes that late never comes.
CALM = Fault("open", 1 << 40, 0)


def words_of(first, events):
    """A start with so many events from that number on, between which a log is closed."""
    half = events // 2
    return ["property", f"numbered={first},{half},1,0", "delete", f"numbered={first + half},{events - half},1,0",
            "stored=3", "rest"]


def events_in(home):
    """How often each is there. A log that is there twice, byte for byte, is one that was taken over and
    not yet removed."""
    return numbers_of(frame for log in {path.read_bytes() for path in home.logs()} for frame in frame_log.readable(log)[0])


class OneFault(Run):
    """One fault, from an installation that has some events, to the account."""

    def __init__(self, home, fault):
        super().__init__()
        self.home, self.fault, page = home, fault, home.path / "page"
        self.kills = fault.what in ("kill", "torn")
        page.write_bytes(fault.page(home.path))
        self.start(BEFORE, EVENTS, {0, -signal.SIGKILL * self.kills}, FAULT_PAGE=page)
        # What a start accepts that had no journal stands in no file, and it says so.
        self.was_unprotected = any("no intake journal" in line for line in home.log_lines())
        counted = PAGE.unpack(page.read_bytes())
        self.happened, self.counts = counted[8], dict(zip(KINDS, counted[10::2]))
        second = self.start(BEFORE + EVENTS, AFTER, {0})
        self.accepted = home.answered(ACCEPTED)
        self.expect(self.accepted[-AFTER:] == [*range(BEFORE + EVENTS, BEFORE + EVENTS + AFTER)] and "rest: 1" in second.output,
                    f"the next start: {second.output[-300:]}")
        self.look_at_logs()
        self.look_at_account()

    def start(self, first, events, fine, **environment):
        with self.home.start(*words_of(first, events), environment=self.home.environment(**environment)) as process:
            try:
                process.wait(60)
            except AssertionError:
                self.problems.append(f"the start with event {first} hangs")
        self.expect(process.status in fine, f"the start with event {first} ended with {process.status}: {process.output[-300:]}")
        return process

    def look_at_logs(self):
        for path in self.home.logs():
            frames, torn = frame_log.readable(path.read_bytes())
            self.expect(not torn, f"{path.name}: {torn}")
            ids = [frame.payload.get("sk.frame.log.counter") for frame in frames if frame.type == frame_log.COUNTER]
            self.expect(len(ids) <= 1, f"{path.name}: counters {ids}")

    def look_at_account(self):
        """What is missing has been named, and nothing else is wrong."""
        found, account = events_in(self.home), account_file.of(self.home)
        many = [event for event, count in found.items() if count > 2]
        self.expect(not many, f"more than twice: {many}")
        if account is None:
            return self.expect(False, "there is no account")
        self.problems += account.problems(self.home)
        events = account.events
        # A kill may fall between a call's end and the line that says so.
        more = events.accepted - events.cut_off - len(self.accepted)
        self.expect(0 <= more <= self.kills or self.was_unprotected,
                    f"{len(self.accepted)} calls answered 1, the account has {events}")
        missing = [event for event in self.accepted if not found[event]]
        self.expect(len(missing) <= sum(events.dropped.values()) + events.waiting + account.numbers["framesLost"],
                    f"missing, and not named by {account}: {missing}")


class Runner(Run):
    """Every run begins with a copy of an installation that knows its phone, and has a log left open and
    blocks that wait."""

    def __init__(self, runs, seed, only="", jobs=4):
        super().__init__(seed)
        self.runs, self.only, self.jobs, self.unreached = runs, only, jobs, 0
        self.template = self.enter_context(Home(bundle=HOST))
        give_identifiers(self.template)
        before = self.template.run(*words_of(0, BEFORE))
        # On disk before: there after every fault.
        assert [*range(BEFORE)] == self.template.answered(ACCEPTED) == sorted(events_in(self.template)), before.output

    def under(self, fault):
        with Home(bundle=HOST) as home:
            shutil.copytree(self.template.path, home.path, symlinks=True, dirs_exist_ok=True)
            home.log.unlink(missing_ok=True)
            return OneFault(home, fault)

    def all_faults(self):
        """What can go wrong in a start in which nothing does: its calls are counted."""
        calm = self.under(CALM)
        assert not calm.problems, f"without a fault: {calm.problems}"
        assert all(calm.counts[kind] for kind in ("write", "mmap", "epoll_wait", "pthread_create", "new_agent")), calm.counts
        faults = []
        for kind, whats in KINDS.items():
            for at in range(1, calm.counts[kind] + 1, STRIDE.get(kind, 1)):
                faults += [Fault(kind, at, what) for what in whats]
                faults += [Fault(kind, at, what, LONG) for what in whats if isinstance(what, int)][:2]
        return faults

    def run(self):
        self.faults = self.spread([fault for fault in self.all_faults() if str(fault).startswith(self.only)])
        self.expect(self.faults, "there is no such fault")
        with concurrent.futures.ThreadPoolExecutor(self.jobs) as pool:
            for run in pool.map(self.under, self.faults):
                self.unreached += run.happened == 0
                for problem in run.problems:
                    self.problems.append(f"{run.fault}: {problem}")
                    print(self.problems[-1], flush=True)

    def spread(self, faults):
        """So many of them as are wanted, of every kind about as many."""
        by_kind = collections.defaultdict(list)
        for fault in self.chance.sample(faults, len(faults)):
            by_kind[fault.kind].append(fault)
        in_turn = itertools.zip_longest(*by_kind.values())
        return [fault for turn in in_turn for fault in turn if fault][:self.runs or None]

    def report(self):
        return f"{len(self.faults)} faults, {self.unreached} of them not reached"


if __name__ == "__main__":
    sys.exit(play(__doc__, Runner, ("runs", 0), only="", jobs=max(2, os.cpu_count() or 2)))

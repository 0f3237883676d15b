"""Kills a host at random instants, over and over on one storage folder, and looks at the disk: what
was durable stays, what a call had accepted is found again, and the agent's account adds up.

    python3 Tests/EndToEnd/kill.py COUNT [--seed N]
"""

import argparse
import collections
import os
import random
import shutil
import subprocess
import sys
import time

import account_file
import frame_log
from support import FRAMES_TOOL, Home, bundle_of, eventually, give_identifiers

HOST = bundle_of("KillHost")
REFUSED, ACCEPTED = 1, 2


class Frames:
    """The events of every log that was ever seen, by number, each log once: a kill between a log's
    copy and its emptying makes the next start commit it again, with crash frames behind it."""

    def __init__(self):
        self.events = collections.Counter()
        self.logs = {}  # the bytes of a log, by its first frame
        self.repeats = 0
        self.problems = []

    @staticmethod
    def _numbers(frames):
        return collections.Counter(int(frame.event_parameters["n"]) for frame in frames if frame.type == frame_log.EVENT)

    def add(self, name, data):
        frames, torn = frame_log.readable(data)
        if torn:
            self.problems.append(f"{name}: {torn}")
        if not frames:
            return
        known = self.logs.get(frames[0].raw, b"")
        if known:
            self.repeats += 1
            if not data.startswith(known) or frame_log.flush_of(frames) != 4:
                self.problems.append(f"{name} repeats frames of a log that it does not go on from")
        self.logs[frames[0].raw] = data
        self.events += self._numbers(frame for frame in frames if frame.offset >= len(known))

    def with_open(self, frames):
        """The events, and those of the open log that no committed one has."""
        known = len(self.logs.get(frames[0].raw, b"")) if frames else 0
        return self.events + self._numbers(frame for frame in frames if frame.offset >= known)

    def has(self, frame, first):
        """Whether a frame is in the log that begins with that one."""
        data = self.logs.get(first.raw, b"")
        return data[frame.offset:frame.offset + frame.length] == frame.raw


class Killer:
    """Keeps what the disk held right after each kill. `problems` is empty when all went well."""

    def __init__(self, home, chance, most):
        self.home = home
        self.chance = chance
        self.archive = home.path / "archive"  # every committed log that was ever seen, by name
        self.archive.mkdir()
        self.told = home.path / "told"
        self.told.write_bytes(bytes(most))
        self.frames = Frames()
        self.seen = set()
        self.problems = self.frames.problems
        self.kills = self.checks = self.durable = self.torn = self.accepted = self.twice = 0
        self.replayed, self.named = 0, collections.Counter()
        self.due = set()  # tickets of records that kills left and that no start had taken up by then
        self.next = 0
        self.account = None
        self.previous = []  # the frames of the log that the last kill left open

    def start(self, events, threads, rate, end):
        first, self.next = self.next, self.next + events
        return self.home.start(str(first), str(events), str(threads), str(rate), end, self.told, bundle=HOST,
                               environment=self.home.environment(SKELDA_TEST_KEEP=self.archive))

    def once(self, events=None, threads=None, end=None):
        """A start, and a kill at or after its last call or somewhere before."""
        threads = threads or self.chance.choice([1, 4])
        end = end or self.chance.choice(["kill", "linger", "between"])
        events = events or self.chance.choice([1, 5, 20, 50, 200])
        rate = 0
        if end == "between":
            events, rate = 300, self.chance.choice([0, 100, 300])
        with self.start(events, threads, rate, "kill" if end == "kill" else "linger") as host:
            if end == "kill":
                host.wait(60)
            else:
                if end == "linger":
                    host.line_with("done")
                time.sleep(self.chance.uniform(0.0, 0.15))
                if host.child.poll() is not None:
                    self.problems.append(f"start {self.kills} ended by itself with {host.status}: {host.output}")
                host.kill()
        self.kills += 1
        self.look()
        # A kill may fall before the first call has returned.
        if self.home.has_intake_file() or any(self.told.read_bytes()):
            left = account_file.of(self.home)
            self.due |= {record.ticket for record in left.waiting if record.attempts == 0}
            self.problems += [f"kill {self.kills}: {problem}" for problem in left.problems(self.home, killed=True)]

    def quiet(self):
        """The account, once it has stood still for a moment and adds up; None before."""
        before, self.account = self.account, account_file.of(self.home)
        still = self.account == before and not self.home.committed_logs()
        return self.account if still and not self.account.problems(self.home) else None

    def look(self):
        """Takes up the logs that are new, and finds again what was durable in the open one before."""
        for path in self.home.committed_logs():
            if not (self.archive / path.name).exists():
                shutil.copyfile(path, self.archive / path.name)
        for path in sorted(self.archive.glob(".skelda*")):
            if path.name not in self.seen:
                self.seen.add(path.name)
                self.frames.add(path.name, path.read_bytes())
        frames, torn = [], None
        if self.home.current_log.exists():
            frames, torn = frame_log.readable(self.home.current_log.read_bytes())
        self.torn += torn is not None
        still = {frame.raw for frame in frames}
        lost = [frame for frame in self.previous
                if frame.raw not in still and not self.frames.has(frame, self.previous[0])]
        if lost:
            self.problems.append(f"kill {self.kills}: {len(lost)} of {len(self.previous)} durable frames are gone, "
                                 f"first at offset {lost[0].offset}")
        self.durable += len(self.previous)
        self.previous = frames

    def check(self):
        """A start that is killed once it has nothing left to do: all that calls had accepted is in frames then."""
        when = f"the start after kill {self.kills}"
        with self.start(1, 1, 0, "stored") as host:
            if host.line_with("stored: ", 120) != "stored: 1":
                self.problems.append(f"{when} did not store all: {host.output}")
            # Its logs become blocks, and what nobody takes of those is removed: then all adds up.
            if not eventually(self.quiet):
                self.problems.append(f"{when} comes to no rest in which all adds up: "
                                     f"{len(self.home.committed_logs())} logs wait, {self.account.problems(self.home)}")
            if host.child.poll() is not None:
                self.problems.append(f"{when} ended by itself with {host.status}: {host.output}")
            host.kill()
        self.look()
        self.checks += 1
        found = self.frames.with_open(self.previous)
        told = self.told.read_bytes()[:self.next]
        accepted = [number for number, answer in enumerate(told) if answer == ACCEPTED]
        self.accepted = len(accepted)
        missing = [number for number in accepted if found[number] == 0]
        events = self.account.events
        self.named, self.replayed = collections.Counter(events.dropped), events.replayed
        # A kill may fall between a record's taking up and the mark that says so.
        if not 0 <= self.replayed - len(self.due) <= self.kills:
            self.problems.append(f"{when}: {self.replayed} were taken up again, {len(self.due)} had been left")
        # Every session is whole from its first event on, and ends with its last: so nothing is dropped but
        # what three kills in a row have found being written.
        if max(len(missing), self.named.total()) > self.named["replayedTooOften"]:
            self.problems.append(f"{when}: {len(missing)} events are gone, first {missing[:1]}, {+self.named} are named")
        if unasked := [number for number in found if told[number] == REFUSED]:
            self.problems.append(f"{len(unasked)} refused events are there, first {unasked[0]}")
        self.twice = sum(count > 1 for count in found.values())
        if often := [number for number, count in found.items() if count > 2]:
            self.problems.append(f"{len(often)} events are there more than twice, first {often[0]}")
        return len(accepted) - len(missing)

    def finish(self):
        self.check()
        verify = subprocess.run([FRAMES_TOOL, "--verify", self.archive], capture_output=True, text=True, timeout=300)
        if verify.returncode != 0:
            self.problems.append(f"skelda-frames --verify: {verify.stdout[-2000:]}{verify.stderr[-2000:]}")
        if self.frames.repeats > self.kills:
            self.problems.append(f"{self.frames.repeats} repeated logs by {self.kills} kills")
        if self.twice > self.kills * 50:
            self.problems.append(f"{self.twice} events twice by {self.kills} kills")
        if self.home.leftovers():
            self.problems.append(f"left behind: {self.home.leftovers()}")
        if len(self.home.blocks()) > 51:
            self.problems.append(f"{len(self.home.blocks())} blocks")

    def __str__(self):
        return (f"{self.kills} kills, {self.checks} starts looked at, {self.accepted} events accepted, "
                f"{dict(+self.named)} of them dropped by name and the others found, {self.replayed} taken up again, {self.twice} there twice; "
                f"{self.torn} torn logs repaired, {self.durable} durable frames found again, {len(self.seen)} logs "
                f"committed, {self.frames.repeats} twice, {len(self.problems)} problems")


def kill_often(count, seed, on_disk=True, progress=lambda killer: None):
    with Home(on_disk=on_disk) as home:
        give_identifiers(home)
        killer = Killer(home, random.Random(seed), most=(count + 2) * 400 + 2000)
        for _ in range(count):
            killer.once()
            if killer.chance.random() < 0.5:
                killer.check()
            progress(killer)
        killer.finish()
        return killer


def survivors(threads):
    """Of 1,000 calls, at a kill behind the last of them, after the next start."""
    with Home() as home:
        give_identifiers(home)
        killer = Killer(home, random.Random(0), most=1002)
        killer.once(events=1000, threads=threads, end="kill")
        return killer.check() - 1, killer


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("count", type=int, nargs="?", default=200)
    parser.add_argument("--seed", type=int, default=int.from_bytes(os.urandom(4), "little"))
    options = parser.parse_args()
    print(f"seed {options.seed}", flush=True)
    for threads in (1, 4):
        kept, killer = survivors(threads)
        print(f"{kept} of 1,000 events by {threads} threads are there after a kill behind the last call", flush=True)
        if kept != 1000 or killer.problems:
            print("\n".join([*killer.problems, str(killer)]))
            return 1

    def progress(killer):
        if killer.kills % 20 == 0:
            print(killer, flush=True)

    killer = kill_often(options.count, options.seed, progress=progress)
    for problem in killer.problems:
        print(problem)
    print(killer)
    return 1 if killer.problems else 0


if __name__ == "__main__":
    sys.exit(main())

"""Kills a host at random instants, over and over on one storage folder, and looks at the disk: what
was durable stays, what a call had accepted is found again, and the agent's account adds up.

    python3 Tests/EndToEnd/kill.py COUNT [--seed N]
"""

import collections
import sys
import time

import account_file
import frame_log
from support import (ACCEPTED, FRAMES_TOOL, REFUSED, Home, Run, bundle_of, eventually, give_identifiers, numbers_of, play,
                     told)

HOST = bundle_of("IntakeHost")


class Kills(Run):
    """Keeps what the disk held right after each kill. `problems` is empty when all went well."""

    def __init__(self, count, seed, on_disk=True):
        super().__init__(seed)
        self.home, self.count = self.enter_context(Home(on_disk=on_disk)), count
        self.archive = self.home.path / "archive"  # the committed logs that are gone, by name
        self.archive.mkdir()
        self.seen, self.logs = set(), {}  # by name; and by the first frame's bytes the frames of each
        self.events = collections.Counter()  # of these logs, by number
        self.kills = self.checks = self.durable = self.torn = self.accepted = self.twice = self.next = self.replayed = 0
        self.repeats, self.named, self.account = 0, collections.Counter(), None
        self.due = set()  # tickets of records that kills left and that no start had taken up by then
        self.previous = []  # the frames of the log that the last kill left open

    def start(self, events, threads, rate, *then):
        first, self.next = self.next, self.next + events
        return self.home.start(f"numbered={first},{events},{threads},{rate}", *then, bundle=HOST,
                               environment=self.home.environment(SKELDA_TEST_KEEP=self.archive))

    def once(self):
        """A start, and a kill at or after its last call or somewhere before."""
        end = self.chance.choice(["kill", "linger", "between"])
        events, rate = self.chance.choice([1, 5, 20, 50, 200]), 0
        if end == "between":
            events, rate = 300, self.chance.choice([0, 100, 300])
        self.kill(events, self.chance.choice([1, 4]), rate, end)

    def kill(self, events, threads, rate, end):
        with self.start(events, threads, rate, "kill" if end == "kill" else "stay") as host:
            if end == "kill":
                host.wait(60)
            else:
                if end == "linger":
                    host.line_with("numbered=")
                time.sleep(self.chance.uniform(0.0, 0.15))
                self.expect_alive(host)
        self.kills += 1
        self.step = f"kill {self.kills}: "
        self.look()
        # A kill may fall before the first call has returned.
        if self.home.has_intake_file() or self.home.answered(ACCEPTED):
            left = account_file.of(self.home)
            self.due |= {record.ticket for record in left.waiting if record.attempts == 0}
            self.problems += [self.step + problem for problem in left.problems(self.home, killed=True)]

    def quiet(self):
        """Whether the account has stood still for a moment and adds up."""
        before, self.account = self.account, account_file.of(self.home)
        return self.account == before and not self.home.committed_logs() and not self.account.problems(self.home)

    def look(self):
        """Takes up the logs that are new, and finds again what was durable in the open one before."""
        for path in sorted([*self.archive.glob(".skelda*"), *self.home.committed_logs()], key=lambda path: path.name):
            if path.name not in self.seen:
                self.seen.add(path.name)
                self.take_up(path.name, path.read_bytes())
        open_log = self.home.current_log
        frames, torn = frame_log.readable(open_log.read_bytes() if open_log.exists() else b"")
        self.torn += torn is not None
        was = len(self.previous)
        self.expect(self.previous in (frames[:was], self.known(self.previous)[:was]),
                    f"not all of {was} durable frames are in the open log or in the one that was committed of it")
        self.durable += was
        self.previous = frames

    def take_up(self, name, data):
        """Each log once: a kill between a log's copy and its emptying makes the next start commit it
        again, with crash frames behind it."""
        frames, torn = frame_log.readable(data)
        known = self.known(frames)
        self.expect(not torn, f"{name}: {torn}")
        self.expect(not known or frames[:len(known)] == known and frame_log.flush_of(frames) == 4,
                    f"{name} repeats frames of a log that it does not go on from")
        self.repeats += known != []
        self.events += numbers_of(frames[len(known):])
        if frames:
            self.logs[frames[0].raw] = frames

    def known(self, frames):
        """What was committed of the log that begins as these do."""
        return self.logs.get(frames[0].raw, []) if frames else []

    def check(self):
        """A start that is killed once it has nothing left to do: all that calls had accepted is in frames then."""
        with self.start(1, 1, 0, "stored", "stay") as host:
            self.expect(host.line_with("stored: ", 120) == "stored: 1", f"the next start did not store all: {host.output}")
            # Its logs become blocks, and what nobody takes of those is removed: then all adds up.
            self.expect(eventually(self.quiet), "the next start comes to no rest in which all adds up: "
                        f"{len(self.home.committed_logs())} logs wait, {self.account.problems(self.home)}")
            self.expect_alive(host)
        self.look()
        self.checks += 1
        found = self.events + numbers_of(self.previous[len(self.known(self.previous)):])
        accepted = self.home.answered(ACCEPTED)
        missing = [number for number in accepted if found[number] == 0]
        events = self.account.events
        self.accepted, self.named, self.replayed = len(accepted), collections.Counter(events.dropped), events.replayed
        # A kill may fall between a record's taking up and the mark that says so.
        self.expect(0 <= self.replayed - len(self.due) <= self.kills,
                    f"{self.replayed} were taken up again, {len(self.due)} had been left")
        # Every session is whole from its first event on, and ends with its last: so nothing is dropped but
        # what three kills in a row have found being written.
        self.expect(max(len(missing), self.named.total()) <= self.named["replayedTooOften"],
                    f"{len(missing)} events are gone, first {missing[:1]}, {+self.named} are named")
        unasked = [number for number in self.home.answered(REFUSED) if found[number]]
        self.expect(not unasked, f"{len(unasked)} refused events are there, first {unasked[:1]}")
        self.twice = sum(count > 1 for count in found.values())
        often = [number for number, count in found.items() if count > 2]
        self.expect(not often, f"{len(often)} events are there more than twice, first {often[:1]}")

    def run(self):
        give_identifiers(self.home)
        for threads in (1, 4):
            self.kill(1000, threads, 0, "kill")  # behind the last call
            self.expect(self.home.answered(ACCEPTED)[-1000:] == [*range(self.next - 1000, self.next)],
                        f"not all of 1,000 calls by {threads} threads answered 1")
            self.check()
            self.expect(not self.named.total(), f"one kill, and {+self.named} are dropped")
        for number in range(self.count):
            self.once()
            if self.chance.random() < 0.5:
                self.check()
            if number % 20 == 19:
                print(self.report(), flush=True)
        self.check()
        verify = told(FRAMES_TOOL, "--verify", self.archive, *self.home.committed_logs(), within=300)
        self.expect(verify.returncode == 0, f"skelda-frames --verify: {verify.stdout[-2000:]}{verify.stderr[-2000:]}")
        self.expect(self.repeats <= self.kills, f"{self.repeats} logs are repeated")
        self.expect(self.twice <= self.kills * 50, f"{self.twice} events are there twice")
        self.expect(not self.home.leftovers(), f"left behind: {self.home.leftovers()}")
        self.expect(len(self.home.blocks()) <= 51, f"{len(self.home.blocks())} blocks")

    def report(self):
        return (f"{self.kills} kills, {self.checks} starts looked at, {self.accepted} events accepted, "
                f"{dict(+self.named)} of them dropped by name and the others found, {self.replayed} taken up again, {self.twice} there twice; "
                f"{self.torn} torn logs repaired, {self.durable} durable frames found again, {len(self.seen)} logs "
                f"committed, {self.repeats} twice, {len(self.problems)} problems")


if __name__ == "__main__":
    sys.exit(play(__doc__, Kills, ("count", 200)))

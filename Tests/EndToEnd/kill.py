"""Kills a host at random instants, over and over on one storage folder, and looks at the disk.

    python3 Tests/EndToEnd/kill.py COUNT [--seed N]
"""

import argparse
import os
import random
import shutil
import subprocess
import sys
import time

import account
import frame_log
from support import FRAMES_TOOL, NOWHERE, Home, give_identifiers



class Killer:
    """Keeps what the disk held right after each kill. `problems` is empty when all went well."""

    def __init__(self, home, chance):
        self.home = home
        self.chance = chance
        self.archive = home.path / "archive"  # every committed log that was ever seen, by name
        self.archive.mkdir()
        self.problems = []
        self.kills = self.durable = self.torn = self.committed = self.repeats = 0
        self.previous = []  # the frames of the log that the last kill left open

    def once(self):
        rate = self.chance.choice([100, 300, 1000])
        with self.home.start("--rate", str(rate), "--events", "1000000", "--threads", "2", "--server", NOWHERE,
                             keep_sent=self.archive) as host:
            time.sleep(self.chance.uniform(0.0, 0.15) if self.chance.random() < 0.4 else self.chance.uniform(0.1, 0.8))
            if host.child.poll() is not None:
                self.problems.append(f"start {self.kills} ended by itself with {host.status}: {host.output}")
            host.kill()
        self.kills += 1
        self.look()

    def look(self):
        for path in self.home.committed_logs():
            if not (self.archive / path.name).exists():
                shutil.copyfile(path, self.archive / path.name)
        frames, torn = [], None
        if self.home.current_log.exists():
            frames, torn = frame_log.readable(self.home.current_log.read_bytes())
        self.torn += torn is not None
        kept = {frame.raw for frame in frames}
        for path in self.logs():
            kept.update(frame.raw for frame in self.frames_of(path))
        lost = [frame for frame in self.previous if frame.raw not in kept]
        if lost:
            self.problems.append(f"kill {self.kills}: {len(lost)} of {len(self.previous)} durable frames are gone, "
                                 f"first at offset {lost[0].offset}")
        self.durable += len(self.previous)
        self.committed = len(self.logs())
        self.previous = frames

    def logs(self):
        # Copies that a kill cut short are not there yet: their originals still are.
        return sorted(path for path in self.archive.iterdir() if path.suffix != ".part")

    def frames_of(self, path):
        frames, torn = frame_log.readable(path.read_bytes())
        if torn:
            self.problems.append(f"{path.name}: {torn}")
        return frames

    def finish(self):
        """One start that is left alone, and the checks that are for the end."""
        left = frame_log.readable(self.home.current_log.read_bytes())[0] if self.home.current_log.exists() else []
        last = self.home.run("--events", "10", "--speed", "0", "--server", NOWHERE, "--linger", "20",
                             keep_sent=self.archive)
        if last.status != 0 or last.number("accepted") == 0:
            self.problems.append(f"the last start: {last.output}")
        self.look()
        committed = {frame.raw for path in self.logs() for frame in self.frames_of(path)}
        if [frame for frame in left if frame.raw not in committed]:
            self.problems.append("the last start did not commit all that the last kill had left")
        for part in self.archive.glob("*.part"):
            part.unlink()
        verify = subprocess.run([FRAMES_TOOL, "--verify", self.archive], capture_output=True, text=True, timeout=300)
        if verify.returncode != 0:
            self.problems.append(f"skelda-frames --verify: {verify.stdout[-2000:]}{verify.stderr[-2000:]}")
        self.check_repeats()
        self.check_leftovers()
        self.committed = len(self.logs())

    def check_repeats(self):
        """An event stands twice only where a log was committed again with crash frames behind it."""
        first = {}
        repeated = set()
        for path in self.logs():
            data = path.read_bytes()
            for frame in frame_log.readable(data)[0]:
                if frame.type != frame_log.EVENT:
                    continue
                other = first.setdefault(frame.raw, path)
                if other != path and (other, path) not in repeated:
                    repeated.add((other, path))
                    if not data.startswith(other.read_bytes()) or account.flush_of(frame_log.frames_of(data)) != 4:
                        self.problems.append(f"{path.name} repeats frames of {other.name}")
        self.repeats = len(repeated)
        if self.repeats > self.kills:
            self.problems.append(f"{self.repeats} repeated logs by {self.kills} kills")

    def check_leftovers(self):
        if self.home.leftovers():
            self.problems.append(f"left behind: {self.home.leftovers()}")
        if len(self.home.blocks()) > 51:
            self.problems.append(f"{len(self.home.blocks())} blocks")

    def __str__(self):
        return (f"{self.kills} kills, {self.torn} torn logs repaired, {self.durable} durable frames found again, "
                f"{self.committed} logs committed, {self.repeats} committed twice, {len(self.problems)} problems")


def kill_often(count, seed, on_disk=True, progress=lambda killer: None):
    with Home(on_disk=on_disk) as home:
        give_identifiers(home)
        killer = Killer(home, random.Random(seed))
        for _ in range(count):
            killer.once()
            progress(killer)
        killer.finish()
        return killer


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("count", type=int, nargs="?", default=200)
    parser.add_argument("--seed", type=int, default=int.from_bytes(os.urandom(4), "little"))
    options = parser.parse_args()
    print(f"seed {options.seed}", flush=True)

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

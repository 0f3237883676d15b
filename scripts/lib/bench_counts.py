"""What one event costs, counted: figures that a busy machine does not change.

Each is the difference of two runs of the whole agent, of 400 events less 100, so that neither its
start nor the harness counts. Ten events a session, nobody listens at the server's address. The first
thread is the harness's and is left out.
"""

import collections
import json
import re
import shutil

LONG, SHORT = 400, 100

# What a block of a queue is run by.
BLOCK = re.compile(r"skelda::platform::\(anonymous namespace\)::run\(skelda::platform::Work\*\)")


def difference(count):
    return (count(LONG) - count(SHORT)) / (LONG - SHORT)


class Counts:
    """Of one build's agent."""

    def __init__(self, agent, scratch, counter):
        self.agent = agent
        self.scratch = scratch
        self.counter = counter

    def rows(self):
        """Pairs of a name and a number per event; None where the tool is not installed."""
        instructions = blocks = calls = None
        if shutil.which("valgrind"):
            instructions, blocks = self.callgrind()
        if shutil.which("strace"):
            calls = difference(self.system_calls)
        return {
            "instructions": instructions,
            "allocations": difference(self.allocations) if self.counter.exists() else None,
            "system calls": calls,
            "blocks run": blocks,
            "voluntary switches": difference(self.switches) if self.tells("voluntary_switches") else None,
        }

    def tells(self, key):
        return key in json.loads(self.run(1))

    def run(self, events, before=(), environment=None):
        return self.agent.output("pipeline", "--events", events, before=before, environment=environment or {})

    def callgrind(self):
        totals = {}
        for events in (LONG, SHORT):
            for old in self.scratch.glob("callgrind*"):
                old.unlink()
            self.run(events, ("valgrind", "--tool=callgrind", "--separate-threads=yes",
                              f"--callgrind-out-file={self.scratch}/callgrind"))
            found = collections.Counter()
            for path in self.scratch.glob("callgrind-*"):
                if not path.name.endswith("-01"):
                    found.update(read_callgrind(path))
            totals[events] = found
        return tuple((totals[LONG][what] - totals[SHORT][what]) / (LONG - SHORT) for what in ("instructions", "blocks"))

    def allocations(self, events):
        told = self.scratch / "allocations"
        self.run(events, environment={"LD_PRELOAD": self.counter, "SKELDA_ALLOCATIONS": told})
        return int(told.read_text())

    def system_calls(self, events):
        trace = self.scratch / "strace"
        self.run(events, ("strace", "-f", "-qq", "-o", trace))
        with open(trace, errors="replace") as lines:
            calls = [line for line in lines if re.match(r"\d+ +\w+\(", line)]
        first = calls[0].split()[0]
        return sum(not line.startswith(first + " ") for line in calls)

    def switches(self, events):
        """On a real disk: who waits for it gives the processor up."""
        return self.agent.run("pipeline", "--events", events)["voluntary_switches"]


def read_callgrind(path):
    """Of one thread: how many instructions it took, and how many blocks of queues it ran."""
    found = collections.Counter()
    names = {}
    counts = False
    with open(path, errors="replace") as lines:
        for line in lines:
            if line.startswith("cfn="):
                number, _, name = line[4:].strip().partition(" ")
                name = names.setdefault(number, name)
                counts = bool(BLOCK.search(name))
            elif line.startswith("fn="):
                number, _, name = line[3:].strip().partition(" ")
                names.setdefault(number, name)
            elif line.startswith("calls=") and counts:
                found["blocks"] += int(line[6:].split()[0])
                counts = False
            elif line.startswith(("summary:", "totals:")) and not found["instructions"]:
                found["instructions"] = int(line.split()[1])
    return found

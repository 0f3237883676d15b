"""Runs every benchmark and prints one table: figure, limit measured in the same run, ratio, budget,
met or not.

    python3 scripts/lib/bench.py [--quick] [--compare BUILD]

--quick measures once what is else measured often. --compare measures the agent of another build
folder and this one's in turn, round by round, and prints both.

A count (instructions, allocations, calls) is a count. A time is the median of its rounds, with the
least and the greatest; where other programs took more than an eighth of the machine meanwhile it is
not held against its budget, and the table says so.
"""

import argparse
import collections
import contextlib
import json
import os
import pathlib
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "Tests" / "EndToEnd"))
sys.dont_write_bytecode = True

import frame_log  # noqa: E402
from bench_counts import LONG, Counts  # noqa: E402
from support import BUILD, Home, give_identifiers, scratch_root  # noqa: E402

EVENTS = 2000
COUNTER = BUILD / "benchmarks/libAllocationCounter.so"
COUNT_BUDGETS = {"instructions": 110_000, "allocations": 60, "system calls": 28, "blocks run": 12,
                 "voluntary switches": 14}


class Busy:
    """How much of the machine others took while something was measured."""

    MOST = 0.125

    def __init__(self):
        self.before = self.reading()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        pass

    @staticmethod
    def reading():
        ticks = [int(field) for field in pathlib.Path("/proc/stat").read_text().splitlines()[0].split()[1:]]
        own = os.times()
        return sum(ticks[:8]), ticks[3] + ticks[4], sum(own[:4]) * os.sysconf("SC_CLK_TCK")

    @property
    def share(self):
        total, idle, own = (now - then for now, then in zip(self.reading(), self.before))
        return max(0.0, 1 - (idle + own) / max(total, 1))

    def is_true(self):
        return self.share > self.MOST


def spread(values, text):
    """The median, and what it lies between."""
    if len(values) == 1:
        return text(values[0])
    return f"{text(statistics.median(values))} ({text(min(values))} to {text(max(values))})"


class Table:
    def __init__(self):
        self.rows = []
        self.busy = Busy()  # since what is timed just now began

    def measuring(self):
        """Around what is timed."""
        self.busy = Busy()
        return self.busy

    def add(self, figure, value, limit="", ratio="", budget="", met=None, timed=False):
        verdict = "" if met is None else "met" if met else "NOT MET"
        if verdict == "NOT MET" and timed and self.busy.is_true():
            verdict = f"busy: {self.busy.share:.0%} by others"
        self.rows.append((figure, value, limit, ratio, budget, verdict))
        print(f"  {figure}: {value}", file=sys.stderr)

    def __str__(self):
        head = ("figure", "measured", "limit in the same run", "ratio", "budget", "")
        widths = [max(len(row[column]) for row in [head, *self.rows]) for column in range(len(head))]
        lines = ["  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip() for row in [head, *self.rows]]
        lines.insert(1, "  ".join("-" * width for width in widths).rstrip())
        return "\n".join(lines)


def micro(nanoseconds):
    return f"{nanoseconds / 1000:.2f} us" if nanoseconds >= 1000 else f"{nanoseconds:.0f} ns"


class Agent:
    """Starts AgentBenchmark for one measurement, in an installation whose sessions complete."""

    def __init__(self, scratch, build=BUILD, identified=None):
        self.scratch = scratch
        self.bundle = build / "Benchmarks/AgentBenchmark/AgentBenchmark.app/PlugIns/AgentBenchmark.appex"
        self.identified = identified or Home(path=scratch / "identified")
        if identified is None:
            give_identifiers(self.identified)

    @contextlib.contextmanager
    def home(self, scratch=None, fresh=False):
        home = Home(path=tempfile.mkdtemp(dir=scratch or self.scratch), bundle=self.bundle)
        if not fresh:
            shutil.copytree(self.identified.path / "state", home.path / "state", dirs_exist_ok=True)
        try:
            yield home
        finally:
            home.close()

    def run(self, *arguments, home=None):
        with contextlib.ExitStack() as stack:
            home = home or stack.enter_context(self.home())
            done = subprocess.run([self.bundle / "AgentBenchmark", *map(str, arguments)], capture_output=True, text=True,
                                  timeout=600, env=home.environment(SKELDA_LOG="off"))
            if done.returncode != 0:
                return done.returncode
            return json.loads(done.stdout)

    def output(self, *arguments, before=(), environment=None):
        """What a run under another program says: nothing of it is timed."""
        with self.home() as home:
            command = [*map(str, before), self.bundle / "AgentBenchmark", *map(str, arguments)]
            return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, check=True,
                                  timeout=900, env=home.environment(SKELDA_LOG="off", **(environment or {}))).stdout


# Rounds of the small benchmarks, each one's among the others'.
MICRO = ("--benchmark_repetitions=5", "--benchmark_min_time=0.1", "--benchmark_enable_random_interleaving=true")


def google(name, *arguments):
    """The runs of each benchmark of a program, by name; empty when the program is not there."""
    program = BUILD / "benchmarks" / name
    if not program.exists():
        return {}
    done = subprocess.run([program, "--benchmark_format=json", *arguments], capture_output=True, text=True, timeout=1800)
    if done.returncode != 0:
        print(done.stderr, file=sys.stderr)
        return {}
    runs = collections.defaultdict(list)
    for entry in json.loads(done.stdout)["benchmarks"]:
        if entry["run_type"] == "iteration":
            runs[entry["run_name"]].append(entry)
    return runs


def runs_of(runs, name):
    """Of the first benchmark whose name begins so."""
    return next((entries for key, entries in runs.items() if key.startswith(name)), [])


def caller(table, agent, rounds):
    for threads in (1, 4, 8):
        with table.measuring():
            runs = [agent.run("call", "--threads", threads, "--events", 20000 // threads) for _ in range(rounds)]
        for quantile, budget in (("p50", 400), ("p99", 10_000)):
            ours = [run["agent"][f"{quantile}_ns"] for run in runs]
            plain = [run["limit"][f"{quantile}_ns"] for run in runs]
            counts = threads in (1, 4)
            table.add(f"event on the caller's thread, {threads} thread{'s' * (threads > 1)}, {quantile}", spread(ours, micro),
                      f"{micro(statistics.median(plain))} (queue under a mutex)",
                      f"{statistics.median(ours) / max(statistics.median(plain), 1):.2f}",
                      f"at most {micro(budget)}" if counts else "", statistics.median(ours) <= budget if counts else None,
                      timed=True)
        refused = max(run["refused"] for run in runs)
        if refused or threads == 4:
            table.add(f"20,000 events by {threads} threads at once", f"{20000 - refused:,} accepted", budget="20,000",
                      met=refused == 0)


def flood(table, agent):
    run = agent.run("flood", "--events", 2_000_000)
    table.add("2,000,000 calls in a loop", f"{run['memory_kib'] / 1024:.1f} MiB added", budget="at most 24 MiB",
              met=run["memory_kib"] <= 24 * 1024)
    table.add("calls of it answered 1, and events accepted", f"{run['answered_1']:,} and {run['accepted']:,}",
              budget="the same", met=run["answered_1"] == run["accepted"])


def first_call(table, agent, rounds):
    with table.measuring():
        took = [first_call_of(agent) for _ in range(rounds + 2)]
    table.add("first call of a fresh installation", spread(took, "{:.2f} ms".format), budget="at most 2 ms",
              met=statistics.median(took) <= 2, timed=True)


def first_call_of(agent):
    with agent.home(fresh=True) as home:
        return agent.run("first", home=home)["ms"]


def counts(table, agent, scratch):
    for what, number in Counts(agent, scratch, COUNTER).rows().items():
        if number is None:
            table.add(f"{what} an event", "not counted: its tool is not there")
            continue
        limit = ratio = ""
        if what == "voluntary switches":
            bare = bare_switches(agent)
            limit, ratio = f"{shown(bare)} (bare loop that stores blocks too)", f"{number / bare:.2f}"
        table.add(f"{what} an event", shown(number), limit, ratio, f"at most {COUNT_BUDGETS[what]:,}",
                  number <= COUNT_BUDGETS[what])


def bare_switches(agent):
    """What waiting for the disk alone takes, by one thread that does nothing else."""
    with agent.home() as home:
        kept = home.path / "kept"
        agent.run("pipeline", "--events", LONG, "--keep-closed", kept, home=home)
        return agent.run("bare", "--with-transfer", "--logs", kept, "--scratch", home.path / "bare",
                         home=home)["voluntary_switches"] / LONG


def shown(number):
    return f"{number:,.0f}" if number >= 1000 else f"{number:.1f}"


def cpu_of(agent):
    """Microseconds of user time an event, all of its work done. In memory, so that no disk is waited
    for; long, since the system splits a process's time by some hundred ticks a second."""
    with agent.home(scratch_root()) as home:
        return agent.run("pipeline", "--events", 10 * EVENTS, home=home)["user_us_per_event"]


def cpu(table, agent, rounds):
    with table.measuring():
        used = [cpu_of(agent) for _ in range(rounds)]
    table.add("user CPU per event, ten events a session", spread(used, "{:.1f} us".format), budget="at most 14 us",
              met=statistics.median(used) <= 14, timed=True)


def durable(table, agent, rounds):
    ratios, rates, limits, whole = [], [], [], []
    for _ in range(rounds):
        with agent.home() as home:
            kept = home.path / "kept"
            agent.run("pipeline", "--events", EVENTS, "--keep-closed", kept, home=home)
            frames = sum(len(frame_log.frames_in(path)) for path in kept.iterdir())
            bare = agent.run("bare", "--logs", kept, "--scratch", home.path / "bare", home=home)
            stored = agent.run("bare", "--with-transfer", "--logs", kept, "--scratch", home.path / "bare", home=home)
        measured = agent.run("pipeline", "--events", EVENTS)
        rates.append(frames / measured["seconds"])
        limits.append(bare["frames"] / bare["seconds"])
        whole.append(stored["frames"] / stored["seconds"])
        ratios.append(rates[-1] / limits[-1])
    ratio = statistics.median(ratios)
    table.add("frames made durable, whole pipeline", f"{statistics.median(rates):,.0f} /s",
              f"{statistics.median(limits):,.0f} /s (bare loop)", f"{ratio:.2f}")
    ratio = statistics.median(rate / limit for rate, limit in zip(rates, whole))
    table.add("the same, its blocks and index counted", f"{statistics.median(rates):,.0f} /s",
              f"{statistics.median(whole):,.0f} /s (bare loop that stores blocks too)", f"{ratio:.2f}", "at least 0.95",
              ratio >= 0.95, timed=True)


def backlog(table, agent, rounds):
    for count in (10, 100, 1000):
        runs = [after_kill(agent, count) for _ in range(rounds)]
        behind = statistics.median(agent.run("burst", "--events", count)["ms_behind"] for _ in range(rounds))
        waiting = statistics.median(count - durable for durable, _ in runs)
        kept = min(survivors for _, survivors in runs)
        table.add(f"a kill right after a burst of {count:,}, and a start", f"{kept:,} of {count:,} survive",
                  budget=f"{count:,}", met=kept == count)
        table.add(f"in no frame yet right after a burst of {count:,}",
                  f"{waiting:.0f} events waiting, {max(0, behind):.0f} ms behind")
    lost = max(1000 - after_kill(agent, 1000, "--settled")[0] for _ in range(rounds))
    table.add("a kill after 1,000 calls, once caught up", f"{lost} not in frames", budget="0", met=lost == 0)


def after_kill(agent, count, *arguments):
    """How many of a burst's events are in frames when the process has killed itself behind the last
    call, and how many once it has been started again and left in peace."""
    with agent.home() as home:
        kept = home.path / "closed"
        if agent.run("kill", "--events", count, "--keep-closed", kept, *arguments, home=home) != -9:
            raise SystemExit("the benchmark did not kill itself")
        durable = events_in(home, kept)
        agent.run("pipeline", "--events", 0, "--keep-closed", kept, home=home)
        return durable, events_in(home, kept)


def events_in(home, kept):
    """Numbers from 1 on: what the measurement itself begins with is numbered 0."""
    logs = [path.read_bytes() for path in [*home.committed_logs(), *kept.glob("*[0-9]"), home.current_log]]
    return len({lap for log in logs for frame in frame_log.readable(log)[0] if frame.type == frame_log.EVENT
                if (lap := frame.event_parameters["lap"]) != "0"})


def resources(table, agent):
    used = agent.run("resources", "--events", 1000)
    for what, key, most in (("anonymous and heap memory added", "anonymous_kib", 0.9),
                            ("resident memory added, in all", "memory_kib", 3)):
        table.add(what, f"{used[key] / 1024:.2f} MiB", budget=f"at most {most} MiB", met=used[key] <= most * 1024)
    for what, key, most in (("threads when just settled", "threads_settled", 4), ("threads when idle", "threads", 1)):
        table.add(what, str(used[key]), budget=f"at most {most}", met=used[key] <= most)
    table.add(f"wake-ups in {used['seconds']} idle seconds", str(used["wake_ups"]), budget="0", met=used["wake_ups"] == 0)


def library(table, scratch):
    stripped = scratch / "stripped.so"
    subprocess.run(["strip", "-o", stripped, (BUILD / "Library/libSkelda_Watch.so").resolve()], check=True)
    size = stripped.stat().st_size / 1024
    table.add("stripped shared library", f"{size:.0f} KiB", budget="at most 720 KiB", met=size <= 720)


def dispatch(table):
    runs = google("DispatchBenchmark", *MICRO, "--benchmark_filter=^(sync|hop)/")
    for figure, ours, limit, what, budget in (
            ("uncontended syncBlock", "sync/actor_sync_block", "sync/mutex_lock", "mutex lock", 100),
            ("asyncBlock hop under load", "hop/actor_async_block", "hop/condition_variable", "hand-over by condition", 250)):
        mine, plain = ([per_item(entry) for entry in runs_of(runs, name)] for name in (ours, limit))
        if mine and plain:
            ours_ns, plain_ns = statistics.median(mine), statistics.median(plain)
            table.add(figure, spread(mine, micro), f"{micro(plain_ns)} ({what})", f"{ours_ns / plain_ns:.2f}",
                      f"at most {budget} ns", ours_ns <= budget, timed=True)


def per_item(entry):
    """Nanoseconds of real time per operation, whatever the benchmark calls one iteration."""
    if "items_per_second" in entry:
        return 1e9 / entry["items_per_second"]
    scale = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[entry["time_unit"]]
    return entry["real_time"] * scale


def frames(table):
    runs = google("FrameBenchmark", *MICRO, "--benchmark_filter=Frame[A-Z][a-z]+/(1024|65536)(/1000)?$")

    def speeds(name):
        return [entry["bytes_per_second"] / 1e9 for entry in runs_of(runs, name)]

    for operation, least in (("Encode", 0.3), ("Decode", 0.3), ("Iterate", 0.45)):
        for size, label in ((1 << 10, "1 KiB"), (64 << 10, "64 KiB")):
            ours, copy = speeds(f"BM_Frame{operation}/{size}"), speeds(f"BM_FrameCopy/{size}")
            if ours and copy:
                ratio = statistics.median(ours) / statistics.median(copy)
                table.add(f"frame {operation.lower()}, {label}", spread(ours, "{:.2f} GB/s".format),
                          f"{statistics.median(copy):.2f} GB/s (memcpy)", f"{ratio:.2f}", f"at least {least:.2f}",
                          ratio >= least, timed=True)


def uploads(table):
    runs = google("UploadBenchmark")

    def entry(name):
        return next(iter(runs_of(runs, name)), None)

    for size in ("1 KB", "10 KB", "100 KB"):
        row = entry(f"BacklogOf50AgainstABareLoop/{size.split()[0]}000/")
        if row:
            table.add(f"upload of 50 blocks of {size} over TLS, store empty", f"{row['agent_ms']:.1f} ms",
                      f"{row['bare_ms']:.1f} ms (one kept connection)", f"{row['of_bare']:.2f}", "at least 0.50",
                      row["of_bare"] >= 0.5, timed=True)
    if row := entry("CommitToAnswer"):
        for quantile in ("p50", "p99"):
            ours, parts = row[f"{quantile}_ms"], row[f"parts_{quantile}_ms"]
            table.add(f"from the commit of a log to the answer, {quantile}", f"{ours:.2f} ms",
                      f"{parts:.2f} ms (copy, block, index, request)", f"{ours / parts:.2f}")
    if row := entry("MemoryOf50WaitingMebibytes"):
        table.add("memory added by 50 waiting blocks of 1 MiB", f"{row['added_MiB']:.1f} MiB")
    few, many = (entry(f"StartWithCommittedLogs/{count}/") for count in (1000, 10000))
    for count, row in ((1000, few), (10000, many)):
        if row:
            ratio = row["agent_ms"] / row["bare_ms"]
            table.add(f"{count:,} committed logs, until none is left", f"{row['agent_ms']:.0f} ms",
                      f"{row['bare_ms']:.0f} ms (list, read, remove)", f"{ratio:.2f}", "at most 3", ratio <= 3, timed=True)
    if few and many:
        growth = many["agent_ms"] / few["agent_ms"] / 10
        table.add("one of 10,000 logs against one of 1,000", f"{growth:.2f} of the time", budget="at most 1.5",
                  met=growth <= 1.5, timed=True)


def json_writer(table):
    runs = google("JSONBenchmark", *MICRO, "--benchmark_filter=Event")
    ours, document = ([per_item(entry) for entry in runs_of(runs, name)]
                      for name in ("BM_StreamedEvent", "BM_EventThroughDocument"))
    if ours and document:
        plain = statistics.median(document)
        table.add("an event's JSON", spread(ours, micro), f"{micro(plain)} (document model)",
                  f"{statistics.median(ours) / plain:.2f}")


def compare(other, scratch, rounds):
    """The figures of two builds, each round first of one and then of the other."""
    ours = Agent(scratch)
    agents = {"other": Agent(scratch, other, ours.identified), "this": ours}
    timed = {"first call, ms": first_call_of, "user CPU per event, us": cpu_of}
    for threads in (1, 4):
        for quantile in ("p50", "p99"):
            timed[f"call, {threads} thread{'s' * (threads > 1)}, {quantile}, ns"] = (
                lambda agent, threads=threads, quantile=quantile: agent.run(
                    "call", "--threads", threads, "--events", 20000 // threads)["agent"][f"{quantile}_ns"])
    rows = []
    with Busy() as busy:
        for figure, measure in timed.items():
            values = {name: [] for name in agents}
            for _ in range(rounds):
                for name, agent in agents.items():
                    values[name].append(measure(agent))
            rows.append((figure, *(spread(values[name], shown) for name in agents),
                         f"{statistics.median(values['this']) / statistics.median(values['other']):.2f}"))
    counted = {name: Counts(agent, scratch, COUNTER).rows() for name, agent in agents.items()}
    for what in COUNT_BUDGETS:
        pair = [counted[name][what] for name in agents]
        rows.append((f"{what} an event", *(shown(value) if value else "-" for value in pair),
                     f"{pair[1] / pair[0]:.2f}" if all(pair) else "-"))
    head = ("figure", "the other", "this", "ratio")
    widths = [max(len(row[column]) for row in [head, *rows]) for column in range(len(head))]
    for row in [head, *rows]:
        print("  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip())
    if busy.is_true():
        print(f"Others took {busy.share:.0%} of the machine: of the times only the ratios mean something.")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--compare", type=pathlib.Path, metavar="BUILD")
    arguments = parser.parse_args()
    rounds = 1 if arguments.quick else 5
    table = Table()
    began = time.monotonic()
    whole = Busy()
    # On a real disk: a file system in memory synchronises for nothing.
    with tempfile.TemporaryDirectory(dir=BUILD, prefix="bench-") as folder:
        scratch = pathlib.Path(folder)
        print(f"measuring, {os.cpu_count()} processors", file=sys.stderr)
        if arguments.compare:
            return compare(arguments.compare.resolve(), scratch, rounds)
        agent = Agent(scratch)
        caller(table, agent, rounds)
        first_call(table, agent, rounds)
        counts(table, agent, scratch)
        cpu(table, agent, rounds)
        with table.measuring():
            durable(table, agent, rounds)
        backlog(table, agent, rounds)
        flood(table, agent)
        resources(table, agent)
        library(table, scratch)
    with table.measuring():
        dispatch(table)
    with table.measuring():
        frames(table)
    json_writer(table)
    with table.measuring():
        uploads(table)
    print(table)
    print(f"Measured in {(time.monotonic() - began) / 60:.0f} minutes; others took {whole.share:.0%} of the machine.")


if __name__ == "__main__":
    main()

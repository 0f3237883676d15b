"""Runs every benchmark and prints one table: figure, limit measured in the same run, ratio, budget,
met or not.

    python3 scripts/lib/bench.py [--quick]      --quick measures once what is else measured often
"""

import argparse
import contextlib
import json
import os
import pathlib
import shutil
import statistics
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "Tests" / "EndToEnd"))
sys.dont_write_bytecode = True

import frame_log  # noqa: E402
from support import BUILD, Home, give_identifiers  # noqa: E402

AGENT = BUILD / "Benchmarks/AgentBenchmark/AgentBenchmark.app/PlugIns/AgentBenchmark.appex"
EVENTS = 2000


class Table:
    def __init__(self):
        self.rows = []

    def add(self, figure, value, limit="", ratio="", budget="", met=None):
        self.rows.append((figure, value, limit, ratio, budget, "" if met is None else "met" if met else "NOT MET"))
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

    def __init__(self, scratch):
        self.scratch = scratch
        self.identified = Home(path=scratch / "identified")
        give_identifiers(self.identified)

    @contextlib.contextmanager
    def home(self):
        home = Home(path=tempfile.mkdtemp(dir=self.scratch), bundle=AGENT)
        shutil.copytree(self.identified.path / "state", home.path / "state", dirs_exist_ok=True)
        try:
            yield home
        finally:
            home.close()

    def run(self, *arguments, home=None):
        with contextlib.ExitStack() as stack:
            home = home or stack.enter_context(self.home())
            done = subprocess.run([AGENT / "AgentBenchmark", *map(str, arguments)], capture_output=True, text=True,
                                  timeout=600, env=home.environment(SKELDA_LOG="off"))
            if done.returncode != 0:
                return done.returncode
            return json.loads(done.stdout)


def google(name, *arguments):
    """The median of each benchmark of a program, by name; empty when the program is not there."""
    program = BUILD / "benchmarks" / name
    if not program.exists():
        return {}
    done = subprocess.run([program, "--benchmark_format=json", *arguments], capture_output=True, text=True, timeout=1800)
    if done.returncode != 0:
        print(done.stderr, file=sys.stderr)
        return {}
    return {entry["run_name"]: entry for entry in json.loads(done.stdout)["benchmarks"]
            if entry.get("aggregate_name", "median") == "median"}


def caller(table, agent, rounds):
    for threads in (1, 4, 8):
        runs = [agent.run("call", "--threads", threads, "--events", 20000 // threads) for _ in range(rounds)]
        for quantile, budget in (("p50", 400), ("p99", 10_000)):
            ours = statistics.median(run["agent"][f"{quantile}_ns"] for run in runs)
            plain = statistics.median(run["limit"][f"{quantile}_ns"] for run in runs)
            counts = threads in (1, 4)
            table.add(f"event on the caller's thread, {threads} thread{'s' * (threads > 1)}, {quantile}", micro(ours),
                      f"{micro(plain)} (queue under a mutex)", f"{ours / max(plain, 1):.2f}",
                      f"at most {micro(budget)}" if counts else "", ours <= budget if counts else None)
        if any(run["refused"] for run in runs):
            table.add(f"events refused, {threads} threads", str(max(run["refused"] for run in runs)), budget="0", met=False)


def first_call(table, agent, rounds):
    took = statistics.median(agent.run("first")["ms"] for _ in range(rounds + 2))
    table.add("first call", f"{took:.2f} ms", budget="at most 2 ms", met=took <= 2)


def durable(table, agent, rounds):
    ratios, rates, limits, whole, cpu = [], [], [], [], []
    for _ in range(rounds):
        with agent.home() as home:
            kept = home.path / "kept"
            agent.run("pipeline", "--events", EVENTS, "--keep-sent", kept, home=home)
            frames = sum(len(frame_log.frames_in(path)) for path in kept.iterdir())
            bare = agent.run("bare", "--logs", kept, "--scratch", home.path / "bare", home=home)
            stored = agent.run("bare", "--with-transfer", "--logs", kept, "--scratch", home.path / "bare", home=home)
        measured = agent.run("pipeline", "--events", EVENTS)
        rates.append(frames / measured["seconds"])
        limits.append(bare["frames"] / bare["seconds"])
        whole.append(stored["frames"] / stored["seconds"])
        ratios.append(rates[-1] / limits[-1])
        cpu.append(measured["user_us_per_event"])
    ratio = statistics.median(ratios)
    table.add("frames made durable, whole pipeline", f"{statistics.median(rates):,.0f} /s",
              f"{statistics.median(limits):,.0f} /s (bare loop)", f"{ratio:.2f}")
    ratio = statistics.median(rate / limit for rate, limit in zip(rates, whole))
    table.add("the same, its blocks and index counted", f"{statistics.median(rates):,.0f} /s",
              f"{statistics.median(whole):,.0f} /s (bare loop that stores blocks too)", f"{ratio:.2f}", "at least 0.95",
              ratio >= 0.95)
    used = statistics.median(cpu)
    table.add("user CPU per event, ten events a session", f"{used:.1f} us", budget="at most 20 us", met=used <= 20)


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
        kept = home.path / "sent"
        if agent.run("kill", "--events", count, "--keep-sent", kept, *arguments, home=home) != -9:
            raise SystemExit("the benchmark did not kill itself")
        durable = events_in(home, kept)
        agent.run("pipeline", "--events", 0, "--keep-sent", kept, home=home)
        return durable, events_in(home, kept)


def events_in(home, kept):
    """Numbers from 1 on: what the measurement itself begins with is numbered 0."""
    logs = [path.read_bytes() for path in [*home.committed_logs(), *kept.glob("*[0-9]"), home.current_log]]
    return len({lap for log in logs for frame in frame_log.readable(log)[0] if frame.type == frame_log.EVENT
                if (lap := frame.event_parameters["lap"]) != "0"})


def resources(table, agent):
    used = agent.run("resources", "--events", 1000)
    table.add("resident memory added", f"{used['memory_kib'] / 1024:.2f} MiB", budget="at most 3 MiB",
              met=used["memory_kib"] <= 3 * 1024)
    table.add("threads when idle", str(used["threads"]), budget="at most 4", met=used["threads"] <= 4)
    table.add(f"wake-ups in {used['seconds']} idle seconds", str(used["wake_ups"]), budget="0", met=used["wake_ups"] == 0)


def library(table, scratch):
    stripped = scratch / "stripped.so"
    subprocess.run(["strip", "-o", stripped, (BUILD / "Library/libSkelda_Watch.so").resolve()], check=True)
    size = stripped.stat().st_size / 1024
    table.add("stripped shared library", f"{size:.0f} KiB", budget="at most 720 KiB", met=size <= 720)


def dispatch(table):
    run = google("DispatchBenchmark", "--benchmark_repetitions=5")
    for figure, ours, limit, what, budget in (
            ("uncontended syncBlock", "sync/actor_sync_block", "sync/mutex_lock", "mutex lock", 100),
            ("asyncBlock hop under load", "hop/actor_async_block", "hop/condition_variable", "hand-over by condition", 250)):
        mine = next((entry for name, entry in run.items() if name.startswith(ours)), None)
        plain = next((entry for name, entry in run.items() if name.startswith(limit)), None)
        if mine and plain:
            ours_ns, plain_ns = per_item(mine), per_item(plain)
            table.add(figure, micro(ours_ns), f"{micro(plain_ns)} ({what})", f"{ours_ns / plain_ns:.2f}",
                      f"at most {budget} ns", ours_ns <= budget)


def per_item(entry):
    """Nanoseconds of real time per operation, whatever the benchmark calls one iteration."""
    if "items_per_second" in entry:
        return 1e9 / entry["items_per_second"]
    scale = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[entry["time_unit"]]
    return entry["real_time"] * scale


def frames(table):
    run = google("FrameBenchmark", "--benchmark_repetitions=5")

    def speed(name):
        return next((entry["bytes_per_second"] for key, entry in run.items() if key.startswith(name)), None)

    for operation, least in (("Encode", 0.3), ("Decode", 0.3), ("Iterate", 0.45)):
        for size, label in ((1 << 10, "1 KiB"), (64 << 10, "64 KiB")):
            ours, copy = speed(f"BM_Frame{operation}/{size}"), speed(f"BM_FrameCopy/{size}")
            if ours and copy:
                table.add(f"frame {operation.lower()}, {label}", f"{ours / 1e9:.2f} GB/s",
                          f"{copy / 1e9:.2f} GB/s (memcpy)", f"{ours / copy:.2f}", f"at least {least:.2f}", ours / copy >= least)


def uploads(table):
    run = google("UploadBenchmark")

    def entry(name):
        return next((entry for key, entry in run.items() if key.startswith(name)), None)

    for size in ("1 KB", "10 KB", "100 KB"):
        row = entry(f"BacklogOf50AgainstABareLoop/{size.split()[0]}000/")
        if row:
            table.add(f"upload of 50 blocks of {size} over TLS, store empty", f"{row['agent_ms']:.1f} ms",
                      f"{row['bare_ms']:.1f} ms (one kept connection)", f"{row['of_bare']:.2f}", "at least 0.50",
                      row["of_bare"] >= 0.5)
    if row := entry("CommitToAnswer"):
        for quantile in ("p50", "p99"):
            ours, parts = row[f"{quantile}_ms"], row[f"parts_{quantile}_ms"]
            table.add(f"from the commit of a log to the answer, {quantile}", f"{ours:.2f} ms",
                      f"{parts:.2f} ms (copy, block, index, request)", f"{ours / parts:.2f}")
    if row := entry("MemoryOf50WaitingMebibytes"):
        table.add("memory added by 50 waiting blocks of 1 MiB", f"{row['added_MiB']:.1f} MiB")
    if row := entry("StartWith1000CommittedLogs"):
        table.add("start with 1,000 committed logs, until none is left", f"{row['agent_ms']:.0f} ms",
                  f"{row['bare_ms']:.0f} ms (list, read, remove)", f"{row['agent_ms'] / row['bare_ms']:.2f}")


def json_writer(table):
    run = google("JSONBenchmark", "--benchmark_repetitions=5")
    if "BM_StreamedEvent" in run:
        ours, document = per_item(run["BM_StreamedEvent"]), per_item(run["BM_EventThroughDocument"])
        table.add("an event's JSON", micro(ours), f"{micro(document)} (document model)", f"{ours / document:.2f}")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--quick", action="store_true")
    rounds = 1 if parser.parse_args().quick else 5
    table = Table()
    # On a real disk: a file system in memory synchronises for nothing.
    with tempfile.TemporaryDirectory(dir=BUILD, prefix="bench-") as folder:
        scratch = pathlib.Path(folder)
        agent = Agent(scratch)
        print(f"measuring, {os.cpu_count()} processors", file=sys.stderr)
        caller(table, agent, rounds)
        first_call(table, agent, rounds)
        durable(table, agent, rounds)
        backlog(table, agent, rounds)
        resources(table, agent)
        library(table, scratch)
    dispatch(table)
    frames(table)
    json_writer(table)
    uploads(table)
    print(table)


if __name__ == "__main__":
    main()

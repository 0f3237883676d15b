"""The figures that what stands behind the address must reach, measured: three servers, two
collectors, a loader and a database on the loopback, and a million simulated devices.

    python3 scripts/lib/fleet_bench.py [--rounds N] [--seconds N] [--devices N]

A round sends over HTTPS what devices would, then publishes messages of the same length to the
servers without collectors, then loads what was sent. A figure is the median of its rounds, with the
least and the greatest.
"""

import argparse
import contextlib
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import time

from bench import Busy, spread  # and the tests' modules, by its search path

import fleet
import loading
from support import Home

BARE = "SKELDA_BARE"
WINDOW = 256
BYTES = 10_000  # that a log has at least
AIMS = {"logs": 2000, "ratio": 0.4, "events": 20_000, "MiB": 4096, "speed": 1}


class OthersBusy(Busy):
    """Counts as our own what any process that came of this one takes, whether or not it has ended."""

    @staticmethod
    def reading():
        total, idle, own = Busy.reading()
        parents, ticks = {}, {}
        for path in pathlib.Path("/proc").glob("[0-9]*/stat"):
            with contextlib.suppress(OSError):
                fields = path.read_text().rpartition(")")[2].split()
                parents[int(path.parent.name)] = int(fields[1])
                ticks[int(path.parent.name)] = sum(map(int, fields[11:15]))
        ours = {os.getpid()}
        while more := {each for each, parent in parents.items() if parent in ours} - ours:
            ours |= more
        return total, idle, own + sum(ticks[each] for each in ours - {os.getpid()})


class Table:
    def __init__(self):
        self.values, self.shares, self.is_missed = {}, {}, False

    def add(self, name, value, busy):
        self.values.setdefault(name, []).append(value)
        self.shares.setdefault(name, []).append(busy.share)

    def row(self, what, name, text, at_most=False):
        values, aim = self.values[name], AIMS.get(name)
        verdict = ""
        if aim is not None:
            middle = sorted(values)[len(values) // 2]
            is_met = middle <= aim if at_most else middle >= aim
            others = max(self.shares[name])
            verdict = "met" if is_met else f"busy: {others:.0%} by others" if others > Busy.MOST else "NOT MET"
            self.is_missed = self.is_missed or verdict == "NOT MET"
        aimed = "" if aim is None else f"{'<=' if at_most else '>='} {text(aim)}"
        print(f"{what:44}{spread(values, text):36}{aimed:12}{verdict}", flush=True)


def messages(stamp, first, body):
    """A window of publishes, as they stand on a connection."""
    for number in range(first, first + WINDOW):
        head = b"NATS/1.0\r\nNats-Msg-Id: %s%d\r\n\r\n" % (stamp, number)
        yield b"HPUB %s.bare answers.1 %d %d\r\n%s%s\r\n" % (
            BARE.encode(), len(head), len(head) + len(body), head, body)


def publish_bare(servers, seconds, length):
    """Messages of that length a second that the servers acknowledge when nothing stands in front of
    them: from one connection to the stream's leader, with as many under way as two windows hold."""
    loading.make_stream(servers, BARE)
    while (leader := servers.leader(BARE)) is None:
        time.sleep(0.1)
    stamp, body = os.urandom(4).hex().encode(), os.urandom(length)
    sent = acknowledged = 0
    rest = b""
    with loading.Stream(servers.ports[leader]) as client:
        began = time.monotonic()
        while time.monotonic() < began + seconds or acknowledged < sent:
            if sent - acknowledged <= WINDOW and time.monotonic() < began + seconds:
                client.socket.sendall(b"".join(messages(stamp, sent, body)))
                sent += WINDOW
            said = rest + client.socket.recv(1 << 16)
            *whole, rest = said.split(b"\r\n")
            acknowledged += sum(b'"seq"' in line for line in whole)
        took = time.monotonic() - began
        client.request(f"$JS.API.STREAM.DELETE.{BARE}")
    return acknowledged / took


def send(collectors, bodies, options):
    """What devices' load over HTTPS came to, as skelda-fleet reports it."""
    to = ",".join(f"localhost:{each.port}" for each in collectors)
    done = subprocess.run(
        [fleet.DEVICES, "load", "--to", f"https://{to}", "--bodies", bodies, "--bytes", str(BYTES), "--devices", "64",
         "--seconds", str(options.seconds), "--authority", collectors[0].authority, "--json"],
        stdout=subprocess.PIPE, text=True, timeout=60 + 10 * options.seconds, check=True)
    return json.loads(done.stdout)


def load(servers, database):
    """Events a second, from the loader's start until its last transaction began, of all before that. What
    it compares with the stream then, before it ends, is no loading."""
    began = time.time()
    loading.load_everything(servers, database, within=300)
    (events, seconds), = database.ask(
        f"SELECT sum(events), extract(epoch FROM max(last)) - {began} FROM skelda.logs, "
        f"(SELECT max(loaded) AS last FROM skelda.logs) AS lasting WHERE loaded >= to_timestamp({began}) "
        "AND loaded < last")
    return int(events) / float(seconds)


def measure(folder, options, table):
    with fleet.Servers(folder) as servers, loading.Database(folder / "database") as database, \
            fleet.StreamCollector(folder, servers, "--connections-by-address", "0") as one, \
            fleet.StreamCollector(folder, servers, "--connections-by-address", "0") as two, Home() as home:
        for each in (one, two):
            each.await_ready()
        fleet.recorded_run(home, one, home.path / "sent")
        loading.load_everything(servers, database)
        for _ in range(options.rounds):
            with OthersBusy() as busy:
                report = send((one, two), home.path / "sent", options)
                length = report["bytes"] / report["taken"]
                bare = publish_bare(servers, options.seconds, round(length))
            table.add("bare", bare, busy)
            table.add("logs", report["takenASecond"], busy)
            table.add("ratio", report["takenASecond"] / bare, busy)
            table.add("bytes", length, busy)
            with OthersBusy() as busy:
                table.add("events", load(servers, database), busy)


def simulate(options, table):
    with OthersBusy() as busy:
        done = subprocess.run([fleet.DEVICES, "simulate", "--devices", str(options.devices)], stdout=subprocess.PIPE,
                              text=True, timeout=900, check=False)
        speed, mebibytes = re.search(r"(\d+) times real time, (\d+) MiB", done.stdout).groups()
    table.add("speed", int(speed), busy)
    table.add("MiB", int(mebibytes), busy)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--seconds", type=int, default=5, help="of each kind of sending in a round")
    parser.add_argument("--devices", type=int, default=1_000_000, help="that are simulated")
    options = parser.parse_args()
    table = Table()
    with tempfile.TemporaryDirectory(prefix="skelda-fleet-", dir="/var/tmp") as folder:
        os.chmod(folder, 0o755)  # the database runs as somebody else
        measure(pathlib.Path(folder), options, table)
    simulate(options, table)

    def count(value):
        return f"{value:,.0f}"

    table.row("bare publishes a second, three replicas", "bare", count)
    table.row("logs a second over HTTPS, acknowledged", "logs", count)
    table.row("  to bare publishes", "ratio", lambda value: f"{value:.2f}")
    table.row("  bytes each", "bytes", count)
    table.row("events a second into the database", "events", count)
    table.row(f"{options.devices:,} simulated devices, MiB", "MiB", count, at_most=True)
    table.row("  times real time", "speed", count)
    return 1 if table.is_missed else 0


if __name__ == "__main__":
    sys.exit(main())

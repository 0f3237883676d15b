"""Everything behind the address is killed under load: servers of the stream, collectors, the loader,
the database; a server's disk is full, another is cut off; and agents are killed and started: at random
times, one on top of the other as they fall. In the end every log that was acknowledged is in the stream
and in the database, once, with all its events.

    python3 Tests/EndToEnd/fleet_kill.py MINUTES [--seed N] [--rate LOGS] [--overlapping 0]

With --overlapping 0 the servers of the stream have one trouble at a time, each when all have the same
again, and the full disk is under one that follows: what an operator can see to in planned work.
"""

import collections
import concurrent.futures
import contextlib
import http.client
import itertools
import os
import pathlib
import random
import re
import shutil
import subprocess
import sys
import tempfile
import threading
import time

import fleet
import frame_log
from loading import Database, digest, load_everything, loader, usual_log
from support import Client, Home, Process, eventually, fill, give_identifiers, play

DEVICES = 400  # that skelda-fleet plays
SENDERS = 2  # that send damaged logs, too: every so many one that ends in rubbish
DAMAGED = 10
TROUBLES = 2  # at a time
STUCK = 15  # seconds that a server may be unwell, or short, without coming any further
SMALL, APART = 1, 2  # the server whose disk is small, and the one that can be cut off


class Sender(threading.Thread):
    """Sends logs of 10 KB one after the other, each until a collector takes it, as agents do."""

    def __init__(self, number, collectors):
        super().__init__(daemon=True)
        self.number, self.collectors = number, collectors
        self.acknowledged = []
        self.ends = threading.Event()

    def logs(self):
        began = int(time.time() * 1000)
        for count in itertools.count(1):
            log = usual_log(f"sender-{self.number}", count, began + count)
            yield log + b"rubbish" if count % DAMAGED == 0 else log

    def run(self):
        clients = {}
        for log in self.logs():
            self.ends.wait(0.1)
            for which in itertools.islice(itertools.cycle(range(len(self.collectors))), self.number, None):
                if self.ends.is_set():
                    return
                try:
                    client = clients.get(which) or clients.setdefault(which, Client(self.collectors[which]))
                    if client.post(log, f"key {self.number}")[0] == 200:
                        break
                except (OSError, http.client.HTTPException):
                    clients.pop(which, None)
                self.ends.wait(0.05)  # the agent has rules of its own; this one is in a hurry
            self.acknowledged.append(digest(log))


class Load(Process):
    """Many devices that send logs of 10 KB, written anew from recorded ones, and what was acknowledged."""

    def __init__(self, folder, collectors, recorded, rate):
        self.ledger, self.rest, self.acknowledged = folder / "ledger", "", set()
        self.lock = threading.Lock()
        self.ledger.touch()
        self.file = open(self.ledger, encoding="ascii")
        super().__init__([fleet.DEVICES, "load", "--to", "https://" + ",".join(f"localhost:{c.port}" for c in collectors),
                          "--bodies", recorded, "--bytes", "10000", "--devices", str(DEVICES), "--rate", str(rate),
                          "--seconds", "86400", "--authority", collectors[0].authority, "--ledger", self.ledger])

    def look(self):
        with self.lock:
            *lines, self.rest = (self.rest + self.file.read()).split("\n")
            self.acknowledged.update(line.split(" ", 1)[0] for line in lines)
            return len(self.acknowledged)


def places_of_events(body):
    """Whether the log is torn, and where its events are."""
    offset, places = 0, []
    while offset + frame_log.HEADER <= len(body):
        first, kind, size = body[offset], body[offset + 1:offset + 4], body[offset + 20:offset + 24]
        if kind == frame_log.EVENT.to_bytes(3, "little"):
            places.append(offset)
        offset += frame_log.HEADER + int.from_bytes(size, "little") + (0 if first & 0x0F else 4)
    if offset == len(body) and body:
        return False, places
    frames, _ = frame_log.readable(body)
    return True, [frame.offset for frame in frames if frame.type == frame_log.EVENT]


class Apart:
    """A network namespace with a link to it that can be cut."""

    def __init__(self):
        self.name = f"skelda{os.getpid()}"
        self.here, self.there = (f"10.213.{os.getpid() % 256}.{n}" for n in (1, 2))
        near, self.far = f"sk{os.getpid()}a", f"sk{os.getpid()}b"
        steps = (f"netns add {self.name}", f"link add {near} type veth peer name {self.far} netns {self.name}",
                 f"addr add {self.here}/30 dev {near}", f"link set {near} up",
                 f"-n {self.name} addr add {self.there}/30 dev {self.far}", f"-n {self.name} link set {self.far} up",
                 f"-n {self.name} link set lo up")
        self.is_there = shutil.which("ip") is not None and all(self.ip(step) for step in steps)

    @staticmethod
    def ip(words):
        return subprocess.run(["ip", *words.split()], capture_output=True).returncode == 0

    def cut(self, is_cut):
        self.ip(f"-n {self.name} link set {self.far} {'down' if is_cut else 'up'}")

    def close(self):
        self.ip(f"netns del {self.name}")


class FleetKill:
    def __init__(self, minutes, seed, rate=300, overlapping=1):
        self.overlapping = overlapping
        self.length, self.seed, self.rate = minutes * 60, seed, rate
        self.locks = collections.defaultdict(threading.Lock)
        self.counts, self.problems, self.lines = collections.Counter(), [], []
        self.most = collections.Counter()  # resident bytes
        self.agents = []
        self.is_over = threading.Event()
        self.stack = contextlib.ExitStack()

    def __enter__(self):
        try:
            self.prepare()
        except BaseException:
            self.stack.close()
            raise
        return self

    def __exit__(self, *_):
        self.stack.close()

    def prepare(self):
        enter, done = self.stack.enter_context, self.stack.callback
        self.folder = pathlib.Path(enter(tempfile.TemporaryDirectory(prefix="skelda-fleet-", dir="/var/tmp")))
        self.folder.chmod(0o755)
        self.apart = Apart()
        done(self.apart.close)
        here, there = (self.apart.here, self.apart.there) if self.apart.is_there else ("127.0.0.1", "127.0.0.1")
        inside = ["ip", "netns", "exec", self.apart.name] if self.apart.is_there else []
        small = self.folder / f"nats-{SMALL}"
        small.mkdir()
        self.small = small if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=6g", "tmpfs", small],
                                             capture_output=True).returncode == 0 else None
        if self.small:
            done(lambda: subprocess.run(["umount", "-l", small], check=False))
        self.servers = enter(fleet.Servers(self.folder, 3, [here, here, there], [[], [], inside]))
        self.database = enter(Database(self.folder / "database"))
        for index in range(3):
            enter(self.servers.watch(index, LOOK="1", PATIENCE=str(STUCK)))
        watch = threading.Thread(target=self.watch_servers, daemon=True)
        watch.start()
        done(lambda: (self.is_over.set(), watch.join(60)))
        self.start_loader()
        done(lambda: self.loader.kill())
        self.collectors = [enter(fleet.StreamCollector(self.folder, self.servers, "--copies", self.folder / f"copies-{n}",
                                                       "--copies-bytes", str(4 << 30))) for n in range(2)]
        for collector in self.collectors:
            collector.await_ready()
        for number in range(2):
            home = enter(Home())
            give_identifiers(home)
            self.agents.append((home, self.collectors[number], []))
            self.start_agent(number)
        done(self.stop_agents)
        home = enter(Home())
        fleet.recorded_run(home, self.collectors[0], home.path / "sent")
        self.devices = enter(Load(self.folder, self.collectors, home.path / "sent", self.rate))
        self.senders = [Sender(n, self.collectors) for n in range(SENDERS)]
        for sender in self.senders:
            sender.start()
        done(lambda: [sender.ends.set() for sender in self.senders])

    # What there is

    def start_loader(self):
        self.loader = loader(self.servers, self.database, "--batch", "128", "--ack-wait", "5")
        self.counts["loaders"] += 1

    def start_agent(self, number, *arguments):
        home, collector, running = self.agents[number]
        arguments = arguments or ("--rate", "20", "--events", "1000000")
        running[:] = [home.start(*arguments, "--server", collector.url, keep=home.path / "kept",
                                 environment=home.environment(SSL_CERT_FILE=collector.authority))]

    def stop_agents(self):
        for _, _, running in self.agents:
            for process in running:
                process.kill()

    def taken(self):
        return self.devices.look() + sum(len(sender.acknowledged) for sender in self.senders)

    def watch_servers(self):
        """As the service manager would: starts anew what a server's watch ends or empties, but for one that is
        in trouble by us."""
        while not self.is_over.wait(0.2):
            for what, index in itertools.product(("ended", "emptied"), range(3)):
                with contextlib.suppress(FileNotFoundError):
                    (self.folder / f"{what}-{index}").unlink()
                    if self.locks[f"server {index}"].acquire(blocking=False):
                        self.counts[f"servers {what} by their watch"] += 1
                        self.servers.kill(index)
                        if what == "emptied":
                            self.servers.empty(index)
                        self.servers.start(index)
                        self.locks[f"server {index}"].release()

    def look(self):
        """At the memory of what must not grow."""
        for name, process in [("loader", self.loader), *(("collector", each.process) for each in self.collectors)]:
            with contextlib.suppress(OSError, StopIteration):
                self.most[name] = max(self.most[name], fleet.resident(process.pid))

    # What goes wrong. Two at a time, and what one did may not be over when the next begins; but what
    # is down cannot be killed again.

    @contextlib.contextmanager
    def holding(self, *names):
        with contextlib.ExitStack() as stack:
            for name in sorted(names):
                stack.enter_context(self.locks[name])
            yield

    @contextlib.contextmanager
    def trouble_of_servers(self, *which):
        with self.holding(*(f"server {index}" for index in which), *([] if self.overlapping else ["servers"])):
            if not self.overlapping:
                self.await_level()
            yield

    def kill_servers(self, chance, which):
        with self.trouble_of_servers(*which):
            for index in which:
                self.servers.kill(index)
            time.sleep(chance.uniform(0.2, 3))
            for index in which:
                self.servers.start(index)

    def server(self, chance):
        self.kill_servers(chance, [chance.randrange(3)])

    def two_servers(self, chance):
        self.kill_servers(chance, chance.sample(range(3), 2))

    def all_servers(self, chance):
        self.kill_servers(chance, range(3))

    def collector(self, chance):
        index = chance.randrange(len(self.collectors))
        with self.holding(f"collector {index}"):
            self.collectors[index].kill()
            time.sleep(chance.uniform(0.2, 2))
            self.collectors[index].start()

    def load(self, chance):
        with self.holding("loader"):
            self.loader.kill()
            time.sleep(chance.uniform(0.2, 1))
            self.start_loader()

    def whole_database(self, chance):
        with self.holding("database"):
            self.database.kill(all_of_it=True)
            time.sleep(chance.uniform(0.2, 3))
            self.database.start()

    def part_of_the_database(self, _):
        with self.holding("database"):
            self.database.kill(all_of_it=False)

    def agent(self, chance):
        number = chance.randrange(len(self.agents))
        with self.holding(f"agent {number}"):
            for process in self.agents[number][2]:
                process.kill()
            self.start_agent(number)

    def full_disk(self, chance):
        with self.trouble_of_servers(SMALL):
            if not self.overlapping and not eventually(self.small_follows, 60, every=0.5):
                self.problems.append("the server with the small disk does not give up the lead")
            room = shutil.disk_usage(self.small)
            self.resize(room.used + (8 << 20))
            fill(self.small / "rest")
            time.sleep(chance.uniform(0.2, 5))
            (self.small / "rest").unlink()
            self.resize(room.total)
            # As whoever made room would do: a server whose disk was full has put the stream aside.
            self.servers.kill(SMALL)
            self.servers.start(SMALL)

    def small_follows(self):
        leader = self.servers.leader()
        if leader == SMALL:
            self.servers.ask(f"$JS.API.STREAM.LEADER.STEPDOWN.{fleet.STREAM}")
        return leader not in (None, SMALL)

    def resize(self, size):
        subprocess.run(["mount", "-o", f"remount,size={size}", self.small], check=True)

    def partition(self, chance):
        with self.trouble_of_servers(APART):
            self.apart.cut(True)
            time.sleep(chance.uniform(4, 15 if self.length > 60 else 5))
            self.apart.cut(False)

    def make_trouble(self, number, until):
        """All that can go wrong, in random order, over and over."""
        chance = random.Random(self.seed)
        kinds = [self.server, self.collector, self.load, self.whole_database, self.part_of_the_database, self.agent,
                 self.all_servers, *([self.two_servers] if self.length > 60 else []),
                 *([self.full_disk] if self.small else []), *([self.partition] if self.apart.is_there else [])]
        chance.shuffle(kinds)
        to_come = kinds[number::TROUBLES]  # the first round, so that each is there in the shortest run
        chance = random.Random(f"{self.seed} {number}")
        is_first = True
        while is_first or time.monotonic() < until:
            kind = to_come.pop()
            before = self.taken()
            kind(chance)
            self.look()
            self.counts[kind.__name__] += 1
            # The next one comes while all are at it again, or before.
            eventually(lambda: self.taken() > before + 20, chance.uniform(0.5, 6))
            if not to_come:
                is_first, to_come = False, chance.sample(kinds, len(kinds))

    # The run

    def run(self):
        began = time.monotonic()
        with concurrent.futures.ThreadPoolExecutor(TROUBLES) as pool:
            for each in [pool.submit(self.make_trouble, number, began + self.length) for number in range(TROUBLES)]:
                each.result()
        self.settle(time.monotonic() - began)
        return self

    def await_level(self):
        """By itself, or with the help of what looks after the servers."""
        if not eventually(self.servers.are_level, 600, every=0.1):
            held = [self.servers.holding(index) for index in range(3)]
            self.problems.append(f"the servers do not come to have the same: {held} messages")

    def await_compared(self):
        """Until each collector has compared three times more, and found nothing lost or in dispute."""
        began = {collector: collector.figures() for collector in self.collectors}

        def is_done(collector):
            now, then = collector.figures(), began[collector]
            if any(now.get(name) != then.get(name) for name in ("stream_lost_logs_total", "stream_disputed_logs_total")):
                began[collector] = now
            return now.get("stream_comparisons_total", 0) > began[collector].get("stream_comparisons_total", 0) + 2

        for collector in self.collectors:
            if not eventually(lambda each=collector: is_done(each), 300, every=1):
                self.problems.append(f"a collector does not come to an end: {collector.figures()}")

    def settle(self, elapsed):
        """All is well again: what was held back comes in, and is loaded."""
        self.await_level()
        for collector in self.collectors:
            collector.await_ready(120)
        before = self.taken()
        if not eventually(lambda: self.taken() > before + 50, 60):
            self.problems.append("the senders stand")
        for sender in self.senders:
            sender.ends.set()
        for sender in self.senders:
            sender.join(30)
        self.devices.terminate(60)
        for number, (home, _, running) in enumerate(self.agents):
            for process in running:
                process.kill()
            for _ in range(2):
                self.start_agent(number, "--rate", "50", "--events", "30", "--linger", "40")
                running[0].wait(120)
            if home.blocks() or home.committed_logs():
                self.problems.append(f"an agent keeps {len(home.blocks())} blocks when all is well")
        self.await_compared()
        began = time.monotonic()

        def loaded():
            said = self.servers.ask(f"$JS.API.CONSUMER.INFO.{fleet.STREAM}.skelda-load") or {}
            return said.get("num_pending") == 0 and said.get("num_ack_pending") == 0

        if not eventually(loaded, 120 + self.length, every=0.2):
            self.problems.append("the loader does not come to an end:\n" + self.loader.output[-2000:])
        # What it is about to look for, it looks for now.
        self.loader.terminate(60)
        self.lines.append(load_everything(self.servers, self.database, within=300))
        self.await_level()
        self.look()
        self.lines.append(f"{elapsed:.0f} s, {self.taken()} logs acknowledged ({self.taken() / elapsed:.0f} a second), "
                          f"loaded {time.monotonic() - began:.1f} s after the last")
        self.account()

    # The account

    def account(self):
        """The leader's disk is lost first: what is then in the stream was on more than one."""
        self.is_over.set()  # nobody mends what is broken now
        leader = eventually(lambda: [n for n in [self.servers.leader()] if n is not None], 30)[0]
        self.servers.kill(leader)
        self.servers.empty(leader)
        if not eventually(lambda: self.servers.leader() not in (None, leader), 60):
            self.problems.append("two of three servers have no leader")
        stream, wanted = collections.Counter(), {}
        with self.servers.client() as client:
            for _, body in client.each_message():
                name = digest(body)
                stream[name] += 1
                torn, places = places_of_events(body)
                wanted[name] = (torn, len(places), sum(places))
            aside = {digest(body) for _, body in client.each_message("SKELDA_DAMAGED")}
        rows = self.database.ask(
            "SELECT encode(digest, 'hex'), fault IS NOT NULL, count(place), coalesce(sum(place), 0) FROM skelda.logs "
            "LEFT JOIN skelda.events USING (log) GROUP BY digest, fault") or []
        there = {name: (fault == "t", int(count), int(places)) for name, fault, count, places in rows}

        def hold(text, names):
            if names:
                self.problems.append(f"{len(names)} {text}: {sorted(names)[:5]}")

        acknowledged = self.devices.acknowledged.union(*(sender.acknowledged for sender in self.senders))
        hold("logs acknowledged and not in the stream", acknowledged - stream.keys())
        hold("logs twice in the stream", {name for name, count in stream.items() if count > 1})
        hold("logs in the stream and not in the database", stream.keys() - there.keys())
        hold("logs in the database and not in the stream", there.keys() - stream.keys())
        hold("logs with other events in the database than in the stream",
             {name for name in wanted.keys() & there.keys() if wanted[name] != there[name]})
        hold("damaged logs that are not kept aside", {name for name, each in wanted.items() if each[0]} - aside)
        events = int(self.database.ask("SELECT count(*) FROM skelda.events")[0][0])
        if events != sum(each[1] for each in there.values()):
            self.problems.append("there are events of no log")
        sent = self.account_of_agents(stream, hold)
        self.lines += [
            "killed or cut off: " + ", ".join(f"{name} {count}" for name, count in sorted(self.counts.items())),
            "collectors: " + ", ".join(f"{name} {sum(int(c.figures().get(name, 0)) for c in self.collectors)}" for name in (
                "copies", "stream_went_back_total", "answers_not_believed_total", "stream_lost_logs_total",
                "stream_disputed_logs_total", "stream_published_again_total", "stream_servers_astray")),
            f"stream: {stream.total()} messages, {len(stream)} different; of agents {sent}, damaged {len(aside)}",
            f"database: {len(there)} logs, {events} events; numbers of logs that a device committed twice: "
            + self.database.ask("SELECT count(*) FROM (SELECT 1 FROM skelda.logs WHERE device NOT LIKE 'sender%' "
                                "GROUP BY api_key, device, counter HAVING count(*) > 1) AS twice")[0][0],
            "resident at most: " + ", ".join(f"{name} {most >> 20} MiB" for name, most in sorted(self.most.items()))]

    def account_of_agents(self, stream, hold):
        """Of the logs that agents committed, how many came. What an agent gave up it has said so."""
        came = 0
        for home, _, _ in self.agents:
            log = "\n".join(home.log_lines())
            given_up = set(re.findall(r"Removed File :(\S+) as we have reached|Hence removing file\.File Name:(\S+)"
                                      r"|3 tries failed to upload the file\.File Name:(\S+)", log))
            given_up = {name for names in given_up for name in names}
            sent = {path.name: digest(path.read_bytes()) for path in (home.path / "kept").glob(".skelda*_*[0-9]")}
            missing = {name for name, each in sent.items() if each not in stream and name not in given_up}
            if len(missing) > log.count("discard outdated block id"):
                hold("logs of an agent that did not come", missing)
            self.counts["logs given up by agents"] += len(sent) - sum(each in stream for each in sent.values())
            came += sum(each in stream for each in sent.values())
        if came == 0:
            self.problems.append("no log of an agent came")
        return came

    def report(self):
        return "\n".join(self.lines)


if __name__ == "__main__":
    sys.exit(play(__doc__, FleetKill, rate=300.0, overlapping=1))

"""Everything at once: a host that logs at a steady rate while its server misbehaves or never answers,
its disk fills, descriptors and threads are taken from it, its files are damaged behind its back and
between its starts, and it is killed. In the end, with all well again, every log that was committed is
either at the server or accounted for.

    python3 Tests/EndToEnd/chaos.py MINUTES [--seed N]
"""

import collections
import contextlib
import os
import pathlib
import re
import resource
import subprocess
import sys
import threading
import time

import account_file
import frame_log
from support import (Collector, Home, Run, digest, eventually, fill, give_identifiers, open_files, play, with_a_bit_changed)

NOBODY = 65534
ROOT_USER = os.geteuid() == 0
RATE = 15
# The look-up of its name takes longer than any host lives.
HANGING = "https://server.hangs/v1/skd.do"
# Beyond it nobody waits between the redirects of a loop. Nine transfers go side by side, and each
# follows nine at once.
MOST_REDIRECTS_A_SECOND = 60
# Nine requests at most go side by side, and their connections are kept for the next ones while logs
# go out; with the pair by which the network thread is woken.
MOST_SOCKETS = 9 + 2


def connections(pid):
    """The addresses that a process is connected to."""
    inodes = {name[8:-1] for name in open_files(pid) if name.startswith("socket:[")}
    rows = [line.split() for table in ("tcp", "tcp6", "udp", "udp6")
            for line in pathlib.Path(f"/proc/{pid}/net/{table}").read_text().splitlines()]
    return {row[2] for row in rows if row[9] in inodes and row[3] != "0A" and not row[2].endswith(":0000")}


def usage_of(pid):
    status = dict(re.findall(r"^(\w+):\s+(\d+)", pathlib.Path(f"/proc/{pid}/status").read_text(), re.MULTILINE))
    files, sockets = (sum(name.startswith("socket:") == are_sockets for name in open_files(pid)) for are_sockets in (0, 1))
    return {"KiB": int(status["VmRSS"]), "threads": int(status["Threads"]), "files": files, "sockets": sockets}


class Chaos(Run):
    def __init__(self, minutes, seed):
        super().__init__(seed)
        self.length, self.home = minutes * 60, self.enter_context(Home())
        self.as_host = {"user": NOBODY, "group": NOBODY, "extra_groups": []} if ROOT_USER else {}
        self.contents = {}  # of every log and block that is gone, by name, as it was at first
        self.damaged = set()  # names and digests, those of blocks included that only a damaged index knew
        self.counts = collections.Counter()
        self.renumberings = 0  # the settings were damaged, and numbering may begin anew
        self.decks, self.collector_output, self.addresses, self.ending = {}, [], set(), threading.Event()
        self.host = self.collector = self.pid = None
        self.blocks_carry_keys = False  # where the disk has attributes
        self.small = None  # the data's folder, where that is on a disk that fills

    def prepare(self):
        data = self.home.path / "data"
        mount = ["mount", "-t", "tmpfs", "-o", "size=16m", "tmpfs", data]
        if ROOT_USER and subprocess.run(mount, capture_output=True).returncode == 0:
            self.small = data
            self.callback(subprocess.run, ["umount", "-l", data])
        give_identifiers(self.home)
        self.kept = data / "kept"  # on the same disk: what is kept costs no room at first
        self.kept.mkdir()
        with contextlib.suppress(OSError):
            os.setxattr(self.kept, "user.probe", b"1")
            self.blocks_carry_keys = True
        self.collector = self.enter_context(Collector(self.home.path / "collector"))
        self.environment = self.home.environment(SSL_CERT_FILE=self.collector.authority)
        threading.Thread(target=self.watch_addresses, daemon=True).start()
        if ROOT_USER:
            subprocess.run(["chown", "-R", f"{NOBODY}:{NOBODY}", self.home.path], check=True)

    def watch_addresses(self):
        while not self.ending.wait(0.05):
            with contextlib.suppress(OSError):
                self.addresses |= connections(self.pid)

    def collect(self):
        """Takes what hosts have removed off the disk."""
        for path in self.kept.iterdir():
            path.chmod(0o600)
            self.contents.setdefault(path.name, path.read_bytes())
            path.unlink()

    def one_of(self, *choices):
        """One by chance, counted by its name; each comes once before any comes again."""
        if not self.decks.get(choices):
            self.decks[choices] = self.chance.sample(choices, len(choices))
        chosen = self.decks[choices].pop()
        self.counts[getattr(chosen, "__name__", str(chosen))] += 1
        return chosen

    def start(self, *arguments, server=None, **popen):
        host = self.home.start(*arguments, "--server", server or self.collector.url, keep=self.kept,
                               environment=self.environment, **self.as_host, **popen)
        self.pid = host.pid
        return host

    def start_host(self, threads=2, **how):
        host = self.start("--rate", str(RATE), "--events", "100000000", "--threads", str(threads), **how)
        self.host = self.enter_context(host)

    def limit(self, **soft):
        """Of descriptors ("nofile") or threads ("nproc"), under the host's own user, who may."""
        limits = [f"--{name}={value}:" for name, value in soft.items()]
        subprocess.run(["prlimit", "--pid", str(self.host.pid), *limits], check=True, **self.as_host)

    def end_host(self):
        self.expect_alive(self.host)
        with contextlib.suppress(FileNotFoundError):
            for number in range(3):
                file = os.readlink(f"/proc/{self.host.pid}/fd/{number}")
                self.expect(not file.startswith(str(self.home.path)), f"standard stream {number} is {file}")
        self.host.kill()
        self.collect()
        self.hold_account(killed=True)

    def hold_account(self, killed):
        """Of events and choices. Logs and blocks are tampered with, which the agent cannot count."""
        if self.home.has_intake_file():
            self.problems += [f"after {dict(self.counts)}: {problem}"
                              for problem in account_file.of(self.home).problems(killed=killed)]

    def stop_collector(self):
        self.collector.stop()
        self.collector_output += self.collector.process.lines

    def restart_collector(self, *arguments, away=0.0):
        """How many logs had arrived by then."""
        self.stop_collector()
        arrived = len(self.collector.entries())
        time.sleep(away)
        self.collector.start(*arguments)
        self.counts["server restarts"] += 1
        return arrived

    # What goes wrong

    def serve_badly(self, seconds):
        """One spell of a server that does not do as it should."""
        here = self.collector.url
        status = self.chance.choice([500, 503, 429, 400, 401, 404])
        faults = [f"status={status}", "reset-after=100bytes", "reset-answer=20bytes", "drop-answer",
                  "delay=1500ms", f"delay=300ms,status={status}"]
        faults += [f"redirect={code}:{here},times=3" for code in (301, 302, 303, 307, 308)]
        # At length it stays silent for longer than a request waits.
        longest = self.one_of("redirect", "delay=1h")
        first = 25 if longest == "delay=1h" and self.length > 150 else seconds / 2
        if longest == "redirect":
            longest += f"={self.chance.choice([301, 302, 307, 308])}:{here}"
        chosen = ["--fault", f"{longest},for={first:.0f}s"]
        for fault in self.chance.sample(faults, 2):
            chosen += ["--fault", fault if "times" in fault else f"{fault},for={seconds / 4:.0f}s"]
        self.restart_collector(*chosen, away=self.chance.choice([0, 0, 0.5, 2]))
        time.sleep(first + seconds / 2)
        redirects = self.collector.process.output.count("fault: redirect")
        self.expect(redirects <= MOST_REDIRECTS_A_SECOND * seconds,
                    f"{redirects} redirects were followed in {seconds:.0f} s")

    def serve_untrusted(self, seconds):
        kind = self.chance.choice(["expired", "self-signed", "wrong-name"])
        before = self.restart_collector("--certificate", kind)
        time.sleep(seconds)
        requests = [line for line in self.collector.process.lines if line.startswith(("log ", "refused", "fault"))]
        self.expect(not requests and len(self.collector.entries()) == before,
                    f"something was sent over a connection with a certificate that is {kind}: {requests}")

    def fill_disk(self, seconds):
        ballast = self.small / "ballast"
        fill(ballast)
        time.sleep(seconds)
        ballast.unlink()

    def tamper(self):
        """Damages one file behind the agent's back, and remembers what that excuses."""
        candidates = [*self.home.committed_logs()[:2], *self.home.blocks()[:2], self.home.index, self.home.key_values,
                      *self.home.storage.glob(".skeldaCurrentWatchSessionId*")]
        path = self.chance.choice([c for c in candidates if c.exists()] or [self.home.index])
        how = self.chance.choice(["deleted", "truncated", "garbage", "unreadable"])
        with contextlib.suppress(OSError):
            data = path.read_bytes()
            self.note_damage(path)
            self.damaged |= {path.name, digest(data)}
            self.contents.setdefault(path.name, data)
            if how == "deleted":
                path.unlink()
            elif how == "truncated":
                os.truncate(path, self.chance.randint(0, len(data)))
            elif how == "garbage":
                path.write_bytes(self.chance.randbytes(len(data) or 10))
            else:
                path.chmod(0)
                time.sleep(1)
                path.chmod(0o600)
            self.counts["tamperings"] += 1

    def damage(self, seconds):
        for _ in range(round(seconds * 2)):
            self.tamper()
            time.sleep(0.5)

    def note_damage(self, path):
        if path == self.home.key_values:
            self.renumberings += 1
        elif path == self.home.index and not self.blocks_carry_keys:
            self.damaged |= {digest(block.read_bytes()) for block in self.home.blocks()}

    def starve(self, seconds):
        """No new descriptor, no new thread or neither, for up to a second each time."""
        # The host has read its own files by then, which it cannot do without.
        eventually(lambda: any("skeldaIntake" in name for name in open_files(self.host.pid)))
        until = time.monotonic() + seconds
        usual = {"nofile": resource.getrlimit(resource.RLIMIT_NOFILE)[0],
                 "nproc": resource.getrlimit(resource.RLIMIT_NPROC)[0]}
        while time.monotonic() < until:
            taken = {int(number) for number in os.listdir(f"/proc/{self.host.pid}/fd")}
            none = {"nofile": min(set(range(len(taken) + 1)) - taken), "nproc": 0}
            self.limit(**{name: none[name] for name in self.one_of(("nofile",), ("nproc",), ("nofile", "nproc"))})
            time.sleep(self.chance.uniform(0.05, 1))
            self.limit(**usual)
            time.sleep(0.3)

    # What a start finds

    def kill(self):
        self.end_host()
        self.one_of(Chaos.start_host, Chaos.start_without_error_stream, Chaos.start_without_threads,
                    Chaos.start_with_damage, Chaos.start_without_names)(self)

    def start_without_error_stream(self):
        self.start_host(preexec_fn=lambda: os.close(2))

    def start_without_threads(self):
        """For up to a second. The host itself makes do with the one it has."""
        most = resource.getrlimit(resource.RLIMIT_NPROC)
        self.start_host(threads=1, preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NPROC, (0, most[1])))
        time.sleep(self.chance.uniform(0.2, 1))
        self.limit(nproc=most[0])
        self.expect(eventually(lambda: usage_of(self.pid)["threads"] > 3, within=10),
                    f"after a start without threads there are but {usage_of(self.pid)}")

    def start_without_names(self):
        """The name server hangs under one host; the next one has another address."""
        self.start_host(server=HANGING)
        time.sleep(25 if self.length > 150 else 3)
        self.end_host()
        self.start_host()

    def start_with_damage(self):
        """Blocks wait, and a byte of their index, of the settings or of both is another one."""
        self.stop_collector()
        self.start_host()
        eventually(lambda: len(self.home.blocks()) >= 3, within=15)
        self.end_host()
        self.counts["blocks under a damaged index"] += len(self.home.blocks())
        for path in (self.home.index, self.home.key_values):
            self.note_damage(path)
            path.write_bytes(with_a_bit_changed(path.read_bytes(), self.chance))
        self.start_host()
        time.sleep(1)
        self.collector.start()

    # The run

    def run(self):
        self.prepare()
        self.start_host()
        began = time.monotonic()
        calm_from = self.length * 0.5  # from here on one process lives to the end
        usage = None
        spell = max(3.0, min(8.0, self.length / 12))
        while (now := time.monotonic() - began) < self.length or usage is None:
            if now < calm_from:
                for _ in range(3):
                    time.sleep(self.chance.uniform(0.1, 1))
                    self.kill()
            elif usage is None:
                time.sleep(min(10.0, self.length / 12))
                usage = usage_of(self.pid)
            self.one_of(Chaos.serve_badly, Chaos.serve_untrusted, Chaos.damage, Chaos.starve,
                        *([Chaos.fill_disk] if self.small else []))(self, spell)
            self.restart_collector()
            self.collect()
            time.sleep(self.chance.uniform(1, 3))
        self.settle(usage)

    def settle(self, usage):
        """All is well again: the host goes on for a while, then what it left open is sent."""
        self.restart_collector()
        time.sleep(8)

        most = {"KiB": usage["KiB"] * 1.25 + 2048, "threads": usage["threads"] + 3, "files": usage["files"] + 3,
                "sockets": MOST_SOCKETS}
        # What goes on just now may hold some; what stays is a leak.
        self.expect(eventually(lambda: all(now <= most[what] for what, now in usage_of(self.pid).items())),
                    f"grown from {usage} to {usage_of(self.pid)}: {open_files(self.pid)}")
        self.usage = (usage, usage_of(self.pid))
        self.end_host()
        for _ in range(2):
            with self.start("--rate", "20", "--events", "40", "--linger", "60") as last:
                last.wait(120)
            self.hold_account(killed=False)
        self.expect(eventually(self.home.is_sent, within=5), f"{self.home.blocks()} and {self.home.committed_logs()} "
                    "are left when all is well")
        self.expect(not self.home.leftovers(), f"left behind: {self.home.leftovers()}")
        self.ending.set()
        elsewhere = self.addresses - {f"0100007F:{self.collector.port:04X}"}
        self.expect(not elsewhere, f"connected to {elsewhere}")
        self.collect()
        self.stop_collector()

    # The account

    def account(self):
        """Where every committed log went: a word for each name."""
        log, output = "\n".join(self.home.log_lines()), "\n".join(self.collector_output)
        received = {entry["sha256"] for entry in self.collector.entries()}
        capacity = set(re.findall(r"(?:Removed File :|Hence removing file\.File Name:)(\S+)", log))
        third = set(re.findall(r"3 tries failed to upload the file\.File Name:(\S+)", log))
        discarded = {digest(self.contents[name]) for name in re.findall(r"discard outdated block id \[([^\]]+)\]", log)
                     if name in self.contents}
        rejected = set(re.findall(r"fault: status 400 for ([0-9a-f]+)", output))
        logs = {name: data for name, data in self.contents.items() if "CommitedFrameLog" in name}
        logs |= {path.name: path.read_bytes() for path in self.home.committed_logs()}
        self.hold_numbering(logs.values())
        fates = {}
        for name, data in logs.items():
            key = digest(data)
            fates[name] = ("received" if key in received else
                           "damaged by this test" if self.damaged & {name, key} else
                           "removed: folder full" if name in capacity else
                           "removed: third failed upload" if name in third else
                           "removed: 51st block" if key in discarded else
                           "removed: answered 400" if key[:16] in rejected else
                           "LOST")
        for entry, data in zip(self.collector.entries(), self.collector.logs()):
            if not any(log.startswith(data) for log in logs.values()):
                fates[entry["file"]] = "RECEIVED, NEVER COMMITTED"
            _, torn = frame_log.readable(data)
            self.expect(not torn, f"the server holds {entry['file']}, {torn}")
        return fates

    def hold_numbering(self, logs):
        """A number is given again only where the settings had been damaged."""
        given = collections.defaultdict(set)
        for log in logs:
            for frame in frame_log.readable(log)[0][:1]:
                # One that was committed twice has its end twice, but not its beginning.
                given[frame.payload.get("sk.frame.log.counter")].add(frame.raw)
        for number, beginnings in given.items():
            self.expect(not number or len(beginnings) <= 1 + self.renumberings,
                        f"{len(beginnings)} logs are numbered {number}, {self.renumberings} damages")

    def report(self):
        fates = self.account()
        by_fate = collections.Counter(fates.values())
        self.problems += [f"{fate}: {name}" for name, fate in fates.items() if fate.isupper()]
        return "\n".join([
            f"{self.length / 60:g} minutes: " + ", ".join(f"{n} {what}" for what, n in self.counts.items()),
            f"{len(fates)} logs committed, {len(self.collector.entries())} arrivals:",
            *(f"  {count:5} {fate}" for fate, count in by_fate.most_common()),
            *(f"the last host, {when}: {usage}" for when, usage in zip(("early", "late"), self.usage))])


if __name__ == "__main__":
    sys.exit(play(__doc__, Chaos))

"""What the end-to-end tests have in common: homes, hosts, the phone and the collector.

Every process runs in a home of its own, is bounded in time, and is ended by the test that started
it, and by no other.
"""

import argparse
import collections
import contextlib
import csv
import hashlib
import http.client
import json
import os
import pathlib
import plistlib
import random
import shlex
import shutil
import ssl
import subprocess
import tempfile
import time
import urllib.parse

import frame_log

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("SKELDA_BUILD", ROOT / "build" / "release"))
EXAMPLE = BUILD / "Examples/MorningRun/MorningRun.app/PlugIns/MorningRunExtension.appex"
HOSTS = BUILD / "Tests/EndToEnd/hosts"
KEEPING_EXAMPLE = HOSTS / "MorningRun.app/PlugIns/MorningRunExtension.appex"
FRAMES_TOOL = BUILD / "Tools/skelda-frames/skelda-frames"
COLLECTOR = BUILD / "Tools/skelda-collector/skelda-collector"
if not COLLECTOR.exists():  # none is built for that processor: this machine's own
    COLLECTOR = str(ROOT / "build/release/Tools/skelda-collector/skelda-collector")
PHONE = BUILD / "Tools/skelda-phone/skelda-phone"
# What stands before a program of the build where that is for another processor.
EMULATOR = shlex.split(os.environ.get("SKELDA_EMULATOR", ""))

# What a client of a collector says, unless it says otherwise.
KEY = "A1B2C3D4E5"
PATH = "/v1/skd.do"
# A port on which nobody listens: what is committed ends as blocks, as it does off line.
NOWHERE = "https://127.0.0.1:9/v1/skd.do"

# See Home.answered.
REFUSED, ACCEPTED = 1, 2

# In the example's recording: its events, and the one of them that has no name.
RECORDED = 228
NAMELESS = 1


def scratch_root():
    """Memory when there is room: what is tested is the files, not the disk's speed."""
    memory = pathlib.Path("/dev/shm")
    if memory.is_dir() and os.access(memory, os.W_OK) and shutil.disk_usage(memory).free > 1 << 30:
        return str(memory)
    return None


def bundle_of(name, folder=HOSTS):
    """Of a host of the tests, or of another program that is built in such a folder."""
    return folder / f"{name}.app/PlugIns/{name}.appex"


def recording():
    """The rows of what the example plays: at what time, the name, keys and values in turn; the first is the head."""
    with open(EXAMPLE / "morning-run.csv", encoding="utf-8", newline="") as file:
        return list(csv.reader(file))


def digest(body):
    return hashlib.sha256(body).hexdigest()


def with_a_bit_changed(data, chance):
    bit = chance.randrange(8 * len(data) or 1)
    return (int.from_bytes(data, "little") ^ 1 << bit).to_bytes(len(data) or 1, "little")


def eventually(what, within=20.0, every=0.02):
    """Waits until `what()` is true and returns its value; its last value when time is up."""
    deadline = time.monotonic() + within
    while True:
        value = what()
        if value or time.monotonic() > deadline:
            return value
        time.sleep(every)


def told(*command, within=60, **more):
    """A program that has run to its end, with what it said."""
    return subprocess.run([str(part) for part in command], text=True, capture_output=True, timeout=within, **more)


def said_by(*command, within=900, **more):
    """What a program says that must end well."""
    done = told(*command, within=within, **more)
    if done.returncode != 0:
        raise AssertionError(f"{command}\n{done.stdout[-6000:]}{done.stderr[-6000:]}")
    return done.stdout


def open_files(pid):
    """What each descriptor of a process stands for."""
    names = []
    for path in pathlib.Path(f"/proc/{pid}/fd").iterdir():
        with contextlib.suppress(FileNotFoundError):  # closed while we look
            names.append(os.readlink(path))
    return names


class Home(contextlib.AbstractContextManager):
    """The directories of one installation: what the agent keeps across starts."""

    def __init__(self, on_disk=False, bundle=EXAMPLE, path=None):
        if path is None:
            path = tempfile.mkdtemp(prefix="skelda-", dir=None if on_disk else scratch_root())
        self.path = pathlib.Path(path)
        self.bundle = bundle
        self.log, self.answers = self.path / "agent.log", self.path / "answers"
        for name in ("data", "state", "documents", "tmp"):
            (self.path / name).mkdir(parents=True, exist_ok=True)
        self.answers.touch()
        identifier = plistlib.loads((bundle / "Info.plist").read_bytes())["CFBundleIdentifier"]
        self.support = self.path / "data" / identifier
        self.key_values = self.support / "SkeldaFilesSkelda.KV.storage"
        self.storage = self.support / "SkeldaFiles"
        self.current_log = self.storage / ".skeldaFrameLog_261.archive"
        self.committed = self.storage / "CommitedFrameLogs"
        self.index = self.storage / "SkeldaSenderIndex.info"

    def close(self, *_):
        subprocess.run(["chmod", "-Rf", "u+rwX", self.path], check=False)
        shutil.rmtree(self.path, ignore_errors=True)

    __exit__ = close

    # What is there

    def committed_logs(self):
        return sorted(self.committed.glob("*"), key=lambda p: float(p.name.rsplit("_", 1)[1]))

    def blocks(self):
        """Files of the storage folder that are data blocks."""
        return [p for p in self.storage.glob("*-*-*-*-*") if len(p.name) == 36]

    def logs(self):
        """All that is there: committed ones, blocks, the open one."""
        return [*self.committed_logs(), *self.blocks(), *([self.current_log] if self.current_log.exists() else [])]

    def is_sent(self):
        return not self.blocks() and not self.committed_logs()

    def has_intake_file(self):
        return any(self.storage.glob(".skeldaIntake_*.journal"))

    def leftovers(self):
        """Files that are there only while another one is written."""
        return [p.name for p in [*self.storage.iterdir(), *self.support.iterdir()]
                if "tmp" in p.name.lower() or p.suffix in (".part", ".new")]

    def current_events(self):
        """The events of the open log, up to where it may be torn."""
        frames, _ = frame_log.readable(self.current_log.read_bytes())
        return [frame for frame in frames if frame.type == frame_log.EVENT]

    def log_lines(self):
        return self.log.read_text(errors="replace").splitlines() if self.log.exists() else []

    def answered(self, how):
        """The numbers of the events at which the calls of a host that numbers them have returned that."""
        return [number for number, answer in enumerate(self.answers.read_bytes()) if answer == how]

    # Running in it

    def own_bundle(self, change=lambda information: None):
        """A copy of the bundle whose information dictionary `change` may alter."""
        copy = self.path / f"{self.bundle.parent.parent.name}/PlugIns/{self.bundle.name}"
        shutil.copytree(self.bundle, copy, dirs_exist_ok=True)
        information = plistlib.loads((copy / "Info.plist").read_bytes())
        change(information)
        (copy / "Info.plist").write_bytes(plistlib.dumps(information))
        return copy

    def environment(self, **more):
        kept = {name: value for name, value in os.environ.items() if name == "PATH" or name.endswith("SAN_OPTIONS")}
        folders = {"HOME": "", "XDG_DATA_HOME": "data", "XDG_STATE_HOME": "state", "XDG_DOCUMENTS_DIR": "documents",
                   "TMPDIR": "tmp"}
        own = {name: self.path / folder for name, folder in folders.items()}
        own |= {"LANG": "C.UTF-8", "SKELDA_LOG": self.log, "TOLD": self.answers}
        return kept | {name: str(value) for name, value in (own | more).items()}

    def start(self, *arguments, bundle=None, environment=None, keep=None, **popen):
        """Starts the bundle's program; with `keep`, the example that links what it removes into that folder."""
        bundle = bundle or (KEEPING_EXAMPLE if keep else self.bundle)
        if EMULATOR:  # a handshake alone takes seconds
            arguments = [*arguments, "--rest", "8"]
        environment = dict(environment or self.environment())
        if keep:
            keep.mkdir(exist_ok=True)
            environment["SKELDA_TEST_KEEP"] = str(keep)
        return Process([bundle / bundle.stem, *arguments], env=environment, **popen)

    def run(self, *arguments, within=60.0, **more):
        """Runs the bundle's program to its end; the process, which must not have been killed."""
        with self.start(*arguments, **more) as process:
            process.wait(within)
            return process


class Process(contextlib.AbstractContextManager):
    """A child with its output kept. Leaving the block ends it, whatever its state."""

    def __init__(self, command, **popen):
        emulator = EMULATOR if isinstance(command[0], pathlib.Path) else []
        self.command, self.said = [str(part) for part in [*emulator, *command]], tempfile.TemporaryFile()
        self.child = subprocess.Popen(self.command, stdin=subprocess.DEVNULL, stdout=self.said,
                                      stderr=subprocess.STDOUT, **popen)
        self.pid = self.child.pid

    def kill(self, *_):
        self.child.kill()
        self.child.wait()

    __exit__ = kill

    @property
    def status(self):
        return self.child.returncode

    @property
    def output(self):
        return os.pread(self.said.fileno(), 1 << 30, 0).decode(errors="replace")

    @property
    def lines(self):
        """Whole ones; the last of it may be on its way."""
        return self.output.split("\n")[:-1]

    def wait(self, within):
        try:
            self.child.wait(within)
        except subprocess.TimeoutExpired:
            raise AssertionError(f"{self.command} still runs after {within} s:\n{self.output}") from None
        return self.status

    def terminate(self, within=10.0):
        self.child.terminate()
        return self.wait(within)

    def line_with(self, text, within=20.0):
        """The first line that contains `text`, waited for."""
        def found():
            ended = self.child.poll() is not None
            return next((line for line in self.lines if text in line), ended)

        line = eventually(found, within)
        if not isinstance(line, str):
            raise AssertionError(f"no line with {text!r} from {self.command}:\n{self.output}")
        return line

    def number(self, name):
        """What stands behind "name: " in the output."""
        return int(self.line_with(f"{name}: ", 0.1).split(": ", 1)[1])


class Collector(contextlib.AbstractContextManager):
    """skelda-collector on a loopback port of its own. Restarting keeps the port and the store."""

    def __init__(self, folder, *arguments, plain=False, listen=None, store=None):
        self.folder = pathlib.Path(folder)
        self.store, self.tls = store or self.folder / "received", self.folder / "tls"
        self.plain, self.port = plain, 0
        self.start(*arguments, listen=listen)

    def command(self, listen, *arguments):
        scheme = ["--http"] if self.plain else []
        return [COLLECTOR, "--listen", listen, "--store", self.store, "--tls-dir", self.tls, *scheme, *arguments]

    def start(self, *arguments, listen=None):
        self.process = Process(self.command(listen or f"127.0.0.1:{self.port}", *arguments))
        try:
            line = self.process.line_with("listening on ")
        except AssertionError:
            self.process.kill()
            raise
        self.url = line.split(" ")[-1]
        self.port = urllib.parse.urlsplit(self.url).port

    def stop(self):
        """Ends it as a service manager would; it must obey, cleanly."""
        if self.process.terminate() != 0:
            raise AssertionError(f"the collector ended with {self.process.status}:\n{self.process.output}")

    def kill(self, *_):
        self.process.kill()

    __exit__ = kill

    @property
    def authority(self):
        return self.tls / "authority.pem"

    @property
    def trusting(self):
        return ssl.create_default_context(cafile=self.authority)

    def get(self, path):
        """The status and what is said; 0 where nobody answers."""
        with contextlib.suppress(OSError, http.client.HTTPException):
            return Client(self).ask("GET", path, key=None)
        return 0, ""

    def entries(self):
        path = self.store / "received.jsonl"
        return [json.loads(line) for line in path.read_text().splitlines()] if path.exists() else []

    def logs(self):
        """The bytes of every stored log, in the order of arrival."""
        return [(self.store / entry["file"]).read_bytes() for entry in self.entries()]


class Client:
    """A connection to a collector."""

    def __init__(self, collector):
        self.connection = (http.client.HTTPConnection("127.0.0.1", collector.port, timeout=20) if collector.plain else
                           http.client.HTTPSConnection("localhost", collector.port, timeout=20, context=collector.trusting))

    def ask(self, method, path, body=None, key=KEY, **headers):
        """The status, and the answer's text or what it says in JSON."""
        self.connection.request(method, path, body, headers | ({"X-Skelda-Api-Key": key} if key else {}))
        self.answer = self.connection.getresponse()
        text = self.answer.read().decode()
        return self.answer.status, json.loads(text) if text.startswith(("{", "[")) else text

    def post(self, body, key=KEY):
        return self.ask("POST", PATH, body, key)


def fill(ballast):
    """Writes to that file until its disk is full."""
    with contextlib.suppress(OSError), open(ballast, "wb", buffering=0) as file:
        while True:
            file.write(bytes(1024))


class Run(contextlib.ExitStack):
    """One that goes on where something is wrong, and says all of it in the end."""

    def __init__(self, seed=None):
        super().__init__()
        self.chance, self.problems, self.step = random.Random(seed), [], ""

    def expect_alive(self, host):
        self.expect(host.child.poll() is None, f"the host ended by itself with {host.status}: {host.output[-2000:]}")

    def expect(self, good, problem):
        if not good:
            self.problems.append(f"{self.step}{problem}")


def play(document, make, length=("minutes", 10.0), **options):
    """What a run at length does when it is called: it says how it went, and which problems there were."""
    parser = argparse.ArgumentParser(description=document)
    parser.add_argument(length[0], type=type(length[1]), nargs="?", default=length[1])
    for name, value in {"seed": int.from_bytes(os.urandom(4), "little"), **options}.items():
        parser.add_argument(f"--{name}", type=type(value), default=value)
    chosen = vars(parser.parse_args())
    print(f"seed {chosen['seed']}", flush=True)
    with make(**chosen) as run:
        run.run()
        print("\n".join([run.report(), *run.problems, f"{len(run.problems)} problems"]))
        return 1 if run.problems else 0


def give_identifiers(home):
    """Gives an installation the identifiers of a phone, so that its sessions can complete: those that
    a phone has handed to another one, which is thrown away."""
    with Home() as donor:
        path = donor.path / "phone.socket"
        with donor.start("--events", "1", "--speed", "0", "--phone", path, "--linger", "20",
                         environment=donor.environment(SKELDA_LOG="off")) as host:
            with Process([PHONE, path]) as phone:
                if phone.wait(30) != 0:
                    raise AssertionError(f"the phone was not acknowledged:\n{phone.output}\n{host.output}")
            host.wait(60)
        shutil.copytree(donor.path / "state", home.path / "state", dirs_exist_ok=True)


def events_of(logs):
    """The events of some logs (bytes each), in order."""
    return [frame for log in logs for frame in frame_log.frames_of(log) if frame.type == frame_log.EVENT]


def numbers_of(frames):
    """How often each event is there that a host has numbered."""
    return collections.Counter(int(frame.event_parameters["n"]) for frame in frames if frame.type == frame_log.EVENT)

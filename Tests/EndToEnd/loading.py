"""What stands behind the address of many agents, for tests: servers of the stream, the database, the
loader, and logs that nobody recorded."""

import base64
import contextlib
import glob
import hashlib
import json
import os
import pathlib
import pwd
import queue
import signal
import socket
import struct
import subprocess
import threading
import time

import frame_log
from support import BUILD, Process, eventually

LOADER = BUILD / "Tools/skelda-load/skelda-load"
KEY = hashlib.sha256(b"MORNINGRUN0DEMO0KEY7").hexdigest()
POSTGRES = (sorted(glob.glob("/usr/lib/postgresql/*/bin")) or [""])[-1]


def free_ports(count):
    with contextlib.ExitStack() as stack:
        sockets = [stack.enter_context(socket.socket()) for _ in range(count)]
        for each in sockets:
            each.bind(("127.0.0.1", 0))
        return [each.getsockname()[1] for each in sockets]


def digest(body):
    return hashlib.sha256(body).hexdigest()


# Logs


def frame(kind, epoch, payload, uptime=5000):
    body = json.dumps(payload, separators=(",", ":"), ensure_ascii=False).encode()
    return struct.pack("<B3sqqI", 1, kind.to_bytes(3, "little"), epoch, uptime, len(body)) + body


def coded(text):
    return base64.b64encode(text.encode()).decode()


def event(number, at, name, **parameters):
    return frame(frame_log.EVENT, at, {
        "sk.event.id": number, "sk.event.name": coded(name), "sk.event.timed": False,
        "sk.event.type": "CUSTOM_EVENT", "sk.timed.event.starting": False, "sk.event.timestamp": at,
        "sk.event.user.parameters": {coded(k): coded(v) for k, v in parameters.items()},
        "sk.event.skelda.parameters": {}, "sk.timed.event.duration": 0, "sk.event.uptime": 5000})


def make_log(device, counter, at, events, version="1.4", country="CH", end=None):
    """A log as a device would send it: `events` is a number of events, or frames of some. One session,
    which starts at that time, and ends at `end` when that is said."""
    if isinstance(events, int):
        events = [event(n + 1, at + n, ("HeartRate", "Pace", "LapDone")[n % 3], bpm=str(120 + n), zone="4")
                  for n in range(events)]
    head = [(frame_log.COUNTER, {"sk.frame.log.counter": counter}),
            (133, {"sk.app.version": version, "sk.bundle.id": "example.runner", "sk.app.version.code": "27"}),
            (139, {"sk.device.properties": {"device.arch": "arm32", "device.os.version": "9.1",
                                            "device.model.1": "Watch6,2", "scr.height": "484", "scr.width": "396",
                                            "bnd.ver": "27"}}),
            (140, {"sk.reported.id": {"iOSInstallationId": coded(device)}, "sk.ad.tracking": False}),
            (148, {"sk.country": country, "sk.language": "de"}),
            (frame_log.SESSION_ID, {"sk.session.id": at, "sk.session.id.current.state": 0,
                                    "sk.session.elapsed.start.time": 5000, "sk.session.elapsed.end.time": 0})]
    tail = [] if end is None else [(frame_log.SESSION_ID, {
        "sk.session.id": at, "sk.session.id.current.state": 0, "sk.session.elapsed.start.time": 5000,
        "sk.session.elapsed.end.time": 5000 + end - at})]
    tail.append((frame_log.FLUSH, {"sk.flush.frame.code": 3, "sk.flush.frame.reason": "Session is finalized"}))
    return b"".join([*(frame(k, at, p) for k, p in head), *events, *(frame(k, at, p) for k, p in tail)])


# The stream


class Stream:
    """A client of the stream's servers: requests, and as many of them at once as one likes."""

    def __init__(self, port, within=5.0):
        self.socket = socket.create_connection(("127.0.0.1", port), timeout=within)
        self.input = self.socket.makefile("rb")
        self.input.readline()
        options = {"verbose": False, "headers": True, "no_responders": True}
        self.socket.sendall(b"CONNECT " + json.dumps(options).encode() + b"\r\nSUB answers.* 1\r\nPING\r\n")
        while not self.input.readline().startswith(b"PONG"):
            pass

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def send(self, number, subject, body, headers=None):
        lines = "".join(f"{name}: {value}\r\n" for name, value in (headers or {}).items())
        head = f"NATS/1.0\r\n{lines}\r\n".encode() if headers else b""
        verb, sizes = ("HPUB", f"{len(head)} {len(head) + len(body)}") if head else ("PUB", f"{len(body)}")
        self.socket.sendall(f"{verb} {subject} answers.{number} {sizes}\r\n".encode() + head + body + b"\r\n")

    def answer(self):
        """The number of the next answer and what it says; None where nobody was there to answer."""
        while True:
            words = self.input.readline().split()
            if not words:
                raise ConnectionError("the server has hung up")
            if words[0] == b"PING":
                self.socket.sendall(b"PONG\r\n")
            elif words[0] in (b"MSG", b"HMSG"):
                data = self.input.read(int(words[-1]) + 2)[:-2]
                data = data[int(words[-2]):] if words[0] == b"HMSG" else data
                return words[1].decode().rpartition(".")[2], json.loads(data) if data else None

    def request(self, subject, document=None):
        self.send("once", subject, json.dumps(document).encode() if document is not None else b"")
        return self.answer()[1]

    def publish(self, bodies, key=KEY):
        """Publishes logs as a collector would; the digests of those that the stream has acknowledged."""
        numbers = {str(n): digest(body) for n, body in enumerate(bodies)}
        for number, body in zip(numbers, bodies):
            self.send(number, f"SKELDA_LOGS.{key}", body, {
                "Nats-Msg-Id": numbers[number], "Skelda-Length": len(body),
                "Skelda-Received": time.strftime("%Y-%m-%dT%H:%M:%S.000000Z", time.gmtime())})
        answers = (self.answer() for _ in bodies)
        return {numbers[number] for number, said in answers if said and "seq" in said}

    def make(self, name, replicas=1):
        return self.request(f"$JS.API.STREAM.CREATE.{name}", {
            "name": name, "subjects": [f"{name}.>"], "storage": "file", "num_replicas": replicas,
            "discard": "new", "duplicate_window": 600 * 10**9, "retention": "limits", "max_consumers": -1,
            "max_msgs": -1, "max_bytes": -1, "max_age": 0, "max_msg_size": -1})

    def state(self, name):
        said = self.request(f"$JS.API.STREAM.INFO.{name}")
        return said.get("state") if said else None

    def bodies(self, name):
        """Every message of a stream, in order."""
        state = self.state(name)
        found = []
        for number in range(state["first_seq"], state["last_seq"] + 1):
            said = self.request(f"$JS.API.STREAM.MSG.GET.{name}", {"seq": number})
            if "message" in said:
                found.append(base64.b64decode(said["message"].get("data", "")))
        return found


class Servers:
    """Servers of the stream that replicate it among themselves; each can be killed and started."""

    def __init__(self, folder, count=1):
        self.folder = pathlib.Path(folder)
        self.ports, self.routes = free_ports(count), free_ports(count)
        self.processes = [None] * count
        for number in range(count):
            self.start(number)
        self.eventually_ready()

    @property
    def address(self):
        return "nats://" + ",".join(f"127.0.0.1:{port}" for port in self.ports)

    def store(self, number):
        return self.folder / f"stream-{number}"

    def start(self, number):
        self.store(number).mkdir(parents=True, exist_ok=True)
        routes = ", ".join(f'"nats://127.0.0.1:{port}"' for port in self.routes)
        cluster = f"""cluster {{ name: skelda, listen: "127.0.0.1:{self.routes[number]}", routes: [{routes}] }}"""
        path = self.folder / f"stream-{number}.conf"
        path.write_text(f"""server_name: s{number}\nlisten: "127.0.0.1:{self.ports[number]}"
max_payload: 16MB\nmax_pending: 64MB\njetstream {{ store_dir: "{self.store(number)}" }}
{cluster if len(self.ports) > 1 else ""}\n""")
        self.processes[number] = Process(["nats-server", "-c", path])

    def kill(self, number):
        self.processes[number].kill()
        self.processes[number].__exit__()

    def client(self, within=5.0):
        """A connection to any server that takes one."""
        for port in self.ports:
            with contextlib.suppress(OSError, ConnectionError):
                return Stream(port, within)
        raise ConnectionError("no server of the stream answers")

    def eventually_ready(self, within=30.0):
        def ready():
            with contextlib.suppress(OSError, ConnectionError), self.client() as client:
                said = client.request("$JS.API.INFO")
                return said is not None and "error" not in said
            return False

        if not eventually(ready, within, every=0.1):
            raise AssertionError("the stream's servers are not ready:\n" + self.processes[0].output[-2000:])

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for process in filter(None, self.processes):
            process.__exit__()


# The database


class Database:
    """A PostgreSQL of its own, reached by a socket in its folder. It can be killed and started."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        self.folder.mkdir(parents=True)
        self.owner = {}
        if os.geteuid() == 0:  # as whom it refuses to run
            nobody = pwd.getpwnam("nobody")
            os.chown(self.folder, nobody.pw_uid, nobody.pw_gid)
            self.owner = {"user": nobody.pw_uid, "group": nobody.pw_gid, "extra_groups": []}
        with Process([f"{POSTGRES}/initdb", "-D", self.folder / "data", "-U", "skelda", "-A", "trust", "-E", "UTF8",
                      "--locale=C.UTF-8"], cwd="/", **self.owner) as made:
            if made.wait(60) != 0:
                raise AssertionError(made.output)
        self.connection = f"host={self.folder} user=skelda dbname=postgres"
        self.process = None
        self.start()

    def start(self):
        self.process = Process([f"{POSTGRES}/postgres", "-D", self.folder / "data", "-k", self.folder,
                                "-c", "listen_addresses=", "-c", "max_wal_size=2GB"], cwd="/", **self.owner)
        if not eventually(lambda: self.ask("SELECT 1") == [["1"]], 60, every=0.1):
            raise AssertionError("the database is not ready:\n" + self.process.output[-2000:])

    def kill(self, all_at_once):
        """The server with everything that it started; or one of these, upon which it starts anew."""
        pid = self.process.pid
        children = [int(n) for n in pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()]
        if not all_at_once and children:
            os.kill(children[-1], signal.SIGKILL)
            return
        self.process.child.send_signal(signal.SIGSTOP)
        for child in children:
            with contextlib.suppress(ProcessLookupError):
                os.kill(child, signal.SIGKILL)
        self.process.kill()
        self.process.__exit__()

    def ask(self, question):
        """The rows of the answer, as texts; nothing when there is none."""
        asked = subprocess.run(["psql", "-X", "-A", "-t", "-F", "\t", "-v", "ON_ERROR_STOP=1", self.connection, "-c", question],
                               capture_output=True, text=True, timeout=120)
        if asked.returncode != 0:
            return None
        return [line.split("\t") for line in asked.stdout.splitlines()]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.status is None:
            self.process.child.send_signal(signal.SIGINT)
            with contextlib.suppress(AssertionError):
                self.process.wait(20)
        self.process.__exit__()


def loader(servers, database, *arguments):
    return Process([LOADER, "--stream", servers.address, "--database", database.connection, *arguments])

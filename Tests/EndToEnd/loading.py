"""What stands behind the stream of logs: the loader and its database; and logs that nobody recorded."""

import base64
import contextlib
import glob
import json
import os
import pathlib
import pwd
import signal
import socket
import subprocess
import time

import frame_log
from frame_log import frame
from support import BUILD, Process, digest, eventually

LOADER = BUILD / "Tools/skelda-load/skelda-load"
STREAM = "SKELDA_LOGS"
API_KEY = "MORNINGRUN0DEMO0KEY7"
POSTGRES = (sorted(glob.glob("/usr/lib/postgresql/*/bin")) or [""])[-1]


def free_ports(count):
    with contextlib.ExitStack() as stack:
        sockets = [stack.enter_context(socket.socket()) for _ in range(count)]
        for each in sockets:
            each.bind(("127.0.0.1", 0))
        return [each.getsockname()[1] for each in sockets]


# Logs


def coded(text):
    return base64.b64encode(text.encode()).decode()


def event(number, at, name, **parameters):
    return frame(frame_log.EVENT, {
        "sk.event.id": number, "sk.event.name": coded(name), "sk.event.timed": False,
        "sk.event.type": "CUSTOM_EVENT", "sk.timed.event.starting": False, "sk.event.timestamp": at,
        "sk.event.user.parameters": {coded(k): coded(v) for k, v in parameters.items()},
        "sk.event.skelda.parameters": {}, "sk.timed.event.duration": 0, "sk.event.uptime": 5000}, at)


def session(at, milliseconds=None):
    """The frame of its start, or of its end after so long."""
    return frame(frame_log.SESSION_ID, {
        "sk.session.id": at, "sk.session.id.current.state": 0, "sk.session.elapsed.start.time": 5000,
        "sk.session.elapsed.end.time": 0 if milliseconds is None else 5000 + milliseconds}, at)


def locale(at, country):
    return frame(148, {"sk.country": country, "sk.language": "de"}, at)


def make_log(device, counter, at, *frames, version="1.4", country="CH"):
    """A log of that number: what an agent repeats at the head of each one, and some frames."""
    head = ((frame_log.COUNTER, {"sk.frame.log.counter": counter}),
            (133, {"sk.app.version": version, "sk.bundle.id": "example.runner", "sk.app.version.code": "27"}),
            (139, {"sk.device.properties": {"device.arch": "arm32", "device.os.version": "9.1", "bnd.ver": "27",
                                            "device.model.1": "Watch6,2", "scr.height": "484", "scr.width": "396"}}),
            (140, {"sk.reported.id": {"iOSInstallationId": device}, "sk.ad.tracking": False}))
    end = frame(frame_log.FLUSH, {"sk.flush.frame.code": 3, "sk.flush.frame.reason": "Session is finalized"}, at)
    return b"".join([*(frame(kind, payload, at) for kind, payload in head), locale(at, country), *frames, end])


def usual_log(device, counter, at, events=30):
    """One of 10 KB, with a session and as many events."""
    names = ("HeartRate", "Pace", "LapDone")
    return make_log(device, counter, at, session(at),
                    *(event(n + 1, at + n, names[n % 3], bpm=str(120 + n), zone="4") for n in range(events)))


# The stream


class Stream(contextlib.AbstractContextManager):
    """A client of the stream's servers: requests, and as many of them at once as one likes."""

    def __init__(self, port, within=5.0, host="127.0.0.1"):
        self.within = within
        self.socket = socket.create_connection((host, port), timeout=within)
        self.input = self.socket.makefile("rb")
        self.input.readline()
        options = {"verbose": False, "headers": True, "no_responders": True}
        self.socket.sendall(b"CONNECT " + json.dumps(options).encode() + b"\r\nSUB answers.* 1\r\nPING\r\n")
        while not self.input.readline().startswith(b"PONG"):
            pass

    def __exit__(self, *_):
        self.socket.close()

    def send(self, number, subject, body, headers=None):
        lines = "".join(f"{name}: {value}\r\n" for name, value in (headers or {}).items())
        head = f"NATS/1.0\r\n{lines}\r\n".encode() if headers else b""
        verb, sizes = ("HPUB", f"{len(head)} {len(head) + len(body)}") if head else ("PUB", f"{len(body)}")
        self.socket.sendall(f"{verb} {subject} answers.{number} {sizes}\r\n".encode() + head + body + b"\r\n")

    def answer(self):
        """The number of the next answer and what it says; None where nobody was there to answer."""
        deadline = time.monotonic() + self.within
        while True:
            words = self.input.readline().split()
            if not words:
                raise ConnectionError("the server has hung up")
            if time.monotonic() > deadline:
                raise TimeoutError("the server is there and does not answer")
            if words[0] == b"PING":
                self.socket.sendall(b"PONG\r\n")
            elif words[0] in (b"MSG", b"HMSG"):
                data = self.input.read(int(words[-1]) + 2)[:-2]
                data = data[int(words[-2]):] if words[0] == b"HMSG" else data
                return words[1].decode().rpartition(".")[2], json.loads(data) if data else None

    def request(self, subject, document=None):
        self.send("once", subject, json.dumps(document).encode() if document is not None else b"")
        return self.answer()[1]

    def publish(self, bodies):
        """As a collector does. All must be acknowledged."""
        for first in range(0, len(bodies), 256):
            some = bodies[first:first + 256]
            for number, body in enumerate(some):
                self.send(number, f"{STREAM}.{digest(API_KEY.encode())}", body, {
                    "Nats-Msg-Id": digest(body), "Skelda-Length": len(body),
                    "Skelda-Received": time.strftime("%Y-%m-%dT%H:%M:%S.000000Z", time.gmtime())})
            for _ in some:
                _, said = self.answer()
                if not said or "seq" not in said:
                    raise AssertionError(said)

    def each_message(self, name=STREAM):
        """Of a stream: its headers and its body."""
        said = self.request(f"$JS.API.STREAM.INFO.{name}")
        numbers = range(said["state"]["first_seq"], said["state"]["last_seq"] + 1) if "state" in said else ()
        for first in range(0, len(numbers), 64):
            some = numbers[first:first + 64]
            for number in some:
                self.send(number, f"$JS.API.STREAM.MSG.GET.{name}", json.dumps({"seq": number}).encode())
            for each in [self.answer()[1].get("message") for _ in some]:
                if each:
                    yield headers_of(base64.b64decode(each.get("hdrs", ""))), base64.b64decode(each.get("data", ""))

    def messages(self, name=STREAM):
        return list(self.each_message(name))

    def bodies(self, name=STREAM):
        return [body for _, body in self.messages(name)]


def headers_of(lines):
    return dict(line.split(": ", 1) for line in lines.decode().split("\r\n")[1:] if line)


def make_stream(servers, name=STREAM):
    """As a collector makes it, where none is started."""
    def made():
        said = servers.ask(f"$JS.API.STREAM.CREATE.{name}", {
            "name": name, "subjects": [f"{name}.>"], "storage": "file", "num_replicas": len(servers.ports),
            "discard": "new", "duplicate_window": 600 * 10**9, "retention": "limits", "max_consumers": -1,
            "max_msgs": -1, "max_bytes": -1, "max_age": 0, "max_msg_size": -1})
        return said and "error" not in said

    if not eventually(made, 30, every=0.2):
        raise AssertionError("no stream can be made:\n" + servers.processes[0].output[-2000:])


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
            if made.wait(120) != 0:
                raise AssertionError(made.output)
        self.connection = f"host={self.folder} user=skelda dbname=postgres"
        self.start()

    def start(self):
        self.process = Process([f"{POSTGRES}/postgres", "-D", self.folder / "data", "-k", self.folder,
                                "-c", "listen_addresses=", "-c", "max_wal_size=2GB"], cwd="/", **self.owner)

    def await_ready(self):
        if not eventually(lambda: self.ask("SELECT 1") == [["1"]], 60, every=0.1):
            raise AssertionError("the database is not ready:\n" + self.process.output[-2000:])

    def kill(self, all_of_it):
        """The server with everything that it started; or one of these, upon which it starts anew."""
        pid = self.process.pid
        children = pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()
        if all_of_it:
            self.process.child.send_signal(signal.SIGSTOP)
        for child in children if all_of_it else children[-1:]:
            with contextlib.suppress(ProcessLookupError):
                os.kill(int(child), signal.SIGKILL)
        if all_of_it:
            self.process.kill()

    def ask(self, question):
        """The rows of the answer, as texts; None where there is none."""
        asked = subprocess.run(["psql", "-X", "-A", "-t", "-F", "\t", "-v", "ON_ERROR_STOP=1", self.connection,
                                "-c", question], capture_output=True, text=True, timeout=120)
        return [line.split("\t") for line in asked.stdout.splitlines()] if asked.returncode == 0 else None

    @contextlib.contextmanager
    def locked(self, table):
        """Nobody can write into the table meanwhile."""
        command = ["psql", "-X", "-q", "-A", "-t", self.connection]
        with subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as holder:
            holder.stdin.write(f"BEGIN; LOCK TABLE {table} IN EXCLUSIVE MODE; SELECT 'locked';\n")
            holder.stdin.flush()
            holder.stdout.readline()
            try:
                yield
            finally:
                holder.stdin.close()

    def __enter__(self):
        self.await_ready()
        return self

    def __exit__(self, *_):
        if self.process.child.poll() is None:
            self.process.child.send_signal(signal.SIGINT)
            with contextlib.suppress(AssertionError):
                self.process.wait(20)
        self.process.kill()


def loader(servers, database, *arguments):
    return Process([LOADER, "--stream", servers.url, "--database", database.connection, *arguments])


def load_everything(servers, database, *arguments, within=60):
    """Loads until the stream is empty; what the loader said last."""
    with loader(servers, database, "--until-empty", *arguments) as process:
        if process.wait(within) != 0:
            raise AssertionError(process.output)
        return process.output.splitlines()[-1]

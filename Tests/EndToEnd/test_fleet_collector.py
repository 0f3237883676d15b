"""Collectors in front of a stream of three servers: what they answer, what they withstand, and that
what they acknowledged is there."""

import contextlib
import hashlib
import http.client
import json
import pathlib
import resource
import socket
import ssl
import tempfile
import threading
import time
import unittest

import fleet
from support import Home, eventually, scratch_root
from test_collector import KEY, LOG, PATH, Client, frame

NO_LOGS = {"text": b"hello", "a page": b"<html><body>" * 100, "JSON": json.dumps([{"a": 1}] * 100).encode(),
           "zeros": bytes(5000), "nothing": b""}
MEGABYTES = 1 << 20


def setUpModule():
    if not fleet.is_built():
        raise unittest.SkipTest("built without SKELDA_FLEET, or without nats-server")


def resident(pid):
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        return next(int(line.split()[1]) * 1024 for line in status if line.startswith("VmRSS"))


class Sender(threading.Thread):
    """Sends logs one after the other, each until a collector takes it, as agents do."""

    def __init__(self, number, collectors):
        super().__init__(daemon=True)
        self.number, self.collectors = number, collectors
        self.acknowledged, self.refused = [], 0
        self.ends = threading.Event()

    def make(self, count):
        return LOG + frame(134, {"sender": self.number, "n": count})

    def run(self):
        clients = {}
        for count in range(1_000_000):
            log = self.make(count)
            for attempt in range(1_000_000):
                if self.ends.is_set():
                    return
                which = (self.number + attempt) % len(self.collectors)
                try:
                    client = clients.get(which) or clients.setdefault(which, Client(self.collectors[which]))
                    status = client.post(log, f"key {self.number}")[0]
                except (OSError, http.client.HTTPException):
                    clients.pop(which, None)
                    status = 0
                if status == 200:
                    break
                self.refused += 1
                self.ends.wait(0.05)  # the agent has rules of its own; this one is in a hurry
            self.acknowledged.append(hashlib.sha256(log).hexdigest())


class FleetCollectorTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="skelda-fleet-", dir=scratch_root())
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.stack = contextlib.ExitStack()
        self.addCleanup(self.stack.close)
        self.servers = self.stack.enter_context(fleet.Servers(self.folder))

    def collector(self, *arguments):
        collector = self.stack.enter_context(fleet.StreamCollector(self.folder, self.servers, *arguments))
        collector.await_ready()
        return collector

    def test_a_log_is_in_the_stream_once_and_what_is_none_is_answered_so(self):
        collector = self.collector("--api-key", KEY, "--api-key", "busy", "--rate-by-key", "20", "--max-bytes", "1000000")
        client = Client(collector)
        damaged = LOG + b"then nothing that is a frame"
        for body, text in ((LOG, b"kept\n"), (LOG, b"kept before\n"), (damaged, b"kept\n")):
            self.assertEqual((200, text), client.post(body))
        for name, body in NO_LOGS.items():
            with self.subTest(name):
                self.assertEqual(400, client.post(body)[0])
        self.assertEqual(401, client.post(LOG, key="unknown")[0])
        self.assertEqual((404, 405, 405), (client.ask("POST", "/elsewhere", b"x")[0], client.ask("GET", PATH)[0],
                                           client.ask("POST", "/metrics", b"x")[0]))
        rate = [client.post(LOG, key="busy")[0] for _ in range(40)]
        self.assertIn(429, rate)
        self.assertEqual(20, rate[:20].count(200))
        with self.collector("--accept-all", "--http") as takes_all:
            self.assertEqual(200, Client(takes_all).post(NO_LOGS["a page"])[0])

        messages = self.servers.messages()
        self.assertEqual([LOG, damaged, NO_LOGS["a page"]], [body for _, body in messages])
        for headers, body in messages:
            self.assertEqual((hashlib.sha256(body).hexdigest(), str(len(body))),
                             (headers["Nats-Msg-Id"], headers["Skelda-Length"]))
            self.assertRegex(headers["Skelda-Received"], r"^20\d\d-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z$")
        self.assertEqual([("5", None), ("5", f"at {len(LOG)}"), ("0", "at 0")],
                         [(h["Skelda-Frames"], h.get("Skelda-Fault", "").split(":")[0] or None) for h, _ in messages])
        self.assertEqual({hashlib.sha256(KEY.encode()).hexdigest()}, self.servers.subjects())
        figures = collector.get("/metrics")[1]
        for line in ('logs_total{status="400"} 5', f"repeats_total {1 + rate.count(200)}", "damaged_logs_total 1", "held_bytes 0"):
            self.assertIn(f"skelda_collector_{line}", figures)

    def test_what_was_acknowledged_is_there_once_whatever_is_killed(self):
        collectors = [self.collector() for _ in range(2)]
        senders = [Sender(number, collectors) for number in range(6)]
        for sender in senders:
            sender.start()
        taken = lambda: sum(len(sender.acknowledged) for sender in senders)  # noqa: E731
        with Home() as home:
            sent = home.path / "sent"
            sent.mkdir()
            for kill in ("leader", "collector", "other server", "leader"):
                goal = taken() + 200
                self.assertTrue(eventually(lambda: taken() >= goal, 60), f"stands before the kill of the {kill}")
                home.run("--events", "30", "--speed", "0", "--server", collectors[0].url, "--linger", "5",
                         environment=home.environment(SSL_CERT_FILE=collectors[0].authority), keep_sent=sent)
                if kill == "collector":
                    collectors[0].kill()
                    collectors[0].start()
                    continue
                leader = eventually(lambda: self.servers.leader() is not None and [self.servers.leader()], 30)[0]
                which = leader if kill == "leader" else (leader + 1) % 3
                self.servers.kill(which)
                goal = taken() + 100  # a majority goes on
                self.assertTrue(eventually(lambda: taken() >= goal, 60), f"stands without the {kill}")
                self.servers.start(which)
            for sender in senders:
                sender.ends.set()
            for sender in senders:
                sender.join(30)
            self.assertTrue(eventually(lambda: self.servers.replicas() == [True, True], 60), "a replica lags behind")
            ids = [headers["Nats-Msg-Id"] for headers, _ in self.servers.messages()]
            acknowledged = [digest for sender in senders for digest in sender.acknowledged]
            left = {hashlib.sha256(block.read_bytes()).hexdigest() for block in home.blocks()}
            acknowledged += [digest for file in sent.iterdir()
                             if (digest := hashlib.sha256(file.read_bytes()).hexdigest()) not in left]
        self.assertEqual(len(ids), len(set(ids)), "a log is there twice")
        self.assertEqual(set(), set(acknowledged) - set(ids), "acknowledged, and not there")
        print(f"         {len(acknowledged)} acknowledged, {sum(s.refused for s in senders)} refused or unanswered")

    def test_without_a_majority_nothing_is_acknowledged(self):
        collector = self.collector("--patience", "2")
        client = Client(collector)
        self.assertEqual(200, client.post(LOG)[0])
        for which in (0, 1):
            self.servers.kill(which)
        client.connection.request("POST", PATH, LOG + LOG, {"X-Skelda-Api-Key": KEY})
        answer = client.connection.getresponse()
        self.assertEqual((503, True), (answer.status, int(answer.getheader("Retry-After")) > 0))
        answer.read()
        self.assertTrue(eventually(lambda: collector.get("/readyz")[0] == 503))
        self.assertEqual(200, collector.get("/healthz")[0])
        for which in (0, 1):
            self.servers.start(which)
        collector.await_ready()
        # On a connection of its own: one that lay idle meanwhile may be closed.
        self.assertTrue(eventually(lambda: Client(collector).post(LOG + LOG)[0] == 200))
        self.assertEqual([LOG, LOG + LOG], [body for _, body in self.servers.messages()])
        self.assertEqual(0, collector.process.terminate())

    def test_many_and_slow_and_oversized_ones_cost_little_memory_and_hold_up_nobody(self):
        collector = self.collector()
        resource.setrlimit(resource.RLIMIT_NOFILE, (resource.getrlimit(resource.RLIMIT_NOFILE)[1],) * 2)
        many = min(10_000, resource.getrlimit(resource.RLIMIT_NOFILE)[0] - 500)
        context = ssl.create_default_context(cafile=collector.authority)

        def connect(head):
            connection = context.wrap_socket(socket.create_connection(("127.0.0.1", collector.port), 40),
                                             server_hostname="localhost")
            connection.sendall(f"POST {PATH} HTTP/1.1\r\nHost: a\r\nX-Skelda-Api-Key: k\r\n{head}\r\n".encode())
            return connection

        before = resident(collector.process.pid)
        with contextlib.ExitStack() as stack:
            for _ in range(many):
                stack.enter_context(socket.create_connection(("127.0.0.1", collector.port), 20))
            drip = stack.enter_context(connect("X-Slow: "))
            began = time.monotonic()
            for number in range(50):
                self.assertEqual(200, Client(collector).post(LOG + frame(134, {"n": number}))[0])
            self.assertLess(time.monotonic() - began, 10)
            self.assertLess(resident(collector.process.pid) - before, 256 * MEGABYTES)
            with self.assertRaises(OSError):  # a byte a time keeps nothing open
                for _ in range(600):
                    drip.sendall(b"x")
                    time.sleep(0.1)
        for head, piece in ((f"Content-Length: {1 << 30}\r\n", bytes(MEGABYTES)),
                            ("Transfer-Encoding: chunked\r\n", b"100000\r\n" + bytes(MEGABYTES) + b"\r\n")):
            with self.subTest(head), connect(head) as connection:
                with contextlib.suppress(OSError):
                    for _ in range(64):
                        connection.sendall(piece)
                    connection.sendall(b"0\r\n\r\n")
                self.assertIn(b"413", connection.recv(100))
        self.assertLess(resident(collector.process.pid) - before, 256 * MEGABYTES)

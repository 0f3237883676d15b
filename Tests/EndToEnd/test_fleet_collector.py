"""Collectors in front of a stream of three servers: what they answer, and what they withstand."""

import contextlib
import hashlib
import json
import pathlib
import resource
import socket
import ssl
import tempfile
import time
import unittest

import fleet
from fleet import resident
from frame_log import frame
from support import KEY, PATH, Client, eventually, scratch_root
from test_collector import LOG

NO_LOGS = {"text": b"hello", "a page": b"<html><body>" * 100, "JSON": json.dumps([{"a": 1}] * 100).encode(),
           "zeros": bytes(5000), "nothing": b""}
MEGABYTES = 1 << 20


def setUpModule():
    if not fleet.is_built():
        raise unittest.SkipTest("built without SKELDA_FLEET, or without nats-server")


class FleetCollectorTest(unittest.TestCase):
    def setUp(self):
        folder = self.enterContext(tempfile.TemporaryDirectory(prefix="skelda-fleet-", dir=scratch_root()))
        self.folder = pathlib.Path(folder)
        self.servers = self.enterContext(fleet.Servers(self.folder))

    def collector(self, *arguments, **more):
        collector = self.enterContext(fleet.StreamCollector(self.folder, self.servers, *arguments, **more))
        collector.await_ready()
        return collector

    def test_a_log_is_in_the_stream_once_and_what_is_none_is_answered_so(self):
        collector = self.collector("--api-key", KEY, "--api-key", "busy", "--rate-by-key", "20", "--max-bytes", "1000000")
        client = Client(collector)
        damaged = LOG + b"then nothing that is a frame"
        for body, text in ((LOG, "kept\n"), (LOG, "kept before\n"), (damaged, "kept\n")):
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
        with self.collector("--accept-all", plain=True) as takes_all:
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

"""The collector on its own: what it takes, what it refuses, what goes wrong on demand."""

import contextlib
import http.client
import socket
import ssl
import struct
import tempfile
import time
import unittest
import urllib.parse

from frame_log import frame
from support import COLLECTOR, KEY, PATH, Client, Collector, Process, digest

LOG = (frame(2, {"sk.frame.log.counter": 1}) + frame(128, {"sk.session.id": 5}) + frame(134, {"n": 1}, version=0)
       + frame(128, {"sk.session.id": 5}) + frame(134, {"n": 2}))


class CollectorTest(unittest.TestCase):
    def setUp(self):
        self.folder = self.enterContext(tempfile.TemporaryDirectory(prefix="skelda-collector-"))

    def start(self, *arguments, **more):
        return Collector(self.folder, *arguments, **more)

    def test_a_whole_log_is_kept_as_it_came_with_a_line_that_describes_it(self):
        with self.start() as collector:
            client = Client(collector)
            for _ in range(2):  # over one connection
                self.assertEqual(200, client.post(LOG)[0])
            entry, again = collector.entries()
            self.assertEqual([LOG, LOG], collector.logs())
            self.assertEqual((None, 1, entry["file"]), (entry.get("repeat"), again["repeat"], again["file"]))
            self.assertEqual(("D4E5", len(LOG), 5, 1, 2, digest(LOG)),
                             tuple(entry[k] for k in ("key", "bytes", "frames", "sessions", "events", "sha256")))
            self.assertEqual((200, [again, entry]), client.ask("GET", "/v1/logs"))
            collector.process.line_with("5 frames, 1 sessions, 2 events")
            collector.stop()
            with open(collector.store / "received.jsonl", "a") as lines:
                lines.write('{"time": "torn by a loss of po')
            collector.start()  # the store and the authority are those of before
            client = Client(collector)
            self.assertEqual((200, [again]), client.ask("GET", "/v1/logs?limit=1"))
            self.assertEqual(2, client.post(LOG)[1]["repeat"])
            self.assertEqual(200, client.post(LOG + frame(134, {"n": 3}))[0])
            self.assertEqual((200, {"status": "ok", "logs": 2, "bytes": 2 * len(LOG) + len(frame(134, {"n": 3})),
                                    "repeats": 2}), client.ask("GET", "/healthz"))

    def test_what_is_no_whole_log_is_refused_with_reason_and_offset(self):
        first = len(frame(2, {"sk.frame.log.counter": 1}))
        broken = bytearray(frame(2, {"a": 1}, version=0))
        broken[-1] ^= 1
        with self.start() as collector:
            client = Client(collector)
            for body, offset in ((b"", 0), (LOG[:10], 0), (LOG[:first + 24], first), (LOG + b"\0", len(LOG)),
                                 (LOG + bytes(broken), len(LOG)), (struct.pack("<I", 1) * 6 + b"[1]", 0)):
                status, answer = client.post(bytes(body))
                self.assertEqual((400, offset), (status, answer["offset"]), answer)
            self.assertEqual([], collector.entries())

    def test_keys_paths_methods_and_sizes(self):
        with self.start("--api-key", KEY, "--api-key", "other", "--max-bytes", str(len(LOG)), plain=True) as collector:
            client = Client(collector)
            for status, request in ((200, ("POST", PATH, LOG)), (200, ("POST", PATH, LOG, "other")),
                                    (401, ("POST", PATH, LOG, "wrong")), (401, ("POST", PATH, LOG, None)),
                                    (404, ("POST", "/v1/other", LOG)), (404, ("GET", "/nothing")), (405, ("GET", PATH)),
                                    (405, ("DELETE", PATH)), (405, ("POST", "/healthz", b"x")),
                                    (413, ("POST", PATH, LOG + b"x")), (413, ("POST", PATH, bytes(5_000_000))),
                                    (200, ("POST", PATH, LOG))):
                self.assertEqual(status, client.ask(*request)[0], request[:2])
            self.assertEqual(3, len(collector.entries()))

    def test_faults_follow_each_other_and_then_all_is_well(self):
        wanted = ["status=503,times=1", "redirect=307:https://elsewhere.example/,times=1", "reset-after=10bytes,times=1",
                  "reset-answer=20bytes,times=1", "drop-answer,times=1", "delay=200ms,status=204,times=1"]
        arguments = [part for text in wanted for part in ("--fault", text)]
        for plain in (True, False):
            with self.subTest(plain=plain), self.start(*arguments, plain=plain) as collector:
                before = len(collector.entries())
                self.assertEqual(503, Client(collector).post(LOG)[0])
                self.assertEqual(307, Client(collector).post(LOG)[0])
                # Of the three that break the connection, the last two have taken the log.
                for kept in (0, 1, 2):
                    with contextlib.suppress(http.client.HTTPException, OSError):
                        self.assertEqual((200, ""), Client(collector).post(LOG))
                    self.assertEqual(before + kept, len(collector.entries()))
                self.assertEqual(204, Client(collector).post(LOG)[0])
                self.assertEqual(200, Client(collector).post(LOG)[0])
                self.assertEqual(before + 4, len(collector.entries()))

    def test_a_fault_that_waits_does_not_hold_up_the_end(self):
        with self.start("--fault", "delay=1h") as collector:
            client = Client(collector)
            client.connection.request("POST", PATH, LOG, {"X-Skelda-Api-Key": KEY})
            collector.process.line_with("fault: delay")
            collector.stop()

    def test_certificates_that_must_not_be_trusted_are_not(self):
        for kind in ("expired", "self-signed", "wrong-name"):
            with self.subTest(kind), self.start("--certificate", kind) as collector, \
                    self.assertRaises(ssl.SSLCertVerificationError):
                Client(collector).post(LOG)

    def test_idle_and_slow_peers_hold_up_nobody(self):
        for plain in (True, False):
            with self.subTest(plain=plain), self.start(plain=plain) as collector, contextlib.ExitStack() as stack:
                def connect():
                    peer = stack.enter_context(socket.create_connection(("127.0.0.1", collector.port), timeout=20))
                    return peer if plain else stack.enter_context(
                        collector.trusting.wrap_socket(peer, server_hostname="localhost"))

                for _ in range(300):  # more than there may be, and not even a handshake
                    stack.enter_context(socket.create_connection(("127.0.0.1", collector.port), timeout=20))
                slow = connect()
                slow.sendall(f"POST {PATH} HTTP/1.1\r\nX-Skelda-Api-Key: {KEY}\r\nContent-Length: {len(LOG)}\r\n\r\n"
                             .encode() + LOG[:-2])
                began = time.monotonic()
                for _ in range(20):
                    client = Client(collector)
                    self.assertEqual((200, 200), (client.ask("GET", "/healthz")[0], client.post(LOG)[0]))
                self.assertLess(time.monotonic() - began, 5)
                slow.sendall(LOG[-2:])
                self.assertIn(b" 200 ", slow.recv(100))
                # A head has an end, in time and in bytes.
                dribbling = connect()
                dribbling.sendall(b"GET /healthz HTTP/1.1\r\nX-More: ")
                began = time.monotonic()
                while dribbling.recv(1000):
                    pass
                self.assertLess(time.monotonic() - began, 15)
                endless = connect()
                with self.assertRaises(OSError):
                    while True:
                        endless.sendall(b"GET /healthz HTTP/1.1\r\n" + b"X-More: yes\r\n" * 10000)
                self.assertEqual(200, Client(collector).post(LOG)[0])

    def test_every_address_of_the_machine_is_named_printed_and_served(self):
        with self.start("--name", "watch.example") as collector:
            certificate, key = collector.tls / "server.pem", collector.tls / "server-key.pem"
            made = certificate.read_bytes()
            self.assertEqual(0o600, key.stat().st_mode & 0o777)
            collector.stop()
            collector.start("--name", "watch.example")
            self.assertEqual(made, certificate.read_bytes())
            collector.stop()
            for listen in ("0.0.0.0:0", "[::]:0"):
                collector.start("--name", "watch.example", listen=listen)
                addresses = [urllib.parse.urlsplit(line.split(" ")[-1]) for line in collector.process.lines
                             if line.startswith("listening")]
                self.assertNotIn(listen.rsplit(":", 1)[0], [address.netloc.rsplit(":", 1)[0] for address in addresses])
                for address in addresses:
                    host = "localhost" if address.hostname == "watch.example" else address.hostname
                    with socket.create_connection((host, address.port), timeout=20) as peer, \
                            collector.trusting.wrap_socket(peer, server_hostname=address.hostname) as secured:
                        secured.sendall(b"GET / HTTP/1.1\r\nHost: localhost\r\n\r\n")
                        shown = b" 200 " if secured.getpeername()[0] in ("127.0.0.1", "::1") else b" 403 "
                        self.assertIn(shown, secured.recv(100), address)
                collector.stop()
            for own_key, outcome in ((key, contextlib.nullcontext()),
                                     (collector.tls / "authority-key.pem", self.assertRaises(AssertionError))):
                with Process([COLLECTOR, "--listen", "127.0.0.1:0", "--store", collector.store, "--cert", certificate,
                              "--key", own_key]) as process, outcome:
                    process.line_with("listening on ")

    def test_the_page_is_for_itself_and_for_this_machine_alone(self):
        with self.start(plain=True) as collector:
            client = Client(collector)
            here = f"127.0.0.1:{collector.port}"
            token = client.ask("GET", "/page/state")[1]["token"]
            fault, evil, token = b'{"add": "status=503,times=1"}', "http://evil.example", {"X-Skelda-Token": token}
            for status, path, body, headers in (
                    (403, "/", None, {"Host": f"rebound.example:{collector.port}"}),
                    (403, "/page/state", None, {"Host": "rebound.example"}),
                    (403, "/page/stream", None, {"Origin": evil}),
                    (403, "/page/state", None, {"Sec-Fetch-Site": "cross-site"}),
                    (403, "/page/faults", fault, {}),
                    (403, "/page/faults", fault, {"X-Skelda-Token": token["X-Skelda-Token"][::-1]}),
                    (403, "/page/faults", fault, token | {"Origin": evil}),
                    (400, "/page/faults", b"{}}", token),
                    (200, "/page/faults", fault, token | {"Origin": f"http://{here}"})):
                client = Client(collector)
                self.assertEqual(status, client.ask("POST" if body else "GET", path, body, None, **headers)[0], (path, headers))
                if path.startswith("/page"):
                    self.assertIn("default-src 'none'", client.answer.getheader("Content-Security-Policy"))
            self.assertEqual([503, 200], [Client(collector).post(LOG)[0] for _ in range(2)])

    def test_a_command_line_that_makes_no_sense_is_refused(self):
        for arguments in (("--fault", "status=99"), ("--fault", "delay=soon"), ("--fault", "explode"), ("--fault", "times=1"), ("--name", "a,DNS:b"), ("--cert", "alone.pem")):
            with self.subTest(arguments), self.assertRaises(AssertionError):
                self.start(*arguments)
        with self.start(plain=True) as one:
            for listen, why in (("nowhere.invalid", "no such address"), ("127.0.0.1:99999", "0 to 65535"),
                                ("127.0.0.1:x", "0 to 65535"), ("::1:8443", "written as"), (":8443", "no address"),
                                (f"127.0.0.1:{one.port}", "another program listens"), ("203.0.113.9", "no interface")):
                with self.subTest(listen), self.assertRaisesRegex(AssertionError, why):
                    self.start(listen=listen)

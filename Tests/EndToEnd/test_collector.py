"""The collector on its own: what it takes, what it refuses, what goes wrong on demand."""

import hashlib
import http.client
import json
import ssl
import struct
import tempfile
import unittest
import zlib

from support import Collector

KEY = "A1B2C3D4E5"
PATH = "/v1/skd.do"


def frame(kind, payload, version=1):
    body = json.dumps(payload).encode()
    head = struct.pack("<BBBBqqI", version, kind & 255, kind >> 8 & 255, kind >> 16, 1, 2, len(body)) + body
    return head + (struct.pack("<I", zlib.crc32(head)) if version == 0 else b"")


LOG = (frame(2, {"sk.frame.log.counter": 1}) + frame(128, {"sk.session.id": 5}) + frame(134, {"n": 1}, 0)
       + frame(128, {"sk.session.id": 5}) + frame(134, {"n": 2}))


class Client:
    def __init__(self, collector, trust=True):
        self.collector = collector
        context = ssl.create_default_context(cafile=str(collector.authority)) if not collector.plain else None
        self.connection = (http.client.HTTPConnection("127.0.0.1", collector.port, timeout=20) if collector.plain else
                           http.client.HTTPSConnection("localhost", collector.port, timeout=20, context=context))

    def ask(self, method, path, body=None, key=KEY):
        self.connection.request(method, path, body, {"X-Skelda-Api-Key": key} if key else {})
        answer = self.connection.getresponse()
        text = answer.read()
        return answer.status, json.loads(text) if text.startswith((b"{", b"[")) else text

    def post(self, body, key=KEY):
        return self.ask("POST", PATH, body, key)


class CollectorTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="skelda-collector-")
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def start(self, *arguments, **more):
        return Collector(self.folder, *arguments, **more)

    def test_a_whole_log_is_kept_as_it_came_with_a_line_that_describes_it(self):
        with self.start() as collector:
            client = Client(collector)
            for _ in range(2):  # over one connection
                self.assertEqual(200, client.post(LOG)[0])
            entry, again = collector.entries()
            self.assertEqual([LOG, LOG], collector.logs())
            self.assertEqual(("D4E5", len(LOG), 5, 1, 2, hashlib.sha256(LOG).hexdigest()),
                             tuple(entry[k] for k in ("key", "bytes", "frames", "sessions", "events", "sha256")))
            self.assertEqual((200, [again, entry]), client.ask("GET", "/v1/logs"))
            self.assertEqual((200, {"status": "ok", "logs": 2, "bytes": 2 * len(LOG)}), client.ask("GET", "/healthz"))
            collector.process.line_with("5 frames, 1 sessions, 2 events")
            collector.stop()
            collector.start()  # the store and the authority are those of before
            self.assertEqual((200, [again]), Client(collector).ask("GET", "/v1/logs?limit=1"))

    def test_what_is_no_whole_log_is_refused_with_reason_and_offset(self):
        first = len(frame(2, {"sk.frame.log.counter": 1}))
        broken = bytearray(frame(2, {"a": 1}, 0))
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
                                    (404, ("POST", "/v1/other", LOG)), (404, ("GET", "/")), (405, ("GET", PATH)),
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
                    with self.assertRaises((http.client.HTTPException, OSError)):
                        status, answer = Client(collector).post(LOG)
                        if status == 200 and not answer:
                            raise http.client.IncompleteRead(b"")
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
            with self.subTest(kind), self.start("--certificate", kind) as collector:
                with self.assertRaises(ssl.SSLCertVerificationError):
                    Client(collector).post(LOG)

    def test_a_command_line_that_makes_no_sense_is_refused(self):
        for arguments in (("--fault", "status=99"), ("--fault", "delay=soon"), ("--fault", "explode"),
                          ("--listen", "nowhere")):
            with self.subTest(arguments), self.assertRaises(AssertionError):
                self.start(*arguments)

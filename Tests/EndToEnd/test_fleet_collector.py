"""Collectors in front of a stream of three servers: what they answer, and what they withstand."""

import contextlib
import json
import multiprocessing
import os
import pathlib
import resource
import socket
import ssl
import statistics
import subprocess
import sys
import tempfile
import time
import unittest
import unittest.mock

import fleet
from fleet import resident
from fleet_kill import FleetKill
from frame_log import frame
from loading import LOADER, POSTGRES, STREAM, Database, free_ports
from support import KEY, PATH, ROOT, Client, Collector, Process, digest, eventually, scratch_root
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
            self.assertEqual((digest(body), str(len(body))),
                             (headers["Nats-Msg-Id"], headers["Skelda-Length"]))
            self.assertRegex(headers["Skelda-Received"], r"^20\d\d-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z$")
        self.assertEqual([("5", None), ("5", f"at {len(LOG)}"), ("0", "at 0")],
                         [(h["Skelda-Frames"], h.get("Skelda-Fault", "").split(":")[0] or None) for h, _ in messages])
        self.assertEqual({digest(KEY.encode())}, self.servers.subjects())
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

    def test_what_the_stream_lost_is_published_again_by_the_collector_that_took_it_or_the_next_one(self):
        collector = self.collector("--copies", self.folder / "copies", plain=True)
        logs = [LOG + frame(134, {"n": n}) for n in range(3)]
        for log in logs:
            self.assertEqual(200, Client(collector).post(log)[0])

        def lose(place):
            self.assertTrue(self.servers.ask(f"$JS.API.STREAM.MSG.DELETE.{fleet.STREAM}", {"seq": place})["success"])

        def await_again():
            self.assertTrue(eventually(lambda: collector.figures().get("stream_published_again_total") == 1, 60),
                            collector.process.output)

        lose(1)
        leader = self.servers.leader()
        self.servers.kill(leader)
        await_again()
        self.servers.start(leader)
        collector.kill()
        self.assertTrue(eventually(self.servers.are_level, 60))
        lose(2)
        # A server that is started anew forgets the id of what is gone, and the others do not: who led while
        # they take another message with that id for a repeat would have one more than they from then on.
        self.lead_with_a_server_started_anew()
        collector.start()
        await_again()
        self.assertTrue(eventually(self.servers.are_level, 10))
        self.assertEqual(sorted(logs), sorted(body for _, body in self.servers.messages()))
        # Where that happened, the log that is there now has a new place once, and the server is named.
        lose(3)
        self.lead_with_a_server_started_anew()
        with self.servers.client() as client:
            client.publish([logs[2], LOG + LOG, LOG * 3])
        figures = eventually(lambda: (now := collector.figures()).get("stream_servers_astray") and now, 60)
        self.assertTrue(figures, collector.process.output)
        self.assertLess(figures["stream_published_again_total"], 12)

    def lead_with_a_server_started_anew(self):
        self.servers.kill(follower := (self.servers.leader() + 1) % 3)
        self.servers.start(follower)
        self.assertTrue(eventually(self.servers.are_level, 60), [self.servers.holding(index) for index in range(3)])
        step_down = f"$JS.API.STREAM.LEADER.STEPDOWN.{fleet.STREAM}"
        self.assertTrue(eventually(lambda: self.servers.leader() == follower or (self.servers.ask(step_down), False)[1],
                                   60, every=1.5))

    def test_servers_that_ask_who_it_is_are_reached_encrypted_and_by_those_they_know(self):
        with Collector(self.folder / "other") as other, Collector(self.folder / "own") as own:
            authority, stranger = own.authority, other.authority
        tls = pathlib.Path(authority).parent
        mine, key = self.folder / "mine.pem", self.folder / "mine-key.pem"
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                        "-days", "2", "-subj", "/CN=fleet", "-addext", "subjectAltName=IP:127.0.0.1", "-out", mine, "-keyout",
                        key], check=True, capture_output=True)
        deploy = [(ROOT / "deploy" / name).read_text() for name in ("nats-server.conf", "example/nats-encrypted.conf")]
        conf = self.folder / "nats.conf"
        conf.write_text("".join(deploy).replace("$2a$11$...", "right").replace(
            "key_file: $STREAM_KEY", f'key_file: $STREAM_KEY, verify: true, ca_file: "{mine}"'))
        self.enterContext(unittest.mock.patch.dict(os.environ, {
            "STREAM_CERTIFICATE": str(tls / "server.pem"), "STREAM_KEY": str(tls / "server-key.pem"),
            "CLUSTER_CERTIFICATE": str(mine), "CLUSTER_KEY": str(key), "CLUSTER_AUTHORITY": str(mine)}))
        servers = self.enterContext(fleet.Servers(self.folder / "closed", arguments=["-c", conf]))
        for word in ("right", "wrong"):
            (self.folder / word).write_text(f"collector:{word}\n")
        store = "tls://" + ",".join(f"localhost:{port}" for port in servers.ports)
        ours, user = ["--stream-authority", authority], ["--stream-user", self.folder / "right"]
        certificate = ["--stream-cert", mine, "--stream-key", key]
        known = ours + user + certificate
        # Servers that somebody else vouches for; and ones that do not know it.
        strangers = (["--stream-authority", stranger] + user + certificate, ours + certificate, ours + user,
                     ours + certificate + ["--stream-user", self.folder / "wrong"])

        def start(arguments):
            return self.enterContext(fleet.StreamCollector(self.folder / "own", servers, *arguments, store=store))

        collector = start(known)
        collector.await_ready()
        self.assertEqual((200, "kept\n"), Client(collector).post(LOG))
        with socket.create_connection(("127.0.0.1", servers.routes[0]), 20) as route:
            self.assertEqual(b"", route.recv(4096))  # in the clear it would say who it is
        self.assertEqual(0, collector.process.terminate())
        for arguments in strangers:
            with self.subTest(arguments):
                refused = start(arguments).process
                self.assertEqual(1, refused.wait(30), refused.output)
                self.assertIn("the servers of the stream refuse this collector", refused.output)
        if not LOADER.exists() or not POSTGRES:
            return
        self.folder.chmod(0o755)
        with Database(self.folder / "database") as database:
            def load(arguments):
                return self.enterContext(Process([LOADER, "--stream", store, "--database", database.connection,
                                                  "--until-empty", *arguments]))

            loading = load(known)
            self.assertEqual(0, loading.wait(60), loading.output)
            self.assertIn("1 logs", loading.output)
            for arguments in strangers:
                self.assertIn("stream: connecting", load(arguments).line_with("skelda-load: "))

    def test_many_and_slow_and_oversized_ones_cost_little_memory_and_hold_up_nobody(self):
        collector = self.collector("--api-key", KEY)
        resource.setrlimit(resource.RLIMIT_NOFILE, (resource.getrlimit(resource.RLIMIT_NOFILE)[1],) * 2)
        many = min(10_000, resource.getrlimit(resource.RLIMIT_NOFILE)[0] - 500)
        numbers = iter(range(1_000_000))

        def rate():
            """Logs a second of one that does as it should."""
            client, began, count = Client(collector), time.monotonic(), 0
            while time.monotonic() < began + 1.5:
                self.assertEqual(200, client.post(LOG + frame(134, {"n": next(numbers)}))[0])
                count += 1
            return count / 1.5

        before = resident(collector.process.pid)
        alone, beside = [rate()], []
        with contextlib.ExitStack() as stack:
            for _ in range(many):
                stack.enter_context(socket.create_connection(("127.0.0.1", collector.port), 20))
            beside.append(rate())
            self.assertLess(resident(collector.process.pid) - before, 256 * MEGABYTES)
            drip = stack.enter_context(oversized(collector, "X-Slow: "))
            with self.assertRaises(OSError):  # a byte a time keeps nothing open
                for _ in range(600):
                    drip.sendall(b"x")
                    time.sleep(0.1)
        for _ in range(3):
            alone.append(rate())
            with pestering(collector) as answered:
                beside.append(rate())
            self.assertEqual({b"401", b"411", b"413"}, {answered.get(timeout=10) for _ in range(6)})
        self.assertLess(resident(collector.process.pid) - before, 256 * MEGABYTES)
        print("         logs a second alone", *map(round, alone), "and beside others", *map(round, beside))
        self.assertGreater(min(beside[0], statistics.median(beside)), statistics.median(alone) / 2)


def oversized(collector, head, key=KEY):
    """A connection on which a head has been sent, to which these lines belong."""
    context = ssl.create_default_context(cafile=collector.authority)
    connection = context.wrap_socket(socket.create_connection(("127.0.0.1", collector.port), 40), server_hostname="localhost")
    connection.sendall(f"POST {PATH} HTTP/1.1\r\nHost: a\r\nX-Skelda-Api-Key: {key}\r\n{head}\r\n".encode())
    return connection


@contextlib.contextmanager
def pestering(collector):
    """Bodies of a gibibyte, one after the other, by a process of its own; the queue of what was answered."""
    answers, is_over = multiprocessing.Queue(), multiprocessing.Event()
    length, chunked, piece = f"Content-Length: {1 << 30}\r\n", "Transfer-Encoding: chunked\r\n", bytes(MEGABYTES)

    def send():
        while True:
            for head, key, before in ((length, KEY, b""), (chunked, KEY, b"100000\r\n"), (length, "unknown", b"")):
                if is_over.wait(0.02):
                    return
                with oversized(collector, head, key) as connection:
                    with contextlib.suppress(OSError):
                        for _ in range(1024):
                            connection.sendall(before + piece)
                    answers.put(connection.recv(100)[9:12])

    sender = multiprocessing.get_context("fork").Process(target=send, daemon=True)
    sender.start()
    try:
        yield answers
    finally:
        is_over.set()
        sender.join(60)


class WatchOfServers(unittest.TestCase):
    """What looks after each server, with pages in place of servers."""

    SERVERS = {"other": 40, "level": 40, "growing": 1, "unwell": 40, "short": 20, "less short": 25, "beside one away": 20,
               "leading": 20, "for itself": 20, "following": 1, "unwell and level": 1, "holding up": 40,
               "sending": 40, "silent": None, "ahead": 11, "its follower": 20}
    BESIDE = {"less short": ("other", "short"), "beside one away": ("other", "away"), "following": ("ahead", "ahead"),
              "unwell and level": ("following", "following"), "holding up": ("its follower", "level"),
              "sending": ("growing", "growing")}
    # As a server sees it, else "leading".
    LEADERS = {"for itself": "for itself", "its follower": "holding up", "growing": "sending"}
    ENDED = ["unwell", "short", "less short", "beside one away", "leading", "for itself", "following",
             "unwell and level", "holding up", "silent"]
    EMPTIED = ["unwell", "short", "for itself", "following", "unwell and level"]

    def test_a_server_that_stays_behind_is_ended_and_then_emptied_whatever_it_says_of_itself(self):
        folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory(prefix="skelda-watch-")))
        port, = free_ports(1)
        self.enterContext(Process([sys.executable, "-m", "http.server", port, "-b", "127.0.0.1", "-d", folder]))

        def page(name):
            return f"127.0.0.1:{port}/" + name.replace(" ", "-")

        def has(name, messages):
            place = folder / name.replace(" ", "-")
            place.mkdir(exist_ok=True)
            if not name.startswith("unwell"):
                (place / "healthz").touch()
            stream = {"name": STREAM, "state": {"messages": messages}, "config": {"num_replicas": 3},
                      "cluster": {"leader": self.LEADERS.get(name, "leading")}}
            (place / "varz").write_text(json.dumps({"server_name": name}))
            (folder / "jsz").write_text(json.dumps({"account_details": [{"stream_detail": [stream]}]}))
            (folder / "jsz").rename(place / "jsz")

        for name, messages in self.SERVERS.items():
            if messages is not None:
                has(name, messages)
        for name in list(self.SERVERS)[:-2]:
            self.enterContext(Process([ROOT / "deploy/skelda-nats-health", page(name),
                                       ",".join(map(page, self.BESIDE.get(name, ("other", "level")))),
                                       *(f"touch '{folder}/{name} {what}'" for what in ("ended", "emptied"))],
                                      env=os.environ | {"LOOK": "1", "PATIENCE": "1"}))
        expected = [*(f"{name} ended" for name in self.ENDED), *(f"{name} emptied" for name in self.EMPTIED)]
        for messages in range(2, 100):
            for name, now in (("ahead", 3 * messages + 10), ("following", messages),
                              ("unwell and level", messages + 1), ("growing", messages)):
                has(name, now)
            time.sleep(0.5)
            if messages == 9:  # one that takes what comes is given time
                self.assertFalse((folder / "unwell and level ended").exists())
            if messages > 38 and all((folder / mark).exists() for mark in expected):
                break
        marks = [f"{name} {what}" for what in ("ended", "emptied") for name in self.SERVERS]
        self.assertEqual(expected, [mark for mark in marks if (folder / mark).exists()])


@unittest.skipUnless(LOADER.exists() and POSTGRES, "no loader, or no PostgreSQL")
class KillsBehindTheAddress(unittest.TestCase):
    """A short run of what scripts/fleet does at length."""

    def test_what_was_acknowledged_is_in_the_stream_and_in_the_database_once(self):
        with FleetKill(0.1, seed=12) as run:
            run.run()
            self.assertEqual([], run.problems, run.report())

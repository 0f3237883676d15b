"""From the stream into the database, and the questions that are asked there."""

import base64
import contextlib
import json
import pathlib
import re
import socket
import tempfile
import threading
import time
import unittest

import frame_log
from fleet import Servers
from frame_log import frame
from loading import (LOADER, POSTGRES, STREAM, Database, digest, event, load_everything, loader, locale, make_log,
                     make_stream, session, usual_log)
from support import ROOT, eventually

DAY = 86400 * 1000
MONDAY = 1795392000000  # 2026-11-23


def questions():
    """The SQL of the document, by its headings."""
    text = (ROOT / "docs/fleet-questions.md").read_text()
    return dict(re.findall(r"^## ([^\n]*)\n(?:(?!## |```)[^\n]*\n)*```sql\n(.*?)^```", text, re.MULTILINE | re.DOTALL))


class ShortServer(threading.Thread):
    """What clients of the stream see while a server leads the consumer, and most of the throwaway ones, that has only
    the first of its messages and says that it is well; until the consumer is asked to leave it. Of the first
    throwaway ones that have all, the last message but one never arrives."""

    def __init__(self, bodies, short):
        super().__init__(daemon=True)
        self.bodies, self.short, self.given, self.made, self.read, self.asked = bodies, short, 0, 0, 0, 0
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.url = f"nats://127.0.0.1:{self.listener.getsockname()[1]}"

    def run(self):
        with contextlib.suppress(OSError):
            while True:
                connection, _ = self.listener.accept()
                threading.Thread(target=self.serve, args=(connection,), daemon=True).start()

    def end(self):  # of what is there
        return len(self.bodies) if self.asked else self.short

    def consumer(self, name, end, leader):
        return {"type": "io.nats.jetstream.api.v1.consumer_info_response", "stream_name": STREAM, "name": name,
                "created": "2026-11-23T00:00:00Z", "config": {"durable_name": name, "ack_policy": "explicit"},
                "delivered": {"consumer_seq": self.given, "stream_seq": self.given},
                "ack_floor": {"consumer_seq": self.given, "stream_seq": self.given}, "num_ack_pending": 0,
                "num_pending": end - self.given, "cluster": {"name": "skelda", "leader": leader}}

    def serve(self, connection):
        stream, places = connection.makefile("rwb"), {}

        def send(subject, body, headers="", reply=""):
            number = next((n for s, n in places.items() if subject == s or s[-1] == "*" and subject.startswith(s[:-1])), None)
            if number is None:
                return
            head = f"NATS/1.0{headers}\r\n\r\n".encode() if headers else b""
            sizes = f"{len(head)} {len(head) + len(body)}" if head else len(body)
            words = f"{'HMSG' if head else 'MSG'} {subject} {number} {reply} {sizes}\r\n"
            stream.write(words.encode() + head + body + b"\r\n")

        def message(subject, place, name, end, with_body=True):
            body = self.bodies[place - 1]
            send(subject, body if with_body else b"", f"\r\nNats-Msg-Id: {digest(body)}",
                 f"$JS.ACK.{STREAM}.{name}.1.{place}.{place}.{time.time_ns()}.{end - place}")

        def answer(subject, reply, body):
            kind, asked = subject.removeprefix("$JS.API."), json.loads(body or "{}")
            if "throwaway" in kind:
                is_whole = self.made % 3 == 0
                end = len(self.bodies) if is_whole else self.short
                first, self.read = self.read + 1, end
                for place in range(first, end + 1):
                    if not is_whole or self.made > 9 or place != end - 1:
                        message(reply, place, "throwaway", end, False)
                return send(reply, b"", " 408 Request Timeout")
            if kind.startswith("CONSUMER.MSG.NEXT"):
                while self.given < self.end():
                    self.given += 1
                    message(reply, self.given, "skelda-load", self.end())
                return send(reply, b"", " 404 No Messages")
            if kind.startswith("STREAM.INFO"):
                said = {"type": "io.nats.jetstream.api.v1.stream_info_response", "created": "2026-11-23T00:00:00Z",
                        "config": {"name": STREAM, "subjects": [STREAM + ".>"], "num_replicas": 3},
                        "state": {"messages": len(self.bodies), "first_seq": 1, "last_seq": len(self.bodies)},
                        "cluster": {"name": "skelda", "leader": "whole"}}
            elif kind.startswith("STREAM.MSG.GET"):
                whole = self.bodies[asked["seq"] - 1]
                said = {"type": "io.nats.jetstream.api.v1.stream_msg_get_response", "message": {
                    "subject": f"{STREAM}.key", "seq": asked["seq"], "time": "2026-11-23T00:00:00Z",
                    "hdrs": base64.b64encode(f"NATS/1.0\r\nNats-Msg-Id: {digest(whole)}\r\n\r\n".encode()).decode(),
                    "data": base64.b64encode(whole).decode()}}
            elif kind.startswith("CONSUMER.LEADER.STEPDOWN"):
                self.asked += 1
                said = {"success": True}
            elif kind.startswith("CONSUMER.INFO"):
                said = self.consumer("skelda-load", self.end(), "whole" if self.asked else "short")
            elif kind.startswith("CONSUMER.CREATE"):
                self.made, self.read = self.made + 1, 0
                leader = "short" if self.made % 3 else "whole"
                end = self.short if leader == "short" else len(self.bodies)
                said = {**self.consumer("throwaway", end, leader), "num_pending": end,
                        "delivered": {"consumer_seq": 0, "stream_seq": 0}}
            else:
                said = {"success": True}
            return send(reply, json.dumps(said).encode())

        stream.write(b'INFO {"server_id":"A","server_name":"a","version":"2.9.10","proto":1,"headers":true,'
                     b'"max_payload":1048576,"jetstream":true}\r\n')
        stream.flush()
        for line in stream:
            words = line.decode().split()
            if words[0] == "PING":
                stream.write(b"PONG\r\n")
            elif words[0] == "SUB":
                places[words[1]] = words[-1]
            elif words[0] == "UNSUB" and len(words) == 2:
                places = {subject: number for subject, number in places.items() if number != words[1]}
            elif words[0] in ("PUB", "HPUB"):
                data = stream.read(int(words[-1]) + 2)[:-2]
                reply = words[2] if len(words) > (3 if words[0] == "PUB" else 4) else ""
                if words[1].startswith("$JS.API."):
                    answer(words[1], reply, data[int(words[-2]):] if words[0] == "HPUB" else data)
            stream.flush()


@unittest.skipUnless(LOADER.exists() and POSTGRES, "built without SKELDA_FLEET, or no PostgreSQL")
class Loading(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory(prefix="skelda-", dir="/var/tmp")))
        self.folder.chmod(0o755)
        self.servers = self.enterContext(Servers(self.folder))
        self.database = self.enterContext(Database(self.folder / "database"))
        make_stream(self.servers)
        self.publisher = self.enterContext(self.servers.client())

    def count(self, table, where="true"):
        return int(self.database.ask(f"SELECT count(*) FROM skelda.{table} WHERE {where}")[0][0])

    def test_the_questions_of_the_document_are_answered(self):
        at, next_day = MONDAY + 1000, MONDAY + DAY
        self.publisher.publish([
            # A session over two logs, the second of which is cut before it tells of it.
            make_log("anna", 1, at, session(at), event(1, at, "Start"), event(2, at + 1, "Lap")),
            make_log("anna", 2, at, event(3, at + 2, "Lap"), session(at), event(4, at + 3, "Lap"),
                     session(at, 9000), event(5, at + 9, "Stop")),
            make_log("anna", 5, next_day, session(next_day), event(1, next_day, "Lap"), locale(next_day, "FR"),
                     event(2, next_day, "Lap"), version="1.5"),
            make_log("beat", 1, at, session(at), version="1.5", country="DE")])
        load_everything(self.servers, self.database)
        answers = {
            "Sessions a day": [["2026-11-23", "2", "2"], ["2026-11-24", "1", "1"]],
            "Events a session": [["2026-11-23", "2.5", "0", "5"], ["2026-11-24", "2.0", "2", "2"]],
            "Versions in the field": [["1.5", "27", "9.1", "2"]],
            "Devices with gaps in the counter": [["anna", "3", "4"]],
            "Events by name and country": [["Lap", "CH", "4", "1"], ["Lap", "FR", "1", "1"], ["Start", "CH", "1", "1"],
                                           ["Stop", "CH", "1", "1"]]}
        self.assertEqual(answers, {name: self.database.ask(sql) for name, sql in questions().items()})
        self.assertEqual([["9000"]], self.database.ask("SELECT milliseconds FROM skelda.sessions WHERE device = 'anna'"
                                                       f" AND session = {at}"))

    def test_whatever_is_in_a_log_it_is_loaded_or_kept_aside_and_never_twice(self):
        at = MONDAY
        good = usual_log("good", 1, at)
        odd = make_log("odd\0\u00e9" + "x" * 5000, 2**63 - 1, at, session(2**62),
                       event(1, 2**63 - 1, "a\0b\tc\\d\n" + "n" * 9000, **{"k\0": "\\u0000", "emoji": "\U0001f3c3"}),
                       frame(frame_log.EVENT, {"sk.event.name": "no base64!", "sk.event.id": "none"}, at),
                       frame(frame_log.EVENT, {}, at), frame(999, {"new": {"deep": [1e308, "\\", "\0"]}}, at))
        refused = make_log("refused", 1, at, event(1, at, "Forbidden"))
        damaged = [good[:-3], b"no log at all" * 9, b"", make_log("crc", 1, at, b"\0" + event(1, at, "CRC")[1:] + b"1234")]
        load_everything(self.servers, self.database)
        self.database.ask("ALTER TABLE skelda.events ADD CHECK (name <> 'Forbidden')")
        self.publisher.publish([good, odd, refused, *damaged])
        self.assertIn("7 logs, 63 events", said := load_everything(self.servers, self.database))
        self.assertIn("5 damaged, 0 repeats", said)

        faults = dict(self.database.ask("SELECT encode(digest, 'hex'), fault FROM skelda.logs WHERE fault IS NOT NULL"))
        self.assertEqual({digest(body) for body in (refused, *damaged)}, set(faults))
        self.assertIn("check constraint", faults[digest(refused)])
        self.assertRegex(faults[digest(damaged[3])], r"offset \d+: CRC ")
        self.assertEqual({refused, *damaged}, set(self.publisher.bodies("SKELDA_DAMAGED")))
        self.assertEqual([["a\ufffdb\\tc\\\\d\\n", '{"k\ufffd": "\\\\u0000", "emoji": "\U0001f3c3"}']], self.database.ask(
            "SELECT left(replace(replace(replace(name, '\\', '\\\\'), chr(9), '\\t'), chr(10), '\\n'), 11), parameters "
            "FROM skelda.events WHERE number = 1 AND at IS NULL"))
        # All of it once more, as after an end between the commit and its acknowledgement.
        self.assertIn("0 logs, 0 events", said := load_everything(self.servers, self.database, "--durable", "again"))
        self.assertIn("7 repeats", said)
        self.assertEqual((7, 63, 5), (self.count("logs"), self.count("events"), len(
            self.publisher.bodies("SKELDA_DAMAGED"))))

    def test_what_its_consumer_was_never_given_is_loaded_all_the_same(self):
        logs = [usual_log(f"device-{n}", 1, MONDAY + n) for n in range(4)]
        self.publisher.publish(logs[:3])
        # As one that had been given other messages with these numbers.
        made = self.publisher.request(f"$JS.API.CONSUMER.DURABLE.CREATE.{STREAM}.skelda-load", {
            "stream_name": STREAM, "config": {"durable_name": "skelda-load", "deliver_policy": "by_start_sequence",
                                              "opt_start_seq": 3, "ack_policy": "explicit"}})
        self.assertNotIn("error", made)
        self.publisher.publish(logs[3:])
        with loader(self.servers, self.database) as process:
            self.assertTrue(eventually(lambda: self.database.ask("SELECT count(*) FROM skelda.logs") == [["4"]], 60),
                            process.output)
            self.assertEqual(0, process.terminate(), process.output)
            self.assertIn("2 passed over", process.output)

    def test_a_server_that_has_less_than_the_leader_is_not_taken_for_all(self):
        server = ShortServer([usual_log(f"device-{n}", 1, MONDAY + n) for n in range(9)], short=5)
        self.addCleanup(server.listener.close)
        server.start()
        said = load_everything(server, self.database)
        self.assertIn("9 logs, 270 events", said)
        self.assertIn("4 passed over", said)
        self.assertEqual(1, server.asked)
        # What it was given, and the rest: nothing by a reading with a gap.
        self.assertEqual([["2"]], self.database.ask("SELECT count(DISTINCT xmin::text) FROM skelda.logs"))

    def test_what_it_took_is_acknowledged_when_the_servers_ended_between(self):
        logs = [usual_log(f"device-{n}", 1, MONDAY + n) for n in range(300)]

        def consumer(what):
            return (self.servers.ask(f"$JS.API.CONSUMER.INFO.{STREAM}.skelda-load") or {}).get(what)

        with loader(self.servers, self.database, "--batch", "16") as process:
            self.publisher.publish(logs[:1])
            self.assertTrue(eventually(lambda: self.database.ask("SELECT 1 FROM skelda.logs LIMIT 1"), 30))
            # While what is damaged is kept aside.
            with self.database.locked("skelda.logs"):
                self.publisher.publish([logs[0] + b"rubbish", *logs[1:]])
                self.assertTrue(eventually(lambda: consumer("num_ack_pending"), 30))
                for index in range(3):
                    self.servers.kill(index)
            process.line_with("damaged log", 60)
            for index in range(3):
                self.servers.start(index)
            self.assertTrue(eventually(lambda: self.count("events") == 301 * 30, 60), process.output)
            self.assertTrue(eventually(lambda: (0, 0) == (consumer("num_pending"), consumer("num_ack_pending")), 60),
                            process.output)
            self.assertEqual(0, process.terminate(), process.output)
        self.assertEqual((300, 1), (self.count("logs", "fault IS NULL"), self.count("logs", "fault IS NOT NULL")))

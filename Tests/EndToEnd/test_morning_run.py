"""The example, from its calls to the frames on disk."""

import re
import unittest

import frame_log
from support import (EMULATOR, FRAMES_TOOL, NAMELESS, NOWHERE, RECORDED, Collector, Home, eventually, events_of,
                     give_identifiers, recording, said_by)

THRESHOLD = 25


class MorningRun(unittest.TestCase):
    def test_without_a_phone_the_next_start_commits_the_log_and_the_cap_holds(self):
        with Home() as home:
            first = home.run("--speed", "0", "--server", NOWHERE)
            self.assertEqual(0, first.status, first.output)
            self.assertEqual(RECORDED - NAMELESS, first.number("accepted"))
            self.assertEqual(NAMELESS, first.number("refused"))
            left = frame_log.frames_in(home.current_log)
            kept = home.path / "kept"
            home.run("--events", "1", "--speed", "0", "--server", NOWHERE, keep=kept)
            logs = [frame_log.frames_in(path) for path in kept.glob(".skelda*")]
            self.assertEqual(1, len(logs))
            self.assertEqual([f.raw for f in left], [f.raw for f in logs[0][:-1]])
            self.assertEqual(4, frame_log.flush_of(logs[0]))
            self.assertEqual([*range(1, THRESHOLD + 1)],
                             [f.payload["sk.event.id"] for f in logs[0] if f.type == frame_log.EVENT])

    def test_every_event_arrives_as_it_was_recorded_and_every_byte_as_it_was_written(self):
        with Home() as home, Collector(home.path / "collector") as collector:
            give_identifiers(home)
            kept = home.path / "kept"
            # As fast as an emulated agent keeps up with, so that the session rule drops nothing.
            rate = "40" if EMULATOR else "200"
            run = home.run("--rate", rate, "--server", collector.url, "--linger", "120", within=180, keep=kept,
                           environment=home.environment(SSL_CERT_FILE=collector.authority))
            self.assertTrue(eventually(home.is_sent), run.output)
            received = collector.logs()
            self.assertEqual({path.read_bytes() for path in kept.iterdir()}, set(received))
            self.check_events(home, received)
            self.check_reader_of_the_tree(collector)

    def check_events(self, home, received):
        events = events_of(received) + events_of([home.current_log.read_bytes()])
        arrived = [(frame.event_name, frame.event_parameters) for frame in events]
        # As the agent writes a number: a whole one without a decimal point.
        expected = [(row[1], {key: re.sub(r"^(-?\d+)\.0$", r"\1", value)
                              for key, value in zip(row[2::2], row[3::2]) if value})
                    for row in recording()[1:] if row[1]]
        crowded = [i for i, (_, parameters) in enumerate(expected) if len(parameters) > 10]
        self.assertEqual(1, len(crowded))
        expected[crowded[0]] = (expected[crowded[0]][0], {})
        self.assertEqual(expected, arrived)

    def check_reader_of_the_tree(self, collector):
        """skelda-frames and the reading of these tests see the same."""
        _, shown = (said_by(*EMULATOR, FRAMES_TOOL, how, collector.store) for how in ("--verify", "--json"))
        self.assertEqual(sum(len(frame_log.frames_of(log)) for log in collector.logs()), len(shown.splitlines()))

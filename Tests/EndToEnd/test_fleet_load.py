"""skelda-fleet's load, many devices that send to a collector over HTTPS; and what builds without all that."""

import collections
import json
import pathlib
import subprocess
import tempfile
import unittest

from fleet import DEVICES
from frame_log import COUNTER, FLUSH, frame, frames_of
from support import ROOT, Collector, digest

RECORDED = (frame(2, {"sk.frame.log.counter": 7}) + frame(140, {"sk.reported.id": {"VendorId": "recorded"}})
            + frame(128, {"sk.session.id": 5}) + frame(134, {"n": 1}) + frame(1, {"sk.flush.frame.code": 3}))


@unittest.skipUnless(DEVICES.exists(), "built only with SKELDA_FLEET")
class FleetLoad(unittest.TestCase):
    def test_each_log_that_was_acknowledged_is_there_whole_once_whatever_went_wrong_between(self):
        with tempfile.TemporaryDirectory(prefix="skelda-fleet-") as name:
            folder = pathlib.Path(name)
            recorded = folder / "recorded"
            recorded.mkdir()
            (recorded / "log").write_bytes(RECORDED)
            (recorded / "not closed").write_bytes(RECORDED[:-40])
            faults = ["status=503,times=5", "drop-answer,times=3", "status=429,times=2", "reset-after=100bytes,times=2"]
            with Collector(name, *(part for fault in faults for part in ("--fault", fault))) as collector:
                done = subprocess.run(
                    [DEVICES, "load", "--to", f"https://localhost:{collector.port}", "--bodies", recorded, "--devices", "8",
                     "--seconds", "2", "--bytes", "900", "--authority", collector.authority, "--ledger", folder / "ledger",
                     "--json"], text=True, stdout=subprocess.PIPE, timeout=120, check=True)
                kept = [path.read_bytes() for path in collector.store.glob("*.framelog")]
            report = json.loads(done.stdout)
            ledger = [line.split() for line in (folder / "ledger").read_text().splitlines()]
            self.assertEqual(sorted(digest(log) for log in kept), sorted(line[0] for line in ledger))
            self.assertEqual((len(kept), 0, 0), (report["taken"], report["waiting"], report["givenUp"]))
            self.assertEqual((5, 2), (report["statuses"]["503"], report["statuses"]["429"]))
            self.assertTrue(report["problems"])
            counters = collections.defaultdict(list)
            for log in kept:
                frames = list(frames_of(log))
                self.assertGreaterEqual(len(log), 900)
                self.assertEqual((COUNTER, FLUSH), (frames[0].type, frames[-1].type))
                device, = {f.payload["sk.reported.id"]["VendorId"] for f in frames if f.type == 140}
                counters[device].append(frames[0].payload["sk.frame.log.counter"])
            self.assertEqual(8, len(counters))
            for device, numbers in counters.items():
                self.assertEqual(list(range(1, len(numbers) + 1)), sorted(numbers), device)


class WithoutTheFleet(unittest.TestCase):
    def test_who_builds_the_library_and_its_tools_is_asked_for_nothing_of_it(self):
        with tempfile.TemporaryDirectory(prefix="skelda-fleet-") as tree:
            subprocess.run(["cmake", "-G", "Ninja", "-S", ROOT, "-B", tree, "-DSKELDA_TOOLS=ON"], check=True, timeout=300,
                           stdout=subprocess.DEVNULL)
            for file in ("CMakeCache.txt", "build.ninja", "Tools/cmake_install.cmake"):
                self.assertNotRegex((pathlib.Path(tree) / file).read_text(), r"(?i)nats|libpq|postgres|microhttpd|skelda-load")

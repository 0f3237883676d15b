"""A storage folder that is damaged, in the way, or gone, and phones that do not behave: never a crash, and work goes on."""

import base64
import random
import shutil
import unittest

import frame_log
from support import NAMELESS, NOWHERE, PHONE, Home, Process, eventually, give_identifiers, told, with_a_bit_changed


def quick(home, linger=15):
    """A short start with as many events as one session keeps."""
    return home.run("--events", "20", "--speed", "0", "--server", NOWHERE, "--linger", str(linger))


class DamagedStorage(unittest.TestCase):
    def assertWorks(self, home):
        run = quick(home)
        self.assertEqual(0, run.status, run.output)
        self.assertEqual(20 - NAMELESS, run.number("accepted"))
        self.assertIn("RunStarted", [frame.event_name for frame in home.current_events()])

    def test_an_installation_works_whatever_is_done_to_each_of_its_files(self):
        chance = random.Random(8)

        garbage = [lambda _, n=length: chance.randbytes(n) for length in (0, 1, 23, 5000)]
        damages = [lambda data: data[:chance.randint(0, len(data))], lambda data: with_a_bit_changed(data, chance)]
        with Home() as home:
            give_identifiers(home)
            home.run("--rate", "300", "--server", NOWHERE)
            (home.committed / "strange.file").write_bytes(b"x")
            files = set()
            for number, change in enumerate([*garbage, *damages * 3]):
                files.update(p for root in ("data", "state") for p in (home.path / root).rglob("*") if p.is_file())
                self.assertGreater(len(files), 8)
                for path in sorted(files):
                    path.parent.mkdir(parents=True, exist_ok=True)
                    path.write_bytes(change(path.read_bytes() if path.exists() else b""))
                with self.subTest(number):
                    self.assertWorks(home)

    def test_the_same_start_works_again_when_a_file_stood_where_a_folder_belongs(self):
        for place in ("support", "storage", "committed"):
            with self.subTest(place), Home() as home:
                path = getattr(home, place)
                path.parent.mkdir(parents=True, exist_ok=True)
                path.write_bytes(b"in the way")
                run = quick(home, linger=3)
                self.assertEqual(0, run.status, run.output)
                if path.is_file():
                    self.assertEqual(b"in the way", path.read_bytes())
                    path.unlink()
                self.assertWorks(home)

    def test_a_storage_folder_that_is_removed_under_a_running_host(self):
        with Home() as home:
            with home.start("--rate", "200", "--events", "300", "--server", NOWHERE) as host:
                self.assertTrue(eventually(home.current_log.exists))
                for _ in range(3):
                    shutil.rmtree(home.support, ignore_errors=True)
                self.assertEqual(0, host.wait(60), host.output)
            self.assertWorks(home)


GOOD = "00112233445566778899aabbccddeeff"

# Each with what it says when the watch has coped.
ODD_PHONES = {
    "silent": (["--silent", "--wait", "0.5"], "connected"),
    "garbage": (["--garbage", "100000", "--wait", "0.5"], "the watch hung up"),
    "half a message": (["--leave-after", "7", "--away", "0.1"], "acknowledged"),
    "a byte at a time": (["--slow", "2"], "acknowledged"),
    "messages of the host's own": (["--send", "lap=1", "--message", "hello=phone"], "2 user infos taken"),
    "a burst": (["--burst", "10000"], "10001 user infos taken"),
    "identifiers that are none": (["--vendor-id", "", "--installation-id", "not hexadecimal"], "connected"),
}


class Phones(unittest.TestCase):
    def test_an_odd_phone_harms_nothing_and_the_next_good_one_is_taken(self):
        with Home() as home:
            socket = home.path / "phone.socket"
            with home.start("--events", "150", "--rate", "15", "--phone", socket, "--linger", "30") as host:
                for name, (arguments, expected) in ODD_PHONES.items():
                    odd = told(PHONE, socket, *arguments)
                    self.assertEqual((odd.returncode, expected in odd.stdout), (0, True), name + odd.stdout + odd.stderr)
                    with Process([PHONE, socket, "--installation-id", GOOD]) as good:
                        self.assertEqual(good.wait(30), 0, name + good.output)
                self.assertEqual(host.wait(60), 0, host.output)
            taken = [frame for log in home.logs() for frame in frame_log.readable(log.read_bytes())[0] if frame.type == 140]
            self.assertEqual(taken[-1].payload["sk.reported.id"]["iOSInstallationId"],
                             base64.b64encode(bytes.fromhex(GOOD)).decode())

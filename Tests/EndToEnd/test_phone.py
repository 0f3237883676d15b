"""Phones that do not behave, before one that does."""

import base64
import unittest

import frame_log
from support import PHONE, Home, Process, told

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

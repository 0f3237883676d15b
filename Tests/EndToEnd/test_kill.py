"""A short run of what scripts/kill-test does at length."""

import unittest

import kill


class Kill(unittest.TestCase):
    def test_what_was_durable_before_a_kill_is_committed_by_the_next_start(self):
        killer = kill.kill_often(15, seed=20240519, on_disk=False)
        self.assertEqual([], killer.problems, str(killer))
        self.assertGreater(killer.durable, 100, str(killer))

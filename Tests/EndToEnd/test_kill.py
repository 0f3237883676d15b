"""A short run of what scripts/kill-test does at length."""

import unittest

import kill


class Kill(unittest.TestCase):
    def test_a_kill_behind_the_last_call_leaves_every_event_to_the_next_start(self):
        for threads in (1, 4):
            kept, killer = kill.survivors(threads)
            self.assertEqual((1000, []), (kept, killer.problems), f"{threads} threads: {killer}")

    def test_what_was_durable_or_accepted_before_a_kill_is_found_by_the_next_start(self):
        killer = kill.kill_often(15, seed=20240519, on_disk=False)
        self.assertEqual([], killer.problems, str(killer))
        self.assertGreater(killer.durable, 50, str(killer))
        self.assertGreater(killer.replayed, 30, str(killer))

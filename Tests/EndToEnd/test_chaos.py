"""A short run of what scripts/chaos does at length."""

import unittest

import chaos


class ShortChaos(unittest.TestCase):
    def test_every_committed_log_is_received_or_accounted_for(self):
        with chaos.Chaos(0.8, seed=31) as run:
            run.run()
            report = run.report()
            self.assertEqual([], run.problems, report)
            self.assertIn("received", report)

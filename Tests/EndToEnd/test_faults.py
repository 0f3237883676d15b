"""A sample of what can go wrong with the calls of the system: see faults.py, which tries all of it."""

import concurrent.futures
import unittest

from faults import Runner, spread
from test_hosts import SANITIZED

RUNS = 40


@unittest.skipIf(SANITIZED, "a sanitizer has the allocations")
class Faults(unittest.TestCase):
    def test_a_call_that_goes_wrong_harms_nothing_and_loses_nothing_in_silence(self):
        with Runner() as runner, concurrent.futures.ThreadPoolExecutor(4) as pool:
            runs = list(pool.map(runner.run, spread(runner.all_faults(), RUNS, seed=8)))
        self.assertGreater(sum(run.happened > 0 for run in runs), RUNS * 3 // 4)
        for run in runs:
            with self.subTest(str(run.fault)):
                self.assertEqual([], run.problems)

"""A short run of what scripts/fleet does at length."""

import unittest

import fleet
from fleet_kill import FleetKill
from loading import LOADER, POSTGRES


@unittest.skipUnless(fleet.is_built() and LOADER.exists() and POSTGRES, "built without SKELDA_FLEET, or no servers")
class ShortKill(unittest.TestCase):
    def test_what_was_acknowledged_is_in_the_stream_and_in_the_database_once(self):
        with FleetKill(0.1, seed=12) as run:
            run.run()
            self.assertEqual([], run.problems, run.report())

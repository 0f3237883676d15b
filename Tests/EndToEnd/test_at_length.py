"""Short runs of what scripts/chaos, scripts/faults and scripts/kill-test do at length."""

import unittest

import account_file
import chaos
import faults
import kill
from support import ROOT
from test_hosts import SANITIZED

FAULTS = 40


class AtLength(unittest.TestCase):
    def test_in_chaos_every_committed_log_is_received_or_accounted_for(self):
        with chaos.Chaos(0.8, seed=31) as run:
            run.run()
            report = run.report()
            self.assertEqual([], run.problems, report)
            self.assertIn("received", report)

    @unittest.skipIf(SANITIZED, "a sanitizer has the allocations")
    def test_a_call_that_goes_wrong_harms_nothing_and_loses_nothing_in_silence(self):
        with faults.Runner(FAULTS, seed=8) as runner:
            runner.run()
            self.assertEqual([], runner.problems)
            self.assertLess(runner.unreached, FAULTS // 4)

    def test_what_was_durable_or_accepted_before_a_kill_is_found_by_the_next_start(self):
        with kill.Kills(15, seed=20240519, on_disk=False) as kills:
            kills.run()
            self.assertEqual([], kills.problems, kills.report())
            self.assertGreater(kills.durable, 50, kills.report())
            self.assertGreater(kills.replayed, 1000, kills.report())

    def test_the_account_that_they_read_is_the_one_of_the_document_s_example(self):
        data = bytearray(account_file.HEADER + account_file.SEGMENTS * 4096)
        text = (ROOT / "docs/intake-format.md").read_text().split("```hex intake\n")[1].split("```")[0]
        for line in text.splitlines():
            at = int(line[:8], 16)
            data[at:at + 16] = bytes.fromhex(line[9:57])
        account = account_file.read(bytes(data))
        self.assertEqual([], account.problems())
        self.assertEqual((1, 1, 0), (account.events.accepted, account.events.stored, account.events.waiting))
        self.assertEqual((1, 0, 1), (account.choices.accepted, account.choices.stored, account.choices.waiting))
        self.assertEqual(["runner-7"], [record.payload.decode() for record in account.waiting])

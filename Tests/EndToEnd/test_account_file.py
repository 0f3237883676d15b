"""The reader of intake files understands what their document shows."""

import unittest

import account_file
from support import ROOT


class IntakeFile(unittest.TestCase):
    def test_the_document_s_example_reads_as_the_text_below_it_says(self):
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

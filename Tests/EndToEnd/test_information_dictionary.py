"""Whatever an application's information dictionary holds, the host runs, and the agent takes of it
what it can use."""

import unittest

import frame_log
from support import NAMELESS, NOWHERE, Home

EVENTS = 100
KEY, MINUTES = "Skelda Watch API Key", "Skelda Watch Duration Threshold"


def without(key):
    return lambda information: information.pop(key, None)


def with_value(key, value):
    return lambda information: information.update({key: value})


class InformationDictionary(unittest.TestCase):
    def start(self, home, bundle):
        run = home.run("--events", str(EVENTS), "--speed", "0", "--server", NOWHERE, bundle=bundle)
        self.assertEqual(0, run.status, run.output)
        return run

    def test_no_usable_dictionary_or_key_refuses_every_event_and_writes_nothing(self):
        nested = b"<plist><array>" + b"<array>" * 100_000 + b"</plist>"
        texts = {"empty": b"", "malformed": b"<plist><dict><key>Skelda", "binary, cut short": b"bplist00\xd1\x01",
                 "an array": b"<plist><array/></plist>", "nested without end": nested, "noise": bytes(range(256)) * 40}
        changes = {"no key": without(KEY), "an empty key": with_value(KEY, ""), "a list as key": with_value(KEY, ["K"])}
        cases = [*((name, dict(text=text)) for name, text in texts.items()),
                 *((name, dict(change=change)) for name, change in changes.items())]
        for name, how in cases:
            with self.subTest(name), Home() as home:
                run = self.start(home, home.own_bundle(**how))
                self.assertEqual(0, run.number("accepted"))
                self.assertEqual([], [p for p in (home.path / "data").rglob("*") if p.is_file()])
        with self.subTest("missing"), Home() as home:
            bundle = home.own_bundle()
            (bundle / "Info.plist").unlink()
            self.assertEqual(0, self.start(home, bundle).number("accepted"))

    def test_values_of_other_kinds_elsewhere_do_no_harm(self):
        def change(information):
            information.update({"Skelda Watch App Version": 3, "Skelda Watch User ID": ["x"], "Skelda Watch Debug": "yEs",
                                "Skelda Disable WatchConnectivity": {"a": 1}, MINUTES: "ten", "CFBundleVersion": 1})

        with Home() as home:
            run = self.start(home, home.own_bundle(change=change))
            self.assertEqual(EVENTS - NAMELESS, run.number("accepted"))
            self.assertTrue(frame_log.frames_in(home.current_log))

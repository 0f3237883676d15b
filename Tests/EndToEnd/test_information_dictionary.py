"""Whatever an application's information dictionary holds, the host runs, and the agent takes of it
what it can use."""

import unittest

import frame_log
from support import NAMELESS, NOWHERE, Home, events_of

EVENTS = 100
KEY, THRESHOLD, MINUTES = "Skelda Watch API Key", "Skelda Watch Event Threshold", "Skelda Watch Duration Threshold"


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

    def test_the_event_threshold_is_read_as_a_whole_number_and_kept_in_its_range(self):
        cases = [(without(THRESHOLD), 10), *((with_value(THRESHOLD, value), expected) for value, expected in (
            (4, 5), (5, 5), (50, 50), (51, 50), (-1, 5), (2**62, 50), (7.9, 7), (True, 5), ("12", 12), ("lots", 5),
            ([12], 5), ({"a": 1}, 5), (b"\x0c", 5)))]
        for change, expected in cases:
            with Home() as home:
                bundle = home.own_bundle(change=change)
                with self.subTest(expected=expected, bundle=(bundle / "Info.plist").read_text()[-200:]):
                    self.start(home, bundle)
                    self.assertEqual(expected, len(events_of([home.current_log.read_bytes()])))

    def test_thresholds_out_of_range_are_said_in_the_log(self):
        outside = {THRESHOLD: 4, MINUTES: 61}
        with Home() as home:
            self.start(home, home.own_bundle(change=lambda information: information.update(outside)))
            log = "\n".join(home.log_lines())
            self.assertIn("Watch event threshold may not be below 5", log)
            self.assertIn("Watch duration threshold may not be above 60", log)

    def test_values_of_other_kinds_elsewhere_do_no_harm(self):
        def change(information):
            information.update({"Skelda Watch App Version": 3, "Skelda Watch User ID": ["x"], "Skelda Watch Debug": "yEs",
                                "Skelda Disable WatchConnectivity": {"a": 1}, MINUTES: "ten", "CFBundleVersion": 1})

        with Home() as home:
            run = self.start(home, home.own_bundle(change=change))
            self.assertEqual(EVENTS - NAMELESS, run.number("accepted"))
            self.assertTrue(frame_log.frames_in(home.current_log))

"""The small examples, and hosts in other languages: each event comes to the collector as it was logged."""

import base64
import shutil
import sys
import unittest

import frame_log
from support import BUILD, PHONE, ROOT, Collector, Home, Process, bundle_of, eventually

EXAMPLES = BUILD / "Examples"


class Examples(unittest.TestCase):
    def received(self, home, *arguments, count=1):
        """What the collector has when the host has ended by itself: events, and all other frames by type."""
        with Collector(home.path / "collector") as collector:
            environment = home.environment(SSL_CERT_FILE=collector.authority, PYTHONHOME=sys.base_prefix)
            socket = home.path / "phone.socket"
            with home.start(*arguments, collector.url, socket, environment=environment) as host:
                stored = eventually(lambda: home.current_log.exists() and len(home.current_events()) == count)
                self.assertTrue(stored, host.output)
                with Process([PHONE, socket]) as phone:
                    self.assertEqual(0, phone.wait(30), phone.output)
                self.assertEqual(0, host.wait(60), host.output)
            frames = [frame for log in collector.logs() for frame in frame_log.frames_of(log)]
        others = {frame.type: frame.payload for frame in frames if frame.type != frame_log.EVENT}
        return [frame for frame in frames if frame.type == frame_log.EVENT], others

    def test_the_first_event_is_the_program_of_the_readme_and_arrives(self):
        text = (ROOT / "README.md").read_text()
        self.assertEqual((ROOT / "Examples/FirstEvent/main.cpp").read_text(), text.split("```cpp\n")[1].split("```")[0])
        with Home(bundle=bundle_of("FirstEvent", EXAMPLES / "FirstEvent")) as home:
            self.assertIn(f"`${{XDG_DATA_HOME:-~/.local/share}}/<CFBundleIdentifier>/SkeldaFiles/{home.current_log.name}`", text)
            (event,), _ = self.received(home)
            self.assertEqual(("LapDone", {"lap": "3", "pace": "5:10"}), (event.event_name, event.event_parameters))

    def test_a_host_in_plain_c_says_events_times_a_purchase_and_its_user(self):
        with Home(bundle=bundle_of("PlainC", EXAMPLES / "PlainC")) as home:
            events, others = self.received(home, count=4)
            told = [(event.event_name, event.event_parameters, event.payload["sk.event.timed"],
                     event.payload["sk.timed.event.starting"], event.payload["sk.event.type"]) for event in events]
            summit = {"pass": "Furka", "metres": "1120", "grade": "6.5", "snow": "1", "splits": "[61,64]"}
            self.assertEqual([("Climb", {}, True, True, "CUSTOM_EVENT"), ("Summit", summit, False, False, "CUSTOM_EVENT"),
                              ("Climb", {}, True, False, "CUSTOM_EVENT"), ("Cake", {}, False, False, "PURCHASE_EVENT")],
                             told)
            bought = {base64.b64decode(key).decode(): base64.b64decode(value).decode()
                      for key, value in events[3].payload["sk.event.skelda.parameters"].items()}
            self.assertEqual({"sk.ProductID": "cake", "sk.Price": "4.50", "sk.Currency": "CHF", "sk.store.id": "1"},
                             bought)
            self.assertEqual({"sk.demo.userid": "rider-7"}, others[146])
            self.assertEqual(("bicycle", ["steel"]), (others[171]["sk.user.property.key"],
                                                      others[171]["sk.user.property.values"]))

    def test_a_host_in_python_loads_the_library_and_its_event_arrives(self):
        # The bundle is found from the running program, which is the interpreter.
        with Home(bundle=bundle_of("PlainC", EXAMPLES / "PlainC")) as home:
            bundle = home.own_bundle()
            shutil.copy(sys.executable, bundle / "PlainC")
            library = BUILD / "Library/libSkelda_Watch.so"
            home.bundle = bundle
            (event,), _ = self.received(home, ROOT / "Tests/EndToEnd/hosts/ctypes_host.py", library)
            self.assertEqual(("SwimDone", {"style": "自由泳", "lengths": "40", "pace": "1.75",
                                           "since": "2020-09-13T12:26:40.123Z", "lanes": '["Bahn 4 – außen"]'}),
                             (event.event_name, event.event_parameters))

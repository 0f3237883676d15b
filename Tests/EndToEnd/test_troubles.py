"""A developer's first half hour: events do not arrive, and nobody knows the agent yet. For each of the
usual troubles the program's own output, with nothing asked for, or skelda-doctor names the cause and
the cure; and neither says more than that."""

import contextlib
import email.utils
import http.server
import json
import plistlib
import re
import shutil
import threading
import time
import typing
import unittest

from support import (BUILD, EXAMPLE, NAMELESS, NOWHERE, PATH, ROOT, Collector, Home, bundle_of, eventually, events_of,
                     give_identifiers, recording, said_by, told)

BUNDLE_TOOL = BUILD / "Tools/skelda-bundle/skelda-bundle"
DOCTOR = BUILD / "Tools/skelda-doctor/skelda-doctor"
KEY, IDENTIFIER, USER_ID = "Skelda Watch API Key", "CFBundleIdentifier", "Skelda Watch User ID"
SECRET, USER = map(plistlib.loads((EXAMPLE / "Info.plist").read_bytes()).get, (KEY, USER_ID))
EVENTS = 40
CAP = 25  # of the example's sessions


class Installation(Home):
    """As a developer has one who has asked for nothing."""

    def environment(self, **more):
        return {k: v for k, v in super().environment(**more).items() if k != "SKELDA_LOG" or k in more}

    def told(self, program, *arguments, **environment):
        return told(program, *arguments, env=self.environment(**environment))

    def doctor(self, *arguments, **environment):
        """The status, the findings by code, and the whole report."""
        done = self.told(DOCTOR, "--json", *arguments, **environment)
        report = json.loads(done.stdout)
        return done.returncode, {finding["code"]: finding for finding in report["findings"]}, report

    def findings(self, bundle=None):
        return self.doctor(bundle or self.bundle, "--no-network")[1]


def contents(folder):
    """All that there is below it, times and bytes included."""
    return {str(path): (path.lstat().st_mtime_ns, path.read_bytes() if path.is_file() else None)
            for path in sorted(folder.rglob("*"))}


class Trouble(typing.NamedTuple):
    name: str
    code: str  # what the doctor calls it
    told: tuple  # what it says of it, and of what to do
    said: tuple = ()  # what the program's own output says
    change: object = lambda information: None  # of the Info.plist
    bundle: str = ""  # another folder to run from
    server: str = NOWHERE
    collector: tuple = None  # its arguments; then it is the server, at `path`, and a phone has been there
    path: str = PATH
    linger: str = "3"
    environment: dict = {}  # of paths, those of a home below it
    blocking: bool = True


REFUSING = ("no-key", "no-information", "no-extension", "storage")
TROUBLES = [
    Trouble("no key", "no-key", (KEY, "Add it"), (KEY, "events are refused"), lambda i: i.pop(KEY)),
    Trouble("a key that is no text", "no-key", (KEY,), (KEY,), lambda i: i.update({KEY: ["K"]})),
    Trouble("no settings", "no-information", ("holds no settings", "skelda-bundle"), (), lambda i: i.clear()),
    Trouble("mistyped key", "no-key", ('"Skelda watch ApiKey" stands there', f'write it as "{KEY}"'),
            (KEY, '"Skelda watch ApiKey" stands there'), lambda i: i.update({"Skelda watch ApiKey": i.pop(KEY)})),
    Trouble("an app, no extension", "no-extension", ("Runner.app", '".appex"'), ("Runner.app", '".appex"'),
            bundle="Runner.app"),
    Trouble("no address", "no-server", ("resolves nowhere", "setServerURL()"), server=""),
    Trouble("malformed address", "bad-server", ("htps:/here", "https://"), ("htps:/here", "http or https"),
            server="htps:/here"),
    Trouble("no phone", "no-phone", ("No phone", "skelda-phone", "SkeldaListenForPhone("), ("phone", "skelda-phone")),
    Trouble("session cap", "session-limit", (f"{EVENTS - NAMELESS - CAP} events", "up to 50"), ("dropped", "session"),
            blocking=False),
    Trouble("early exit", "ended", ("events behind", "waitUntilStored()"), linger="0"),
    Trouble("wrong key", "answer", ("401", KEY), ("401", KEY), collector=("--api-key", "ANOTHER")),
    Trouble("wrong path", "answer", ("404", "setServerURL()"), ("404", "/v1/elsewhere"), collector=(), path="/v1/elsewhere"),
    Trouble("a certificate of nobody", "certificate", ("not trusted", "SSL_CERT_FILE"), ("certificate", "SSL_CERT_FILE"),
            collector=(), environment={"SSL_CERT_FILE": "/etc/ssl/certs/ca-certificates.crt"}),
    Trouble("no folder to write in", "storage", ("/occupied: Not a directory", "XDG_DATA_HOME"),
            ("/occupied: Not a directory",), environment={"XDG_DATA_HOME": "occupied/data"}),
]


class Installed(unittest.TestCase):
    def setUp(self):
        self.home = self.enterContext(Installation())


class Troubles(Installed):
    """What the program says is read whole: a handful of lines, and none of them gives anything away."""

    def test_each_is_named_with_its_cure_and_nothing_else_is_said(self):
        for trouble in TROUBLES:
            with self.subTest(trouble.name), Installation() as home, contextlib.ExitStack() as stack:
                self.meet(trouble, home, stack)

    def meet(self, trouble, home, stack):
        bundle = home.own_bundle(trouble.change)
        if trouble.bundle:
            bundle = shutil.move(bundle, home.path / trouble.bundle)
        (home.path / "occupied").write_text("a file")
        server, environment = trouble.server, {name: home.path / value for name, value in trouble.environment.items()}
        if trouble.collector is not None:
            give_identifiers(home)
            collector = stack.enter_context(Collector(home.path / "collector", *trouble.collector))
            server = collector.url.replace(PATH, trouble.path)
            environment.setdefault("SSL_CERT_FILE", collector.authority)
        program = home.told(bundle / home.bundle.stem, "--events", EVENTS, "--speed", 0, "--linger", trouble.linger,
                            *(["--server", server] if server else []), **environment)
        self.assertEqual(0, program.returncode, program.stderr)
        if trouble.code in REFUSING:
            self.assertIn("accepted: 0\n", program.stdout)
            self.assertEqual([], [path for path in (home.path / "data").rglob("*") if path.is_file()])
        self.look_at_output(trouble, program.stderr)
        before = contents(home.path)
        status, found, report = home.doctor(bundle, **environment)
        self.assertEqual(before, contents(home.path), "the doctor changes nothing")
        finding = found[trouble.code]
        for words in trouble.told:
            self.assertIn(words, finding["text"] + " " + finding["next"])
        self.assertEqual((trouble.blocking, True, 1), (finding["blocking"], report["holdsUp"], status), report)
        plain = home.told(DOCTOR, "--no-network", bundle, **environment)
        self.assertNotIn(SECRET, json.dumps(report) + plain.stdout + plain.stderr)

    def look_at_output(self, trouble, output):
        lines = output.splitlines()
        self.assertTrue(all("Skelda: " in line for line in lines), output)
        self.assertLessEqual(len(lines), 5, output)
        for words in trouble.said:
            self.assertIn(words, output)
        values = {value for row in recording()[1:] for value in row[1:] if len(value) > 5}
        self.assertGreater(len(values), 50)
        self.assertFalse([value for value in (*values, SECRET, USER) if value in output], output)

    def test_a_second_process_is_told_and_the_doctor_knows_which_is_at_work(self):
        home = self.home
        with home.start("--rate", "20", "--events", "400") as first:
            self.assertTrue(eventually(home.current_log.exists))
            second = home.told(home.bundle / home.bundle.stem, "--events", 5, "--speed", 0, "--linger", 0)
            self.assertIn(f"process {first.pid} holds", second.stderr)
            _, found, report = home.doctor(home.bundle, "--no-network")
            self.assertEqual(first.pid, report["holder"])
            self.assertIn(f"Process {first.pid} ", found["running"]["text"])
            # From a bundle that only has the same identifier it is somebody else.
            self.assertTrue(home.findings(home.own_bundle())["other-process"]["blocking"])
        self.assertEqual(0, home.doctor(home.bundle, "--no-network")[2]["holder"])
        # What was held by the one that is gone is free again.
        self.assertGreater(home.run("--events", "5", "--speed", "0").number("accepted"), 0)

    def test_a_bundle_with_a_key_alone_keeps_its_files_under_its_own_name(self):
        for name in ("One", "Two"):
            bundle = self.home.own_bundle(lambda information: [information.pop(key) for key in {*information} - {KEY}])
            bundle = shutil.move(bundle, bundle.with_name(f"{name}.appex"))
            program = self.home.told(bundle / self.home.bundle.stem, "--events", 3, "--speed", 0, "--linger", 1)
            self.assertIn("no CFBundleIdentifier", program.stderr)
            self.assertTrue((self.home.path / f"data/{name}.appex/SkeldaFiles").is_dir())
            self.assertFalse(self.home.findings(bundle)["no-identifier"]["blocking"])

    def test_the_debug_setting_shows_what_the_agent_does_and_no_values(self):
        bundle = self.home.own_bundle(lambda information: information.update({"Skelda Watch Debug": "YES"}))
        said, silent = [self.home.told(bundle / bundle.stem, "--events", 3, "--speed", 0, "--linger", 2, "--server", NOWHERE,
                                       **log).stderr for log in ({}, {"SKELDA_LOG": "off"})]
        self.assertGreater(len(said.splitlines()), 50)
        self.assertIn("Recording Event", said)
        self.assertEqual(([], ""), ([value for value in (SECRET, USER) if value in said], silent))


class Clock(http.server.BaseHTTPRequestHandler):
    """Answers from an hour ago."""

    def do_HEAD(self):
        self.send_response_only(405)
        self.send_header("Date", email.utils.formatdate(time.time() - 3600, usegmt=True))
        self.end_headers()


class Doctor(Installed):
    def test_it_says_which_flaw_stands_between_the_program_and_the_server(self):
        def asked(address, **environment):
            return self.home.doctor(self.home.bundle, "--server", address, **environment)[1]

        for flaw, words in {"expired": "expired", "self-signed": "self", "wrong-name": "name"}.items():
            with self.subTest(flaw), Collector(self.home.path / flaw, "--certificate", flaw) as collector:
                finding = asked(collector.url, SSL_CERT_FILE=collector.authority)["certificate"]
                self.assertIn(words, finding["text"].lower())
                self.assertTrue(finding["blocking"])
        with Collector(self.home.path / "well") as collector:
            self.assertIn("reached", asked(collector.url, SSL_CERT_FILE=collector.authority))
            self.assertIn("no-answer-now", asked(collector.url.replace("https", "http")))
        self.assertIn("no-connection", asked(NOWHERE))
        self.assertIn("no-host", asked("https://nobody.invalid/"))
        with http.server.HTTPServer(("127.0.0.1", 0), Clock) as server:
            threading.Thread(target=server.serve_forever, daemon=True).start()
            self.addCleanup(server.shutdown)
            self.assertIn("ahead of", asked(f"http://127.0.0.1:{server.server_port}/")["clock"]["text"])

    def test_it_cannot_look_where_there_is_nothing(self):
        for arguments in ([self.home.path / "No.appex"], [], [self.home.bundle, "--sideways"]):
            self.assertEqual(2, self.home.told(DOCTOR, *arguments).returncode)
        status, found, _ = self.home.doctor(self.home.bundle, "--no-network")
        self.assertEqual((1, True), (status, found["nothing-yet"]["blocking"]))
        self.assertEqual([], list((self.home.path / "data").iterdir()))

    def test_where_all_is_well_nothing_holds_up(self):
        home, collector = self.home, self.enterContext(Collector(self.home.path / "collector"))
        give_identifiers(home)
        trusting = {"SSL_CERT_FILE": collector.authority}
        with home.start("--rate", "50", "--events", "2000", "--server", collector.url,
                        environment=home.environment(**trusting)) as host:
            self.assertTrue(eventually(lambda: events_of(collector.logs())))
            # Beside an agent at work, over and over: neither is in the other's way.
            for _ in range(10):
                status, found, report = home.doctor(home.bundle, **trusting)
                if status == 0:
                    break
            self.assertEqual((0, False, collector.url), (status, report["holdsUp"], report["server"]), found)
            self.assertEqual({"running", "answer", "reached"}, set(found) - {"session-open", "blocks-wait", "logs-wait",
                                                                            "refused"})
        self.assertNotIn("Skelda", host.output)
        # A log of one event alone: it lacks whatever each log must hold beside it.
        home.current_log.write_bytes(events_of(collector.logs())[0].raw)
        missing = home.findings()["records-missing"]
        self.assertTrue(missing["blocking"])
        self.assertIn("SkeldaStreamAppState", missing["text"])

    def test_each_code_is_in_the_document_and_no_other(self):
        sources = "".join((ROOT / path).read_text() for path in ("Analytics/Status/SkeldaFindings.cpp", "Tools/skelda-doctor/Probe.cpp"))
        said = set(re.findall(r'(?:holdsUp\(|note\(|\{)\s*"([a-z-]+)"', sources))
        rows = (ROOT / "docs/operations.md").read_text().split("| finding |")[1].split("\n\n")[0]
        self.assertGreater(len(said), 20)
        self.assertEqual(said, set(re.findall(r"^\| `([a-z-]+)`", rows, re.M)))

    def test_the_host_is_told_the_same(self):
        with Installation(bundle=bundle_of("IntakeHost")) as home:
            program = home.bundle / "IntakeHost"
            with home.start("event", "stored", "found", "stay") as first:
                self.assertEqual({"no-phone", "session-open", "no-server"}, set(first.line_with("found: ").split()[1:]))
                self.assertRegex(home.told(program, "event", "found").stdout, "event: 0\nfound: .*other-process")
                self.assertEqual({"no-phone", "session-open", "no-server", "running"}, set(home.findings()))
            # What waits was accepted under a key; a start with another one would drop it.
            home.told(program, "burst=5000", "_exit")
            found = home.findings(home.own_bundle(lambda information: information.update({KEY: "ANOTHER"})))
            self.assertIn("events and choices", found["other-key"]["text"])
            self.assertTrue(found["ended"]["blocking"] and found["other-key"]["blocking"])


class Bundles(Installed):
    def tool(self, *arguments):
        return self.home.told(BUNDLE_TOOL, *arguments)

    def test_one_is_made_around_a_program_and_checked_as_the_agent_takes_it(self):
        home, program = self.home, bundle_of("IntakeHost") / "IntakeHost"
        made = said_by(BUNDLE_TOOL, program, "--identifier", "com.example.<made>&", "--key", SECRET, "--in", home.path, "--app",
                       "Some", "--extension", "Extension", "--event-threshold", 20, "--debug", "--user-id", "ann & bob")
        path = home.path / "Some.app/PlugIns/Extension.appex/Extension"
        self.assertEqual(str(path), made.strip())
        information = plistlib.loads((path.parent / "Info.plist").read_bytes())
        self.assertEqual({IDENTIFIER: "com.example.<made>&", KEY: SECRET, "Skelda Watch Event Threshold": 20,
                          "Skelda Watch Debug": "YES", USER_ID: "ann & bob"},
                         {key: information[key] for key in information if "Skelda" in key or key == IDENTIFIER})
        self.assertIn("event: 1", home.told(path, "event").stdout)
        self.assertEqual(0, self.tool("--check", path.parent).returncode)
        needed = ["--identifier", "x", "--key", "x"]
        for wrong in (needed[:2], needed[2:], [*needed[:3], ""], [*needed, "--event-threshold", 51], [*needed, "--app", "a/b"]):
            self.assertEqual(2, self.tool(program, "--in", home.path / "none", *wrong).returncode, wrong)
        self.assertFalse((home.path / "none").exists())
        again = self.tool(program, *needed, "--in", home.path, "--app", "Some", "--extension", "Extension")
        self.assertEqual(3, again.returncode, "one is there already")

        lines = self.checked(path, {KEY: SECRET, "Skelda Watch Event Treshold": 7, "Skelda Watch Duration Threshold": 90,
                                    USER_ID: 5, "Skelda Watch Debug": "perhaps", "Other": 1})
        problems = {IDENTIFIER: "is missing", "Skelda Watch Event Treshold": '"Skelda Watch Event Threshold"',
                    "Skelda Watch Duration Threshold": "60 is used", USER_ID: "is no text", "Skelda Watch Debug": "off"}
        self.assertEqual(set(problems), {key for key, line in lines.items() if line["problem"]})
        for key, words in problems.items():
            self.assertIn(words, lines[key]["problem"])
        self.assertEqual(("10", "(not shown)"), (lines["Skelda Watch Event Threshold"]["value"], lines[KEY]["value"]))
        self.assertTrue(self.checked(path, {"API Key": SECRET}, status=1)[KEY]["blocking"])

    def checked(self, path, information, status=0):
        (path.parent / "Info.plist").write_bytes(plistlib.dumps(information))
        done = self.tool("--check", "--json", path)
        self.assertEqual(status, done.returncode, done.stderr)
        self.assertNotIn(SECRET, done.stdout)
        return {line["key"]: line for line in json.loads(done.stdout)["keys"]}

    def test_cmake_makes_the_same_without_a_tool_and_has_a_tool_look_where_there_is_one(self):
        source, build = self.home.path / "source", self.home.path / "build"
        source.mkdir()
        (source / "main.c").write_text("int main(void) { return 0; }")

        def built(call, tool=BUNDLE_TOOL):
            (source / "CMakeLists.txt").write_text(
                f"cmake_minimum_required(VERSION 3.25)\nproject(Lap C)\nadd_executable(Lap main.c)\n"
                f"include({ROOT}/cmake/SkeldaWatchExtension.cmake)\nskelda_add_watch_extension({call})\n")
            configured = self.home.told("cmake", "--fresh", "-G", "Ninja", "-S", source, "-B", build,
                                        f"-DSKELDA_BUNDLE_PROGRAM={tool}")
            return configured if configured.returncode else self.home.told("ninja", "-C", build)

        both = 'IDENTIFIER "com.example.<lap>&" API_KEY 0123'
        more = '"Skelda Watch Event Threshold" 20 "Skelda Watch User ID" 7 CFBundleVersion 3'
        for tool in ("SKELDA_BUNDLE_PROGRAM-NOTFOUND", BUNDLE_TOOL):
            done = built(f"Lap {both} APP Some SETTINGS {more}", tool)
            self.assertEqual(0, done.returncode, done.stdout + done.stderr)
            bundle = build / "Some.app/PlugIns/Lap.appex"
            information = plistlib.loads((bundle / "Info.plist").read_bytes())
            self.assertEqual(["com.example.<lap>&", "0123", 20, "7", "3"], [information[key] for key in (
                IDENTIFIER, KEY, "Skelda Watch Event Threshold", USER_ID, "CFBundleVersion")])
            self.assertTrue((bundle / "Lap").is_file())
        (source / "Own.plist").write_bytes(plistlib.dumps({"Skelda watch Key": "K"}))
        self.assertIn(f"REFUSED  {KEY}", built("Lap INFO_PLIST Own.plist").stdout)
        for call, sentence in (("Lap IDENTIFIER x", "IDENTIFIER and API_KEY are needed"), ("Nap " + both, "no such target"),
                               (f"Lap {both} ODD", '"ODD" is no argument'), (f"Lap {both} SETTINGS a", "are pairs")):
            refused = built(call)
            self.assertNotEqual(0, refused.returncode)
            self.assertIn(sentence, " ".join(refused.stderr.split()))

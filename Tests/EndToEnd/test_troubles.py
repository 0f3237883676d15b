"""A developer's first half hour: events do not arrive, and nobody knows the agent yet. For each of the
usual troubles the program's own output, with nothing asked for, or skelda-doctor names the cause and
the cure; and neither says more than that."""

import contextlib
import dataclasses
import email.utils
import http.server
import json
import plistlib
import re
import shutil
import subprocess
import threading
import time
import unittest

from support import (BUILD, EXAMPLE, NAMELESS, NOWHERE, ROOT, Collector, Home, bundle_of, eventually, events_of,
                     give_identifiers, recording)

BUNDLE_TOOL = BUILD / "Tools/skelda-bundle/skelda-bundle"
DOCTOR = BUILD / "Tools/skelda-doctor/skelda-doctor"
KEY, IDENTIFIER = "Skelda Watch API Key", "CFBundleIdentifier"
SECRET = plistlib.loads((EXAMPLE / "Info.plist").read_bytes())[KEY]
USER = plistlib.loads((EXAMPLE / "Info.plist").read_bytes())["Skelda Watch User ID"]
EVENTS = 40
CAP = 25  # of the example's sessions


def quiet(home, **more):
    """As a developer starts a program who has asked for nothing."""
    environment = home.environment(**more)
    del environment["SKELDA_LOG"]
    return environment


def run(program, *arguments, environment, within=60):
    return subprocess.run([str(part) for part in (program, *arguments)], env=environment, text=True,
                          capture_output=True, timeout=within)


def doctor(bundle, *arguments, environment):
    """The status, the findings by code, and the whole report."""
    done = run(DOCTOR, "--json", bundle, *arguments, environment=environment)
    report = json.loads(done.stdout) if done.stdout else {"findings": []}
    found = {finding["code"]: finding for finding in report["findings"]}
    return done.returncode, found, report


def contents(folder):
    """All that there is below it, times and bytes included."""
    return {str(path): (path.lstat().st_mtime_ns, path.read_bytes() if path.is_file() else None)
            for path in sorted(folder.rglob("*"))}


def renamed(old, new):
    return lambda information: information.update({new: information.pop(old)})


@dataclasses.dataclass
class Trouble:
    name: str
    code: str  # what the doctor calls it
    told: tuple  # what it says of it, and of what to do
    said: tuple = ()  # what the program's own output says
    change: object = None  # of the Info.plist
    bundle: str = ""  # another folder to run from
    server: str = NOWHERE
    collector: tuple = None  # its arguments; then it is the server, at `path`
    path: str = "/v1/skd.do"
    phone: bool = False
    linger: str = "3"
    environment: dict = dataclasses.field(default_factory=dict)
    blocking: bool = True
    ending: bool = True  # whether the doctor comes when the program has ended


REFUSING = ("no-key", "no-information", "no-extension", "storage")
TROUBLES = [
    Trouble("no key", "no-key", (KEY, "Add it"), (KEY, "events are refused"), lambda i: i.pop(KEY)),
    Trouble("a key that is no text", "no-key", (KEY,), (KEY,), lambda i: i.update({KEY: ["K"]})),
    Trouble("no settings", "no-information", ("holds no settings", "skelda-bundle"), (), lambda i: i.clear()),
    Trouble("mistyped key", "no-key", ('"Skelda watch ApiKey" stands there', f'write it as "{KEY}"'),
            (KEY, '"Skelda watch ApiKey" stands there'),
            renamed(KEY, "Skelda watch ApiKey")),
    Trouble("an app, no extension", "no-extension", ("Runner.app", '".appex"'), ("Runner.app", '".appex"'),
            bundle="Runner.app"),
    Trouble("no address", "no-server", ("resolves nowhere", "setServerURL()"), server=""),
    Trouble("malformed address", "bad-server", ("htps:/here", "https://"), ("htps:/here", "http or https"),
            server="htps:/here"),
    Trouble("no phone", "no-phone", ("No phone", "skelda-phone", "SkeldaListenForPhone("), ("phone", "skelda-phone")),
    Trouble("session cap", "session-limit", (f"{EVENTS - NAMELESS - CAP} events", "up to 50"), ("dropped", "session"),
            blocking=False),
    Trouble("early exit", "ended", ("events behind", "waitUntilStored()"), linger="0"),
    Trouble("wrong key", "answer", ("401", KEY), ("401", KEY), phone=True, collector=("--api-key", "ANOTHER")),
    Trouble("wrong path", "answer", ("404", "setServerURL()"), ("404", "/v1/elsewhere"), phone=True, collector=(),
            path="/v1/elsewhere"),
    Trouble("a certificate of nobody", "certificate", ("not trusted", "SSL_CERT_FILE"), ("certificate", "SSL_CERT_FILE"),
            phone=True, collector=(), environment={"SSL_CERT_FILE": "/etc/ssl/certs/ca-certificates.crt"}),
    Trouble("no folder to write in", "storage", ("/occupied: Not a directory", "XDG_DATA_HOME"),
            ("/occupied: Not a directory",), environment={"XDG_DATA_HOME": "occupied/data"}),
]


class Troubles(unittest.TestCase):
    """What the program says is read whole: a handful of lines, and none of them gives anything away."""

    def test_each_is_named_with_its_cure_and_nothing_else_is_said(self):
        for trouble in TROUBLES:
            with self.subTest(trouble.name), Home() as home, contextlib.ExitStack() as stack:
                self.meet(trouble, home, stack)

    def meet(self, trouble, home, stack):
        bundle = home.own_bundle(trouble.change)
        if trouble.bundle:
            bundle = shutil.move(bundle, home.path / trouble.bundle)
        if trouble.phone:
            give_identifiers(home)
        (home.path / "occupied").write_text("a file")
        server, environment = trouble.server, dict(trouble.environment)
        if trouble.collector is not None:
            collector = stack.enter_context(Collector(home.path / "collector", *trouble.collector))
            server = collector.url.replace("/v1/skd.do", trouble.path)
            environment.setdefault("SSL_CERT_FILE", collector.authority)
        environment = quiet(home, **{name: home.path / value if name.startswith("XDG") else value
                                     for name, value in environment.items()})
        arguments = ["--events", EVENTS, "--speed", 0, "--linger", trouble.linger]
        program = run(home.path / bundle / home.bundle.stem, *arguments, *(["--server", server] if server else []),
                      environment=environment)
        self.assertEqual(0, program.returncode, program.stderr)
        if trouble.code in REFUSING:
            self.assertIn("accepted: 0\n", program.stdout)
            self.assertEqual([], [path for path in (home.path / "data").rglob("*") if path.is_file()])
        self.look_at_output(trouble, program.stderr)
        before = contents(home.path)
        status, found, report = doctor(bundle, environment=environment)
        self.assertEqual(before, contents(home.path), "the doctor changes nothing")
        self.assertIn(trouble.code, found, report)
        finding = found[trouble.code]
        for words in trouble.told:
            self.assertIn(words, finding["text"] + " " + finding["next"])
        self.assertEqual(trouble.blocking, finding["blocking"])
        self.assertEqual(1 if report["holdsUp"] else 0, status)
        self.assertTrue(report["holdsUp"], report)
        plain = run(DOCTOR, "--no-network", bundle, environment=environment)
        for text in (json.dumps(report), plain.stdout + plain.stderr):
            self.assertNotIn(SECRET, text)

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
        with Home() as home, home.start("--rate", "20", "--events", "400") as first:
            self.assertTrue(eventually(home.current_log.exists))
            second = run(home.bundle / home.bundle.stem, "--events", 5, "--speed", 0, "--linger", 0,
                         environment=quiet(home))
            self.assertIn(f"process {first.pid} holds", second.stderr)
            _, found, report = doctor(home.bundle, "--no-network", environment=quiet(home))
            self.assertEqual(first.pid, report["holder"])
            self.assertIn(f"Process {first.pid} ", found["running"]["text"])
            # From a bundle that only has the same identifier it is somebody else.
            stranger = home.own_bundle()
            self.assertTrue(doctor(stranger, "--no-network", environment=quiet(home))[1]["other-process"]["blocking"])
            first.kill()
            self.assertEqual(0, doctor(home.bundle, "--no-network", environment=quiet(home))[2]["holder"])
            # What was held by the one that is gone is free again.
            self.assertGreater(home.run("--events", "5", "--speed", "0").number("accepted"), 0)

    def test_a_bundle_with_a_key_alone_keeps_its_files_under_its_own_name(self):
        with Home() as home:
            settings = plistlib.dumps({KEY: SECRET})
            for name in ("One", "Two"):
                bundle = home.own_bundle(text=settings)
                bundle = shutil.move(bundle, bundle.with_name(f"{name}.appex"))
                program = run(home.path / bundle / home.bundle.stem, "--events", 3, "--speed", 0, "--linger", 1,
                              environment=quiet(home))
                self.assertIn("no CFBundleIdentifier", program.stderr)
                self.assertTrue((home.path / f"data/{name}.appex/SkeldaFiles").is_dir())
                found = doctor(bundle, "--no-network", environment=quiet(home))[1]
                self.assertFalse(found["no-identifier"]["blocking"])

    def test_the_debug_setting_shows_what_the_agent_does_and_no_values(self):
        with Home() as home:
            bundle = home.own_bundle(lambda information: information.update({"Skelda Watch Debug": "YES"}))
            said = {}
            for log in (None, "off"):
                environment = quiet(home, **({"SKELDA_LOG": log} if log else {})) if not log else home.environment(SKELDA_LOG=log)
                said[log] = run(bundle / bundle.stem, "--events", 3, "--speed", 0, "--linger", 2, "--server", NOWHERE,
                                environment=environment).stderr
            self.assertGreater(len(said[None].splitlines()), 50)
            self.assertIn("Recording Event", said[None])
            self.assertNotIn(SECRET, said[None])
            self.assertNotIn(USER, said[None])
            self.assertEqual("", said["off"])


class Clock(http.server.BaseHTTPRequestHandler):
    """Answers from an hour ago."""

    def do_HEAD(self):
        self.send_response_only(405)
        self.send_header("Date", email.utils.formatdate(time.time() - 3600, usegmt=True))
        self.end_headers()

    def log_message(self, *_):
        pass


class Doctor(unittest.TestCase):
    def test_it_says_which_flaw_stands_between_the_program_and_the_server(self):
        flaws = {"expired": ("certificate", "expired"), "self-signed": ("certificate", "self"),
                 "wrong-name": ("certificate", "name")}
        with Home() as home:
            def asked(address, **more):
                return doctor(home.bundle, "--server", address, environment=quiet(home, **more))[1]

            for flaw, (code, words) in flaws.items():
                with self.subTest(flaw), Collector(home.path / flaw, "--certificate", flaw) as collector:
                    finding = asked(collector.url, SSL_CERT_FILE=collector.authority)[code]
                    self.assertIn(words, finding["text"].lower())
                    self.assertTrue(finding["blocking"])
            with Collector(home.path / "well") as collector:
                self.assertIn("reached", asked(collector.url, SSL_CERT_FILE=collector.authority))
                self.assertIn("no-answer-now", asked(collector.url.replace("https", "http")))
            self.assertIn("no-connection", asked(NOWHERE))
            self.assertIn("no-host", asked("https://nobody.invalid/"))
            server = http.server.HTTPServer(("127.0.0.1", 0), Clock)
            thread = threading.Thread(target=server.serve_forever, daemon=True)
            thread.start()
            try:
                self.assertIn("ahead of", asked(f"http://127.0.0.1:{server.server_port}/")["clock"]["text"])
            finally:
                server.shutdown()
                server.server_close()
                thread.join(5)

    def test_it_cannot_look_where_there_is_nothing(self):
        with Home() as home:
            for arguments in ([home.path / "No.appex"], [], [home.bundle, "--sideways"]):
                self.assertEqual(2, run(DOCTOR, *arguments, environment=quiet(home)).returncode)
            status, found, _ = doctor(home.bundle, "--no-network", environment=quiet(home))
            self.assertEqual((1, True), (status, found["nothing-yet"]["blocking"]))
            self.assertEqual([], list((home.path / "data").iterdir()))

    def test_where_all_is_well_nothing_holds_up(self):
        with Home() as home, Collector(home.path / "collector") as collector:
            give_identifiers(home)
            environment = quiet(home, SSL_CERT_FILE=collector.authority)
            with home.start("--rate", "50", "--events", "2000", "--server", collector.url, environment=environment) as host:
                self.assertTrue(eventually(lambda: events_of(collector.logs())))
                # Beside an agent at work, over and over: neither is in the other's way.
                for _ in range(10):
                    status, found, report = doctor(home.bundle, environment=environment)
                    if status == 0:
                        break
                self.assertEqual((0, False), (status, report["holdsUp"]), found)
                self.assertEqual({"running", "answer", "reached"}, set(found) - {"session-open", "blocks-wait", "logs-wait",
                                                                                "refused"})
                self.assertEqual(collector.url, report["server"])
                host.kill()
                self.assertNotIn("Skelda", host.output)
            # A log of one event alone: it lacks whatever each log must hold beside it.
            home.current_log.write_bytes(events_of(collector.logs())[0].raw)
            missing = doctor(home.bundle, "--no-network", environment=environment)[1]["records-missing"]
            self.assertTrue(missing["blocking"])
            self.assertIn("SkeldaStreamAppState", missing["text"])

    def test_each_code_is_in_the_document_and_no_other(self):
        sources = "".join((ROOT / path).read_text() for path in ("Analytics/Status/SkeldaFindings.cpp", "Tools/skelda-doctor/Probe.cpp"))
        said = set(re.findall(r'(?:holdsUp\(|note\(|\{)\s*"([a-z-]+)"', sources))
        rows = (ROOT / "docs/operations.md").read_text().split("| finding |")[1].split("\n\n")[0]
        self.assertGreater(len(said), 20)
        self.assertEqual(said, set(re.findall(r"^\| `([a-z-]+)`", rows, re.M)))

    def test_the_host_is_told_the_same(self):
        with Home(bundle=bundle_of("IntakeHost")) as home:
            with home.start("event", "stored", "found", "stay", environment=quiet(home)) as first:
                self.assertEqual({"no-phone", "session-open", "no-server"}, set(first.line_with("found: ").split()[1:]))
                second = run(home.bundle / "IntakeHost", "event", "found", environment=quiet(home)).stdout
                self.assertIn("event: 0", second)
                self.assertIn("other-process", second)
                found = doctor(home.bundle, "--no-network", environment=quiet(home))[1]
                self.assertEqual({"no-phone", "session-open", "no-server", "running"}, set(found))
                first.kill()
            # What waits was accepted under a key; a start with another one would drop it.
            run(home.bundle / "IntakeHost", "burst=5000", "_exit", environment=quiet(home))
            bundle = home.own_bundle(lambda information: information.update({KEY: "ANOTHER"}))
            found = doctor(bundle, "--no-network", environment=quiet(home))[1]
            self.assertIn("events and choices", found["other-key"]["text"])
            self.assertTrue(found["ended"]["blocking"] and found["other-key"]["blocking"])


class Bundles(unittest.TestCase):
    def test_one_is_made_around_a_program_and_checked_as_the_agent_takes_it(self):
        with Home() as home:
            def tool(*arguments):
                return run(BUNDLE_TOOL, *arguments, environment=quiet(home))

            program = bundle_of("IntakeHost") / "IntakeHost"
            made = tool(program, "--identifier", "com.example.<made>&", "--key", SECRET, "--in", home.path, "--app", "Some",
                        "--extension", "Extension", "--event-threshold", 20, "--debug", "--user-id", "ann & bob")
            self.assertEqual(0, made.returncode, made.stderr)
            path = home.path / "Some.app/PlugIns/Extension.appex/Extension"
            self.assertEqual(str(path), made.stdout.strip())
            information = plistlib.loads((path.parent / "Info.plist").read_bytes())
            self.assertEqual({IDENTIFIER: "com.example.<made>&", KEY: SECRET, "Skelda Watch Event Threshold": 20,
                              "Skelda Watch Debug": "YES", "Skelda Watch User ID": "ann & bob"},
                             {key: information[key] for key in information if "Skelda" in key or key == IDENTIFIER})
            self.assertIn("event: 1", run(path, "event", environment=quiet(home)).stdout)
            self.assertEqual(0, tool("--check", path.parent).returncode)
            for wrong in (["--identifier", "x"], ["--key", "x"], ["--identifier", "x", "--key", ""],
                          ["--identifier", "x", "--key", "x", "--event-threshold", 51],
                          ["--identifier", "x", "--key", "x", "--app", "a/b"]):
                self.assertEqual(2, tool(program, "--in", home.path / "none", *wrong).returncode, wrong)
            self.assertFalse((home.path / "none").exists())
            self.assertEqual(3, tool(program, "--identifier", "x", "--key", "x", "--in", home.path, "--app", "Some",
                                     "--extension", "Extension").returncode, "one is there already")

            lines = self.checked(tool, path, {KEY: SECRET, "Skelda Watch Event Treshold": 7, "Skelda Watch Duration Threshold": 90,
                                              "Skelda Watch User ID": 5, "Skelda Watch Debug": "perhaps", "Other": 1})
            self.assertEqual({IDENTIFIER: "is missing", "Skelda Watch Event Treshold": '"Skelda Watch Event Threshold"',
                              "Skelda Watch Duration Threshold": "60 is used", "Skelda Watch User ID": "is no text",
                              "Skelda Watch Debug": "off"},
                             {key: next((word for word in ("is missing", '"Skelda Watch Event Threshold"', "60 is used",
                                                           "is no text", "off") if word in line["problem"]), line["problem"])
                              for key, line in lines.items() if line["problem"]})
            self.assertEqual(("10", "(not shown)"), (lines["Skelda Watch Event Threshold"]["value"], lines[KEY]["value"]))
            self.assertTrue(self.checked(tool, path, {"API Key": SECRET}, status=1)[KEY]["blocking"])

    def test_cmake_makes_the_same_without_a_tool_and_has_a_tool_look_where_there_is_one(self):
        with Home() as home:
            source, bundle = home.path / "source", home.path / "build/Some.app/PlugIns/Lap.appex"
            source.mkdir()
            (source / "main.c").write_text("int main(void) { return 0; }")

            def built(call, tool):
                (source / "CMakeLists.txt").write_text(
                    f"cmake_minimum_required(VERSION 3.25)\nproject(Lap C)\nadd_executable(Lap main.c)\n"
                    f"include({ROOT}/cmake/SkeldaWatchExtension.cmake)\nskelda_add_watch_extension({call})\n")
                configured = run("cmake", "--fresh", "-G", "Ninja", "-S", source, "-B", home.path / "build",
                                 f"-DSKELDA_BUNDLE_PROGRAM={tool}", environment=quiet(home))
                if configured.returncode != 0:
                    return configured
                return run("ninja", "-C", home.path / "build", environment=quiet(home))

            both = 'IDENTIFIER "com.example.<lap>&" API_KEY 0123'
            more = '"Skelda Watch Event Threshold" 20 "Skelda Watch User ID" 7 CFBundleVersion 3'
            for tool in ("SKELDA_BUNDLE_PROGRAM-NOTFOUND", BUNDLE_TOOL):
                done = built(f"Lap {both} APP Some SETTINGS {more}", tool)
                self.assertEqual(0, done.returncode, done.stdout + done.stderr)
                information = plistlib.loads((bundle / "Info.plist").read_bytes())
                self.assertEqual(["com.example.<lap>&", "0123", 20, "7", "3"], [information[key] for key in (
                    IDENTIFIER, KEY, "Skelda Watch Event Threshold", "Skelda Watch User ID", "CFBundleVersion")])
                self.assertTrue((bundle / "Lap").is_file())
            (source / "Own.plist").write_bytes(plistlib.dumps({"Skelda watch Key": "K"}))
            self.assertIn(f"REFUSED  {KEY}", built("Lap INFO_PLIST Own.plist", BUNDLE_TOOL).stdout)
            for call, sentence in (("Lap IDENTIFIER x", "IDENTIFIER and API_KEY are needed"), ("Nap " + both, "no such target"),
                                   (f"Lap {both} ODD", '"ODD" is no argument'), (f"Lap {both} SETTINGS a", "are pairs")):
                refused = built(call, BUNDLE_TOOL)
                self.assertNotEqual(0, refused.returncode)
                self.assertIn(sentence, " ".join(refused.stderr.split()))

    def checked(self, tool, path, information, status=0):
        (path.parent / "Info.plist").write_bytes(plistlib.dumps(information))
        done = tool("--check", "--json", path)
        self.assertEqual(status, done.returncode, done.stderr)
        self.assertNotIn(SECRET, done.stdout)
        return {line["key"]: line for line in json.loads(done.stdout)["keys"]}

"""Hosts that call at the wrong time, or twice, or where little can be found out."""

import os
import shutil
import signal
import subprocess
import time
import unittest

import account_file
import frame_log
from support import BUILD, Home, Process, bundle_of, eventually, open_files

SANITIZED = BUILD.name in ("asan", "tsan")

# Runs what follows where /proc is empty.
WITHOUT_PROC = ["unshare", "--map-root-user", "--mount", "sh", "-c", 'mount -t tmpfs none /proc && exec "$@"', "sh"]


class BareMachine(unittest.TestCase):
    def test_what_cannot_be_found_out_is_left_out_and_the_rest_is_logged(self):
        if not shutil.which("unshare") or subprocess.run([*WITHOUT_PROC, "true"], capture_output=True).returncode:
            self.skipTest("mount namespaces are not allowed here")
        with Home(bundle=bundle_of("IntakeHost")) as home:
            environment = home.environment(LANG="C", TZ="CET-1CEST", XDG_DOCUMENTS_DIR=home.path / "absent")
            with Process([*WITHOUT_PROC, home.bundle / "IntakeHost", "event", "stored", "stay"], env=environment) as host:
                host.line_with("stay:")
                expected = {2, 128, 132, 133, 134, 139, 141, 149, 153, 156}
                eventually(lambda: expected <= {f.type for f in frame_log.readable(home.current_log.read_bytes())[0]})
                self.assertEqual(None, host.child.poll(), host.output)
            frames = {f.type: f for f in frame_log.frames_in(home.current_log)}
            self.assertEqual(expected, set(frames))
            figures = frames[153].payload["sk.session.property"]
            for name in ("memory.total", "disk.size.total", "disk.size.available"):
                self.assertEqual({"value": "0"}, figures[name])
            for entity in ("SkeldaStreamLocaleInfo", "SkeldaStreamTimeZoneInfo"):
                line = f"-[{entity} dictionaryRepresentation]: invalid data object"
                self.assertTrue([said for said in home.log_lines() if line in said], entity)


class Intake(unittest.TestCase):
    """What was accepted is there after whatever ends the process, and every account adds up."""

    def setUp(self):
        self.home = self.enterContext(Home(bundle=bundle_of("IntakeHost")))

    def says(self, *words):
        """What the host answered to each word but the last that ends it, in order."""
        run = self.home.run(*words, within=120)
        self.assertEqual(0, run.status, run.output)
        return [int(line.split(": ")[1]) for line in run.lines]

    def account(self):
        return account_file.of(self.home)

    def settled(self):
        """Starts the agent once more, which stores what is left; what became of it all."""
        self.assertEqual([4], self.says("each-stored"))
        account = self.account()
        self.assertEqual([], account.problems())
        self.assertEqual((0, 0), (account.events.waiting, account.choices.waiting))
        return account

    def test_twenty_thousand_waiting_survive_every_way_to_end(self):
        accepted = 0
        for way in ([], ["quick_exit"], ["_exit"]):
            with self.subTest(way):
                self.assertEqual([20000], self.says("burst=5000", *way))
                self.assertEqual(accepted + 20000, self.account().events.accepted)
                events, accepted = self.settled().events, accepted + 20004
                self.assertEqual((accepted, accepted), (events.accepted, events.stored + sum(events.dropped.values())))

    def test_choices_before_the_first_event_start_nothing_and_reach_the_log_of_the_next_start(self):
        self.says("opt-out", "property", "user", "delete", "_exit")
        self.assertEqual((4, False), (self.account().choices.waiting, self.home.current_log.exists()))
        self.assertEqual((4, 4), (self.settled().choices.accepted, self.account().choices.stored))
        # In the order in which they were said; the deletion has the log closed.
        # The end may come when the block is there and its log, too.
        closed, = {path.read_bytes() for path in [*self.home.committed_logs(), *self.home.blocks()]}
        choices = [frame.type for frame in frame_log.frames_of(closed) if frame.type in (146, 171, 174, 175)]
        self.assertEqual([174, 171, 146, 175], choices)

    def test_waiting_ends_with_what_was_accepted(self):
        self.assertEqual([1, 1, 0, 4], self.says("stored=0", "property", "stored", "each-stored"))
        began = time.monotonic()
        self.assertEqual([1, 1], self.says("on-main", "event", "stored"))
        if not SANITIZED:
            self.assertLess(time.monotonic() - began, 2, "the main queue is not served meanwhile")

    def test_a_flood_is_answered_truthfully_and_takes_little_memory(self):
        calls = 2000000 if BUILD.name == "release" else 50000
        words = ("event", "stored", "VmRSS", f"flood={calls}", "VmHWM", "refused")
        _, _, before, answered, most, refused = self.says(*words)
        self.assertEqual((answered + 1, calls - answered), (self.account().events.accepted, refused))
        if not SANITIZED:
            self.assertLess(most - before, 24 << 10)
        said = [line for line in self.home.log_lines() if "wait to be written, calls are refused" in line]
        self.assertLess(len(said), 20 + refused // 10000, "once per episode")
        self.settled()

    def test_a_forked_child_is_refused_touches_nothing_and_gives_up_the_lock(self):
        words = ("event", "stored", "fork", "child-event", "child-delete", "child-consent", "child-stored", "event",
                 "stored", "stay")
        with self.home.start(*words) as parent:
            parent.line_with("stay:")
            child = parent.number("fork")
            try:
                parent.line_with("child-stored:")
                lines = sorted(parent.lines, key=lambda line: line.startswith("child-"))
                locks = [sum(".skelda-lock" in name for name in open_files(pid)) for pid in (parent.pid, child)]
                parent.child.kill()
                # The child lives, and holds nothing that the next start needs.
                events = self.settled().events
            finally:
                os.kill(child, signal.SIGKILL)
        self.assertEqual(["event: 1", "stored: 1", f"fork: {child}", "event: 1", "stored: 1", "stay: ", "child-event: 0",
                          "child-delete: 1", "child-consent: 0", "child-stored: 0"], lines)
        self.assertEqual([1, 0], locks)
        self.assertEqual((6, 6, 0), (events.accepted, events.stored, self.account().choices.accepted))

    def test_events_before_main_and_during_exit_do_no_harm(self):
        for _ in range(5):
            with Home(bundle=bundle_of("IntakeHost")) as home:
                run = home.run("early", "event", "stored", "exit-late", "for-ever", environment=home.environment(EARLY=1))
                self.assertEqual((0, ["early: 1", "event: 1", "stored: 1", "exit-late: 1", "for-ever: 1"]), (run.status, run.lines))
                self.assertEqual(["early", "event"], [event.event_name for event in home.current_events()[:2]])

"""A storage folder that is damaged, in the way, read-only, full, or gone; and no descriptors left.

Never a crash, never an exception in the host; what was on disk before is still there; work goes on
when the fault ends.
"""

import os
import random
import resource
import shutil
import signal
import subprocess
import unittest

import frame_log
from support import NAMELESS, NOWHERE, RECORDED, Home, eventually, fill, give_identifiers, move_to_small_disk


def quick(home, *arguments, linger=15, **more):
    """A short start with as many events as one session keeps."""
    return home.run("--events", "20", "--speed", "0", "--server", NOWHERE, "--linger", str(linger), *arguments, **more)


def names_in(home):
    return [frame.event_name for frame in home.current_events()]


class DamagedStorage(unittest.TestCase):
    def assertWorks(self, home):
        run = quick(home)
        self.assertEqual(0, run.status, run.output)
        self.assertEqual(20 - NAMELESS, run.number("accepted"))
        self.assertIn("RunStarted", names_in(home))

    def damage_all(self, *changes):
        """An installation with something of everything on disk works whatever is done to each file."""
        with Home() as home:
            give_identifiers(home)
            home.run("--rate", "300", "--server", NOWHERE)
            (home.committed / "strange.file").write_bytes(b"x")
            files = set()
            for number, change in enumerate(changes):
                files.update(p for root in ("data", "state") for p in (home.path / root).rglob("*") if p.is_file())
                self.assertGreater(len(files), 8)
                for path in sorted(files):
                    path.parent.mkdir(parents=True, exist_ok=True)
                    path.write_bytes(change(path.read_bytes() if path.exists() else b""))
                with self.subTest(number):
                    self.assertWorks(home)

    def test_garbage_in_every_file_of_an_older_run(self):
        chance = random.Random(7)
        self.damage_all(*(lambda data, n=length: chance.randbytes(n) for length in (0, 1, 23, 5000)))

    def test_files_cut_short_and_with_a_byte_changed(self):
        chance = random.Random(8)

        def cut_short(data):
            return data[:chance.randint(0, len(data))]

        def with_a_bit_changed(data):
            changed = bytearray(data)
            if changed:
                changed[chance.randrange(len(data))] ^= 1 << chance.randrange(8)
            return changed

        self.damage_all(*[cut_short, with_a_bit_changed] * 3)

    def test_the_same_start_works_again_when_a_file_stood_where_a_folder_belongs(self):
        for place in ("support", "storage", "committed"):
            with self.subTest(place), Home() as home:
                path = getattr(home, place)
                path.parent.mkdir(parents=True, exist_ok=True)
                path.write_bytes(b"in the way")
                run = quick(home, linger=3)
                self.assertEqual(0, run.status, run.output)
                if path.is_file():
                    self.assertEqual(b"in the way", path.read_bytes())
                    path.unlink()
                self.assertWorks(home)

    def test_a_storage_folder_that_is_removed_under_a_running_host(self):
        with Home() as home:
            with home.start("--rate", "200", "--events", "300", "--server", NOWHERE) as host:
                self.assertTrue(eventually(home.current_log.exists))
                for _ in range(3):
                    shutil.rmtree(home.support, ignore_errors=True)
                self.assertEqual(0, host.wait(60), host.output)
                self.assertEqual(0, [n for n in host.lines if n and n.startswith("refused")] == [])
            self.assertWorks(home)

    @unittest.skipUnless(os.geteuid() == 0, "needs root, to run the host as somebody else")
    def test_folders_that_may_not_be_written(self):
        with Home() as home:
            nobody = 65534
            for folder, _, _ in os.walk(home.path):
                os.chown(folder, nobody, nobody)
            self.assertEqual(0, quick(home, user=nobody, group=nobody).status)
            before = home.current_log.read_bytes()
            for folder in (home.path / "data", home.support, home.storage):
                os.chmod(folder, 0o500)
            os.chmod(home.current_log, 0o400)
            run = quick(home, linger=3, user=nobody, group=nobody)
            self.assertEqual(0, run.status, run.output)
            self.assertEqual(before, home.current_log.read_bytes())
            for folder in (home.path / "data", home.support, home.storage):
                os.chmod(folder, 0o700)
            os.chmod(home.current_log, 0o600)
            self.assertEqual(0, quick(home, user=nobody, group=nobody).status)
            self.assertIn("RunStarted", names_in(home))


class NoRoom(unittest.TestCase):
    def steady(self, home, **more):
        environment = home.environment(SKELDA_LOG="stderr")  # a pipe, which no limit on files reaches
        return home.start("--rate", "80", "--events", "600", "--threads", "2", "--server", NOWHERE, "--linger", "20",
                          environment=environment, **more)

    def frames_by_log(self, home):
        logs = [*home.committed_logs(), *home.blocks(), home.current_log]
        return {path: frame_log.readable(path.read_bytes())[0] for path in logs if path.exists()}

    def check_recovery(self, home, host, squeeze, ease):
        """Events that are logged during the fault may be lost; those before and behind it are not."""
        host.line_with("!! Rolling Log File !!")
        before = {path.name: path.read_bytes() for path in home.blocks()}
        squeeze()
        during = len(host.lines)
        eventually(lambda: len(host.lines) > during + 600, within=3)
        ease()
        self.assertEqual(0, host.wait(120), host.output[-3000:])
        self.assertIn("at rest", host.output)
        logs = self.frames_by_log(home)
        last = host.number("accepted")
        self.assertIn(last, {frame.payload["sk.event.id"] for frames in logs.values() for frame in frames
                             if frame.type == frame_log.EVENT})
        # Whole behind the fault: no frame was written behind half of another.
        for path in logs:
            self.assertEqual(None, frame_log.readable(path.read_bytes())[1], path)
        for name, data in before.items():
            self.assertEqual(data, (home.storage / name).read_bytes())

    @unittest.skipUnless(os.geteuid() == 0, "needs root, to mount a small file system")
    def test_a_disk_that_fills_and_empties(self):
        with Home() as home:
            give_identifiers(home)
            small = move_to_small_disk(home, 4)
            if not small:
                self.skipTest("mounting is not allowed here")
            ballast = small / "ballast"
            try:
                with self.steady(home) as host:
                    self.check_recovery(home, host, lambda: fill(ballast), ballast.unlink)
            finally:
                subprocess.run(["umount", "-l", small], check=True)

    def test_a_limit_on_the_size_of_files(self):
        with Home() as home:
            give_identifiers(home)
            # Past the limit a process is killed by a signal, unless it was started with that ignored.
            old = signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            try:
                host = self.steady(home, restore_signals=False)
            finally:
                signal.signal(signal.SIGXFSZ, old)
            with host:
                def limit(size):
                    resource.prlimit(host.pid, resource.RLIMIT_FSIZE, (size, resource.RLIM_INFINITY))

                self.check_recovery(home, host, lambda: limit(600), lambda: limit(resource.RLIM_INFINITY))

assert RECORDED > 20

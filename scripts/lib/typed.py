"""Commands of a document, typed one after another into one shell, in a home with nothing in it.

A command that ends in "&" goes on beside the others; a remark behind a command, such as
`# says: stored`, is what a reader waits for before the next one.
"""

import contextlib
import os
import pathlib
import pty
import re
import shutil
import signal
import subprocess
import tempfile
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]

# A machine to throw away: what is installed there is gone with the shell, and nothing of this tree
# is to be seen.
LAYER = """
mount --make-rprivate /
mkdir -p "$LAYER" && mount -t tmpfs none "$LAYER"
for folder in usr etc var opt; do
  mkdir "$LAYER/$folder" "$LAYER/$folder.work"
  mount -t overlay none -o "lowerdir=/$folder,upperdir=$LAYER/$folder,workdir=$LAYER/$folder.work" "/$folder"
done
mount -t tmpfs none "$HIDDEN"
"""


class Failed(Exception):
    pass


def blocks_of(text, kind="sh"):
    return re.findall(rf"^```{kind}\n(.*?)^```$", text, re.M | re.S)


def lines_of(block):
    return [line for line in block.replace("\\\n", " ").splitlines() if line.strip() and not line.startswith("#")]


def can_throw_away():
    """Whether a machine to throw away can be had here."""
    with tempfile.TemporaryDirectory(prefix="skelda-layer-") as folder:
        hidden = pathlib.Path(folder) / "hidden"
        hidden.mkdir()
        tried = subprocess.run(["unshare", "--mount", "bash", "-euc", LAYER], capture_output=True, timeout=60,
                               env={**os.environ, "LAYER": f"{folder}/layer", "HIDDEN": str(hidden)})
    return tried.returncode == 0


class Shell:
    def __init__(self, thrown_away=False, keep=(), echo=None):
        """`keep`: files that are put into the home."""
        self.home = pathlib.Path(tempfile.mkdtemp(prefix="skelda-home-"))
        self.lines, self._new, self._echo, self.typed = [], threading.Condition(), echo, 0
        for file in keep:
            shutil.copy(file, self.home)
        environment = {"PATH": os.environ["PATH"], "HOME": str(self.home), "LANG": "C.UTF-8",
                       "DEBIAN_FRONTEND": "noninteractive", "LAYER": str(self.home / ".layer"), "HIDDEN": str(ROOT)}
        command = ["bash", "--norc"]
        if thrown_away:
            command = ["unshare", "--mount", "bash", "-euc", LAYER + "unset LAYER HIDDEN; exec bash --norc"]
        # A terminal, as a reader has: programs say their lines when they have them.
        terminal, its_end = pty.openpty()
        self.process = subprocess.Popen(command, cwd=self.home, env=environment, stdin=subprocess.PIPE,
                                        stdout=its_end, stderr=its_end, start_new_session=True)
        os.close(its_end)
        self._terminal = os.fdopen(terminal, "rb", buffering=0)
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        # Reading fails when nobody has the terminal any more.
        with contextlib.suppress(OSError):
            for line in self._terminal:
                with self._new:
                    self.lines.append(line.decode(errors="replace").rstrip("\r\n"))
                    self._new.notify_all()
        with self._new:
            self.lines.append(None)
            self._new.notify_all()

    def _wait(self, found, since, within, what):
        deadline = time.monotonic() + within
        with self._new:
            while True:
                for line in self.lines[since:]:
                    if line is not None and found(line):
                        return line
                if None in self.lines[since:] or time.monotonic() > deadline:
                    said = "\n".join(line for line in self.lines[since:] if line is not None)
                    raise Failed(f"{what}\n{said[-4000:]}")
                self._new.wait(max(deadline - time.monotonic(), 0.01))

    def type(self, command, within=300):
        """What the command said. It must end well, and say what its remark promises."""
        remark = re.search(r'\s# says: (.+?)\s*$', command)
        command = command[:remark.start()] if remark else re.sub(r"\s+#\s.*$", "", command)
        self.typed += 1
        if self._echo:
            self._echo(f"$ {' '.join(command.split())}")
        since, mark = len(self.lines), f"-- {self.typed} is done: "
        self.process.stdin.write(f"{command}\nprintf '\\n{mark}%d\\n' $?\n".encode())
        self.process.stdin.flush()
        status = self._wait(lambda line: line.startswith(mark), since, within, f"{command}: not done")
        if status != f"{mark}0":
            self._wait(lambda line: False, since, 0, f"{command}: status {status[len(mark):]}")
        if remark:
            self._wait(lambda line: remark[1] in line, since, min(within, 60), f'{command}: does not say "{remark[1]}"')
        return "\n".join(line for line in self.lines[since:] if line is not None and not line.startswith(mark))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        # Its own session: what it has left running ends with it.
        with contextlib.suppress(ProcessLookupError):
            os.killpg(self.process.pid, signal.SIGKILL)
        self.process.wait()
        self._reader.join(10)
        self._terminal.close()
        shutil.rmtree(self.home, ignore_errors=True)

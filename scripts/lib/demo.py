"""The demonstration: a watch application logs a recorded run, and a server receives it.

    python3 scripts/lib/demo.py [--all]     --all shows the frames of every log, not of the first ones
"""

import argparse
import collections
import hashlib
import pathlib
import plistlib
import re
import shutil
import subprocess
import sys
import textwrap
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "Tests" / "EndToEnd"))
sys.dont_write_bytecode = True

import account  # noqa: E402
import frame_log  # noqa: E402
from support import FRAMES_TOOL, PHONE, Collector, Home, Process, eventually  # noqa: E402

WIDTH = max(80, min(shutil.get_terminal_size((120, 24)).columns, 160))
HUES = sys.stdout.isatty()
STICKY = {132: "app state", 133: "app info", 139: "device", 140: "identifiers", 141: "session init", 146: "user",
          148: "locale", 149: "network", 156: "orientation", 162: "time zone"}
# The names of the frame types, as the catalogue heads its entries.
NAMES = {int(kind): name.removeprefix("SkeldaStream").removeprefix("Skelda") for kind, name in
         re.findall(r"^## (\d+) `(\w+)`", (ROOT / "docs" / "frame-catalogue.md").read_text(), re.MULTILINE)}
CLOSED = {1: "sticky set complete", 3: "session finalized", 4: "found by next start", 5: "forced", 6: "deletion asked for"}


def hue(code, text):
    return f"\x1b[{code}m{text}\x1b[0m" if HUES else text


def title(text):
    print(f"\n{hue('1;36', text)}\n{hue('36', '-' * len(text))}")


def show(text, indent="  "):
    for line in text.splitlines():
        print(indent + (line if len(line) <= WIDTH - 3 else line[:WIDTH - 6] + "..."), flush=True)


def show_frames(log, heading):
    print(f"\n  {hue('1', heading)}")
    shown = subprocess.run([FRAMES_TOOL, "--plain", log], capture_output=True, text=True, timeout=60, check=True)
    for line in shown.stdout.splitlines():
        print(textwrap.fill(line, WIDTH - 2, initial_indent="    ", subsequent_indent=" " * 12,
                            break_on_hyphens=False))


def run_host(home, collector, sent, *arguments, phone_after=None):
    """One start of the watch application, to its end; how many events it says were accepted."""
    socket = home.path / "phone.socket"
    environment = home.environment(SSL_CERT_FILE=collector.authority, LANG="de_CH.UTF-8", TZ="Europe/Zurich")
    arguments = ["--server", collector.url.replace("127.0.0.1", "localhost"),
                 "--linger", "30", *arguments]
    if phone_after is not None:
        arguments += ["--phone", socket]
    with home.start(*arguments, environment=environment, keep=sent) as host:
        if phone_after is not None:
            time.sleep(phone_after)
            with Process([PHONE, socket]) as phone:
                if phone.wait(30) != 0:
                    raise SystemExit(f"the phone was not acknowledged:\n{phone.output}")
                show(f"after {phone_after:g} s the phone came and gave its identifiers:")
                show(phone.output, "    phone: ")
        if host.wait(180) != 0:
            raise SystemExit(f"the application ended with {host.status}:\n{host.output}")
        show(host.output, "    watch: ")
        return host.number("accepted")


def clock(milliseconds):
    return time.strftime("%H:%M:%S", time.localtime(milliseconds / 1000)) + f".{milliseconds % 1000:03}"


def sessions_of(frames):
    """Each session that the log tells of, its id being the time at which it began."""
    spans = {}
    for frame in (frame for frame in frames if frame.type == frame_log.SESSION_ID):
        start, end = (frame.payload[f"sk.session.elapsed.{which}.time"] for which in ("start", "end"))
        spans[frame.payload["sk.session.id"]] = end - start if end else None
    return ", ".join(f"{key} {clock(key)} to {'-' if took is None else clock(key + took)}"
                     for key, took in spans.items()) or "-"


def sticky_head(frames):
    """The sticky types behind the counter, by which a log explains itself."""
    head = []
    for frame in frames[1:]:
        if frame.type not in STICKY:
            break
        head.append(frame.type)
    return sorted(head)


def show_logs(logs, sizes):
    print("  log counter  bytes frames events  head       session: id, start, end                    closed because")
    before = None
    for number, (frames, size) in enumerate(zip(logs, sizes), 1):
        kinds = {frame.type for frame in frames}
        head = sticky_head(frames)
        if head and head != before:
            print(textwrap.fill("head: " + ", ".join(f"{kind} {STICKY[kind]}" for kind in head), WIDTH - 2,
                                initial_indent=" " * 6, subsequent_indent=" " * 12))
            before = head
        extra = [name for kind, name in ((171, "properties"), (174, "opt-out"), (175, "delete")) if kind in kinds]
        show(f"{number:>3} {account.counter_of(frames):>7} {size:>6} {len(frames):>6}"
             f" {sum(frame.type == frame_log.EVENT for frame in frames):>6}  {len(head):>2} sticky"
             f"  {sessions_of(frames):<42} {CLOSED.get(frame_log.flush_of(frames), 'not closed')}"
             f"{' (' + ', '.join(extra) + ')' if extra else ''}", " ")


def show_kinds(logs):
    counts = collections.Counter((frame.type, NAMES.get(frame.type, "")) for frames in logs for frame in frames)
    print(textwrap.fill(", ".join(f"{kind} {name} x{count}" for (kind, name), count in sorted(counts.items())), WIDTH - 2,
                        initial_indent="  frames by type: ", subsequent_indent=" " * 4, break_on_hyphens=False))


def summary(home, collector, sent, accepted, threshold):
    """Prints what the host logged beside what the collector received; whether they are the same."""
    entries, received = collector.entries(), collector.logs()
    logs = [frame_log.frames_of(log) for log in received]
    title("What the collector received, log by log")
    show_logs(logs, [len(log) for log in received])
    print()
    show_kinds(logs)

    open_log = frame_log.frames_in(home.current_log)
    starts = account.starts_of(logs)
    accounts = [account.settle(count, start, open_log if count is accepted[-1] and start is starts[-1] else [], threshold)
                for count, start in zip(accepted, starts)]
    originals = sorted(hashlib.sha256(path.read_bytes()).hexdigest() for path in sent.glob(".skelda*"))
    arrived = sorted({entry["sha256"] for entry in entries})
    sizes = {entry["sha256"]: entry["bytes"] for entry in entries}

    title("The host beside the collector")
    rows = [
        ("logs", len(originals), len(arrived)),
        ("bytes", sum(path.stat().st_size for path in sent.glob(".skelda*")), sum(sizes.values())),
        ("frames", sum(len(frame_log.frames_in(path)) for path in sent.glob(".skelda*")),
         sum({entry["sha256"]: entry["frames"] for entry in entries}.values())),
        ("events in them", sum(a.in_logs for a in accounts),
         sum({entry["sha256"]: entry["events"] for entry in entries}.values())),
    ]
    print(f"  {'':22}{'host':>10}{'collector':>12}")
    for name, host, server in rows:
        print(f"  {name:22}{host:>10}{server:>12}  {hue(32, 'equal') if host == server else hue(31, 'DIFFERENT')}")
    same = originals == arrived
    print(f"  {'every byte':22}{'':22}  {hue(32, 'equal') if same else hue(31, 'DIFFERENT')}")

    in_logs, dropped, still_open = (sum(getattr(a, name) for a in accounts)
                                    for name in ("in_logs", "dropped", "still_open"))
    print(f"\n  events logged {sum(accepted)} = in received logs {in_logs} + dropped by the session rule {dropped}"
          f" + still in the open log {still_open}")
    adds_up = len(starts) == len(accepted) and all(a.adds_up for a in accounts)
    for problem in (problem for a in accounts for problem in a.wrong):
        print(hue(31, f"  {problem}"))
    waiting = len(home.blocks()) + len(home.committed_logs())
    if waiting:
        print(hue(31, f"  {waiting} logs still wait on the watch"))
    good = same and adds_up and not waiting and all(host == server for _, host, server in rows)
    print("\n" + (hue("1;32", "It adds up.") if good else hue("1;31", "It does NOT add up.")))
    return good


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--all", action="store_true")
    options = parser.parse_args()

    folder = ROOT / "build" / "demo"
    shutil.rmtree(folder, ignore_errors=True)
    sent = folder / "sent"
    home = Home(path=folder / "watch")
    information = plistlib.loads((home.bundle / "Info.plist").read_bytes())
    with Collector(folder / "collector", "--api-key", information["Skelda Watch API Key"]) as collector:
        title("A server on this machine")
        show(collector.process.output)

        title("First start: a morning run of 45 minutes, 150 times as fast")
        show("The watch has no identifiers yet: its events wait in the frame log until the phone comes.")
        accepted = [run_host(home, collector, sent, phone_after=1.5)]
        show(f"the log left open: {home.current_log.relative_to(ROOT)}, {home.current_log.stat().st_size} bytes")

        title("Second start: the log left open is repaired, closed and sent; the runner makes choices")
        accepted.append(run_host(home, collector, sent, "--events", "30", "--rate", "20", "--choices"))
        eventually(lambda: not home.blocks() and not home.committed_logs(), within=20)

        title("The frames, decoded")
        entries = collector.entries()
        shown = entries if options.all else entries[:2]
        for number, entry in enumerate(shown, 1):
            show_frames(collector.store / entry["file"], f"log {number}: {entry['file']}")
        if len(shown) < len(entries):
            print(f"\n  and {len(entries) - len(shown)} more: {FRAMES_TOOL.relative_to(ROOT)} --plain "
                  f"{collector.store.relative_to(ROOT)}")

        good = summary(home, collector, sent, accepted, information["Skelda Watch Event Threshold"])
        collector.stop()
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())

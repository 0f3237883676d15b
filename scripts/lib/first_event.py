"""README.md's way from nothing to an event on a page, typed, counted and timed. See scripts/first-event."""

import argparse
import json
import os
import pathlib
import ssl
import subprocess
import sys
import time
import urllib.request

from typed import ROOT, Failed, Shell, blocks_of, can_throw_away, lines_of

COMMANDS, SECONDS = 5, 300
EVENT = "LapDone"


def commands():
    """The block that begins with installing the packages."""
    text = (ROOT / "README.md").read_text()
    block = next(block for block in blocks_of(text) if block.startswith("apt-get install"))
    return lines_of(block)


def packages():
    architecture = subprocess.run(["dpkg", "--print-architecture"], capture_output=True, text=True, check=True).stdout.strip()
    folder = ROOT / "build/packages" / architecture
    if not list(folder.glob("*.deb")):
        print("no packages yet: making them", flush=True)
        subprocess.run([ROOT / "scripts/package"], check=True)
    return sorted(folder.glob("*.deb"))


def in_place_of_packages(line, build):
    """The same from a build that is there: what the packages bring comes to lie below the home."""
    if line.startswith("apt-get install"):
        return (f"cmake --install '{build}' --prefix \"$HOME/usr\" && "
                "export PATH=\"$HOME/usr/bin:$PATH\" CMAKE_PREFIX_PATH=\"$HOME/usr\"")
    return line.replace("/usr/share/", "\"$HOME\"/usr/share/")


def event_on_page(home, port):
    """The event as the page asks for it, once it is there."""
    context = ssl.create_default_context(cafile=str(home / "tls/authority.pem"))
    address = f"https://localhost:{port}"
    with urllib.request.urlopen(address + "/", timeout=20, context=context) as page:
        if "text/html" not in page.headers["Content-Type"]:
            raise Failed("there is no page")
    deadline = time.monotonic() + 20
    while time.monotonic() < deadline:
        with urllib.request.urlopen(f"{address}/page/events?name={EVENT}", timeout=20, context=context) as answer:
            events = json.load(answer)["events"]
        if events:
            return events[0]
        time.sleep(0.1)
    raise Failed("the event is not on the page")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--built", type=pathlib.Path, help="install this build instead of packages")
    parser.add_argument("--port", default="8443", help="another port than the text's")
    options = parser.parse_args()
    typed = commands()
    kept = []
    if options.built:
        typed = [in_place_of_packages(line, options.built.resolve()) for line in typed]
    elif os.geteuid() != 0 or not can_throw_away():
        sys.exit("packages are installed only where that can be undone: as root, with overlays; --built DIR does without")
    else:
        kept = packages()
    if options.port != "8443":
        listen = f"skelda-collector --listen 127.0.0.1:{options.port} "
        typed = [line.replace("8443", options.port).replace("skelda-collector ", listen) for line in typed]

    began = time.monotonic()
    with Shell(thrown_away=not options.built, keep=kept, echo=lambda line: print(line, flush=True)) as shell:
        for line in typed:
            shell.type(line, within=SECONDS)
        event = event_on_page(shell.home, options.port)
        took = time.monotonic() - began
    how = f"installed from {options.built}" if options.built else "with packages, in a layer that is gone again"
    parameters = event["payload"]["sk.event.user.parameters"]
    print(f"on the page: {event['payload']['sk.event.name']} {json.dumps(parameters, ensure_ascii=False)}")
    print(f"{how}: {len(typed)} commands, {took:.1f} s")
    if len(typed) > COMMANDS or took > SECONDS:
        sys.exit(f"more than {COMMANDS} commands or {SECONDS} s")


if __name__ == "__main__":
    try:
        main()
    except Failed as failed:
        sys.exit(str(failed))

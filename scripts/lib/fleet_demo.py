"""The demonstration of the fleet's side: from many devices to the answers to questions.

    python3 scripts/lib/fleet_demo.py [--devices N] [--seconds N]
"""

import argparse
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
os.environ.setdefault("SKELDA_BUILD", str(ROOT / "build" / "fleet"))
sys.path.insert(0, str(ROOT / "Tests" / "EndToEnd"))
sys.dont_write_bytecode = True

import fleet  # noqa: E402
import loading  # noqa: E402
from support import COLLECTOR, Home, Process, eventually  # noqa: E402

KEYS = ROOT / "deploy/example/keys"


def title(text):
    print(f"\n{text}\n{'-' * len(text)}", flush=True)


def show(text):
    for line in text.splitlines():
        print("  " + line, flush=True)


def questions():
    """The SQL of the document, by its headings."""
    text = (ROOT / "docs/fleet-questions.md").read_text()
    return re.findall(r"^## ([^\n]*)\n(?:(?!## |```)[^\n]*\n)*```sql\n(.*?)^```", text, re.MULTILINE | re.DOTALL)


def table(database, question, most=12):
    """The answer, as a person reads it."""
    asked = subprocess.run(["psql", "-X", "-P", "footer=off", database.connection, "-c", question],
                           capture_output=True, text=True, timeout=120, check=True)
    lines = asked.stdout.rstrip().splitlines()
    return "\n".join(lines[:most + 2] + ([f"and {len(lines) - most - 2} more"] if len(lines) > most + 2 else []))


class DeployedCollector(fleet.StreamCollector):
    """A collector that runs as its service unit says, with the certificate of that folder."""

    def command(self, listen):
        return fleet.deployed("skelda-collector", "1", LISTEN=listen, STREAM=self.store,
                              CREDENTIALS_DIRECTORY=self.arguments[0], CACHE_DIRECTORY=self.arguments[1])


def make_credentials(folder):
    """What the service manager hands to a collector: a certificate, its key, the keys that may send."""
    with Process([COLLECTOR, "--listen", "127.0.0.1:0", "--store", folder / "store", "--tls-dir",
                  folder / "tls"]) as maker:
        maker.line_with("listening on ")
        maker.terminate()
    credentials = folder / "credentials"
    credentials.mkdir()
    for name, of in (("certificate.pem", "server.pem"), ("key.pem", "server-key.pem")):
        (credentials / name).symlink_to(folder / "tls" / of)
    (credentials / "keys").symlink_to(KEYS)
    return credentials


def many_devices(options, collectors, sent, ledger):
    """Those logs, sent over and over as many devices' own: the digests of those that were taken."""
    to = "https://" + ",".join(f"localhost:{each.port}" for each in collectors)
    done = subprocess.run(
        [fleet.DEVICES, "load", "--to", to, "--bodies", sent, "--devices", str(options.devices), "--seconds",
         str(options.seconds), "--rate", "200", "--api-key", KEYS.read_text().split()[-1], "--ledger", ledger,
         "--authority", collectors[0].authority], capture_output=True, text=True, timeout=600, check=False)
    show(done.stdout + done.stderr)
    if done.returncode != 0:
        raise SystemExit("not all of it was taken")
    return set(re.findall(r"\b[0-9a-f]{64}\b", ledger.read_text()))


def account(servers, database, acknowledged):
    """Whether what was acknowledged is in the stream and in the database, each once."""
    ids = [headers["Nats-Msg-Id"] for headers, _ in servers.messages()]
    loaded = [row[0] for row in database.ask("SELECT encode(digest, 'hex') FROM skelda.logs")]
    lines = (("acknowledged to a device", len(acknowledged)), ("in the stream", len(ids)),
             ("in the database", len(loaded)), ("damaged", int(database.ask(
                 "SELECT count(*) FROM skelda.logs WHERE fault IS NOT NULL")[0][0])))
    for name, count in lines:
        print(f"  {name:26}{count:>8}")
    return sorted(ids) == sorted(loaded) == sorted(acknowledged)


def run(options, folder):
    credentials = make_credentials(folder)
    title("Three servers of the stream, two collectors, a database and the loader")
    with fleet.Servers(folder) as servers, loading.Database(folder / "database") as database, \
            DeployedCollector(folder, servers, credentials, folder / "copies-1") as one, \
            DeployedCollector(folder, servers, credentials, folder / "copies-2") as two, Home() as home:
        database.await_ready()
        for each in (one, two):
            each.await_ready()
            show(each.url)
        with loading.loader(servers, database) as loader:
            title("A morning run on a watch")
            sent = home.path / "sent"
            for said in fleet.recorded_run(home, one, sent):
                show(said)
            # Blocks alone: of closed logs some are given up, where many come at once.
            acknowledged = {loading.digest(path.read_bytes()) for path in sent.glob("[!.]*")}
            title(f"{options.devices} devices for {options.seconds} seconds")
            acknowledged |= many_devices(options, (one, two), sent, folder / "ledger")
            loaded = eventually(lambda: database.ask("SELECT count(*) FROM skelda.logs") == [[str(len(acknowledged))]], 120,
                                every=0.2)
            show(loader.output)
            if loader.terminate() != 0:
                raise SystemExit("the loader did not end as it should")
        title("What a product manager asks")
        for name, question in questions():
            print(f"\n  {name}")
            show(table(database, question))
        title("What an operator sees of a collector")
        show("\n".join(line for line in two.get("/metrics")[1].splitlines() if not line.startswith("#")))
        title("The account")
        good = account(servers, database, acknowledged) and bool(loaded)
        for each in (one, two):
            good = each.process.terminate(30) == 0 and good
    print("\n" + ("It adds up." if good else "It does NOT add up."))
    return good


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--devices", type=int, default=300)
    parser.add_argument("--seconds", type=int, default=15)
    options = parser.parse_args()
    began = time.monotonic()
    with tempfile.TemporaryDirectory(prefix="skelda-fleet-", dir="/var/tmp") as folder:
        os.chmod(folder, 0o755)  # the database runs as somebody else
        good = run(options, pathlib.Path(folder))
    print(f"{time.monotonic() - began:.0f} s; everything is stopped")
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())

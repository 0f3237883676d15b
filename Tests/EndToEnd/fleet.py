"""What stands behind many devices, as processes on loopback ports: the servers of the stream, and
collectors in front of them."""

import contextlib
import http.client
import json
import os
import re
import shlex
import shutil
import subprocess
import urllib.request

from loading import STREAM, Stream, free_ports
from support import BUILD, COLLECTOR, ROOT, Collector, Process, eventually, give_identifiers

DEVICES = BUILD / "Tools/skelda-fleet/skelda-fleet"
NATS_SERVER = "/usr/sbin/nats-server"


def is_built():
    """Whether the collector has the stream, and the machine has the servers."""
    if not os.path.exists(NATS_SERVER) or not COLLECTOR.exists():
        return False
    return "--replicas" in subprocess.run([COLLECTOR, "--help"], capture_output=True, text=True, check=True).stdout


def deployed(unit, name, **environment):
    """What a service unit of deploy/ would run, with the example's environment, other values for some
    of it, and the files of the tree and the build."""
    text = (ROOT / "deploy" / f"{unit}@.service").read_text().replace("\\\n", "")
    command = shlex.split(re.search("^ExecStart=(.*)", text, re.MULTILINE)[1])
    example = re.search("^EnvironmentFile=.*/(.*)", text, re.MULTILINE)[1].replace("%i", "1")
    example = (ROOT / "deploy/example" / example).read_text()
    values = dict(line.split("=", 1) for line in example.splitlines()) | environment
    words = []
    for word in command:
        if word.startswith("$") and not word.startswith("${"):
            words += values[word[1:]].split()  # as the service manager does
            continue
        word = re.sub(r"\$\{(\w+)\}", lambda found: str(values[found[1]]), word).replace("%i", name)
        words.append(word.replace("/etc/skelda-fleet/", f"{ROOT}/deploy/"))
    words[0] = re.sub("^/usr/bin/(skelda-.*)", rf"{BUILD}/Tools/\1/\1", words[0])
    words[0] = words[0].replace("/usr/lib/skelda-fleet/", f"{ROOT}/deploy/")
    return words


class Servers(contextlib.AbstractContextManager):
    """Some servers that keep one stream, each in a folder of its own, which outlives it. `hosts` are
    their addresses, and `inside` what stands before the command that starts each, where it matters;
    `arguments` are further ones of each."""

    def __init__(self, folder, count=3, hosts=None, inside=None, arguments=()):
        self.folder, self.arguments = folder, arguments
        self.hosts, self.inside = hosts or ["127.0.0.1"] * count, inside or [[]] * count
        self.ports, self.routes, self.monitors = free_ports(count), free_ports(count), free_ports(count)
        self.processes = [None] * count
        for index in range(count):
            self.start(index)

    @property
    def url(self):
        return "nats://" + ",".join(f"{host}:{port}" for host, port in zip(self.hosts, self.ports))

    def start(self, index):
        routes = ",".join(f"nats://{host}:{port}" for host, port in zip(self.hosts, self.routes))
        self.processes[index] = Process([*self.inside[index], *deployed(
            "skelda-nats", f"skelda-{index}", ADDRESS=self.hosts[index], PORT=self.ports[index],
            MONITOR=self.monitors[index], CLUSTER=f"{self.hosts[index]}:{self.routes[index]}", ROUTES=routes,
            STATE_DIRECTORY=self.folder / f"nats-{index}"), *self.arguments])

    def kill(self, index):
        self.processes[index].kill()

    def empty(self, index):
        for path in self.folder.glob(f"nats-{index}/*"):
            shutil.rmtree(path)

    def __exit__(self, *_):
        for process in self.processes:
            process.kill()

    def ask(self, subject, request=None):
        """What a server of the stream answers; None where none does."""
        with contextlib.suppress(OSError), self.client() as client:
            return client.request(subject, request)
        return None

    def client(self):
        """A connection to any server that takes one."""
        for host, port in zip(self.hosts, self.ports):
            with contextlib.suppress(OSError):
                return Stream(port, host=host)
        raise OSError("no server of the stream answers")

    def leader(self, name=STREAM):
        """The server that leads the stream; None where there is none."""
        cluster = (self.ask(f"$JS.API.STREAM.INFO.{name}") or {}).get("cluster", {})
        return int(cluster["leader"].removeprefix("skelda-")) if cluster.get("leader") else None

    def holding(self, index):
        """How many messages of the stream a server has itself; None while it says that it is not up to date."""
        monitor = f"http://{self.hosts[index]}:{self.monitors[index]}"
        with contextlib.suppress(OSError, KeyError, ValueError):
            urllib.request.urlopen(f"{monitor}/healthz", timeout=5).close()
            with urllib.request.urlopen(f"{monitor}/jsz?streams=true", timeout=5) as answer:
                accounts = json.load(answer)["account_details"]
            return sum(each["state"]["messages"] for account in accounts for each in account["stream_detail"]
                       if each["name"] == STREAM)
        return None

    def watch(self, index, **environment):
        """What looks after a server where deploy/ is used; here it makes the file `ended-INDEX` instead of
        ending it, and `emptied-INDEX` instead of emptying it."""
        monitors = [f"{host}:{port}" for host, port in zip(self.hosts, self.monitors)]
        command = deployed("skelda-nats-health", f"skelda-{index}", ADDRESS=self.hosts[index], MONITOR=self.monitors[index],
                           OTHERS=",".join(monitors[:index] + monitors[index + 1:]))
        marks = [f"touch {self.folder}/{what}-{index}" for what in ("ended", "emptied")]
        return Process([*command[:3], *marks], env=os.environ | environment)

    def are_level(self):
        """Whether each has what any of them had a moment before."""
        before, now = ([self.holding(index) for index in range(len(self.ports))] for _ in range(2))
        return None not in before + now and min(now) >= max(before)

    def subjects(self):
        """Of the stream's messages, those after its name."""
        state = self.ask(f"$JS.API.STREAM.INFO.{STREAM}", {"subjects_filter": ">"})["state"]
        return {subject.removeprefix(STREAM + ".") for subject in state["subjects"]}

    def messages(self):
        with self.client() as client:
            return client.messages()


def resident(pid):
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        return next(int(line.split()[1]) * 1024 for line in status if line.startswith("VmRSS"))


class StreamCollector(Collector):
    """skelda-collector in front of the servers. Restarting keeps what it was started with."""

    def __init__(self, folder, servers, *arguments, **more):
        self.arguments = arguments
        super().__init__(folder, **{"store": servers.url, **more})

    def command(self, listen):
        return super().command(listen, *self.arguments)

    def figures(self):
        """Of /metrics, those of one value, without what all names begin with."""
        with contextlib.suppress(OSError, http.client.HTTPException):
            lines = re.findall(r"^skelda_collector_(\w+) (\S+)$", self.get("/metrics")[1], re.MULTILINE)
            return {name: float(value) for name, value in lines}
        return {}

    def await_ready(self, within=60):
        if not eventually(lambda: self.get("/readyz")[0] == 200, within, every=0.1):
            raise AssertionError(f"not ready after {within} s:\n{self.process.output}")


def recorded_run(home, collector, sent):
    """A morning run by a real agent, until nothing of it waits any more; what the host said. The logs that
    it sent are in the folder `sent`."""
    environment = home.environment(SSL_CERT_FILE=collector.authority, LANG="de_CH.UTF-8", TZ="Europe/Zurich")
    give_identifiers(home)
    said = [home.run("--server", collector.url, "--speed", "0", "--linger", "20", environment=environment,
                     keep=sent, within=120).output for _ in range(2)]  # the second sends what the first left open
    if not eventually(lambda: not home.blocks() and not home.committed_logs()):
        raise AssertionError("logs still wait on the watch")
    return said

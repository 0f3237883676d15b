"""docs/getting-started.md, typed as it stands."""

import os
import pathlib
import re
import subprocess
import sys
import unittest

from loading import free_ports
from support import BUILD, ROOT

sys.path.insert(0, str(ROOT / "scripts/lib"))
import typed  # noqa: E402

TEXT = (ROOT / "docs/getting-started.md").read_text()


def packages_of_this_machine():
    """Those that scripts/package has made of this very tree."""
    architecture = subprocess.run(["dpkg", "--print-architecture"], capture_output=True, text=True).stdout.strip()
    packages = sorted((ROOT / "build/packages" / architecture).glob("*.deb"))
    sources = [path.stat().st_mtime for folder in ("Analytics", "Examples", "Library", "Platform", "Tools", "include")
               for path in (ROOT / folder).rglob("*") if path.is_file()]
    return packages if packages and min(p.stat().st_mtime for p in packages) > max(sources) else []


class GettingStarted(unittest.TestCase):
    def setUp(self):
        sections = dict(re.findall(r"^## (.*?)\n(.*?)(?=^## |\Z)", TEXT, re.M | re.S))
        self.packages, self.source = sections.pop("Install the packages"), sections.pop("Or build and install")
        self.rest = list(sections.values())
        self.port = str(*free_ports(1))

    def type_all(self, shell, text):
        for name, content in re.findall(r"^`([^`\n]+)`\n\n```\w+\n(.*?)^```$", text, re.M | re.S):
            file = shell.home / name
            file.parent.mkdir(parents=True, exist_ok=True)
            file.write_text(content.replace("8443", self.port))
        for block in typed.blocks_of(text):
            for line in typed.lines_of(block):
                shell.type(line.replace("8443", self.port))

    def go_on_to_the_end(self, shell):
        self.assertGreater(len(self.rest), 4)
        for section in self.rest:
            self.type_all(shell, section)

    def test_from_a_source_tree(self):
        # The tree's own build, which is there already: configuring and building it is little.
        self.assertIn("build/release", self.source)
        with typed.Shell() as shell:
            shell.type(f"cd '{ROOT}'")
            self.type_all(shell, self.source.replace("build/release", f"'{BUILD}'").replace("--preset release", f"'{BUILD}'"))
            self.go_on_to_the_end(shell)

    def test_from_packages(self):
        packages = packages_of_this_machine()
        if not packages:
            self.skipTest("scripts/package has made no packages of this tree")
        if os.geteuid() != 0 or not typed.can_throw_away():
            self.skipTest("packages are installed only where that can be undone: as root, with overlays")
        with typed.Shell(thrown_away=True, keep=packages) as shell:
            self.type_all(shell, self.packages)
            self.assertEqual("/usr/bin/skelda-frames", shell.type("command -v skelda-frames").strip())
            self.go_on_to_the_end(shell)
        self.assertFalse(pathlib.Path("/usr/bin/skelda-frames").exists())

    def test_the_commands_of_the_readme_are_few_and_quick(self):
        way = ["--built", str(BUILD)]
        if packages_of_this_machine() and os.geteuid() == 0 and typed.can_throw_away():
            way = []
        done = subprocess.run([ROOT / "scripts/first-event", *way, "--port", self.port], text=True, timeout=600,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.assertEqual(0, done.returncode, done.stdout)
        self.assertIn('on the page: LapDone {"lap": "3", "pace": "5:10"}', done.stdout)

"""What the documents say is there, what is there they say, and what they tell to type is typed as it stands."""

import os
import pathlib
import re
import sys
import unittest

from loading import free_ports
from support import BUILD, ROOT, said_by, told

sys.path.insert(0, str(ROOT / "scripts/lib"))
import typed  # noqa: E402

LITERAL = r'"(?:[^"\\\n]|\\.)*"'
LITERALS = re.compile(rf"(?:{LITERAL}\s*)+")
# What an operator may have to act on: notices, and lines of level 1. All lines of the platform are such.
SAID = re.compile(r"\b(?:SKELDA_(?:PLATFORM_)?NOTICE(?:_ONCE)?|SKELDA_PLATFORM_LOG|SKELDA_LOG(?=\(\s*1\s*,)|Log::write)"
                  rf"\((?:\s*1\s*,)?\s*((?:{LITERAL}\s*)+)")

# Lines of level 1 that tell an operator nothing, each with the reason.
FOR_NOBODY = {
    "{}: {}": "an error's own words behind a method's name; who asked says what it means",
    "bv_jsonStringWithPrettyPrint: error: {}": "of a helper that the agent itself does not call",
}


def joined(literals):
    return "".join(part[1:-1] for part in re.findall(LITERAL, literals)).replace('\\"', '"').replace("\\\\", "\\")


def sources():
    return [path.read_text() for floor in ("Platform", "Analytics", "Library") for path in (ROOT / floor).rglob("*.[ch]*")]


class LogLines(unittest.TestCase):
    """docs/operations.md, "What the lines mean"."""

    def setUp(self):
        section = (ROOT / "docs/operations.md").read_text().split("## What the lines mean")[1].split("\n## ")[0]
        rows = [line.split(" | ")[0] for line in section.splitlines() if line.startswith("| `")]
        self.explained = [text for row in rows for text in re.findall(r"`([^`]+)`", row)]
        self.assertGreater(len(self.explained), 50)

    def pattern(self, explained, anything=r".+"):
        """`...`, `N` and `<...>` stand for anything."""
        parts = re.split(r"\.\.\.|\bN\b|<\w+>", explained)
        return re.compile(anything.join(re.escape(part) for part in parts))

    def test_each_line_that_an_operator_may_have_to_act_on_is_explained(self):
        patterns = [self.pattern(text) for text in self.explained]
        said = {joined(line) for text in sources() for line in SAID.findall(text)}
        self.assertGreater(len(said), 80)
        silent = {line for line in said if not any(p.search(re.sub(r"\{[^}]*\}", "0", line)) for p in patterns)}
        # Who is exempt is said by somebody, and explained nowhere.
        self.assertEqual(set(FOR_NOBODY), silent)

    def test_each_line_that_is_explained_is_said_somewhere(self):
        literals = "\n".join(re.sub(r"\{[^}]*\}", "0", joined(m[0])) for text in sources() for m in LITERALS.finditer(text))
        unsaid = [text for text in self.explained if not self.pattern(text, "[^\n]+").search(literals)]
        self.assertEqual([], unsaid)


class ManPages(unittest.TestCase):
    """docs/man, held against what each tool says of itself."""

    def test_every_tool_has_a_page_with_the_options_that_it_takes_and_no_other(self):
        tools = {path.name: path for path in (BUILD / "Tools").glob("skelda-*/skelda-*") if path.is_file()}
        pages = {path.stem: path for path in (ROOT / "docs/man").glob("*.1")}
        # Those that are always built; others are for who maintains a server, and say what they take.
        installed = " ".join(re.findall(r"(?:set\(|APPEND )tools (.*?)\)", (ROOT / "Tools/CMakeLists.txt").read_text())).split()
        self.assertIn("skelda-collector", installed)
        self.assertLessEqual(set(installed), set(pages))
        self.assertLessEqual(set(pages), {path.parent.name for path in (ROOT / "Tools").glob("skelda-*/main.cpp")})
        self.assertTrue(tools)
        for name in sorted(tools.keys() & {*pages, *installed}):
            with self.subTest(name):
                page = pages[name].read_text()
                taken = set(re.findall(r"^ +(?:-\w,)?--([a-z][a-z-]*)", told(tools[name], "--help").stdout, re.M))
                self.assertIn("help", taken)
                self.assertEqual(taken, set(re.findall(r"^\.It Fl (?:\w , )?-([a-z][a-z-]*)", page, re.M)))
                synopsis = page.split(".Sh SYNOPSIS")[1].split(".Sh DESCRIPTION")[0]
                self.assertEqual(taken, set(re.findall(r"-([a-z][a-z-]*[a-z])", synopsis.replace(name, ""))))


def like_this_build():
    """Arguments that make another tree's build share this one's compiler cache."""
    cache = dict(line.split("=", 1) for line in (BUILD / "CMakeCache.txt").read_text().splitlines()
                 if "=" in line and not line.startswith(("#", "//")))
    wanted = ("CMAKE_CXX_COMPILER_LAUNCHER", "CMAKE_BUILD_TYPE", "CMAKE_CXX_FLAGS_DEBUG", "CMAKE_CXX_FLAGS_RELEASE",
              "CMAKE_EXE_LINKER_FLAGS", "SKELDA_SANITIZE", "SKELDA_BENCHMARKS")
    return "".join(f" '-D{key}={value}'" for key, value in cache.items() if value and key.split(":")[0] in wanted)


class Contributing(unittest.TestCase):
    """The worked example of CONTRIBUTING.md, done as it says, in a copy of the tree."""

    def test_the_worked_example_applies_passes_its_tests_and_leaves_its_records(self):
        text = (ROOT / "CONTRIBUTING.md").read_text()
        files = re.findall(r"^`([^`\n]+)`\n\n```cpp\n(.*?)^```$", text, re.M | re.S)
        changes = re.findall(r"^(?:```|~~~~)diff\n(.*?)^(?:```|~~~~)$", text, re.M | re.S)
        steps = typed.lines_of(typed.blocks_of(text)[-1])
        shown = [line for block in typed.blocks_of(text, "text") for line in block.splitlines()]
        self.assertTrue(len(files) > 5 and len(changes) > 5 and shown and steps)
        output = ""
        with typed.Shell() as shell:
            tree = shell.home / "tree"
            told("rsync", "-rlp", "--exclude=/build*", "--exclude=.git", "--exclude=__pycache__", f"{ROOT}/", tree)
            for name, value in {"DIR": os.environ.get("CCACHE_DIR", pathlib.Path.home() / ".cache/ccache"),
                                "BASEDIR": tree, "NOHASHDIR": 1,
                                "SLOPPINESS": "include_file_ctime,include_file_mtime"}.items():
                shell.type(f"export CCACHE_{name}='{value}'")
            shell.type(f"cd '{tree}'")
            for name, content in files:
                self.assertFalse((tree / name).exists(), name)
                (tree / name).write_text(content)
            for change in changes:
                (shell.home / "change.diff").write_text(change)
                self.assertIn("patching", shell.type("patch -p1 -i ../change.diff"))
            shell.type("python3 scripts/lib/floors.py")
            for step in steps:
                if step.startswith("cmake --preset"):
                    step += like_this_build()
                if step.startswith("cmake --build"):
                    step += f" -j{os.cpu_count()}"
                output += shell.type(step, within=600)
        for line in shown:  # in which ... stands for anything
            self.assertRegex(output, ".*".join(map(re.escape, line.split("..."))))


def packages_to_install():
    """Those that scripts/package has made of this very tree; none where installing them could not
    be undone: that takes root, and overlays."""
    if os.geteuid() != 0 or not typed.can_throw_away():
        return []
    architecture = told("dpkg", "--print-architecture").stdout.strip()
    packages = sorted((ROOT / "build/packages" / architecture).glob("*.deb"))
    sources = [path.stat().st_mtime for folder in ("Analytics", "Examples", "Library", "Platform", "Tools", "include")
               for path in (ROOT / folder).rglob("*") if path.is_file()]
    return packages if packages and min(p.stat().st_mtime for p in packages) > max(sources) else []


class GettingStarted(unittest.TestCase):
    """docs/getting-started.md, typed as it stands."""

    def setUp(self):
        text = (ROOT / "docs/getting-started.md").read_text()
        sections = dict(re.findall(r"^## (.*?)\n(.*?)(?=^## |\Z)", text, re.M | re.S))
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
        packages = packages_to_install()
        if not packages:
            self.skipTest("scripts/package has made none of this tree, or no machine to throw away")
        with typed.Shell(thrown_away=True, keep=packages) as shell:
            self.type_all(shell, self.packages)
            self.assertEqual("/usr/bin/skelda-frames", shell.type("command -v skelda-frames").strip())
            self.go_on_to_the_end(shell)
        self.assertFalse(pathlib.Path("/usr/bin/skelda-frames").exists())

    def test_the_commands_of_the_readme_are_few_and_quick(self):
        way = [] if packages_to_install() else ["--built", str(BUILD)]
        said = said_by(ROOT / "scripts/first-event", *way, "--port", self.port)
        self.assertIn('on the page: LapDone {"lap": "3", "pace": "5:10"}', said)

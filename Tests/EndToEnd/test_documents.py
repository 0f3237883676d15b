"""What the documents say is there, and what is there they say."""

import collections
import re
import unittest

from support import BUILD, ROOT, told

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
    for floor in ("Platform", "Analytics", "Library"):
        for path in sorted((ROOT / floor).rglob("*")):
            if path.suffix in (".cpp", ".h"):
                yield path, path.read_text()


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
        said = collections.defaultdict(set)
        for path, text in sources():
            for match in SAID.finditer(text):
                said[joined(match[1])].add(path.name)
        self.assertGreater(len(said), 80)
        silent = {line: names for line, names in said.items() if line not in FOR_NOBODY
                  and not any(p.search(re.sub(r"\{[^}]*\}", "0", line)) for p in patterns)}
        self.assertEqual({}, silent)
        self.assertEqual(set(), set(FOR_NOBODY) - set(said), "exempt, but said by nobody")

    def test_each_line_that_is_explained_is_said_somewhere(self):
        literals = "\n".join(re.sub(r"\{[^}]*\}", "0", joined(m[0])) for _, text in sources() for m in LITERALS.finditer(text))
        unsaid = [text for text in self.explained if not self.pattern(text, "[^\n]+").search(literals)]
        self.assertEqual([], unsaid)


class ManPages(unittest.TestCase):
    """docs/man, held against what each tool says of itself."""

    def test_every_tool_has_a_page_with_the_options_that_it_takes_and_no_other(self):
        tools = {path.name: path for path in (BUILD / "Tools").glob("skelda-*/skelda-*") if path.is_file()}
        pages = {path.stem: path for path in (ROOT / "docs/man").glob("*.1")}
        # Those that are always built; others are for who maintains a server, and say what they take.
        lines = re.findall(r"(?:set\(|APPEND )tools (.*?)\)", (ROOT / "Tools/CMakeLists.txt").read_text())
        installed = " ".join(lines).split()
        self.assertIn("skelda-collector", installed)
        self.assertLessEqual(set(installed), set(pages))
        self.assertLessEqual(set(pages), {path.parent.name for path in (ROOT / "Tools").glob("skelda-*/main.cpp")})
        self.assertTrue(tools)
        for name, tool in tools.items():
            if name not in pages and name not in installed:
                continue
            with self.subTest(name):
                page = pages[name].read_text()
                taken = set(re.findall(r"^ +(?:-\w,)?--([a-z][a-z-]*)", told(tool, "--help").stdout, re.M))
                self.assertIn("help", taken)
                self.assertEqual(taken, set(re.findall(r"^\.It Fl (?:\w , )?-([a-z][a-z-]*)", page, re.M)))
                synopsis = page.split(".Sh SYNOPSIS")[1].split(".Sh DESCRIPTION")[0]
                self.assertEqual(taken, set(re.findall(r"-([a-z][a-z-]*[a-z])", synopsis.replace(name, ""))))

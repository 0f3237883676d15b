"""The worked example of CONTRIBUTING.md, done as it says, in a copy of the tree."""

import os
import pathlib
import re
import shutil
import sys
import unittest

from support import BUILD, ROOT

sys.path.insert(0, str(ROOT / "scripts/lib"))
import typed  # noqa: E402

TEXT = (ROOT / "CONTRIBUTING.md").read_text()


def copy_of_the_tree(target):
    """What a fresh checkout would hold."""
    def beside_the_point(folder, names):
        at_the_top = pathlib.Path(folder) == ROOT
        return [n for n in names if n in (".git", "__pycache__") or at_the_top and n.startswith("build")]

    shutil.copytree(ROOT, target, ignore=beside_the_point, symlinks=True)
    return target


def like_this_build():
    """Arguments that make another tree's build share this one's compiler cache."""
    cache = dict(line.split("=", 1) for line in (BUILD / "CMakeCache.txt").read_text().splitlines()
                 if "=" in line and not line.startswith(("#", "//")))
    wanted = ("CMAKE_CXX_COMPILER_LAUNCHER", "CMAKE_BUILD_TYPE", "CMAKE_CXX_FLAGS_DEBUG", "CMAKE_CXX_FLAGS_RELEASE",
              "CMAKE_EXE_LINKER_FLAGS", "SKELDA_SANITIZE", "SKELDA_BENCHMARKS")
    return "".join(f" '-D{key}={value}'" for key, value in cache.items() if value and key.split(":")[0] in wanted)


class Contributing(unittest.TestCase):
    def test_the_worked_example_applies_passes_its_tests_and_leaves_its_records(self):
        files = re.findall(r"^`([^`\n]+)`\n\n```cpp\n(.*?)^```$", TEXT, re.M | re.S)
        changes = re.findall(r"^(?:```|~~~~)diff\n(.*?)^(?:```|~~~~)$", TEXT, re.M | re.S)
        steps = typed.lines_of(typed.blocks_of(TEXT)[-1])
        shown = [line for block in typed.blocks_of(TEXT, "text") for line in block.splitlines()]
        self.assertTrue(len(files) > 5 and len(changes) > 5 and shown and steps)
        output = ""
        with typed.Shell() as shell:
            tree = copy_of_the_tree(shell.home / "tree")
            for name, value in {"DIR": os.environ.get("CCACHE_DIR", pathlib.Path.home() / ".cache/ccache"),
                                "BASEDIR": tree, "NOHASHDIR": 1,
                                "SLOPPINESS": "include_file_ctime,include_file_mtime"}.items():
                shell.type(f"export CCACHE_{name}='{value}'")
            shell.type(f"cd '{tree}'")
            for name, text in files:
                self.assertFalse((tree / name).exists(), name)
                (tree / name).write_text(text)
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

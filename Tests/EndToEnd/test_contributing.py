"""The worked example of CONTRIBUTING.md, done as it says, in a copy of the tree."""

import os
import pathlib
import tempfile
import unittest

from documents import blocks_of, commands_of, copy_of_the_tree, environment_of, like_this_build, run, says
from support import scratch_root


class Contributing(unittest.TestCase):
    def test_the_worked_example_applies_passes_its_tests_and_leaves_its_records(self):
        blocks = blocks_of("CONTRIBUTING.md")
        files = [block for block in blocks if block.file]
        changes = [block for block in blocks if block.kind == "diff"]
        shown = [line for block in blocks if block.kind == "text" for line in block.text.splitlines()]
        steps = commands_of([block for block in blocks if block.kind == "sh"][-1].text)
        self.assertTrue(len(files) > 5 and len(changes) > 5 and shown and steps)
        with tempfile.TemporaryDirectory(prefix="skelda-contributing-", dir=scratch_root()) as folder:
            home = pathlib.Path(folder)
            tree = copy_of_the_tree(home / "tree")
            environment = environment_of(home, CCACHE_BASEDIR=tree)
            environment.setdefault("CCACHE_DIR", str(pathlib.Path.home() / ".cache/ccache"))
            for block in files:
                self.assertFalse((tree / block.file).exists(), block.file)
                (tree / block.file).write_text(block.text)
            for block in changes:
                patch = home / "change.diff"
                patch.write_text(block.text)
                self.assertIn("patching", run(["patch", "-p1", "-i", patch], tree, environment))
            run(["python3", "scripts/lib/floors.py"], tree, environment)
            output = ""
            for step in steps:
                if step.startswith("cmake --preset"):
                    step += "".join(f" '{argument}'" for argument in like_this_build())
                if step.startswith("cmake --build"):
                    step += f" -j{os.cpu_count()}"
                output += run(step, tree, environment)
        for line in shown:
            self.assertTrue(says(output, line), f"{line}\n{output[-4000:]}")

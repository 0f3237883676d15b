"""What the documents show, taken out to be run: their fenced blocks, each with what stands above it."""

import collections
import os
import pathlib
import re
import shutil
import subprocess

from support import BUILD, ROOT

Block = collections.namedtuple("Block", "kind text file")

FENCE = re.compile(r"(?:^`(?P<file>[^`\n]+)`\n\n)?^(?P<fence>```|~~~~)(?P<kind>\S*)\n(?P<text>.*?)^(?P=fence)$", re.M | re.S)


def blocks_of(document):
    """Every fenced block of a document, in order. `file` is the name that stands alone above it, if one does."""
    return [Block(m["kind"], m["text"], m["file"]) for m in FENCE.finditer((ROOT / document).read_text())]


def commands_of(text):
    """The commands of a shell block: a line each, unless it ends in a backslash."""
    return [line for line in text.replace("\\\n", "").splitlines() if line and not line.startswith("#")]


def copy_of_the_tree(target):
    """What a fresh checkout would hold."""
    def beside_the_point(folder, names):
        at_the_top = pathlib.Path(folder) == ROOT
        return [n for n in names if n in (".git", "__pycache__") or at_the_top and n.startswith("build")]

    shutil.copytree(ROOT, target, ignore=beside_the_point, symlinks=True)
    return pathlib.Path(target)


def like_this_build():
    """Arguments that make another tree's build share this one's compiler cache."""
    cache = dict(line.split("=", 1) for line in (BUILD / "CMakeCache.txt").read_text().splitlines()
                 if "=" in line and not line.startswith(("#", "//")))
    wanted = ("CMAKE_CXX_COMPILER_LAUNCHER", "CMAKE_BUILD_TYPE", "CMAKE_CXX_FLAGS_DEBUG", "CMAKE_CXX_FLAGS_RELEASE",
              "CMAKE_EXE_LINKER_FLAGS", "SKELDA_SANITIZE", "SKELDA_BENCHMARKS")
    found = {name: (key, value) for key, value in cache.items() for name in [key.split(":")[0]] if name in wanted}
    return [f"-D{key}={value}" for key, value in found.values() if value]


def environment_of(folder, **more):
    """A home of its own, for commands that a reader would type."""
    folder = pathlib.Path(folder)
    return {"PATH": os.environ["PATH"], "HOME": str(folder), "LANG": "C.UTF-8", "CCACHE_BASEDIR": str(folder),
            "CCACHE_NOHASHDIR": "1", "CCACHE_SLOPPINESS": "include_file_ctime,include_file_mtime", **{k: v for k, v in os.environ.items() if k in ("CCACHE_DIR", "CCACHE_CONFIGPATH")},
            **{k: str(v) for k, v in more.items()}}


def run(command, cwd, environment, within=600):
    """What the command said. It must end well."""
    done = subprocess.run(["bash", "-euo", "pipefail", "-c", command] if isinstance(command, str) else
                          [str(part) for part in command], cwd=cwd, env=environment, text=True, timeout=within,
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    if done.returncode != 0:
        raise AssertionError(f"{command}: status {done.returncode}\n{done.stdout[-4000:]}")
    return done.stdout


def says(output, line):
    """Whether a line of the output is like that one, in which ... stands for anything."""
    pattern = re.compile(".*".join(map(re.escape, line.split("..."))))
    return any(pattern.search(said) for said in output.splitlines())

"""Holds what a shared library exports to the list in Library/exports.txt, in both directions.

    python3 scripts/lib/exports.py LIBRARY             status 1 when they differ
    python3 scripts/lib/exports.py --update LIBRARY    writes the list
"""

import argparse
import pathlib
import subprocess
import sys

LIST = pathlib.Path(__file__).resolve().parents[2] / "Library/exports.txt"


def exports_of(library):
    """Each exported name with its version, as C++ spells it. The list is that of a 64-bit processor."""
    lines = subprocess.run(["nm", "--dynamic", "--defined-only", "--demangle", str(library)], check=True,
                           capture_output=True, text=True).stdout.splitlines()
    names = {line.split(" ", 2)[2] for line in lines}
    return sorted(name for name in names if not name.startswith("SKELDA_WATCH_"))  # the versions themselves


def listed():
    return LIST.read_text().splitlines()


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--update", action="store_true")
    parser.add_argument("library", type=pathlib.Path)
    options = parser.parse_args()
    found = exports_of(options.library)
    if options.update:
        LIST.write_text("\n".join(found) + "\n")
        return 0
    known = listed()
    for sign, names in (("new", set(found) - set(known)), ("gone", set(known) - set(found))):
        print("".join(f"{sign}: {name}\n" for name in sorted(names)), end="")
    return 0 if found == known else 1


if __name__ == "__main__":
    sys.exit(main())

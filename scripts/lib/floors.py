"""Holds the house to its plan: who may include whom.

    python3 scripts/lib/floors.py [TREE]       lists what is against the plan; status 1 when anything is
    python3 scripts/lib/floors.py --picture [TREE]     shows the components and their arrows

The plan: a floor includes only what lies below it; a component includes exactly the components that
its CMake list names (DEPENDS); neither components nor files include each other in a circle; a
library that the agent stands on is named only in its own place.
"""

import argparse
import collections
import dataclasses
import pathlib
import posixpath
import re
import sys

COMPONENT = re.compile(r'\bskelda_component\(\s*((?:"[^"]*"|[^")])*)\)')
INCLUDE = re.compile(r'^[ \t]*#[ \t]*include[ \t]*[<"]([^">]+)[">]', re.MULTILINE)
FOLDERS = ("Platform", "include", "Analytics", "Library", "Tools", "Examples", "Tests", "Benchmarks", "Fuzz")

# What files of a folder may include, by folder. Tests, benchmarks and fuzz targets see everything.
FLOORS = {
    "Platform": ("Platform",),
    "include": ("Platform", "include"),
    "Analytics": ("Platform", "include", "Analytics"),
    "Library": ("Platform", "include", "Analytics"),
    "Tools": ("Platform", "include", "Analytics", "Tools"),
    "Examples": ("include", "Examples"),  # what any host may do
}
# What wraps the public face, and so sees nothing else.
PUBLIC_ONLY = ("Analytics/Watch/SkeldaCFace.cpp",)

# A header of the public face belongs to the component that has its source: whoever includes it
# stands on that component. These have no source of that name.
GATHERING = {"include/Skelda_Watch/Skelda_Watch.h": "analytics_watch", "include/Skelda_Watch/skelda_watch.h": "analytics_watch"}
# And this one is, by its name, both a value that the sources keep and the calls of the public class:
# the value's members are inline, so that the sources link nothing of the floor above.
VALUES = ("include/Skelda_Watch/SkeldaConsent.h",)

LIBRARIES = {
    r"curl/": r"Platform/Foundation/URLSession|Tools/skelda-fleet/|Tests/|Benchmarks/",
    r"openssl/": r"Platform/Security/|Tools/skelda-collector/|Tests/",
    r"plist/": r"Platform/Foundation/PropertyList",
    r"nlohmann/": r"Platform/Foundation/JSONReader|Tools/|Tests/|Benchmarks/",
    r"uuid/": r"Platform/Foundation/UUID",
    r"httplib|CLI/": r"Tools/|Examples/|Tests/|Benchmarks/",
    r"nats/": r"Tools/(?:skelda-(?:collector/Stream|load)/|Shared/StreamAccess)",
    r"libpq": r"Tools/skelda-load/",
    r"fmt/": r"(?!include/)",
}


@dataclasses.dataclass
class Component:
    name: str
    folder: str
    without: list
    depends: list


def components_of(tree):
    """By name, from the CMake lists."""
    found = {}
    for listing in (tree / "Platform/CMakeLists.txt", tree / "include/CMakeLists.txt", tree / "Analytics/CMakeLists.txt"):
        text = re.sub(r"#.*", "", listing.read_text()) if listing.exists() else ""
        for call in COMPONENT.finditer(text):
            words = [quoted or bare for quoted, bare in re.findall(r'"([^"]*)"|([^\s"]+)', call.group(1))]
            parts, key = collections.defaultdict(list), "folder"
            for word in words[1:]:
                if word in ("WITHOUT", "DEPENDS"):
                    key = word
                else:
                    parts[key].append(word)
            found[words[0]] = Component(words[0], parts["folder"][0], parts["WITHOUT"], parts["DEPENDS"])
    return found


class House:
    def __init__(self, tree):
        self.tree = tree
        self.components = components_of(tree)
        self.files = sorted(path.relative_to(tree).as_posix() for folder in FOLDERS
                            for path in (tree / folder).rglob("*") if path.suffix in (".h", ".cpp"))
        known = set(self.files)
        self.includes, self.foreign = {}, {}
        for file in self.files:
            named = INCLUDE.findall((tree / file).read_text())
            beside = file.rpartition("/")[0]
            found = {name: next((path for path in (posixpath.normpath(f"{beside}/{name}"), name, f"include/{name}") if path in known), None)
                     for name in named}
            self.includes[file] = sorted({path for path in found.values() if path and path != file})
            self.foreign[file] = sorted(name for name, path in found.items() if not path)
        self.sources = {path.rpartition("/")[2]: path for path in self.files if path.endswith(".cpp")
                        and path.startswith(("Platform/", "Analytics/"))}
        self.arrows = self._arrows()

    def component_of(self, file):
        """The name of the component that a file belongs to; none for what stands on the library."""
        if file.startswith("include/"):
            source = self.sources.get(file.rpartition("/")[2].replace(".h", ".cpp"))
            if file in GATHERING:
                return GATHERING[file]
            if source and file not in VALUES:
                return self.component_of(source)
        if file == "Platform/Platform.h" and "platform_base" in self.components:
            return "platform_base"
        homes = [c for c in self.components.values() if file.startswith(c.folder + "/")]
        return max(homes, key=lambda c: len(c.folder)).name if homes else None

    def _arrows(self):
        """For each component, the others that it includes, each with one pair of files that does."""
        arrows = {name: {} for name in self.components}
        for file, included in self.includes.items():
            owner = self.component_of(file)
            for path in included if owner else ():
                other = self.component_of(path)
                if other and other != owner:
                    arrows[owner].setdefault(other, (file, path))
        return arrows


def circles_of(arrows):
    """The strongly connected sets of more than one node (Tarjan), sorted."""
    index, low, on_stack, stack, found = {}, {}, set(), [], []

    def visit(node):
        index[node] = low[node] = len(index)
        stack.append(node)
        on_stack.add(node)
        for other in arrows.get(node, ()):
            if other not in index:
                visit(other)
                low[node] = min(low[node], low[other])
            elif other in on_stack:
                low[node] = min(low[node], index[other])
        if low[node] == index[node]:
            circle = []
            while not circle or circle[-1] != node:
                circle.append(stack.pop())
                on_stack.discard(circle[-1])
            if len(circle) > 1:
                found.append(sorted(circle))

    for node in arrows:
        if node not in index:
            visit(node)
    return sorted(found)


def against_floors(house):
    for file, included in house.includes.items():
        allowed = ("include",) if file in PUBLIC_ONLY else FLOORS.get(file.partition("/")[0], FOLDERS)
        for path in included:
            if path.partition("/")[0] not in allowed:
                yield f"{file} includes {path}, which is not below it"
            owner, other = ("/".join(p.split("/")[:2]) for p in (file, path))
            if file.startswith("Tools/") and path.startswith("Tools/") and other not in (owner, "Tools/Shared"):
                yield f"{file} includes {path}: tools share what is in Tools/Shared"


def against_lists(house):
    for file in house.files:
        if file.startswith(("Platform/", "Analytics/", "include/")) and not house.component_of(file):
            yield f"{file} belongs to no component"
    for name, component in house.components.items():
        drawn = {other for other in component.depends if other in house.components}
        for other, (file, path) in sorted(house.arrows[name].items()):
            if other not in drawn:
                yield f"{file} includes {path}, but {name} does not name {other} in DEPENDS"
        for other in sorted(drawn - set(house.arrows[name])):
            yield f"{name} names {other} in DEPENDS, but no file of it includes one of {other}"
        inside = {c.folder.removeprefix(component.folder + "/") for c in house.components.values()
                  if c.folder.startswith(component.folder + "/")}
        if inside != set(component.without):
            yield f"{name}: WITHOUT must name {sorted(inside)}, it names {sorted(component.without)}"


def against_circles(house):
    for kind, arrows in (("components", house.arrows), ("files", house.includes)):
        for circle in circles_of(arrows):
            yield f"a circle of {kind}: {', '.join(circle)}"


def against_libraries(house):
    for file, names in house.foreign.items():
        for name in names:
            for library, place in LIBRARIES.items():
                if re.match(library, name) and not re.match(place, file):
                    yield f"{file} includes {name}, which is not its place"


def show(house):
    for name, arrows in house.arrows.items():
        print(f"{name}: {', '.join(sorted(arrows)) or '-'}")
    print(f"{len(house.components)} components, {sum(map(len, house.arrows.values()))} arrows; circles of components: "
          f"{[len(c) for c in circles_of(house.arrows)]}, of files: {[len(c) for c in circles_of(house.includes)]}")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--picture", action="store_true")
    parser.add_argument("tree", nargs="?", type=pathlib.Path, default=pathlib.Path(__file__).resolve().parents[2])
    options = parser.parse_args()
    sys.setrecursionlimit(10000)
    house = House(options.tree)
    if options.picture:
        show(house)
        return 0
    wrong = [line for check in (against_floors, against_lists, against_circles, against_libraries) for line in check(house)]
    print("\n".join(wrong) or f"{len(house.components)} components, {len(house.files)} files: as planned")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())

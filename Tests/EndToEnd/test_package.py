"""The installed package, as somebody outside meets it. Where SKELDA_PACKAGES names a folder of
Debian packages, what they unpack to is what is looked at, otherwise what cmake --install installs.
"""

import concurrent.futures
import os
import pathlib
import shutil
import sys
import tempfile
import unittest

from support import BUILD, PHONE, ROOT, Home, Process, eventually, open_files, said_by, told

sys.path.insert(0, str(ROOT / "scripts/lib"))
import exports  # noqa: E402

CONSUMERS = ROOT / "Tests/EndToEnd/consumers"
MOST_BYTES = 720 * 1024  # of the stripped shared library
STRICT = ["-Wall", "-Wextra", "-Wpedantic", "-Wshadow", "-Wconversion", "-Werror", "-fsyntax-only"]


class Package(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory(prefix="skelda-package-")))
        first, cls.prefix = cls.folder / "first", cls.folder / "prefix"
        packages = os.environ.get("SKELDA_PACKAGES")
        if packages:
            for package in pathlib.Path(packages).glob("*.deb"):
                said_by("dpkg", "-x", package, cls.folder / "unpacked")
            (cls.folder / "unpacked/usr").rename(first)
        else:
            said_by("cmake", "--install", BUILD, "--prefix", first)
        first.rename(cls.prefix)  # nothing in it may know where it was put
        cls.library, = cls.prefix.rglob("libSkelda_Watch.so")
        cls.pkgconfig = next(cls.prefix.rglob("Skelda_Watch.pc")).parent

    def configured(self, name, source, *arguments):
        tree = self.folder / name
        said_by("cmake", "-G", "Ninja", "-S", source, "-B", tree, f"-DCMAKE_PREFIX_PATH={self.prefix}", *arguments)
        return tree

    def home(self, program):
        """A home for that program in a bundle of its own."""
        bundle = self.folder / f"{program.name}.app/PlugIns/Extension.appex"
        if not bundle.exists():
            said_by(self.prefix / "bin/skelda-bundle", program, "--in", self.folder, "--key", "KEY", "--identifier",
                    f"com.example.{program.name}", "--app", program.name, "--extension", "Extension")
        return Home(bundle=bundle)

    def leaves_its_event(self, program):
        with self.home(program) as home:
            output = said_by(home.bundle / "Extension", env=home.environment(LD_LIBRARY_PATH=self.library.parent))
            event, = home.current_events()
            self.assertEqual(("LapDone", {"lap": "3", "pace": "5:10"}), (event.event_name, event.event_parameters))
            return output

    def needs(self, program):
        """The libraries that a program asks for by itself."""
        return [line.split("[")[1][:-1] for line in said_by("readelf", "-d", program).splitlines() if "(NEEDED)" in line]

    def test_programs_that_cmake_builds_with_the_package_leave_their_event_in_the_open_log(self):
        tree = self.configured("consumers", CONSUMERS)
        said_by("ninja", "-C", tree)
        for name, linked in (("FromShared", True), ("FromStatic", False), ("FromC", True), ("Loading", False)):
            with self.subTest(program=name):
                self.assertEqual(linked, "libSkelda_Watch.so.1" in self.needs(tree / name))
                said = self.leaves_its_event(tree / name)
                if name in ("FromShared", "FromStatic"):
                    self.assertEqual("sockets: 0", said.strip())
                    self.hears_a_phone_and_the_network(tree / name)

    def hears_a_phone_and_the_network(self, program):
        with self.home(program) as home:
            socket = home.path / "phone"
            with Process([home.bundle / "Extension", socket], env=home.environment(
                    LD_LIBRARY_PATH=self.library.parent)) as host, Process([PHONE, socket]) as phone:
                self.assertEqual(0, phone.wait(30), phone.output + host.output)
                # One hears the phone, one follows the links.
                self.assertTrue(eventually(lambda: sum("socket:" in name for name in open_files(host.pid)) >= 2))
                self.assertEqual(0, host.terminate())

    def test_a_program_takes_the_project_in_and_gets_the_library_alone(self):
        cached = ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"] if shutil.which("ccache") else []
        tree = self.configured("around", CONSUMERS / "around", f"-DSKELDA_SOURCE={ROOT}", "-DCMAKE_BUILD_TYPE=None",
                               "-DCMAKE_CXX_FLAGS=-O0", *cached)
        targets = said_by("ninja", "-C", tree, "-t", "targets", "all")
        self.assertIn("libSkelda_Watch.a", targets)
        for other in ("skelda-frames", "MorningRun", "_tests", "benchmark"):
            self.assertNotIn(other, targets)
        said_by("ninja", "-C", tree, "Around")
        self.leaves_its_event(tree / "Around")

    def test_programs_that_a_compiler_builds_with_the_flags_of_pkg_config_leave_their_event(self):
        alone = self.folder / "alone"
        shutil.copytree(self.prefix, alone, symlinks=True)
        for library in alone.rglob("*.so*"):
            library.unlink()
        for name, shared, arguments, path in (
                ("shared", True, ["Skelda_Watch"], self.pkgconfig),
                ("static", False, ["Skelda_Watch-static"], self.pkgconfig),
                ("alone", False, ["--static", "Skelda_Watch"], alone / self.pkgconfig.relative_to(self.prefix))):
            with self.subTest(name):
                flags = said_by("pkg-config", "--cflags", "--libs", *arguments, env={**os.environ, "PKG_CONFIG_PATH": str(path)})
                program = self.folder / f"by-{name}"
                said_by("g++", "-std=c++17", CONSUMERS / "main.cpp", "-o", program, *flags.split())
                self.assertEqual(shared, "libSkelda_Watch.so.1" in self.needs(program))
                self.leaves_its_event(program)

    def test_what_cannot_work_is_refused_by_cmake_with_a_sentence(self):
        source = self.folder / "refused"
        source.mkdir()
        (source / "main.cpp").write_text("int main() {}\n")
        (source / "CMakeLists.txt").write_text("""
            cmake_minimum_required(VERSION 3.25)
            project(Refused LANGUAGES CXX)
            find_package(Skelda_Watch COMPONENTS shared watchconnectivity)
            find_package(Skelda_Watch REQUIRED COMPONENTS shared static)
            add_library(Part STATIC main.cpp)
            target_link_libraries(Part PUBLIC Skelda_Watch::static)
            add_executable(Both main.cpp)
            target_link_libraries(Both PRIVATE Skelda_Watch::shared Part)
        """)
        with self.assertRaises(AssertionError) as refused:
            self.configured("refused/build", source)
        said = " ".join(str(refused.exception).split())
        self.assertIn('Skelda_Watch has no component "watchconnectivity": it has shared and static', said)
        self.assertIn("INTERFACE_Skelda_Watch_is_linked_as_one_library", said)

    def test_each_installed_header_compiles_alone_as_either_standard_with_either_compiler(self):
        include = self.prefix / "include"
        headers = sorted(header.relative_to(include) for header in include.rglob("*.h"))
        self.assertGreater(len(headers), 15)
        self.assertEqual({"Skelda_Watch"}, {header.parts[0] for header in headers})
        ways = [(header, compiler, standard) for header in headers for compiler in ("g++", "clang++")
                for standard in ("c++17", "c++20", *(("c99", "c11") if header.name == "skelda_watch.h" else ()))]

        def compiled(way):
            header, compiler, standard = way
            done = told(compiler, "-x", standard[:-2], f"-std={standard}", f"-I{include}", *STRICT, "-",
                        input=f"#include <{header}>\n")
            return done.returncode, done.stderr

        with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
            for way, outcome in zip(ways, pool.map(compiled, ways)):
                with self.subTest(way):
                    self.assertEqual((0, ""), outcome)

    def test_the_shared_library_exports_what_the_list_says_and_nothing_else(self):
        self.assertEqual("libSkelda_Watch.so.1", os.readlink(self.library))
        found, listed = exports.exports_of(self.library), exports.listed()
        self.assertEqual(([], []), (sorted({*found} - {*listed}), sorted({*listed} - {*found})))

    def test_the_shared_library_of_a_release_is_no_bigger_than_it_may_be(self):
        """In every watch application there is one. Built for a debugger, or for another processor, it is no measure."""
        linked_for_size = "SKELDA_LTO:BOOL=ON" in (BUILD / "CMakeCache.txt").read_text()
        if not linked_for_size or os.environ.get("SKELDA_PACKAGES") or os.uname().machine != "x86_64":
            self.skipTest("not what a release links")
        stripped = self.folder / "stripped.so"
        said_by("strip", "-o", stripped, self.library)
        self.assertLessEqual(stripped.stat().st_size, MOST_BYTES)

    def test_the_tools_and_their_pages_are_installed(self):
        for page in (ROOT / "docs/man").glob("*.1"):
            if page.stem in ("skelda-fleet", "skelda-load"):  # of another package
                continue
            with self.subTest(tool=page.stem):
                self.assertIn("Usage:", said_by(self.prefix / "bin" / page.stem, "--help"))
                self.assertTrue(list((self.prefix / "share/man/man1").glob(f"{page.stem}.1*")))

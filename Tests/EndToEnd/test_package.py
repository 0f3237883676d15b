"""The installed package, as somebody outside meets it."""

import concurrent.futures
import os
import pathlib
import plistlib
import shutil
import subprocess
import tempfile
import unittest

import frame_log
from support import BUILD, ROOT, Home

PROJECT = """
cmake_minimum_required(VERSION 3.25)
project(Outside LANGUAGES CXX)
find_package(Skelda_Watch 1.0 REQUIRED COMPONENTS %(component)s)
add_executable(Outside main.cpp)
target_link_libraries(Outside PRIVATE Skelda_Watch::%(component)s)
target_compile_options(Outside PRIVATE -Wall -Wextra -Wpedantic -Werror)
"""
HOST = """
#include <Skelda_Watch/SkeldaWatch.h>
#include <Skelda_Watch/Skelda_Watch.h>
int main() {
  const unsigned logged = SkeldaWatch::logWatchEvent("LapDone", {{"lap", 3}, {"pace", "5:10"}});
  return logged == 0 && !SkeldaWatch::apiKey() && Skelda_WatchVersionNumber == 1.0 ? 0 : 1;
}
"""
STRICT = ["-Wall", "-Wextra", "-Wpedantic", "-Wshadow", "-Wconversion", "-Werror", "-fsyntax-only", "-x", "c++", "-"]


def run(*command, **more):
    done = subprocess.run([str(part) for part in command], capture_output=True, text=True, timeout=300, **more)
    if done.returncode != 0:
        raise AssertionError(f"{command}\n{done.stdout[-3000:]}{done.stderr[-3000:]}")
    return done.stdout


class Package(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory(prefix="skelda-package-")
        cls.addClassCleanup(folder.cleanup)
        cls.folder = pathlib.Path(folder.name)
        cls.prefix = cls.folder / "prefix"
        run("cmake", "--install", BUILD, "--prefix", cls.prefix)
        cls.library, = cls.prefix.rglob("libSkelda_Watch.so")

    def built(self, component, program, name=None):
        """That program, linked by a project of its own."""
        source = self.folder / (name or component)
        source.mkdir()
        (source / "CMakeLists.txt").write_text(PROJECT % {"component": component})
        (source / "main.cpp").write_text(program)
        run("cmake", "-G", "Ninja", "-S", source, "-B", source / "build", f"-DCMAKE_PREFIX_PATH={self.prefix}")
        run("ninja", "-C", source / "build")
        return source / "build/Outside"

    def consume(self, component):
        program = self.built(component, HOST)
        with Home() as home:
            run(program, env=home.environment())

    def test_the_first_program_of_the_readme_leaves_its_event_where_the_text_says(self):
        text = (ROOT / "README.md").read_text()
        bundle = self.folder / "Some.app/PlugIns/Extension.appex"
        bundle.mkdir(parents=True)
        program = text.split("```cpp\n")[1].split("```")[0]
        shutil.copy(self.built("shared", program, "readme"), bundle / "Extension")
        settings = {"CFBundleIdentifier": "com.example.readme", "Skelda Watch API Key": "KEY"}
        self.assertTrue(all(f'"{key}"' in text for key in settings))
        (bundle / "Info.plist").write_bytes(plistlib.dumps(settings))
        place = text.split("`${XDG_DATA_HOME:-~/.local/share}/")[1].split("`")[0]
        with Home(bundle=bundle) as home:
            run(bundle / "Extension", env=home.environment())
            log = home.path / "data" / place.replace("<CFBundleIdentifier>", settings["CFBundleIdentifier"])
            event, = [frame for frame in frame_log.frames_in(log) if frame.type == frame_log.EVENT]
            self.assertEqual(("LapDone", {"lap": "3", "pace": "5:10"}), (event.event_name, event.event_parameters))

    def test_an_outside_project_links_the_shared_library(self):
        self.consume("shared")

    def test_an_outside_project_links_the_static_library(self):
        self.consume("static")

    def test_a_component_that_there_is_not_is_not_found(self):
        with self.assertRaises(AssertionError):
            self.consume("balloon")

    def test_each_installed_header_compiles_alone_as_either_standard_with_either_compiler(self):
        include = self.prefix / "include"
        headers = sorted(header.relative_to(include) for header in include.rglob("*.h"))
        self.assertGreater(len(headers), 15)
        self.assertEqual({"Skelda_Watch"}, {header.parts[0] for header in headers})
        with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
            asked = [(header, compiler, standard,
                      pool.submit(run, compiler, f"-std=c++{standard}", f"-I{include}", *STRICT,
                                  input=f"#include <{header}>\n"))
                     for header in headers for compiler in ("g++", "clang++") for standard in (17, 20)]
            for header, compiler, standard, outcome in asked:
                with self.subTest(header=str(header), compiler=compiler, standard=standard):
                    outcome.result()

    def test_pkg_config_gives_the_flags_that_a_compiler_needs(self):
        source = self.folder / "plain.cpp"
        source.write_text(HOST)
        found, = self.prefix.rglob("Skelda_Watch.pc")
        environment = {**os.environ, "PKG_CONFIG_PATH": str(found.parent)}
        flags = run("pkg-config", f"--define-variable=prefix={self.prefix}", "--cflags", "--libs", "Skelda_Watch",
                    env=environment).split()
        run("g++", "-std=c++20", source, "-o", self.folder / "plain", *flags)
        with Home() as home:
            run(self.folder / "plain", env=home.environment(LD_LIBRARY_PATH=self.library.parent))

    def test_the_shared_library_exports_the_public_face_and_nothing_else(self):
        names = {line.split(" ", 2)[2].replace("[abi:cxx11]", "") for line in
                 run("nm", "--dynamic", "--defined-only", "--demangle", self.library).splitlines()}
        allowed = ("SkeldaWatch::", "SkeldaUserProperties::", "SkeldaConsent::", "SkeldaCCPA::", "SkeldaProperty",
                   "kSkelda", "Skelda_WatchVersion", "total_cpu_usage(", "wiredMemoryUsage(", "activeMemoryUsage(",
                   "inActiveMemoryUsage(", "freeMemoryUsage(", "skelda::platform::Value::",
                   "skelda::platform::Dictionary::", "skelda::platform::Date::", "skelda::platform::Log::",
                   "skelda::platform::MainQueue::", "skelda::platform::operator==(", "skelda_")
        self.assertEqual([], sorted(name for name in names if not name.startswith(allowed)))
        for needed in ("SkeldaWatch::apiKey()", "Skelda_WatchVersionString", "Skelda_WatchVersionNumber",
                       "kSkeldaNetworkStatusChangedNotification", "SkeldaPropertySubscriber", "total_cpu_usage()"):
            self.assertIn(needed, names)

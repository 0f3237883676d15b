"""The installed package, as somebody outside meets it."""

import os
import pathlib
import subprocess
import tempfile
import unittest

from support import BUILD, Home

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
STRICT = ["-std=c++20", "-Wall", "-Wextra", "-Wpedantic", "-Wshadow", "-Wconversion", "-Werror", "-fsyntax-only",
          "-x", "c++", "-"]


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

    def consume(self, component):
        source = self.folder / component
        source.mkdir()
        (source / "CMakeLists.txt").write_text(PROJECT % {"component": component})
        (source / "main.cpp").write_text(HOST)
        run("cmake", "-G", "Ninja", "-S", source, "-B", source / "build", f"-DCMAKE_PREFIX_PATH={self.prefix}")
        run("ninja", "-C", source / "build")
        with Home() as home:
            run(source / "build/Outside", env=home.environment())

    def test_an_outside_project_links_the_shared_library(self):
        self.consume("shared")

    def test_an_outside_project_links_the_static_library(self):
        self.consume("static")

    def test_a_component_that_there_is_not_is_not_found(self):
        with self.assertRaises(AssertionError):
            self.consume("balloon")

    def test_every_public_header_compiles_alone_under_strict_warnings(self):
        include = self.prefix / "include"
        headers = sorted(include.rglob("*.h"))
        self.assertGreater(len(headers), 10)
        for header in headers:
            for compiler in ("g++", "clang++"):
                with self.subTest(header=header.name, compiler=compiler):
                    run(compiler, f"-I{include}", f"-I{include / 'Skelda_Watch'}", *STRICT,
                        input=f'#include "{header.relative_to(include)}"\n')

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
                   "skelda::platform::MainQueue::", "skelda::platform::operator==(")
        self.assertEqual([], sorted(name for name in names if not name.startswith(allowed)))
        for needed in ("SkeldaWatch::apiKey()", "Skelda_WatchVersionString", "Skelda_WatchVersionNumber",
                       "kSkeldaNetworkStatusChangedNotification", "SkeldaPropertySubscriber", "total_cpu_usage()"):
            self.assertIn(needed, names)

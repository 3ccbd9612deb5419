#!/usr/bin/env python3
"""Installs the build into a folder, moves it, and uses it from outside the source tree.

usage: install_test.py --build DIR --cmake CMAKE --compiler CXX --version X.Y.Z
"""

import argparse
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parents[1]
EXPECTED = "14 bytes, speed 7, name ab\n2 files missing\n"
STANDARD = re.compile(r"lib(?:stdc\+\+|c\+\+|c\+\+abi|gcc_s|m|c)\.so\.\d+|ld-linux.*\.so\.\d+")
options = None


def run(*command, env=None, cwd=None):
    result = subprocess.run([str(word) for word in command], capture_output=True, text=True, cwd=cwd,
                            env={**os.environ, **(env or {})}, check=False)
    if result.returncode != 0:
        raise AssertionError(f"{' '.join(map(str, command))}: status {result.returncode}\n"
                             f"{result.stdout}{result.stderr}")
    return result.stdout


class InstalledTree(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory(prefix="kl-install-")
        base = pathlib.Path(cls.folder.name)
        run(options.cmake, "--install", options.build, "--prefix", base / "staged")
        cls.prefix = base / "elsewhere"  # nothing may remember where it was put first
        shutil.move(base / "staged", cls.prefix)
        cls.outside = shutil.copytree(HERE / "outside", base / "outside")
        cls.library = next(cls.prefix.rglob("libkl.so"))
        cls.env = {"LD_LIBRARY_PATH": str(cls.library.parent)}

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    def test_a_program_finds_it_by_cmake(self):
        build = self.outside / "build"
        run(options.cmake, "-S", self.outside, "-B", build, f"-DCMAKE_PREFIX_PATH={self.prefix}",
            f"-DCMAKE_CXX_COMPILER={options.compiler}")
        found = re.search(r"^kl_DIR:\w+=(.*)$", (build / "CMakeCache.txt").read_text(), re.M).group(1)
        self.assertTrue(found.startswith(str(self.prefix)), found)
        run(options.cmake, "--build", build)
        self.assertEqual(run(build / "outside"), EXPECTED)
        self.assertEqual(run(build / "outside_test"), "all is well\n")  # with the test kit

    def test_a_program_finds_it_by_pkg_config(self):
        env = {"PKG_CONFIG_PATH": str(self.library.parent / "pkgconfig")}
        self.assertEqual(run("pkg-config", "--modversion", "kl", env=env).strip(), options.version)
        flags = run("pkg-config", "--cflags", "--libs", "kl", env=env).split()
        self.assertIn(f"-I{self.prefix}/include", [os.path.normpath(flag) for flag in flags])
        program = self.outside / "by-pkg-config"
        run(options.compiler, self.outside / "main.cpp", "-o", program, *flags)
        self.assertEqual(run(program, env=self.env), EXPECTED)

    def test_every_public_header_is_there_and_compiles_on_its_own(self):
        names = sorted(path.name for path in (ROOT / "include/kl").glob("*.h"))
        self.assertEqual(sorted(path.name for path in (self.prefix / "include/kl").iterdir()), names)
        for name in names:
            source = self.outside / "header.cpp"
            source.write_text(f'#include "kl/{name}"\n')
            run(options.compiler, "-std=c++20", "-fsyntax-only", "-I", self.prefix / "include", source)

    def test_the_library_is_named_after_its_interface(self):
        dynamic = run("readelf", "-dW", self.library)
        self.assertEqual(re.search(r"\(SONAME\).*\[(.*)\]", dynamic).group(1), "libkl.so.1")
        self.assertEqual(self.library.resolve().name, f"libkl.so.{options.version}")
        self.assertTrue((self.library.parent / "libkl.so.1").is_symlink())

    def test_the_library_needs_nothing_beyond_the_standard_library(self):
        needed = re.findall(r"\(NEEDED\).*\[(.*)\]", run("readelf", "-dW", self.library))
        self.assertEqual([name for name in needed if not STANDARD.fullmatch(name)], [])

    def test_nothing_names_the_place_where_it_was_built(self):
        for path in self.prefix.rglob("*"):
            if path.is_file() and path.suffix in (".cmake", ".pc", ".h"):
                text = path.read_text()
                self.assertNotIn(str(ROOT), text, path)
                self.assertNotIn("/staged", text, path)

    def test_each_file_belongs_to_one_package(self):
        patterns = [(name, line.split()[0]) for name, lines in self.package_lists().items() for line in lines]
        for path in (path for path in self.prefix.rglob("*") if not path.is_dir()):
            place = "usr" / path.relative_to(self.prefix)
            if place.parts[1] == "lib":  # Debian has a folder for each processor there
                place = pathlib.Path("usr/lib/processor", *place.parts[2:])
            if "auto-load" in place.parts:  # below it stands the library's own place, here that of the build
                place = pathlib.Path("usr/share/gdb/auto-load/usr/lib/processor", place.name)
            owners = [name for name, pattern in patterns
                      if any(each.match("/" + pattern) for each in ("/" / place, *("/" / place).parents))]
            self.assertEqual(len(owners), 1, f"{place} belongs to {owners or 'no package'}")

    def test_each_list_of_a_package_names_what_is_there(self):
        packages = re.findall(r"^Package: (.*)$", (ROOT / "debian/control").read_text(), re.M)
        self.assertEqual(sorted(self.package_lists()), sorted(packages))
        for name, lines in self.package_lists().items():
            for pattern in (line.split()[0] for line in lines if not line.startswith("usr/")):
                self.assertTrue(list(ROOT.glob(pattern)), f"debian/{name}.install: no {pattern}")

    def test_the_packages_have_the_version_of_the_library(self):
        version = re.match(r"kelo \((.*)\)", (ROOT / "debian/changelog").read_text()).group(1)
        self.assertEqual(version, options.version)
        self.assertEqual(re.search(r"^## (\S+)", (ROOT / "CHANGELOG.md").read_text(), re.M).group(1), version)

    @staticmethod
    def package_lists():
        return {file.stem: file.read_text().splitlines() for file in (ROOT / "debian").glob("*.install")}

    def test_a_new_service_builds_and_runs(self):
        client = self.prefix / "bin" / "klctl"
        if not client.is_file():
            self.skipTest("klctl was not built")
        run(client, "new", "lamp", cwd=self.outside)
        source, build = self.outside / "lamp", self.outside / "lamp" / "build"
        run(options.cmake, "-S", source, "-B", build, f"-DCMAKE_PREFIX_PATH={self.prefix}",
            f"-DCMAKE_CXX_COMPILER={options.compiler}")
        run(options.cmake, "--build", build)
        said = run("ctest", "--test-dir", build, "--verbose")
        self.assertIn("lamp does what it should", said)
        self.assertIn("100% tests passed", said)

    def test_installed_programs_run_where_they_are(self):
        programs = sorted((self.prefix / "bin").iterdir()) if (self.prefix / "bin").is_dir() else []
        for program in programs:
            with self.subTest(program.name):
                self.assertIn(program.name, run(program, "--help"))


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    for name in ("--build", "--cmake", "--compiler", "--version"):
        parser.add_argument(name, required=True)
    options, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])

#!/usr/bin/env python3
"""Tests of lint.py, with a linter that says where it finds "wrong"."""

import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

LINT = pathlib.Path(__file__).with_name("lint.py")
LINTER = """#!/bin/sh
for unit; do :; done
! grep -n wrong "$unit" | sed "s|^\\([0-9]*\\):.*|$unit:\\1:5: error: wrong|" | grep .
"""


class Lint(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        self.root = pathlib.Path(self.folder.name).resolve()
        self.write("bin/clang-tidy", LINTER).chmod(0o755)
        self.write("compile_commands.json", "[]")

    def write(self, name, text):
        path = self.root / name
        path.parent.mkdir(exist_ok=True)
        path.write_text(text)
        return path

    def lint(self, *words):
        ended = subprocess.run([sys.executable, "-B", LINT, *words], cwd=self.root, capture_output=True, text=True, check=False,
                               env={**os.environ, "PATH": f"{self.root}/bin:{os.environ['PATH']}"})
        return ended.returncode, ended.stdout

    def unit(self, *sources):
        return self.write("unit.cxx", "/* made */\n" + "".join(f'\n#include "{self.root}/{name}"\n' for name in sources))

    def test_findings_have_the_places_of_the_sources(self):
        self.write("a.cpp", '#include "b.h"\nwrong\n')
        self.write("c.cpp", "\n\nwrong\nfine\nwrong")
        self.assertEqual(self.lint(".", self.unit("a.cpp", "c.cpp")),
                         (1, "".join(f"{place}:5: error: wrong\n" for place in ("a.cpp:2", "c.cpp:3", "c.cpp:5"))))

    def test_a_source_of_its_own_stays_as_it_is(self):
        alone = self.write("alone.cpp", '#include "b.h"\nwrong\n')
        self.assertEqual(self.lint(".", alone), (1, "alone.cpp:2:5: error: wrong\n"))
        self.assertEqual(alone.read_text(), '#include "b.h"\nwrong\n')

    def test_a_unit_may_be_linted_again(self):
        self.write("a.cpp", '#include "b.h"\nfine\n')
        unit = self.unit("a.cpp")
        self.assertEqual([self.lint(".", unit), self.lint(".", unit)], [(0, "")] * 2)

    def test_without_a_unit_it_says_how_it_is_used(self):
        self.assertEqual(self.lint("."), (2, ""))


if __name__ == "__main__":
    unittest.main()

"""The folder in front of the fixed paths."""

from __future__ import annotations

import os
import shutil
import tempfile
import unittest
from pathlib import Path
from unittest import mock

from kelo import names
from kelo.errors import RootError
from kelo.root import under_root

PLACE = "/ram/kelosock"


def with_root(root: str, user: int = 1000) -> str:
    with mock.patch.dict(os.environ, {"KL_ROOT": root}):
        with mock.patch("os.geteuid", return_value=user), mock.patch("os.getuid", return_value=user):
            return under_root(PLACE)


class Root(unittest.TestCase):
    def test_stands_in_front(self) -> None:
        self.assertEqual(with_root(""), PLACE)
        self.assertEqual(with_root("/"), PLACE)
        self.assertEqual(with_root("/tmp/x//"), "/tmp/x" + PLACE)
        self.assertEqual(with_root("/" + 82 * "a"), "/" + 82 * "a" + PLACE)

    def test_what_cannot_be_taken_is_an_error(self) -> None:
        for root, line in (("x", "an absolute path"), ("/x/..", "a path without .."), ("/" + 83 * "a", "at most 83")):
            with self.assertRaisesRegex(RootError, "^KL_ROOT: expected " + line):
                with_root(root)

    def test_a_program_with_more_rights_ignores_it(self) -> None:
        with mock.patch.dict(os.environ, {"KL_ROOT": "/tmp/x"}), mock.patch("os.getuid", return_value=os.geteuid() + 1):
            self.assertEqual(under_root(PLACE), PLACE)

    def test_root_takes_what_root_alone_writes(self) -> None:
        if os.lstat("/usr").st_uid != 0 or os.lstat("/").st_uid != 0:
            self.skipTest("root's folders are not root's here")
        self.assertEqual(with_root("/usr", 0), "/usr" + PLACE)
        for root, folder in (("/tmp/x", "/tmp"), ("/usr/none/x", "/usr/none"), ("/dev/null", "/dev/null")):
            with self.assertRaisesRegex(RootError, f"unlike {folder}$"):
                with_root(root, 0)

    def test_dictionaries_are_looked_for_there_first(self) -> None:
        folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, folder)
        with mock.patch.dict(os.environ, {"KL_ROOT": folder, "KELO_FIELDS": "/own"}):
            with mock.patch("os.geteuid", return_value=1000), mock.patch("os.getuid", return_value=1000):
                folders = names.default_folders()
        here = [Path(f"{prefix}/share/kl/fields") for prefix in (f"{folder}/usr/local", f"{folder}/usr")]
        self.assertEqual(folders[:3], [Path("/own"), *here])


if __name__ == "__main__":
    unittest.main()

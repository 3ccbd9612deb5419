"""python3 -m kelo."""

from __future__ import annotations

import asyncio
import os
import subprocess
import sys
import unittest

import kelo.blocking
from kelo.__main__ import Completer
from kelo.names import Dictionaries
from kelo.root import under_root
from tests.golden import ROOT
from tests.loader import FIELDS, SECONDS, LoaderTest, program, service

COMMAND = (sys.executable, "-B", "-m", "kelo", "--fields", str(FIELDS[0]))


def typed(lines: str, **variables: str) -> subprocess.CompletedProcess[str]:
    """The answers of the shell to these lines."""
    environment = dict(os.environ, PYTHONPATH=str(ROOT / "python"), **variables)
    return subprocess.run(COMMAND, input=lines, capture_output=True, text=True, timeout=SECONDS, env=environment)


class Shell(LoaderTest):
    configuration = service("hello", 34, program("hello")) + service("netif", 32, program("netif"))

    async def test_lines(self) -> None:
        await self.running(32)
        lines = 'bus.set("hello/0", descr="typed")\nbus.get("hello/0").descr\nshow(bus.get("netif:1"))\nbus.get("x")\n'
        run = await asyncio.to_thread(typed, lines)
        self.assertEqual(run.returncode, 0)
        self.assertIn("'typed'", run.stdout)
        self.assertIn("{id: 1, name: 'lo', ", run.stdout)
        self.assertIn("PathError: no service is called 'x'", run.stderr)

    async def test_completion(self) -> None:
        await self.running(32)
        await asyncio.to_thread(self.complete)

    def complete(self) -> None:
        with kelo.blocking.connect() as bus:
            completer = Completer(bus, {"bus": bus}, Dictionaries(list(FIELDS)))
            self.assertEqual(completer.of_line('bus.get("n', "n"), ["netif"])
            services = completer.of_line('bus.get("', "")
            self.assertLessEqual({"hello", "loader", "netif"}, set(services))
            # Several processes of Python are there, all of one name.
            self.assertEqual(len(services), len(set(services)))
            self.assertEqual(completer.of_line('bus.set("netif:1", m', "m"), ["mtu="])
            self.assertIn("descr=", completer.of_line('bus.set("netif:1", ', ""))
            self.assertEqual(completer.of_line("bus.get_a", "bus.get_a"), ["bus.get_all("])


class WithoutALoader(unittest.TestCase):
    def test_a_root_that_is_not_taken_is_told(self) -> None:
        run = typed("", KL_ROOT="here")
        self.assertEqual((run.returncode, run.stderr), (1, "kelo: KL_ROOT: expected an absolute path\n"))

    def test_it_says_so(self) -> None:
        run = typed("")
        self.assertEqual(run.returncode, 4)
        self.assertIn("kelo: there is no loader at " + under_root("/ram/kelosock"), run.stderr)


if __name__ == "__main__":
    unittest.main()

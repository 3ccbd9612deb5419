"""gdb, as somebody has it who looks at a process that uses the library.

printers_test.py PROGRAM: a program that stops at everythingIsMade().
"""

import os
import shutil
import subprocess
import sys
import unittest

PROGRAM = sys.argv.pop(1)

SKIPPED = 77


def gdb(*commands):
    """The answers of gdb to the commands, in main() while everything is there."""
    words = ["gdb", "-batch", "-nx", "-iex", "set auto-load safe-path /", "-ex", "break everythingIsMade", "-ex", "run"]
    for command in ("up",) + commands:
        words += ["-ex", command]
    result = subprocess.run(
        words + [PROGRAM],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        timeout=300,
        env={**os.environ, "DEBUGINFOD_URLS": "", "LC_ALL": "C.UTF-8"},
    )
    return result.stdout.decode("utf-8", "replace")


def printed(expression):
    said = gdb("print " + expression)
    lines = [line for line in said.splitlines() if line.startswith("$1 = ")]
    assert len(lines) == 1, said
    return lines[0][len("$1 = ") :]


class Printers(unittest.TestCase):
    def test_a_message_is_shown_field_by_field(self):
        text = printed("full")
        for part in (
            "bool:1 = true",
            "u32:5 = 7",
            "u32:sys.1 = 9",
            "u64:2 = 1099511627776",
            "raw:5 = 02fc00",
            "u32[]:6 = [1, 2, 3]",
        ):
            self.assertIn(part, text.replace('"', ""))
        self.assertIn("hi", text)
        self.assertIn("bc", text)
        self.assertTrue(text.startswith("kl::message"), text)

    def test_nothing_steers_the_terminal_and_long_values_are_cut(self):
        text = printed("full")
        self.assertNotIn("\x1b", text)
        self.assertIn("x1b[2J", text)
        self.assertIn("...", text)
        self.assertLess(len(text), 2000)

    def test_an_empty_message_says_so(self):
        self.assertEqual(printed("empty").strip('"'), "an empty kl::message")

    def test_garbage_is_unreadable_and_nothing_worse(self):
        said = gdb("print garbage.message", "print 6 * 7")
        self.assertIn("<unreadable", said)
        self.assertNotIn("Traceback", said)
        self.assertIn("$2 = 42", said)

    def test_an_id_is_shown_by_its_parts(self):
        self.assertEqual(printed("kNumber").strip('"'), "u32:5 (0x08000005)")

    def test_an_open_request_says_who_waits_for_whom(self):
        self.assertEqual(printed("request").strip('"'), "request 17: 28[7] asks 300[2, 4] for 0x60001")

    def test_a_path_is_a_list(self):
        self.assertEqual(printed("request.path").strip('"'), "[2, 4]")
        self.assertEqual(printed("longPath").strip('"'), "[1, 2, 3, 4, 5, 6]")
        self.assertEqual(printed("framePath").strip('"'), "[2, 4]")

    def test_a_timer_says_when_it_is_due(self):
        self.assertEqual(printed("none").strip('"'), "no timer")
        self.assertRegex(printed("timer").strip('"'), r"^a timer, tick \d+, data 0x0$")


if __name__ == "__main__":
    if shutil.which("gdb") is None:
        sys.exit(SKIPPED)
    if "Breakpoint 1, " not in gdb():  # no process may be looked at here
        sys.exit(SKIPPED)
    unittest.main()

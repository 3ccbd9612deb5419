#!/usr/bin/env python3
"""Lets programs crash and checks that scripts/symbolize names the lines that they crashed in.

usage: symbolize_test.py --symbolize FILE --addr2line FILE --source FILE PROGRAM... [-- EMULATOR...]
"""

import argparse
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

OPTIONS = argparse.Namespace()


def line_of(mark):
    for number, line in enumerate(OPTIONS.source.read_text().splitlines(), 1):
        if line.endswith(f"// mark: {mark}"):
            return number
    raise AssertionError(f"no mark {mark}")


def crash(program, how):
    return subprocess.run([*OPTIONS.emulator, program, how], capture_output=True, check=False).stdout


def symbolize(report, *arguments):
    command = [OPTIONS.symbolize, "--addr2line", OPTIONS.addr2line, *arguments]
    return subprocess.run(command, input=report, capture_output=True, check=False)


class Symbolize(unittest.TestCase):
    def assert_named(self, text, function, mark):
        place = f"{OPTIONS.source.name}:{line_of(mark)}"
        for line in text.splitlines():
            if function in line and re.sub(r" \(discriminator \d+\)$", "", line).endswith(place):
                return line
        self.fail(f"no {function} at {place} in:\n{text}")

    def test_every_address_gets_its_line(self):
        for program in OPTIONS.programs:
            with self.subTest(program):
                done = symbolize(crash(program, "crash"), "-", program)
                text = done.stdout.decode()
                self.assertEqual(done.returncode, 0, done.stderr)
                self.assertIn(": signal 11\n", text)
                self.assertIn("  code ", self.assert_named(text, "breakDown", "crash"))
                self.assert_named(text, "serve", "serve")

    def test_a_crash_in_a_library_names_the_caller(self):
        for program in OPTIONS.programs:
            with self.subTest(program):
                text = symbolize(crash(program, "abort"), "-", program).stdout.decode()
                self.assertIn(": signal 6\n", text)
                self.assert_named(text, "serve", "serve")

    def test_a_program_with_a_long_path_is_known_by_its_beginning(self):
        with tempfile.TemporaryDirectory() as folder:
            far = pathlib.Path(folder) / ("d" * 120)
            far.mkdir()
            program = shutil.copy(OPTIONS.programs[0], far / "service")
            report = crash(program, "crash")
            text = symbolize(report, "-", program).stdout.decode()
            self.assert_named(text, "serve", "serve")

    def test_several_reports_in_one_file_are_done_one_after_the_other(self):
        program = OPTIONS.programs[0]
        with tempfile.NamedTemporaryFile() as file:
            file.write(b"some line before\n" + crash(program, "crash") + crash(program, "abort"))
            file.flush()
            text = symbolize(b"", file.name, program).stdout.decode()
        self.assertEqual(text.count(": signal "), 2)
        self.assertLess(text.index(": signal 11\n"), text.index(": signal 6\n"))

    def test_addresses_outside_the_files_at_hand_keep_their_file_and_offset(self):
        report = b"""/bin/service
--- signal=11 --------------------------------------------

rip=0x00007f0000001234 rsp=0x0000000000000000 rbp=0x0000000000000000

backtrace:
0x0000000000000042

code:


maps:
7f0000001000-7f0000002000 r-xp 00003000 fe:00 1                          /lib/libother.so


"""
        text = symbolize(report, "-", OPTIONS.programs[0]).stdout.decode()
        self.assertIn("code 0x00007f0000001234 /lib/libother.so +0x3234\n", text)
        self.assertIn("#0   0x0000000000000042 not in any mapping\n", text)

    def test_a_file_without_a_report_is_refused(self):
        done = symbolize(b"nothing of the kind\n", "-", OPTIONS.programs[0])
        self.assertEqual(done.returncode, 1)
        self.assertIn(b"no crash report", done.stderr)

    def test_bad_arguments_are_refused(self):
        self.assertEqual(symbolize(b"", "-").returncode, 2)
        report = crash(OPTIONS.programs[0], "crash")
        self.assertEqual(symbolize(report, "-", "/no/such/program").returncode, 2)
        self.assertEqual(symbolize(report, "-", str(OPTIONS.source)).returncode, 2)


def main():
    arguments = sys.argv[1:]
    split = arguments.index("--") if "--" in arguments else len(arguments)
    parser = argparse.ArgumentParser()
    parser.add_argument("--symbolize", required=True)
    parser.add_argument("--addr2line", required=True)
    parser.add_argument("--source", required=True, type=pathlib.Path)
    parser.add_argument("programs", nargs="+")
    parser.parse_args(arguments[:split], OPTIONS)
    OPTIONS.emulator = arguments[split + 1:]
    unittest.main(argv=[sys.argv[0], "-v"])


if __name__ == "__main__":
    main()

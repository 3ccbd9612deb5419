#!/usr/bin/env python3
"""What the comparison of instruction counts lets pass, and how it reads what was counted."""

import pathlib
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "bench"))
import gate  # noqa: E402


class Gate(unittest.TestCase):
    def test_a_count_may_grow_by_three_per_cent_and_thirty(self):
        self.assertEqual(gate.judge({"parse": 1060}, {"parse": 1000}), ([], True))

    def test_what_grew_by_more_does_not_pass(self):
        self.assertEqual(gate.judge({"parse": 1061}, {"parse": 1000}),
                         (["parse: 1,061 instructions, 1,000 are kept"], False))

    def test_what_fell_is_told_and_passes(self):
        self.assertEqual(gate.judge({"parse": 900}, {"parse": 1000}),
                         (["parse: 900 instructions only, 1,000 are kept"], True))

    def test_a_case_that_is_not_kept_does_not_pass(self):
        self.assertEqual(gate.judge({"parse": 1}, {}), (["parse: is not kept yet"], False))

    def test_a_case_that_nobody_measures_does_not_pass(self):
        self.assertEqual(gate.judge({}, {"parse": 1}), (["parse: is not measured any more"], False))

    def test_of_a_program_the_product_is_counted_for_one_run(self):
        with tempfile.TemporaryDirectory() as folder:
            dumps = pathlib.Path(folder, "message")
            dumps.mkdir()
            (dumps / "dump.1").write_text("desc: Trigger: Client Request: W1/parse/product\nsummary: 4000\n")
            (dumps / "dump.2").write_text("desc: Trigger: Client Request: W1/parse/limit\nsummary: 8\n")
            (dumps / "dump").write_text("desc: Trigger: Program termination\ntotals: 16\n")
            self.assertEqual(gate.cases_of(dumps), {"message: W1/parse": 1000})

    def test_of_a_system_the_difference_of_all_its_processes_is_counted(self):
        with tempfile.TemporaryDirectory() as folder:
            for times, totals in ((200, (50, 250)), (1200, (50, 20250))):
                run = pathlib.Path(folder, f"round trip@{times}")
                run.mkdir()
                for number, total in enumerate(totals):
                    (run / f"dump.{number}").write_text(f"totals: {total}\n")
            self.assertEqual(gate.differences_of(pathlib.Path(folder).iterdir()), {"round trip": 20.0})

    def test_what_is_kept_is_read_as_it_was_written(self):
        with tempfile.TemporaryDirectory() as folder:
            kept = pathlib.Path(folder, "instructions")
            kept.write_text("# By which compiler.\n  1 gone\n")
            gate.write_kept(kept, {"parse": 21862.4, "copy, 10,000 of 2 KB": 7})
            self.assertEqual(gate.read_kept(kept), {"parse": 21862, "copy, 10,000 of 2 KB": 7})
            self.assertTrue(kept.read_text().startswith("# By which compiler.\n"))


if __name__ == "__main__":
    unittest.main()

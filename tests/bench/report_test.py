#!/usr/bin/env python3
"""The page of figures: what it says of who needs the least, what it leaves out, and its pictures."""

import json
import pathlib
import sys
import tempfile
import unittest
import xml.etree.ElementTree

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "bench"))
import plot  # noqa: E402
import report  # noqa: E402


def benchmarks(cases, peers):
    """A file of Google Benchmark's: {CASE: ratio}."""
    runs = [{"name": f"{name}/manual_time", "run_type": "iteration", "family_index": n, "ratio": ratio,
             "product_ns": ratio * 100, "limit_ns": 100, "allocations": n, "heap_bytes": 0}
            for n, (name, ratio) in enumerate(cases.items())]
    return json.dumps({"context": {"host_name": "secret", **peers}, "benchmarks": runs})


MESSAGES = {"W1/parse+read": 6, "W1/parse+read in place": 2, "W1/parse+read: swift": 1, "W1/parse+read: slow": 9,
            "flat 100/parse+read": 100, "flat 1000/parse+read": 2000}


class Page(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.results = pathlib.Path(self.folder.name)
        self.kept = self.results / "kept"
        self.kept.write_text("     1,234 round trip\n")

    def tearDown(self):
        self.folder.cleanup()

    def make(self):
        return report.make(report.Results(self.results), self.kept)

    def test_a_peer_that_needs_less_is_named_with_its_part(self):
        (self.results / "message.json").write_text(benchmarks(MESSAGES, {"peer swift": "1.2"}))
        page, _ = self.make()
        self.assertIn("- others cost less in 1: W1/parse+read: swift at 0.50 of kl\n", page)
        self.assertIn("| W1/parse+read | 100 | 6 | 2 | 1 | 9 |\n", page)

    def test_a_difference_of_less_than_a_tenth_makes_nobody_first(self):
        said = report.leaders({"a": {"kl": 1.0, "one": 1.05}, "b": {"kl": 1.0, "one": 1.2}, "c": {"kl": 1.0}})
        self.assertEqual(said, "By time, of the cases that others have, too (2):\n\n- about the same in 1: a: one\n"
                               "- kl costs least in 1: b")

    def test_a_floor_is_nobody_who_needs_less(self):
        (self.results / "store.json").write_text(benchmarks(
            {"get, 100 of 200 B": 4, "get, 100 of 200 B: bare intent": 1, "get, 100 of 200 B: other": 8}, {}))
        page, _ = self.make()
        self.assertIn("- kl costs least in 1: get, 100 of 200 B\n", page)
        self.assertIn("| get, 100 of 200 B | 100 | 4 | 8 | 1 |\n", page)

    def test_the_machine_is_named_by_its_kind_and_the_peers_by_their_versions(self):
        (self.results / "message.json").write_text(benchmarks(MESSAGES, {"peer swift": "1.2", "peer slow": "7"}))
        (self.results / "machine").write_text("day\t2026-11-23\ncommit\tabc\ncores\t2\nprocessor\tx86_64\n"
                                              "kernel\tLinux 6\ncompiler\tg++ 12\n")
        page, _ = self.make()
        self.assertIn("2 cores (x86_64), Linux 6, g++ 12. Beside it: slow 7, swift 1.2.", page)
        self.assertNotIn("secret", page)

    def test_a_busy_machine_is_called_one(self):
        machine = "day\t1\ncommit\tabc\ncores\t2\nprocessor\tp\nkernel\tk\ncompiler\tc\n"
        (self.results / "machine").write_text(machine)
        for load, said in (1.5, False), (8, True):
            (self.results / "message.json").write_text(benchmarks(MESSAGES, {"load_avg": [load, 0, 0]}))
            self.assertEqual("kept the machine busy" in self.make()[0], said)

    def test_what_was_not_measured_is_not_on_the_page(self):
        page, pictures = self.make()
        self.assertNotIn("## Messages", page)
        self.assertIn("Not measured in this run: message, loop, store, log, allocator, router.\n", page)
        self.assertIn("| round trip | 1,234 |\n", page)
        self.assertEqual(pictures, {})

    def test_kept_instructions_stand_once(self):
        self.kept.write_text("     1,234 round trip\n       500 message: W1/parse\n")
        self.assertIn("| message: W1/parse | 500 |\n", self.make()[0])
        counts = self.results / "counts"
        counts.mkdir()
        (counts / "dump").write_text("desc: Trigger: Client Request: W1/parse/product\nsummary: 4000\n")
        self.assertNotIn("| message: W1/parse | 500 |\n", self.make()[0])

    def test_every_picture_is_on_the_page_and_well_formed(self):
        (self.results / "message.json").write_text(benchmarks(MESSAGES, {}))
        page, pictures = self.make()
        self.assertEqual(sorted(pictures), ["performance-growth.svg", "performance-messages.svg"])
        for name, content in pictures.items():
            self.assertIn(f"({name})", page)
            xml.etree.ElementTree.fromstring(content)

    def test_the_same_results_make_the_same_page_of_short_lines(self):
        (self.results / "message.json").write_text(benchmarks(MESSAGES, {}))
        self.assertEqual(self.make(), self.make())
        self.assertLessEqual(max(map(len, self.make()[0].splitlines())), report.WIDTH)


class Pictures(unittest.TestCase):
    def test_what_costs_nothing_has_no_bar(self):
        drawn = "".join(plot.bars("t", {"a": {"x": 0, "y": 10}}))
        self.assertEqual(drawn.count("<rect"), 1)

    def test_ten_times_the_value_is_one_step_higher(self):
        steps = [float(part.split('"')[0]) for part in "".join(
            plot.bars("t", {"a": {"x": 1, "y": 10, "z": 100}})).split(' height="')[1:]]
        self.assertAlmostEqual(steps[2] - steps[1], steps[1] - steps[0], delta=0.2)

    def test_words_are_escaped(self):
        xml.etree.ElementTree.fromstring(plot.page([plot.bars("a < b & c", {"<": {"&": 3.0}})]))


if __name__ == "__main__":
    unittest.main()

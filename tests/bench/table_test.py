#!/usr/bin/env python3
"""How the tables of the benchmarks tell the product's cases from its peers'."""

import pathlib
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "bench"))
import table  # noqa: E402


class Peers(unittest.TestCase):
    def test_the_cases_of_a_peer_are_called_as_the_product_s_with_its_name_behind(self):
        self.assertEqual(table.split_peers({"parse": 1, "parse: one": 2, "read": 3, "read: one": 4, "read: two": 5}),
                         ({"parse": 1, "read": 3}, {"one": {"parse": 2, "read": 4}, "two": {"read": 5}}))

    def test_a_colon_alone_makes_no_peer(self):
        self.assertEqual(table.split_peers({"a tick: fire and add": 1, "a tick: fire and add: one": 2}),
                         ({"a tick: fire and add": 1}, {"one": {"a tick: fire and add": 2}}))


if __name__ == "__main__":
    unittest.main()

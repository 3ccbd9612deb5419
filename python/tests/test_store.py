"""The files of a store."""

from __future__ import annotations

import struct
import tempfile
import unittest
from pathlib import Path

from kelo.codec import Message, StoreError
from kelo.codec.store import Entry, Fault, FreeSlot, Pending, StoreView, checksum, pending_of
from tests.golden import file, listing_bytes, listings


def number(value: int) -> Message:
    return Message({0x08000005: value})


def record(kind: bytes, content: bytes) -> bytes:
    return kind + struct.pack("<II", 12 + len(content), checksum(content)) + content


class Stores(unittest.TestCase):
    def test_golden(self) -> None:
        for name in ("table", "older"):
            view = StoreView(file(name + ".idx"), file(name + ".dat"))
            self.assertEqual(view.entries, [Entry(9, 9, 12, 1, 3), Entry(17, 21, 12, 2, 5)])
            self.assertEqual(view.free_slots, [FreeSlot(0, 9, 0)])
            self.assertEqual(view.findings, [])
            self.assertEqual(view.is_big_endian, name == "older")
            self.assertEqual(view.get(9), number(0x01020304))
            self.assertEqual(view.get(17), number(6))
        converted = StoreView(file("converted.idx"), file("converted.dat"))
        self.assertEqual([entry.id for entry in converted.entries], [9, 17])
        self.assertEqual(converted.get(17), number(6))

    def test_the_example_of_the_page(self) -> None:
        text = listings("store.md")[0]
        lines = [line.removeprefix("P.idx").removeprefix("P.dat").strip() for line in text.splitlines()]
        index, data = listing_bytes("\n".join(lines[:3])), listing_bytes("\n".join(lines[3:]))
        self.assertEqual((index, data), (file("table.idx"), file("table.dat")))

    def test_a_folder(self) -> None:
        with tempfile.TemporaryDirectory() as folder:
            base = Path(folder, "routes")
            with self.assertRaises(StoreError):
                StoreView.open(base)
            Path(folder, "routes.idx").write_bytes(file("table.idx"))
            self.assertEqual([f.fault for f in StoreView.open(base).findings][:1], [Fault.NO_DATA])
            Path(folder, "routes.dat").write_bytes(file("table.dat"))
            view = StoreView.open(base)
            self.assertEqual(view.findings, [])
            self.assertIsNotNone(view.find(9))
            self.assertIsNone(view.find(10))
            with self.assertRaises(StoreError):
                view.get(10)

    def test_damage(self) -> None:
        def faults(index: bytes, data: bytes) -> list[tuple[Fault, int]]:
            return [(finding.fault, finding.slot) for finding in StoreView(index, data).findings]

        def slot(id: int, size: int) -> bytes:
            return struct.pack("<III", id, size, 1)

        good = b"\x09\0M2\5\0\0\x09\7"
        self.assertEqual(faults(slot(1, 9), good), [])
        self.assertEqual(faults(slot(1, 9) + b"\0", good), [(Fault.PARTIAL_SLOT, 0)])
        self.assertEqual(faults(slot(1, 9), good + b"\0"), [(Fault.SIZE_MISMATCH, 0)])
        self.assertEqual(faults(slot(1, 9) + slot(1, 9), good + good), [(Fault.REPEATED_ID, 1)])
        self.assertEqual(faults(slot(1, 9), b"\x0a" + good[1:]), [(Fault.BAD_LENGTH, 0)])
        self.assertEqual(faults(slot(1, 9), b"\1" + good[1:]), [(Fault.BAD_LENGTH, 0)])
        self.assertEqual(faults(slot(1, 1), b"\0"), [(Fault.BAD_LENGTH, 0)])
        self.assertEqual(faults(slot(1, 9), b"\x08" + good[1:]), [(Fault.BAD_MESSAGE, 0)])
        self.assertEqual(faults(slot(1, 9), good[:8]), [(Fault.SIZE_MISMATCH, 0), (Fault.CUT_OFF, 0)])
        damaged = StoreView(slot(1, 14), b"\x0e\0M2\5\0\0\x09\7" + bytes(5))
        self.assertTrue(damaged.is_damaged(1))
        self.assertEqual(damaged.get(1), Message({0x08000005: 7, 0: False}))


class LockFile(unittest.TestCase):
    def test_the_intent_of_the_page(self) -> None:
        text = next(text for text in listings("store.md") if "4b4c494e" in text)
        intent = listing_bytes(text)
        self.assertEqual(len(intent), 0x94)
        self.assertEqual(checksum(intent[12:]), int.from_bytes(intent[8:12], "little"))
        self.assertEqual(pending_of(intent), (Pending.INTENT,))
        self.assertEqual(pending_of(intent[:-1]), (Pending.TORN,))
        self.assertEqual(pending_of(intent[:20] + b"\xff" + intent[21:]), (Pending.TORN,))

    def test_others(self) -> None:
        durable = record(b"KLDU", bytes(32))
        commit = record(b"KLCO", bytes(16))
        self.assertEqual(pending_of(b""), ())
        self.assertEqual(pending_of(bytes(3)), (Pending.MARKED_END,))
        self.assertEqual(pending_of(durable + commit), (Pending.DURABLE, Pending.COMMIT))
        self.assertEqual(pending_of(b"KL"), (Pending.TORN,))
        view = StoreView(file("table.idx"), file("table.dat"), durable)
        self.assertEqual(view.findings, [])
        view = StoreView(file("table.idx"), file("table.dat"), durable + commit)
        self.assertEqual([finding.fault for finding in view.findings], [Fault.PENDING_CHANGE])


if __name__ == "__main__":
    unittest.main()

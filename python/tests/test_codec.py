"""Messages and their bytes."""

from __future__ import annotations

import random
import struct
import time
import unittest

from kelo.codec import DecodeError, Field, FieldError, FieldMissing, Kind, Message, Mode, is_array, kind_of
from kelo.codec.order import slot_order
from tests.golden import file, listing_bytes, listings

ADDRESS = bytes.fromhex("fe800000000000000000000000000102")


def message(*fields: tuple[int, object]) -> Message:
    out = Message()
    for field, value in fields:
        out[field] = value
    return out


class GoldenMessages(unittest.TestCase):
    """Each file is read, compared field by field, and written anew from fields."""

    def check(self, name: str, *fields: tuple[int, object], mode: Mode = Mode.NORMAL) -> Message:
        data = file(name)
        read = Message.decode(data, mode)
        built = message(*fields)
        self.assertEqual(read, built)
        self.assertEqual(dict(read.items()), {field: _plain(value) for field, value in fields})
        written = built.encode()
        self.assertEqual((written[2:] if mode == Mode.BARE else written).hex(), data.hex())
        return read

    def test_scalars(self) -> None:
        self.check(
            "scalars.msg",
            (0x00000003, True),
            (0x00000004, False),
            (0x08000005, 255),
            (0x08000006, 256),
            (0x08000007, 0xDEADBEEF),
            (0x30000001, b"\x00\x01\x80"),
            (0x28000001, Message()),
            (0x20000001, "ab"),
            (0x18000001, ADDRESS),
            (0x10000001, 0x0102030405060708),
        )

    def test_long_forms(self) -> None:
        nested = b"M2\x02\0\0\x20\xff\0" + 255 * b"y"
        self.check("long.msg", (0x30000001, bytes(300)), (0x28000001, nested), (0x20000001, 256 * "x"))

    def test_arrays(self) -> None:
        self.check(
            "arrays.msg",
            (0xB0000002, []),
            (0xB0000001, [b"\x09", b"", b"\x08\x07"]),
            (0xA8000001, [message((0x08000005, 7)), Message()]),
            (0xA0000001, ["a", "", "bc"]),
            (0x98000001, [bytes(16), ADDRESS]),
            (0x90000001, [0x0102030405060708, 0x8000000000000000]),
            (0x88000002, []),
            (0x88000001, [1, 0xDEADBEEF]),
            (0x80000001, [True, False, True]),
        )

    def test_nested(self) -> None:
        inner = message((0x00000003, True), (0x08000005, 2))
        middle = message((0x08000005, 1), (0x28000001, inner))
        read = self.check("nested.msg", (0x08000005, 0x10000), (0x28000001, middle))
        self.assertEqual(read.nested(0x28000001).nested(0x28000001)[0x08000005], 2)
        self.assertEqual(len(read.nested(0x28000009)), 0)

    def test_marked(self) -> None:
        fields = [(0x00000003, True), (0x08000005, 7), (0x0A000007, 42), (0x8A000001, [0x01020304]), (0x22000001, "ab")]
        self.check("marked.msg", *fields)
        read = Message.decode(file("marked.msg"), Mode.KEEP_MARKED)
        self.assertEqual(read, message(*fields[:2]))
        assert read.kept is not None
        self.assertEqual(read.kept, file("marked.msg")[11:])
        self.assertEqual(Message.decode(read.kept, Mode.BARE), message(*fields[2:]))

    def test_bare(self) -> None:
        fields = [(0x00000003, True), (0x08000005, 0x1234), (0x20000001, "ab")]
        self.check("bare.msg", *fields, mode=Mode.BARE)

    def test_older_format(self) -> None:
        read = Message.decode(file("legacy.msg"))
        self.assertEqual(read.encode().hex(), file("legacy-rewritten.msg").hex())
        self.assertEqual(read, Message.decode(file("legacy-rewritten.msg")))
        self.assertEqual(read[0x08FF0005], 42)
        self.assertEqual(read[0x20FE0001], "abc")
        self.assertEqual(read[0xA0000001], ["a", "b\0"])
        self.assertEqual(read[0xA8000001], [b"M2", b""])

    def test_the_page_of_messages(self) -> None:
        new, older = listings("message.md")
        expected = message((0x00000003, True), (0x08000005, 7), (0x20000001, "ab"))
        self.assertEqual(listing_bytes(new), expected.encode())
        self.assertEqual(Message.decode(listing_bytes(new)), expected)
        self.assertEqual(Message.decode(listing_bytes(older)), message((0x08FF0005, 42)))


def _plain(value: object) -> object:
    if isinstance(value, list):
        return [_plain(element) for element in value]
    return value.encode() if isinstance(value, Message) else value


class Fields(unittest.TestCase):
    def test_access(self) -> None:
        mtu: Field[int] = Field(0x08000004)
        m = Message({mtu: 1500})
        self.assertEqual(m[mtu], 1500)
        self.assertEqual(m.get(mtu), 1500)
        self.assertEqual(m.get(0x08000005, 9), 9)
        self.assertIsNone(m.get(0x20000005))
        self.assertIn(mtu, m)
        self.assertNotIn(0x20000004, m)
        self.assertEqual(list(m), [0x08000004])
        del m[mtu]
        self.assertEqual(len(m), 0)
        m.discard(mtu)
        with self.assertRaises(FieldMissing):
            del m[mtu]
        with self.assertRaisesRegex(FieldMissing, "no field 0x08000004"):
            m[mtu]
        self.assertIs(type(next(iter(Message({mtu: 1})))), int)

    def test_a_copy_is_independent_and_has_the_same_bytes(self) -> None:
        m = message(*((0x08000000 | n, n) for n in range(9)), (0x88000001, [1]), (0x20000001, "a"))
        del m[0x08000003]
        other = m.copy()
        self.assertEqual(other.encode(), m.encode())
        other[0x88000001].append(2)
        other[0x08000020] = 1
        self.assertEqual(m[0x88000001], [1])
        self.assertNotIn(0x08000020, m)
        self.assertNotEqual(m, other)

    def test_update(self) -> None:
        m = message((0x08000001, 1), (0x88000001, [1, 2]))
        m.update(message((0x08000001, 2), (0x88000001, [3]), (0x20000001, "x")))
        self.assertEqual(m, message((0x08000001, 2), (0x88000001, [3]), (0x20000001, "x")))

    def test_equality_does_not_ask_for_the_order(self) -> None:
        fields = [(0x20000001, "a"), (0x30000001, b"a"), (0x08000001, 1), (0x0800000C, 2)]
        one, other = message(*fields), message(*reversed(fields))
        self.assertNotEqual(one.encode(), other.encode())
        self.assertEqual(one, other)
        self.assertNotEqual(one, message(*fields[1:]))
        self.assertNotEqual(one, 3)

    def test_kinds(self) -> None:
        self.assertEqual(kind_of(0x90000001), Kind.U64)
        self.assertTrue(is_array(0x90000001))
        self.assertFalse(is_array(0x10000001))

    def test_what_a_field_does_not_take(self) -> None:
        for field, value in (
            (0x01000001, True),
            (0x38000001, b""),
            (0xB8000001, []),
            (-1, 1),
            (1 << 40, 1),
            (0x08000001, -1),
            (0x08000001, 1 << 32),
            (0x08000001, "1"),
            (0x08000001, 1.0),
            (0x10000001, 1 << 64),
            (0x18000001, b"\0"),
            (0x20000001, 3),
            (0x20000001, 65536 * "x"),
            (0x20000001, 30000 * "\N{EURO SIGN}"),
            (0x20000001, "\ud800"),
            (0x28000001, "M2"),
            (0x30000001, bytes(65536)),
            (0x30000001, "a"),
            (0x88000001, 3),
            (0x88000001, [1, -1]),
            (0x88000001, 65536 * [1]),
            (0xA0000001, "abc"),
        ):
            with self.subTest(field=hex(field), value=repr(value)[:20]), self.assertRaises(FieldError):
                Message()[field] = value

    def test_the_longest_values(self) -> None:
        m = message((0x20000001, 65535 * "x"), (0x30000001, bytes(65535)), (0x88000001, 65535 * [7]))
        self.assertEqual(Message.decode(m.encode()), m)

    def test_strings_keep_bytes_that_are_no_text(self) -> None:
        data = b"M2\x01\0\0\x21\x02\xff\xfe"
        self.assertEqual(Message.decode(data).encode(), data)
        self.assertEqual(Message({0x20000001: b"\xff\xfe"}).encode(), data)


class Order(unittest.TestCase):
    def test_lists_begin_with_the_newest(self) -> None:
        m = message((0x20000001, "a"), (0x10000001, 1), (0xA0000001, []), (0x88000001, []))
        self.assertEqual(list(m), [0x10000001, 0x20000001, 0x88000001, 0xA0000001])
        m[0x20000001] = "b"
        self.assertEqual(list(m)[:2], [0x10000001, 0x20000001])
        del m[0x20000001]
        m[0x20000001] = "b"
        self.assertEqual(list(m)[:2], [0x20000001, 0x10000001])
        self.assertEqual(list(Message.decode(m.encode()))[:2], [0x10000001, 0x20000001])

    def test_the_example_of_the_page(self) -> None:
        m = message((0x08000005, 0), (0x08000010, 0), (0x08000004, 0))
        self.assertEqual(list(m), [0x08000004, 0x08000005, 0x08000010])

    def test_the_sixth_key_doubles_the_table(self) -> None:
        # 11 and 0 share a slot of 11 and none of 22.
        keys = (11, 0, 1, 2, 3)
        self.assertEqual(slot_order(keys), (11, 0, 1, 2, 3))
        self.assertEqual(slot_order((*keys, 4)), (0, 1, 2, 3, 4, 11))

    def test_so_does_to_set_one_of_five(self) -> None:
        m = message(*((key, True) for key in (11, 0, 1, 2, 3)))
        self.assertEqual(list(m), [11, 0, 1, 2, 3])
        m[2] = False
        self.assertEqual(list(m), [0, 1, 2, 3, 11])
        del m[0]
        m[22] = True
        self.assertEqual(list(m), [22, 1, 2, 3, 11])

    def test_keys_that_all_want_one_slot_cost_no_more_than_others(self) -> None:
        # One after the other they would be looked for through all slots that are taken.
        keys = tuple(704 * 2**8 * n for n in range(60_000))
        begin = time.process_time()
        slot_order(keys)
        self.assertLess(time.process_time() - begin, 20)


class Faults(unittest.TestCase):
    def check(self, data: bytes, left: Message, mode: Mode = Mode.NORMAL, offset: int | None = None) -> None:
        with self.assertRaises(DecodeError) as raised:
            Message.decode(data, mode)
        self.assertEqual(raised.exception.message, left)
        if offset is not None:
            self.assertEqual(raised.exception.offset, offset)

    def test_no_message(self) -> None:
        for data in (b"", b"M", b"M3", b"\0\1", b"3M"):
            self.check(data, Message(), offset=0)
        self.assertEqual(Message.decode(b"", Mode.BARE), Message())
        self.assertEqual(Message.decode(b"\0\0"), Message())

    def test_every_cut_of_every_golden_message(self) -> None:
        for name in ("scalars", "long", "arrays", "nested", "marked"):
            data = file(name + ".msg")
            ends = record_ends(data)
            self.assertEqual(max(ends), len(data))
            for length in range(len(data)):
                if length in ends:
                    Message.decode(data[:length])
                    continue
                with self.assertRaises(DecodeError):
                    Message.decode(data[:length])

    def test_what_was_read_stays(self) -> None:
        start = b"M2\5\0\0\x09\7"
        seven = message((0x08000005, 7))
        self.check(start + b"\1", seven, offset=7)
        self.check(start + b"\1\0\0\x38", seven, offset=7)
        self.check(start + b"\1\0\0\x21\2a", seven, offset=7)
        self.check(start + b"\1\0\0\x88\2", seven, offset=7)
        self.check(start + b"\1\0\0\x88\2\0\1\0\0\0", message((0x08000005, 7), (0x88000001, [])), offset=7)
        self.check(start + b"\1\0\0\xa0\2\0\1\0a\1\0", message((0x08000005, 7), (0xA0000001, ["a"])), offset=7)

    def test_reading_adds(self) -> None:
        m = message((0x08000005, 1), (0x20000001, "x"), (0x88000001, [1, 2, 3]))
        m.read(message((0x08000005, 7), (0x88000001, [9])).encode())
        self.assertEqual(m, message((0x08000005, 7), (0x20000001, "x"), (0x88000001, [9])))

    def test_the_older_format_adds_elements(self) -> None:
        m = message((0x88000001, [7]))
        m.read(b"\1\0" + struct.pack("<BHBBHHII", 2, 1, 0, 0, 2, 0, 8, 9))
        self.assertEqual(m[0x88000001], [7, 8, 9])
        self.check(b"\1\0" + struct.pack("<BHBBHHI", 2, 1, 0, 0, 2, 0, 8) + b"\1\0", message((0x88000001, [8])))
        self.check(b"\1\0", Message())
        self.check(b"\1\0" + bytes(9), Message())

    def test_random_bytes_raise_nothing_else(self) -> None:
        r = random.Random(7)
        golden = [file(name + ".msg") for name in ("scalars", "long", "arrays", "nested", "marked", "legacy")]
        for _ in range(5_000):
            data = bytearray(r.choice(golden) if r.random() < 0.8 else b"M2" + r.randbytes(r.randrange(60)))
            for _ in range(r.randrange(4)):
                data[r.randrange(len(data))] = r.getrandbits(8)
            cut = bytes(data[: r.randrange(len(data) + 1)])
            for mode in Mode:
                try:
                    m = Message.decode(cut, mode)
                except DecodeError as error:
                    m = error.message
                self.assertEqual(Message.decode(m.encode()), m)


def record_ends(data: bytes) -> set[int]:
    """Where the records of a message end, whose lists are in the order of one that was built."""
    ends = {2}
    # Read twice, its lists have the order of the bytes again.
    for field, value in Message.decode(Message.decode(data).encode()).items():
        ends.add(max(ends) + len(Message({field: value}).encode()) - 2)
    return ends


if __name__ == "__main__":
    unittest.main()

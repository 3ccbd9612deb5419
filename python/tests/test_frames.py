"""Frames, and the log socket's records."""

from __future__ import annotations

import unittest

from kelo.codec import FrameError, FrameReader, LogRecordError, Message, frame
from kelo.codec.log import Line, Mute, ProcessReader, Registration, ServiceReader, line, registration
from tests.golden import file, listing_bytes, listings

SYS_TO, SYS_FROM, SYS_TYPE, SYS_REPLYEXP, SYS_REQID, SYS_CMD, SYS_CTRL = (
    0x88FF0001,
    0x88FF0002,
    0x08FF0003,
    0x00FF0005,
    0x08FF0006,
    0x08FF0007,
    0x08FF000D,
)


class Frames(unittest.TestCase):
    def check(self, name: str, *fields: tuple[int, object]) -> None:
        data = file(name + ".frame")
        m = Message(dict(fields))
        self.assertEqual(frame(m).hex(), data.hex())
        (body,) = FrameReader().feed(data)
        self.assertEqual(Message.decode(body), m)

    def test_golden(self) -> None:
        self.check("hello", (SYS_TO, [1]), (0x88000001, [500, 0x102] + 10 * [0]), (SYS_CTRL, 5))
        self.check("ready", (SYS_TO, [1]), (SYS_CTRL, 8), (0x08000001, 500), (0x08000002, 0x01006600), (0x08000003, 3))
        request = [(SYS_CMD, 0xFE000D), (SYS_REPLYEXP, True), (SYS_TYPE, 1)]
        self.check("request", (SYS_TO, [24, 0]), (SYS_FROM, [7]), (SYS_REQID, 0), *request)
        self.check("reply", (SYS_TO, [24, 5]), (SYS_FROM, [7]), (0x20FE0009, "eth0"), (SYS_REQID, 256), (SYS_TYPE, 2))

    def test_golden_frames_that_arrive(self) -> None:
        (body,) = FrameReader().feed(file("request-delivered.frame"))
        m = Message.decode(body)
        self.assertEqual((m[SYS_TO], m[SYS_FROM], m[SYS_REQID], m[SYS_REPLYEXP]), ([7], [24, 5], 256, True))
        (body,) = FrameReader().feed(file("reply-delivered.frame"))
        self.assertEqual(Message.decode(body)[0x20FE0009], "lo")

    def test_the_examples_of_the_page(self) -> None:
        first = listings("protocol.md")[0]
        (body,) = FrameReader().feed(listing_bytes(first))
        self.assertEqual(Message.decode(body), Message({SYS_TO: [1], SYS_CTRL: 6}))
        self.assertEqual(frame(Message({SYS_CTRL: 6, SYS_TO: [1]})), listing_bytes(first))

    def test_pieces(self) -> None:
        data = file("hello.frame") + file("ready.frame") + frame(b"")
        for size in (1, 2, 3, 5, 70, 200):
            reader = FrameReader()
            bodies = [body for at in range(0, len(data), size) for body in reader.feed(data[at : at + size])]
            self.assertEqual([len(body) for body in bodies], [71, 38, 0])
            self.assertFalse(reader.is_inside)
        self.assertEqual(reader.feed(b"\1"), [])
        self.assertTrue(reader.is_inside)

    def test_too_long(self) -> None:
        with self.assertRaises(FrameError):
            FrameReader(1000).feed(b"\xe9\3\0\0")
        self.assertEqual(FrameReader(1000).feed(b"\xe8\3\0\0"), [])
        with self.assertRaises(FrameError):
            frame(bytes(65536))
        self.assertEqual(len(frame(bytes(65535))), 65539)


class LogRecords(unittest.TestCase):
    def test_golden(self) -> None:
        self.assertEqual(registration(5, [16, 4]), file("registration.rec"))
        self.assertEqual(line(5, "abc"), file("line.rec"))
        self.assertEqual(Mute(5, True).encode(), file("mute.rec"))
        sent = file("registration.rec") + file("line.rec")
        for size in (1, 3, 100):
            reader = ServiceReader()
            records = [record for at in range(0, len(sent), size) for record in reader.feed(sent[at : at + size])]
            self.assertEqual(records, [Registration(5, (16, 4)), Line(5, b"abc")])
        self.assertEqual(ProcessReader().feed(file("mute.rec")), [Mute(5, True)])

    def test_the_examples_of_the_page(self) -> None:
        examples = [listing_bytes(text) for text in listings("log.md")]
        self.assertEqual(examples, [registration(5, [16, 4]), line(5, b"abc"), Mute(5, True).encode()])

    def test_limits(self) -> None:
        for source in (0, 65536):
            with self.assertRaises(LogRecordError):
                line(source, "a")
        with self.assertRaises(LogRecordError):
            line(1, 65532 * "a")
        self.assertEqual(len(line(1, 65531 * "a")), 65535)
        with self.assertRaises(LogRecordError):
            registration(1, [65536])
        with self.assertRaises(LogRecordError):
            registration(1, 40000 * [1])

    def test_what_is_no_record(self) -> None:
        for data in (b"\0\3", b"\0\6\0\0\0\0", b"\0\x08\0\0\0\1\0\5", b"\0\x08\0\0\0\0\0\0", b"\0\x09\0\0\0\0\0\5\0"):
            with self.subTest(data=data), self.assertRaises(LogRecordError):
                ServiceReader().feed(data)
        for data in (b"\0\5\0\5\0", b"\0\2"):
            with self.subTest(data=data), self.assertRaises(LogRecordError):
                ProcessReader().feed(data)


if __name__ == "__main__":
    unittest.main()

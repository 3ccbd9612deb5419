"""Bytes and messages of others raise nothing but a KeloError, and cost no more than their length."""

from __future__ import annotations

import asyncio
import random
import time
import tracemalloc
import unittest
from collections.abc import Callable
from typing import Any

import kelo
import kelo.testing
from kelo import ids
from kelo.codec import FrameReader, Message, Mode, frame
from kelo.codec.log import ProcessReader, ServiceReader
from kelo.codec.store import StoreView
from kelo.names import Dictionary, Object
from tests.golden import FOLDER, file

ENDINGS = (".msg", ".frame", ".rec", ".idx", ".dat")
SEEDS = [path.read_bytes() for path in sorted(FOLDER.iterdir()) if path.suffix in ENDINGS]
CASES = 1500


def mutated(r: random.Random, data: bytes) -> bytes:
    out = bytearray(data)
    for _ in range(r.randrange(1, 6)):
        at = r.randrange(len(out) + 1)
        choice = r.randrange(4)
        if choice == 0:
            del out[at:]
        elif choice == 1:
            out[at:at] = r.randbytes(r.randrange(1, 9))
        elif choice == 2:
            out[at:at] = r.choice(SEEDS)[:40]
        elif at < len(out):
            out[at] = r.choice((0, 1, 0xFF, r.getrandbits(8)))
    return bytes(out)


def read_all_modes(data: bytes) -> None:
    fault = None
    for mode in Mode:
        try:
            m = Message.decode(data, mode)
        except kelo.DecodeError as error:
            m, fault = error.message, error
        shown = Object(m, Dictionary({"mtu": 0x08000004}))
        list(shown.items()), repr(shown)
        Message.decode(m.copy().encode())
    if fault is not None:
        raise fault


class HostileBytes(unittest.TestCase):
    readers: dict[str, Callable[[bytes], object]] = {
        "message": read_all_modes,
        "frames": lambda data: [Message.decode(body) for body in FrameReader().feed(data)],
        "log service": lambda data: ServiceReader().feed(data),
        "log process": lambda data: ProcessReader().feed(data),
        "store": lambda data: [
            view.get(entry.id)
            for half in (len(data) // 24 * 12,)
            for view in (StoreView(data[:half], data[half:], data[:60]),)
            for entry in view.entries
        ],
    }

    def test_random_and_mutated_bytes(self) -> None:
        for name, reader in self.readers.items():
            r = random.Random(name)
            with self.subTest(reader=name):
                refused = 0
                for _ in range(CASES):
                    data = mutated(r, r.choice(SEEDS)) if r.random() < 0.8 else r.randbytes(r.randrange(200))
                    try:
                        reader(data)
                    except kelo.KeloError:
                        refused += 1
                if name != "store":
                    self.assertGreater(refused, CASES // 100)

    def test_lengths_are_not_believed(self) -> None:
        begin = time.process_time()
        tracemalloc.start()
        for head in (b"\1\0\0\x88", b"\1\0\0\xa0", b"\1\0\0\x98", b"\1\0\0\x30"):
            with self.assertRaises(kelo.DecodeError):
                Message.decode(b"M2" + head + b"\xff\xff" + b"\0\0")
        with self.assertRaises(kelo.DecodeError):
            Message.decode(b"\xff\0" + b"\2\0\0\0\0\xff\xff\0\0")
        reader = FrameReader()
        for _ in range(1000):
            reader.feed(b"")
        reader.feed(b"\xff\xff\x0f\0")
        _, peak = tracemalloc.get_traced_memory()
        tracemalloc.stop()
        self.assertLess(peak, 1_000_000)
        self.assertLess(time.process_time() - begin, 5)

    def test_a_deep_message_is_not_looked_into(self) -> None:
        data = b"M2"
        for _ in range(10_000):
            data = b"M2\1\0\0\x28" + len(data).to_bytes(2, "little") + data
            if len(data) > 65_000:
                break
        m = Message.decode(data)
        self.assertEqual(m.encode(), data)
        self.assertEqual(Object(m)["message:1"].message.encode(), m[0x28000001])
        self.assertIn("{...}", repr(Object(m)))
        self.assertEqual(Object(m), Object(m.copy()))


class HostilePeers(unittest.IsolatedAsyncioTestCase):
    async def test_a_client_and_a_service_live_on(self) -> None:
        faults: list[dict[str, Any]] = []
        asyncio.get_running_loop().set_exception_handler(lambda _, context: faults.append(context))
        fake = await self.enterAsyncContext(kelo.testing.FakeLoader())
        bus = await self.enterAsyncContext(kelo.connect(fake.path, fields=[]))
        service = await self.enterAsyncContext(kelo.serve(500, path=fake.path))
        table = kelo.Table()
        service.add(table, 3)
        service.start()
        watch = await self.enterAsyncContext(bus.watch((500, 3)))
        hostile = await self.enterAsyncContext(kelo.connect(fake.path, fields=[]))
        r = random.Random(3)
        interesting = [int(value) for name, value in vars(ids).items() if name.startswith(("SYS_", "STD_"))]
        commands = list(ids.COMMANDS.values())
        for number in range(800):
            try:
                m = Message.decode(mutated(r, r.choice(SEEDS)))
            except kelo.DecodeError as error:
                m = error.message
            for field in r.sample(interesting, 4):
                if field in (ids.SYS_CTRL, ids.SYS_TO):
                    continue
                kind = field >> 27
                m[field] = {0: True, 1: r.choice((0, 1, 2, r.getrandbits(32))), 4: "x", 17: [r.randrange(4), 3]}.get(
                    kind, [r.randbytes(3), b"M2", file("nested.msg")]
                )
            m.discard(ids.SYS_CTRL)
            if r.random() < 0.7:
                m[ids.SYS_CMD] = r.choice(commands)
            m[ids.SYS_TO] = r.choice(([500, 3], [bus.id, 1], [bus.id], [500], [bus.id, 7], [500, 3, 1]))
            m.discard(ids.SYS_NOTIFYPATH)
            if len(frame(m)) < 60_000:
                hostile.process.send(m)
            if number % 100 == 0:
                await bus.get_all((500, 3))
        await hostile.process.flush()
        table.put(9, {"descr": "still here"})
        self.assertEqual((await bus.get((500, 3), id=9)).descr, "still here")
        while 9 not in watch.table:
            await asyncio.wait_for(anext(watch), 30)
        self.assertEqual(faults, [])


if __name__ == "__main__":
    unittest.main()

#!/usr/bin/python3
"""oracle.py N SEED: compares this package's codec with the library's, over N random cases.

    python/oracle.py --driver build/release/bin/kl_python_driver 100000 1

A case is a few steps done to one message: bytes read (well-formed, mutated, cut, random, of either format), fields set
and removed, the message written and read again.  Compared is what each step says, what was kept, every byte that the
message is written as, and whether what is read from them is equal.  The first differences are printed, and the status
is 1 if there is any.  The same N and SEED give the same cases.
"""

from __future__ import annotations

import argparse
import random
import struct
import subprocess
import sys
import time
from collections.abc import Iterator
from pathlib import Path
from typing import NamedTuple, Optional, Union

sys.path.insert(0, str(Path(__file__).resolve().parent))

from kelo.codec import DecodeError, Message, Mode  # noqa: E402

Step = tuple[int, int, bytes]  # what, field, bytes

_SCALARS = (0x00000000, 0x08000000, 0x10000000, 0x18000000, 0x20000000, 0x28000000, 0x30000000)
_TYPES = (*_SCALARS, *(0x80000000 | kind for kind in _SCALARS))
_SPACES = (0x00000000, 0x00000000, 0x00FD0000, 0x00FE0000, 0x00FF0000, 0x04000000)
_BATCH = 2000
_READ, _INSERT, _REMOVE, _REREAD = 0, 3, 4, 5


class Cases:
    """The cases of one seed."""

    def __init__(self, seed: int) -> None:
        self.random = random.Random(seed)

    def number(self, bits: int) -> int:
        r = self.random
        edges: list[int] = [0, 1, 255, 256, (1 << bits) - 1, r.getrandbits(bits), r.getrandbits(9)]
        return r.choice(edges)

    def data(self) -> bytes:
        r = self.random
        return r.randbytes(r.choice((0, 1, 2, 3, 8, 20, 255, 256, 300)) if r.random() < 0.2 else r.randrange(12))

    def field(self, kind: int | None = None, crowd: int = 40) -> int:
        r = self.random
        kind = r.choice(_TYPES) if kind is None else kind
        # Numbers that are equal modulo the capacities of the tables meet in their slots.
        number = r.randrange(crowd) if r.random() < 0.7 else r.randrange(12) * (11 << r.randrange(4))
        mark = 0x02000000 if r.random() < 0.04 else 0
        return kind | r.choice(_SPACES) | mark | number

    def nested(self, depth: int) -> bytes:
        r = self.random
        return b"M2" + self.records(r.randrange(4), depth + 1) if depth < 3 and r.random() < 0.7 else self.data()

    def value(self, field: int, depth: int = 0) -> bytes:
        """The value's bytes, of an array those of its elements."""
        r = self.random
        kind = field >> 27 & 15
        count = r.choice((0, 1, 2, 3, 7, 40)) if field & 0x80000000 else 1
        if kind == 0:
            return bytes(r.choice((0, 1, 2)) for _ in range(count))
        if kind == 1:
            return b"".join(struct.pack("<I", self.number(32)) for _ in range(count))
        if kind == 2:
            return b"".join(struct.pack("<Q", self.number(64)) for _ in range(count))
        if kind == 3:
            return r.randbytes(16 * count)
        values = [self.nested(depth) if kind == 5 else self.data() for _ in range(count)]
        if not field & 0x80000000:
            return values[0]
        return b"".join(struct.pack("<H", len(value)) + value for value in values)

    def record(self, depth: int) -> bytes:
        r = self.random
        field = self.field()
        value = self.value(field, depth)
        kind = field >> 27
        if kind == 0:
            return struct.pack("<I", field | (value[0] & 1) << 24)
        if kind >= 16:
            sizes = (1, 4, 8, 16)
            count = len(value) // sizes[kind - 16] if kind < 20 else count_elements(value)
            return struct.pack("<IH", field | (r.random() < 0.05) << 24, count) + value
        if kind == 1:
            short = value[1:] == b"\0\0\0" and r.random() < 0.9
            return struct.pack("<I", field | short << 24) + value[: 1 if short else 4]
        if kind < 4:
            return struct.pack("<I", field | (r.random() < 0.05) << 24) + value
        short = len(value) < 256 and r.random() < 0.9
        return struct.pack("<IB" if short else "<IH", field | short << 24, len(value)) + value

    def records(self, count: int, depth: int = 0) -> bytes:
        return b"".join(self.record(depth) for _ in range(count))

    def older(self) -> bytes:
        r = self.random
        count = r.randrange(8)
        out = [struct.pack("<H", count)]
        for _ in range(count):
            kind = r.randrange(1, 6)
            elements = 1 if r.random() < 0.6 else r.choice((0, 2, 3))
            out.append(struct.pack("<BHBBHH", kind, r.randrange(12), r.getrandbits(8), r.getrandbits(8), elements, 0))
            for _ in range(elements):
                if kind < 3:
                    out.append(r.randbytes(1 if kind == 1 else 4))
                else:
                    data = self.nested(1) if kind == 5 else self.data()
                    out.append(struct.pack("<H", len(data)) + data)
        return b"".join(out) + (r.randbytes(3) if r.random() < 0.1 else b"")

    def mutated(self, data: bytes) -> bytes:
        r = self.random
        out = bytearray(data)
        for _ in range(r.choice((1, 1, 2, 4))):
            what = r.randrange(5)
            at = r.randrange(len(out) + 1)
            if what == 0:
                del out[at:]
            elif what == 1:
                out[at:at] = r.randbytes(r.randrange(1, 5))
            elif what == 2:
                del out[at : at + r.randrange(1, 5)]
            elif at < len(out):
                out[at] = out[at] ^ 1 << r.randrange(8) if what == 3 else r.choice((0, 1, 2, 255))
        return bytes(out)

    def read(self) -> Step:
        r = self.random
        mode = r.choice((0, 0, 0, 0, 1, 2))
        choice = r.random()
        if choice < 0.08:
            data = r.randbytes(r.randrange(40))
        elif choice < 0.25:
            data = self.older()
        else:
            data = self.records(r.choice((0, 1, 3, 6, 9, 15, 30)))
            if mode != 2 or r.random() < 0.05:
                data = b"M2" + data
        return mode, 0, self.mutated(data) if r.random() < 0.45 else data

    def change(self) -> Step:
        r = self.random
        # Booleans and u32 values are what has an order worth looking at.
        field = self.field(r.choice(_TYPES[:2]) if r.random() < 0.6 else None, crowd=20)
        if r.random() < 0.3:
            return _REMOVE, field, b""
        return _INSERT, field, self.value(field)

    def case(self) -> list[Step]:
        r = self.random
        steps = [self.read() if r.random() < 0.85 else self.change()]
        if r.random() < 0.35:
            for _ in range(r.choice((1, 2, 10, 60))):
                steps.append(self.change() if r.random() < 0.9 else self.read())
        if r.random() < 0.2:
            steps.append((_REREAD, 0, b""))
        return steps


def count_elements(value: bytes) -> int:
    count = at = 0
    while at < len(value):
        at += 2 + int.from_bytes(value[at : at + 2], "little")
        count += 1
    return count


def packed(steps: list[Step]) -> bytes:
    out = []
    for what, field, data in steps:
        out.append(bytes([what]))
        if what in (_INSERT, _REMOVE):
            out.append(struct.pack("<I", field))
        if what <= _INSERT:
            out.append(struct.pack("<I", len(data)) + data)
    case = b"".join(out)
    return struct.pack("<I", len(case)) + case


def elements(field: int, data: bytes) -> Iterator[Union[bool, int, bytes]]:
    kind = field >> 27 & 15
    if kind < 4:
        size = (1, 4, 8, 16)[kind]
        for at in range(0, len(data), size):
            part = data[at : at + size]
            yield part if kind == 3 else int.from_bytes(part, "little")
        return
    at = 0
    while at < len(data):
        length = int.from_bytes(data[at : at + 2], "little")
        yield data[at + 2 : at + 2 + length]
        at += 2 + length


class Result(NamedTuple):
    good: bytes  # a byte for each step
    kept: Optional[bytes]
    flat: bytes
    equal: bool


def parse(data: bytes, steps: int) -> Result:
    at = steps + 5 + int.from_bytes(data[steps + 1 : steps + 5], "little")
    return Result(data[:steps], data[steps + 5 : at] if data[steps] else None, data[at + 4 : -1], bool(data[-1]))


def result_of(steps: list[Step]) -> Result:
    """The driver's words about this case."""
    message = Message()
    good = bytearray()
    for what, field, data in steps:
        good.append(True)
        if what < _INSERT:
            try:
                message.read(data, Mode(what))
            except DecodeError:
                good[-1] = False
        elif what == _INSERT:
            if field & 0x80000000:
                message[field] = list(elements(field, data))
            else:
                message[field] = data if field >> 27 > 3 else next(elements(field, data))
        elif what == _REMOVE:
            message.discard(field)
        else:
            message = Message.decode(message.encode())
    flat = message.encode()
    return Result(bytes(good), message.kept, flat, Message.decode(flat) == message)


def is_kept_defined(steps: list[Step], good: bytes) -> bool:
    """After a fault, and of the older format, kept records are nothing that one could rely on."""
    return all(ok and data[:2] == b"M2" for (what, _, data), ok in zip(steps, good) if what == Mode.KEEP_MARKED)


def compare(driver: str, count: int, seed: int, seconds: float | None) -> tuple[int, int]:
    """How many cases were compared, and how many of them differ."""
    cases = Cases(seed)
    end = time.monotonic() + seconds if seconds else None
    done = differences = 0
    while done < count and (end is None or time.monotonic() < end):
        batch = [cases.case() for _ in range(min(_BATCH, count - done))]
        run = subprocess.run([driver], input=b"".join(map(packed, batch)), stdout=subprocess.PIPE, check=True)
        at = 0
        for steps in batch:
            (length,) = struct.unpack_from("<I", run.stdout, at)
            theirs = parse(run.stdout[at + 4 : at + 4 + length], len(steps))
            at += 4 + length
            ours = result_of(steps)
            if not is_kept_defined(steps, theirs.good):
                ours = ours._replace(kept=theirs.kept)
            if ours != theirs:
                differences += 1
                if differences <= 5:
                    show(done, steps, ours, theirs)
            done += 1
    return done, differences


def show(number: int, steps: list[Step], ours: Result, theirs: Result) -> None:
    print(f"case {number}:")
    for what, field, data in steps:
        print(f"  {('read', 'read marked', 'read bare', 'insert', 'remove', 'reread')[what]} {field:08x} {data.hex()}")
    for name in Result._fields:
        mine, other = getattr(ours, name), getattr(theirs, name)
        if mine != other:
            print(f"  {name}: Python  {mine.hex() if isinstance(mine, bytes) else mine}")
            print(f"  {name}: library {other.hex() if isinstance(other, bytes) else other}")


def main() -> int:
    parser = argparse.ArgumentParser(description="Compares the codec with the library's.")
    parser.add_argument("count", type=int, metavar="N")
    parser.add_argument("seed", type=int, metavar="SEED")
    parser.add_argument("--driver", default="build/release/bin/kl_python_driver")
    parser.add_argument("--seconds", type=float, help="stop after so long, whatever N says")
    options = parser.parse_args()
    done, differences = compare(options.driver, options.count, options.seed, options.seconds)
    print(f"{done} cases, {differences} differences")
    return 1 if differences else 0


if __name__ == "__main__":
    sys.exit(main())

"""The files of a store, to look at (docs/store.md).  Nothing is repaired or changed.

    view = StoreView.open("/kelo/routes/table")
    for entry in view.entries:
        print(entry.id, view.get(entry.id))
"""

from __future__ import annotations

import enum
import os
import struct
from dataclasses import dataclass

from kelo.codec.message import Message
from kelo.errors import DecodeError, StoreError

_SLOT_BYTES = 12
_FREE_ID = 0xFFFFFFFF
_MASK = 0xFFFFFFFFFFFFFFFF
_READINGS = 5


class Fault(enum.Enum):
    """The faults that the files may have."""

    NO_INDEX = "there is no index, or it cannot be read"
    NO_DATA = "there is no data file, or it cannot be read"
    SIZE_MISMATCH = "the slots of the index do not fill the data file"
    PARTIAL_SLOT = "the index ends inside a slot record"
    PENDING_CHANGE = "the lock file has a change that was not completed"
    REPEATED_ID = "a slot repeats the id of a slot before it"
    BAD_LENGTH = "the length of a record does not fit into its slot"
    CUT_OFF = "the data file ends inside a record"
    BAD_MESSAGE = "a record is no message"


@dataclass(frozen=True)
class Finding:
    fault: Fault
    slot: int = 0
    id: int = 0


@dataclass(frozen=True)
class Entry:
    id: int
    offset: int  # of the slot in the data file
    size: int  # of the slot
    slot: int  # its number in the index
    lifetime: int  # how many calls of age() it has left


@dataclass(frozen=True)
class FreeSlot:
    offset: int
    size: int
    slot: int


class Pending(enum.Enum):
    """The content of the lock file."""

    NOTHING = "nothing"
    INTENT = "an intent"
    MARKED_END = "a marked end"
    COMMIT = "a commit"
    DURABLE = "a durable record"
    TORN = "a part of a record"


def checksum(data: bytes) -> int:
    """The checksum of the records of the lock file."""

    def mixed(total: int, number: int) -> int:
        product = (total ^ number) * 0x9E3779B97F4A7C15 & _MASK
        return product ^ product >> 32

    sums = [0, 0, 0, 0]
    padded = data + bytes(-len(data) % 8)
    for index, (number,) in enumerate(struct.iter_unpack("<Q", padded)):
        sums[index % 4] = mixed(sums[index % 4], number)
    total = 0
    for number in (*sums, len(data)):
        total = mixed(total, number)
    return total & 0xFFFFFFFF


def pending_of(lock: bytes) -> tuple[Pending, ...]:
    """The records of a lock file, one behind the other."""
    names = {b"KLIN": Pending.INTENT, b"KLCO": Pending.COMMIT, b"KLDU": Pending.DURABLE}
    found = []
    while lock:
        if not any(lock):
            found.append(Pending.MARKED_END)
            break
        name = names.get(lock[:4])
        size = int.from_bytes(lock[4:8], "little")
        record = lock[:size]
        whole = name is not None and 12 <= size == len(record)
        if name is None or not whole or checksum(record[12:]) != int.from_bytes(record[8:12], "little"):
            found.append(Pending.TORN)
            break
        found.append(name)
        lock = lock[size:]
    return tuple(found)


class StoreView:
    """The content of an index and a data file.  A record that is damaged is an entry all the same."""

    def __init__(self, index: bytes | None, data: bytes | None, lock: bytes = b"") -> None:
        self.entries: list[Entry] = []  # in the order of the slots
        self.free_slots: list[FreeSlot] = []
        self.findings: list[Finding] = []
        self.is_big_endian = False
        self.pending = pending_of(lock)
        self._records: dict[int, tuple[bytes, bool]] = {}  # of each entry the bytes of its message
        if index is None:
            self.findings.append(Finding(Fault.NO_INDEX))
        if data is None:
            self.findings.append(Finding(Fault.NO_DATA))
        self._read_index(index or b"", data or b"", index is not None and data is not None)
        if any(what is not Pending.DURABLE for what in self.pending):
            self.findings.append(Finding(Fault.PENDING_CHANGE))

    @classmethod
    def open(cls, path: str | os.PathLike[str]) -> StoreView:
        """Reads the store P, whose files are P.idx, P.dat and P.lock, until two readings agree.

        StoreError if there is no such store, or if somebody changes it without a pause.
        """
        base = os.fspath(path)
        before = None
        for _ in range(_READINGS):
            files = tuple(_content(base + ending) for ending in (".idx", ".dat", ".lock"))
            if files == before:
                index, data, lock = files
                if index is None and data is None:
                    raise StoreError(f"{base}: there is no such store")
                return cls(index, data, lock or b"")
            before = files
        raise StoreError(f"{base}: somebody changes it without a pause")

    def find(self, id: int) -> Entry | None:
        return next((entry for entry in self.entries if entry.id == id), None)

    def get(self, id: int) -> Message:
        """The message of an entry: what of it can be read.  StoreError if there is no such entry."""
        if id not in self._records:
            raise StoreError(f"there is no entry {id}")
        data, _ = self._records[id]
        message = Message()
        try:
            message.read(data)
        except DecodeError:
            pass
        return message

    def is_damaged(self, id: int) -> bool:
        """Whether the message of an entry could not be read to its end."""
        return id in self._records and self._records[id][1]

    def _read_index(self, index: bytes, data: bytes, are_both: bool) -> None:
        whole = len(index) - len(index) % _SLOT_BYTES
        if whole != len(index):
            self.findings.append(Finding(Fault.PARTIAL_SLOT))
        little = list(struct.iter_unpack("<III", index[:whole]))
        slots = little
        if sum(size for _, size, _ in little) != len(data):
            big = list(struct.iter_unpack(">III", index[:whole]))
            if sum(size for _, size, _ in big) == len(data):
                slots, self.is_big_endian = big, True
            elif are_both:
                self.findings.append(Finding(Fault.SIZE_MISMATCH))
        offset = 0
        for slot, (id, size, lifetime) in enumerate(slots):
            if id == _FREE_ID:
                self.free_slots.append(FreeSlot(offset, size, slot))
            elif id in self._records:
                self.findings.append(Finding(Fault.REPEATED_ID, slot, id))
            else:
                self.entries.append(Entry(id, offset, size, slot, lifetime))
                fault, body = self._record_in(data, offset, size)
                self._records[id] = body, fault is not None
                if fault is not None:
                    self.findings.append(Finding(fault, slot, id))
            offset += size

    def _record_in(self, data: bytes, offset: int, size: int) -> tuple[Fault | None, bytes]:
        slot = data[offset : offset + size]
        if size < 2:
            return Fault.BAD_LENGTH, b""
        if len(slot) < 2:
            return Fault.CUT_OFF, b""
        length = int.from_bytes(slot[:2], "big" if self.is_big_endian else "little")
        if not 2 <= length <= size:
            return Fault.BAD_LENGTH, b""
        body = slot[2:length]
        if len(slot) < length:
            return Fault.CUT_OFF, body
        try:
            Message.decode(body)
        except DecodeError:
            return Fault.BAD_MESSAGE, body
        return None, body


def _content(path: str) -> bytes | None:
    try:
        with open(path, "rb") as file:
            return file.read()
    except OSError:
        return None

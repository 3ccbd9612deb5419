"""Messages and their bytes; docs/message.md of the project is the contract.

    m = Message()
    m[0x08000005] = 7
    m[0x20000001] = "ab"
    m.encode()                           # b"M2\\x05\\0\\0\\x09\\x07\\x01\\0\\0\\x21\\x02ab"
    Message.decode(m.encode()) == m      # True

The type of a field follows from its id.  In Python its value is

    bool    bool           u32, u64   int        addr6    bytes, 16 of them
    string  str            message    bytes      raw      bytes

and a list of these for an array.  A string that is no UTF-8 keeps its bytes by way of "surrogateescape".  A nested
message is held in its byte form; a Message given as a value is encoded at once.

Two messages are equal that hold the same fields, in whatever order.  A message keeps the order of its fields as far as
the bytes show it: messages that were built by the same insertions, removals and readings, one after the other, have
the same bytes, here and in the library.  Reading puts every field of a list in front of the ones before it, so a
message that was read and is written has its lists the other way round.
"""

from __future__ import annotations

import enum
import struct
from collections.abc import Iterable, Iterator
from typing import Any, Generic, TypeVar, Union, overload

from kelo.codec.order import FULL_COUNTS, SlotTable, slot_order
from kelo.errors import DecodeError, FieldError, FieldMissing

T = TypeVar("T")
D = TypeVar("D")

Value = Union[bool, int, str, bytes, list[bool], list[int], list[str], list[bytes]]
Buffer = Union[bytes, bytearray, memoryview]


class Field(int, Generic[T]):
    """A field id that knows its type, for type checkers: MTU: Field[int] = Field(0x08000004)."""


class Kind(enum.IntEnum):
    """Bits 27 to 30 of an id."""

    BOOL = 0
    U32 = 1
    U64 = 2
    ADDR6 = 3
    STRING = 4
    MESSAGE = 5
    RAW = 6


class Mode(enum.IntEnum):
    """The content of bytes to read."""

    NORMAL = 0  # "M2" and records, or the older format
    KEEP_MARKED = 1  # the same; records whose id has bit 25 are kept as bytes
    BARE = 2  # records alone


MAGIC = b"M2"
ARRAY = 0x80000000
FLAG = 0x01000000
MARK = 0x02000000
MAX_LENGTH = 0xFFFF

# Bits 27 to 31 of an id.
_BOOL, _U32, _U64, _ADDR6, _STRING, _MESSAGE, _RAW = range(7)
_BOOLS, _U32S, _U64S, _ADDR6S, _STRINGS, _MESSAGES, _RAWS = range(16, 23)
_KINDS = frozenset((*range(7), *range(16, 23)))

_WORD = struct.Struct("<I")
_WORD_BYTE = struct.Struct("<IB")
_WORD_WORD = struct.Struct("<II")
_WORD_LONG = struct.Struct("<IQ")
_WORD_SHORT = struct.Struct("<IH")
_SHORT = struct.Struct("<H")
_LONG = struct.Struct("<Q")
_HEADER = struct.Struct("<BHxBHxx")  # of a record of the older format

_MAX_OF = {_U32: 0xFFFFFFFF, _U64: 0xFFFFFFFFFFFFFFFF}
_SPACES = {1: 0x00FE0000, 2: 0x00FD0000, 3: 0x00FF0000}  # of the older format; any other code is global


class _Fault(Exception):
    def __init__(self, reason: str, offset: int) -> None:
        super().__init__(reason)
        self.reason = reason
        self.offset = offset


def kind_of(field: int) -> Kind:
    """The content of a field, one value each."""
    return Kind(_checked(field) & 15)


def is_array(field: int) -> bool:
    return bool(field & ARRAY)


def _checked(field: int) -> int:
    kind = field >> 27
    if kind not in _KINDS or field & FLAG:
        raise FieldError(f"{field:#010x} is no field id")
    return kind


def _text(data: bytes) -> str:
    return data.decode("utf-8", "surrogateescape")


def _text_bytes(text: str) -> bytes:
    try:
        return text.encode("utf-8", "surrogateescape")
    except UnicodeEncodeError as error:
        raise FieldError(f"a text that has no bytes: {error.reason}") from None


def _single(kind: int, value: object) -> Any:
    """The value as a message holds it; FieldError if this kind does not take it."""
    if kind == _STRING:
        if isinstance(value, bytes):
            value = _text(value)
        if isinstance(value, str):
            if len(value) * 4 > MAX_LENGTH and len(_text_bytes(value)) > MAX_LENGTH:
                raise FieldError("a string of more than 65,535 bytes")
            if not value.isascii():
                _text_bytes(value)
            return value
    elif kind in _MAX_OF:
        if isinstance(value, int):
            if not 0 <= value <= _MAX_OF[kind]:
                raise FieldError(f"{value} does not fit into a u{32 * kind}")
            return int(value)
    elif kind == _BOOL:
        if isinstance(value, (bool, int)):
            return bool(value)
    else:
        if kind == _MESSAGE and isinstance(value, Message):
            value = value.encode()
        if isinstance(value, (bytes, bytearray, memoryview)):
            data = bytes(value)
            if kind == _ADDR6 and len(data) != 16:
                raise FieldError(f"an address of {len(data)} bytes")
            if len(data) > MAX_LENGTH:
                raise FieldError(f"{len(data)} bytes in one field; 65,535 fit")
            return data
    raise FieldError(f"a {Kind(kind).name.lower()} field does not take {type(value).__name__}")


def _elements(kind: int, value: object) -> list[Any]:
    if isinstance(value, (str, bytes, bytearray, memoryview)) or not isinstance(value, Iterable):
        raise FieldError(f"an array does not take {type(value).__name__}")
    elements = [_single(kind, element) for element in value]
    if len(elements) > MAX_LENGTH:
        raise FieldError(f"{len(elements)} elements in one array; 65,535 fit")
    return elements


class Message:
    """A set of typed fields, each under a 32-bit id."""

    __slots__ = ("_bools", "_u32s", "_fields", "_arrays", "_bool_slots", "_u32_slots", "kept")

    def __init__(self, fields: dict[int, Any] | None = None) -> None:
        self._bools: dict[int, bool] = {}
        self._u32s: dict[int, int] = {}
        self._fields: dict[int, Any] = {}
        self._arrays: dict[int, list[Any]] = {}
        self._bool_slots: SlotTable | None = None
        self._u32_slots: SlotTable | None = None
        self.kept: bytes | None = None  # what the last reading in Mode.KEEP_MARKED set aside
        if fields:
            for field, value in fields.items():
                self[field] = value

    # Fields

    @overload
    def __getitem__(self, field: Field[T]) -> T: ...
    @overload
    def __getitem__(self, field: int) -> Any: ...
    def __getitem__(self, field: int) -> Any:
        try:
            return self._store(field)[field]
        except KeyError:
            raise FieldMissing(f"no field {int(field):#010x}") from None

    @overload
    def get(self, field: Field[T]) -> T | None: ...
    @overload
    def get(self, field: Field[T], default: D) -> T | D: ...
    @overload
    def get(self, field: int, default: Any = None) -> Any: ...
    def get(self, field: int, default: Any = None) -> Any:
        return self._store(field).get(field, default)

    def nested(self, field: int) -> Message:
        """The message in a message field; DecodeError if it is none, an empty one if the field is absent."""
        data: bytes | None = self.get(field)
        return Message() if data is None else Message.decode(data)

    @overload
    def __setitem__(self, field: Field[T], value: T) -> None: ...
    @overload
    def __setitem__(self, field: int, value: object) -> None: ...
    def __setitem__(self, field: int, value: object) -> None:
        kind = _checked(field)
        field = int(field)
        if kind >= _BOOLS:
            self._arrays[field] = _elements(kind & 15, value)
            return
        checked = _single(kind, value)
        if kind == _U32:
            self._put_u32(field, checked)
        elif kind == _BOOL:
            self._put_bool(field, checked)
        else:
            self._fields[field] = checked

    def __delitem__(self, field: int) -> None:
        """Removes a field; FieldMissing if it is not there."""
        store = self._store(field)
        if field not in store:
            raise FieldMissing(f"no field {int(field):#010x}")
        if store is self._u32s:
            if self._u32_slots is None:
                self._u32_slots = SlotTable(store)
            self._u32_slots.remove(field)
        elif store is self._bools:
            if self._bool_slots is None:
                self._bool_slots = SlotTable(store)
            self._bool_slots.remove(field)
        del store[field]

    def discard(self, field: int) -> None:
        """Removes a field if it is there."""
        if field in self:
            del self[field]

    def __contains__(self, field: object) -> bool:
        return isinstance(field, int) and field in self._store(field)

    def __len__(self) -> int:
        return len(self._bools) + len(self._u32s) + len(self._fields) + len(self._arrays)

    def __iter__(self) -> Iterator[int]:
        """The ids in the order in which they are written."""
        yield from self._order(self._bools, self._bool_slots)
        yield from self._order(self._u32s, self._u32_slots)
        yield from reversed(self._fields)
        yield from reversed(self._arrays)

    def items(self) -> Iterator[tuple[int, Any]]:
        for field in self:
            yield field, self._store(field)[field]

    def update(self, other: Message) -> None:
        """Takes over every field of `other`, whose values win."""
        for field, value in other.items():
            self[field] = value

    def copy(self) -> Message:
        """A message with the same fields and the same bytes."""
        other = Message()
        other._bools = dict(self._bools)
        other._u32s = dict(self._u32s)
        other._fields = dict(self._fields)
        other._arrays = {field: list(value) for field, value in self._arrays.items()}
        other._bool_slots = self._bool_slots.copy() if self._bool_slots else None
        other._u32_slots = self._u32_slots.copy() if self._u32_slots else None
        other.kept = self.kept
        return other

    def __eq__(self, other: object) -> bool:
        if not isinstance(other, Message):
            return NotImplemented
        return (
            self._bools == other._bools
            and self._u32s == other._u32s
            and self._fields == other._fields
            and self._arrays == other._arrays
        )

    __hash__ = None  # type: ignore[assignment]

    def __repr__(self) -> str:
        return "Message({" + ", ".join(f"{field:#010x}: {value!r}" for field, value in self.items()) + "})"

    def _store(self, field: int) -> dict[int, Any]:
        kind = field >> 27
        if kind == _U32:
            return self._u32s
        if kind == _BOOL:
            return self._bools
        return self._arrays if kind >= _BOOLS else self._fields

    def _put_u32(self, field: int, value: int) -> None:
        table = self._u32s
        if self._u32_slots is None and len(table) in FULL_COUNTS and field in table:
            self._u32_slots = SlotTable(table)
        if self._u32_slots is not None:
            self._u32_slots.insert(field, field in table)
        table[field] = value

    def _put_bool(self, field: int, value: bool) -> None:
        table = self._bools
        if self._bool_slots is None and len(table) in FULL_COUNTS and field in table:
            self._bool_slots = SlotTable(table)
        if self._bool_slots is not None:
            self._bool_slots.insert(field, field in table)
        table[field] = value

    @staticmethod
    def _order(table: dict[int, Any], slots: SlotTable | None) -> Iterable[int]:
        if slots is None:
            return slot_order(tuple(table))
        return slots

    # Writing

    def encode(self) -> bytes:
        """"M2" and the records of all fields."""
        out = [MAGIC]
        add = out.append
        if self._bools:
            for field in self._order(self._bools, self._bool_slots):
                add(_WORD.pack(field | FLAG if self._bools[field] else field))
        table = self._u32s
        if table:
            for field in self._order(table, self._u32_slots):
                number = table[field]
                add(_WORD_BYTE.pack(field | FLAG, number) if number < 256 else _WORD_WORD.pack(field, number))
        for field, value in reversed(self._fields.items()):
            kind = field >> 27
            if kind == _U64:
                add(_WORD_LONG.pack(field, value))
            elif kind == _ADDR6:
                add(_WORD.pack(field))
                add(value)
            else:
                data = value.encode("utf-8", "surrogateescape") if kind == _STRING else value
                length = len(data)
                add(_WORD_BYTE.pack(field | FLAG, length) if length < 256 else _WORD_SHORT.pack(field, length))
                add(data)
        for field, values in reversed(self._arrays.items()):
            kind = field >> 27
            count = len(values)
            add(_WORD_SHORT.pack(field, count))
            if kind == _U32S:
                add(struct.pack(f"<{count}I", *values))
            elif kind == _BOOLS:
                add(bytes(values))
            elif kind == _U64S:
                add(struct.pack(f"<{count}Q", *values))
            elif kind == _ADDR6S:
                out.extend(values)
            else:
                for value in values:
                    data = value.encode("utf-8", "surrogateescape") if kind == _STRINGS else value
                    add(_SHORT.pack(len(data)))
                    add(data)
        return b"".join(out)

    # Reading

    @classmethod
    def decode(cls, data: Buffer, mode: Mode = Mode.NORMAL) -> Message:
        """The message that the bytes hold."""
        message = cls()
        message.read(data, mode)
        return message

    def read(self, data: Buffer, mode: Mode = Mode.NORMAL) -> None:
        """Adds the fields that the bytes hold.  On a DecodeError the fields before the fault were added."""
        try:
            self._read(bytes(data), mode)
        except _Fault as fault:
            raise DecodeError(fault.reason, fault.offset, self) from None

    def _read(self, data: bytes, mode: Mode) -> None:
        if mode == Mode.BARE:
            self._read_records(data, 0)
            self.kept = None
            return
        if len(data) < 2:
            raise _Fault("no room for a magic", 0)
        if data[:2] != MAGIC:
            if data[1]:
                raise _Fault("no magic", 0)
            self._read_older(data)
        elif mode == Mode.KEEP_MARKED:
            self._read_unmarked(data)
        else:
            self._read_records(data, 2)
            self.kept = None

    def _read_records(self, data: bytes, at: int, only_one: bool = False) -> int:
        end = len(data)
        u32s = self._u32s
        word_at = _WORD.unpack_from
        while at + 4 <= end:
            start = at
            (word,) = word_at(data, at)
            at += 4
            field = word & ~FLAG
            kind = field >> 27
            if kind == _U32:
                if word & FLAG:
                    if at >= end:
                        raise _Fault("a u32 without its byte", start)
                    value = data[at]
                    at += 1
                else:
                    if at + 4 > end:
                        raise _Fault("a u32 that is cut off", start)
                    (value,) = word_at(data, at)
                    at += 4
                if field in u32s or self._u32_slots is not None:
                    self._put_u32(field, value)
                else:
                    u32s[field] = value
            elif kind == _BOOL:
                self._put_bool(field, bool(word & FLAG))
            elif kind >= _BOOLS:
                at = self._read_array(data, field, start)
            elif kind in (_STRING, _MESSAGE, _RAW):
                if word & FLAG:
                    if at >= end:
                        raise _Fault("a length that is cut off", start)
                    stop = at + 1 + data[at]
                    at += 1
                else:
                    if at + 2 > end:
                        raise _Fault("a length that is cut off", start)
                    stop = at + 2 + (data[at] | data[at + 1] << 8)
                    at += 2
                if stop > end:
                    raise _Fault("a value that is cut off", start)
                self._fields[field] = _text(data[at:stop]) if kind == _STRING else data[at:stop]
                at = stop
            elif kind in (_U64, _ADDR6):
                size = 8 if kind == _U64 else 16
                if at + size > end:
                    raise _Fault("a value that is cut off", start)
                self._fields[field] = _LONG.unpack_from(data, at)[0] if kind == _U64 else data[at : at + 16]
                at += size
            else:
                raise _Fault("an unknown type", start)
            if only_one:
                return at
        if at != end:
            raise _Fault("a record that is cut off", at)
        return at

    def _read_array(self, data: bytes, field: int, start: int) -> int:
        kind = field >> 27
        end = len(data)
        at = start + 6
        if kind not in _KINDS:
            raise _Fault("an unknown type", start)
        if at > end:
            raise _Fault("a count that is cut off", start)
        (count,) = _SHORT.unpack_from(data, start + 4)
        values: list[Any] = []
        if kind >= _STRINGS:
            self._arrays[field] = values
            for _ in range(count):
                if at + 2 > end:
                    raise _Fault("a length that is cut off", start)
                stop = at + 2 + (data[at] | data[at + 1] << 8)
                if stop > end:
                    raise _Fault("an element that is cut off", start)
                element = data[at + 2 : stop]
                values.append(_text(element) if kind == _STRINGS else element)
                at = stop
            return at
        self._arrays[field] = values
        stop = at + count * (1, 4, 8, 16)[kind - _BOOLS]
        if stop > end:
            raise _Fault("an array that is cut off", start)
        if kind == _U32S:
            values.extend(struct.unpack_from(f"<{count}I", data, at))
        elif kind == _BOOLS:
            values.extend(map(bool, data[at:stop]))
        elif kind == _U64S:
            values.extend(struct.unpack_from(f"<{count}Q", data, at))
        else:
            values.extend(data[place : place + 16] for place in range(at, stop, 16))
        return stop

    # Records whose id has bit 25 go to `kept` as they stand.  Of a u64, an address, an array of addresses and a type
    # that nobody knows only the id does, and the value is read as the next record: such ids must not be marked.
    def _read_unmarked(self, data: bytes) -> None:
        end = len(data)
        at = 2
        kept = bytearray()
        while at + 4 <= end:
            (word,) = _WORD.unpack_from(data, at)
            if word & MARK:
                stop = self._end_of_marked(data, at, word)
                kept += data[at:stop]
                at = stop
            else:
                at = self._read_records(data, at, only_one=True)
        self.kept = bytes(kept)
        if at != end:
            raise _Fault("a record that is cut off", at)

    @staticmethod
    def _end_of_marked(data: bytes, at: int, word: int) -> int:
        kind = (word & ~FLAG) >> 27
        if kind in (_U64, _ADDR6, _ADDR6S) or kind not in _KINDS:
            return at + 4
        # A message that nobody sees reads the record to find its end.
        return Message()._read_records(data, at, only_one=True)

    def _read_older(self, data: bytes) -> None:
        end = len(data)
        (records,) = _SHORT.unpack_from(data)
        at = 2
        for _ in range(records):
            start = at
            if at + 9 > end:
                raise _Fault("a header that is cut off", start)
            kind, number, space, count = _HEADER.unpack_from(data, at)
            at += 9
            if not 1 <= kind <= 5:
                raise _Fault("an unknown type", start)
            field = _SPACES.get(space & 15, 0) | number
            if count == 1:
                at = self._read_older_single(data, start, kind, field)
            else:
                at = self._read_older_array(data, start, kind, field | ARRAY, count)

    def _read_older_single(self, data: bytes, start: int, kind: int, field: int) -> int:
        at = start + 9
        if kind <= 2:
            size = 1 if kind == 1 else 4
            if at + size > len(data):
                raise _Fault("a value that is cut off", start)
            if kind == 1:
                self._put_bool(field, data[at] != 0)
            else:
                self._put_u32(field | 0x08000000, _WORD.unpack_from(data, at)[0])
            return at + size
        value, at = self._older_element(data, at, start)
        if kind == 3:
            self._fields[field | 0x20000000] = _text(value[:-1])
        else:
            self._fields[field | (0x30000000 if kind == 4 else 0x28000000)] = value
        return at

    def _read_older_array(self, data: bytes, start: int, kind: int, field: int, count: int) -> int:
        at = start + 9
        field |= (0, 0x08000000, 0x20000000, 0x30000000, 0x28000000)[kind - 1]
        values = self._arrays.setdefault(field, [])
        if kind <= 2:
            size = 1 if kind == 1 else 4
            there = min(count, (len(data) - at) // size)
            stop = at + there * size
            values.extend(map(bool, data[at:stop]) if kind == 1 else struct.unpack_from(f"<{there}I", data, at))
            if there < count:
                raise _Fault("an array that is cut off", start)
            return stop
        for _ in range(count):
            value, at = self._older_element(data, at, start)
            values.append(_text(value) if kind == 3 else value)
        return at

    @staticmethod
    def _older_element(data: bytes, at: int, start: int) -> tuple[bytes, int]:
        if at + 2 > len(data):
            raise _Fault("a length that is cut off", start)
        stop = at + 2 + (data[at] | data[at + 1] << 8)
        if stop > len(data):
            raise _Fault("a value that is cut off", start)
        return data[at + 2 : stop], stop

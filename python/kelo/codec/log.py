"""The records of the log socket (docs/log.md)."""

from __future__ import annotations

import struct
from collections.abc import Callable, Sequence
from dataclasses import dataclass
from typing import Generic, TypeVar, Union

from kelo.codec.message import Buffer
from kelo.errors import LogRecordError

MAX_TEXT = 65531
_MAX_TOPICS = (0xFFFF - 8) // 2
_MUTE_BYTES = 6

_SHORT = struct.Struct(">H")
_PAIR = struct.Struct(">HH")
_REGISTRATION = struct.Struct(">HHHH")
_MUTE = struct.Struct(">HHH")

R = TypeVar("R")


@dataclass(frozen=True)
class Registration:
    """A source, and the topics under which it logs."""

    source: int
    topics: tuple[int, ...]

    def encode(self) -> bytes:
        _check_source(self.source)
        if len(self.topics) > _MAX_TOPICS or not all(0 <= topic <= 0xFFFF for topic in self.topics):
            raise LogRecordError("topics that do not fit into a record")
        count = len(self.topics)
        return _REGISTRATION.pack(8 + 2 * count, 0, 0, self.source) + struct.pack(f">{count}H", *self.topics)


@dataclass(frozen=True)
class Line:
    """One line of a source."""

    source: int
    text: bytes

    def encode(self) -> bytes:
        _check_source(self.source)
        if len(self.text) > MAX_TEXT:
            raise LogRecordError(f"a line of {len(self.text)} bytes; 65,531 fit")
        return _PAIR.pack(4 + len(self.text), self.source) + self.text


@dataclass(frozen=True)
class Mute:
    """Whether the service wants the lines of a source."""

    source: int
    muted: bool

    def encode(self) -> bytes:
        _check_source(self.source)
        return _MUTE.pack(_MUTE_BYTES, self.source, self.muted)


def _check_source(source: int) -> None:
    if not 1 <= source <= 0xFFFF:
        raise LogRecordError(f"{source} is no number of a source")


class _Reader(Generic[R]):
    def __init__(self, parse: Callable[[bytes], R]) -> None:
        self._parse = parse
        self._pending = bytearray()

    def feed(self, data: Buffer) -> list[R]:
        """The records that are whole now; after a LogRecordError nothing can be read any more."""
        pending = self._pending
        pending += data
        records = []
        at = 0
        while len(pending) - at >= 2:
            (length,) = _SHORT.unpack_from(pending, at)
            if length < 4:
                raise LogRecordError(f"a record of {length} bytes")
            if len(pending) - at < length:
                break
            records.append(self._parse(bytes(pending[at : at + length])))
            at += length
        del pending[:at]
        return records


def _sent_by_process(record: bytes) -> Union[Registration, Line]:
    _, source = _PAIR.unpack_from(record)
    if source:
        return Line(source, record[4:])
    if len(record) < 8 or len(record) % 2:
        raise LogRecordError("a registration that is cut off")
    _, _, what, source, *topics = struct.unpack(f">{len(record) // 2}H", record)
    if what or not source:
        raise LogRecordError("a control record that is no registration")
    return Registration(source, tuple(topics))


def _sent_by_service(record: bytes) -> Mute:
    if len(record) != _MUTE_BYTES:
        raise LogRecordError(f"a mute record of {len(record)} bytes")
    _, source, muted = _MUTE.unpack(record)
    return Mute(source, muted != 0)


class ServiceReader(_Reader[Union[Registration, Line]]):
    """Reads what a process sends to the log service."""

    def __init__(self) -> None:
        super().__init__(_sent_by_process)


class ProcessReader(_Reader[Mute]):
    """Reads what the log service sends to a process."""

    def __init__(self) -> None:
        super().__init__(_sent_by_service)


def registration(source: int, topics: Sequence[int]) -> bytes:
    return Registration(source, tuple(topics)).encode()


def line(source: int, text: str | bytes) -> bytes:
    return Line(source, text.encode("utf-8", "surrogateescape") if isinstance(text, str) else text).encode()

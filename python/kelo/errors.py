"""What goes wrong, as exceptions.  Everything that this package raises of its own is a KeloError."""

from __future__ import annotations

from typing import TYPE_CHECKING

if TYPE_CHECKING:
    from kelo.codec.message import Message


class KeloError(Exception):
    """The base of all exceptions of this package."""


class CodecError(KeloError, ValueError):
    """Bytes that cannot be read, or values that cannot be written."""


class FieldError(CodecError):
    """A field id without a type, or a value that its type cannot hold."""


class FieldMissing(KeloError, KeyError):
    """A message has no such field."""

    def __str__(self) -> str:
        return str(self.args[0]) if self.args else "no such field"


class DecodeError(CodecError):
    """Bytes that are no message.  `message` holds the fields that were read before the fault at byte `offset`."""

    def __init__(self, reason: str, offset: int, message: Message) -> None:
        super().__init__(f"{reason} at byte {offset}")
        self.reason = reason
        self.offset = offset
        self.message = message


class FrameError(CodecError):
    """A frame whose length the carrier does not allow."""


class LogRecordError(CodecError):
    """Bytes that are no record of the log socket."""


class StoreError(KeloError):
    """The files of a store cannot be read."""

"""Failures, as exceptions.  Everything that this package raises of its own is a KeloError."""

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


class Disconnected(KeloError):
    """There is no loader, it did not confirm the registration, or it went away."""


class RootError(KeloError):
    """The variable KL_ROOT names a folder that is not taken."""


class PathError(KeloError, ValueError):
    """A path, a field or a command that cannot be understood, or a service that nobody knows."""


_WORDS = {
    0: "no error",
    1: "unknown error",
    2: "broken path",
    3: "not implemented",
    4: "unknown id",
    5: "missing fields",
    6: "failed",
    7: "already exists",
    8: "???",
    9: "not allowed",
    10: "message too big",
    11: "unknown next id",
    12: "busy",
    13: "timeout",
}
_SPACES = {0x00: "global", 0xFD: "local", 0xFE: "std", 0xFF: "sys"}


def describe(code: int, text: str = "") -> str:
    """The words of klctl about an error: "std failure: timeout (13)", or the text with the number behind it."""
    space, number = code >> 16 & 0xFF, code & 0xFFFF
    if text:
        return f"{text} ({number})"
    prefix = f"{_SPACES.get(space, 'undefined')} failure:"
    if space == 0xFE and number in _WORDS:
        return f"{prefix} {_WORDS[number]} ({number})"
    return f"{prefix} {number}"


class ServiceError(KeloError):
    """An error that a service, or the loader in its place, answered with.

    The errors of the standard name space are classes of their own; a handler of a service raises them to refuse.
    """

    code = 0xFE0001
    name = "ERROR_UNKNOWN"

    def __init__(self, text: str = "", code: int | None = None) -> None:
        super().__init__(text)
        self.text = text
        if code is not None:
            self.code = code
            self.name = f"{code:#x}" if code != type(self).code else type(self).name

    def __str__(self) -> str:
        return describe(self.code, self.text)


class BrokenPath(ServiceError):
    """There is no such service or handler, or it ended with the request in its hands."""

    code, name = 0xFE0002, "ERROR_BRKPATH"


class NotImplementedByService(ServiceError):
    code, name = 0xFE0003, "ERROR_NOTIMP"


class UnknownId(ServiceError):
    code, name = 0xFE0004, "ERROR_UNKNOWNID"


class MissingFields(ServiceError):
    code, name = 0xFE0005, "ERROR_MISSING"


class Failed(ServiceError):
    code, name = 0xFE0006, "ERROR_FAILED"


class AlreadyExists(ServiceError):
    code, name = 0xFE0007, "ERROR_EXISTS"


class NotAllowed(ServiceError):
    code, name = 0xFE0009, "ERROR_NOTALLOWED"


class TooBig(ServiceError):
    code, name = 0xFE000A, "ERROR_TOOBIG"


class UnknownNextId(ServiceError):
    code, name = 0xFE000B, "ERROR_UNKNOWNNEXTID"


class Busy(ServiceError):
    """The queue of the service is full: it does not read; or it says so itself."""

    code, name = 0xFE000C, "ERROR_BUSY"


class Timeout(ServiceError):
    """No reply came in time."""

    code, name = 0xFE000D, "ERROR_TIMEOUT"


_CLASSES: dict[int, type[ServiceError]] = {each.code: each for each in ServiceError.__subclasses__()}


def service_error(code: int, text: str = "") -> ServiceError:
    """The exception for an error code."""
    if code in _CLASSES:
        return _CLASSES[code](text)
    return ServiceError(text, code)

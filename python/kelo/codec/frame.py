"""Frames: how messages follow each other on the loader's socket (docs/protocol.md)."""

from __future__ import annotations

from kelo.codec.message import Buffer, Message
from kelo.errors import FrameError

MAX_SENT_BODY = 0xFFFF
# The loader's additions on the way come on top; nobody knows how much that is, so there is room for plenty.
MAX_BODY = 1024 * 1024
_HEAD = 4


def frame(message: Message | Buffer) -> bytes:
    """One message with its length in front; FrameError if it is longer than a process may send."""
    body = message.encode() if isinstance(message, Message) else bytes(message)
    if len(body) > MAX_SENT_BODY:
        raise FrameError(f"a message of {len(body)} bytes; 65,535 fit into a frame")
    return len(body).to_bytes(_HEAD, "little") + body


class FrameReader:
    """Cuts what arrives into the bodies of frames, whatever pieces it comes in.

    After a FrameError nothing can be read any more: nobody knows where the next frame begins.
    """

    def __init__(self, limit: int = MAX_BODY) -> None:
        self._limit = limit
        self._pending = bytearray()

    def feed(self, data: Buffer) -> list[bytes]:
        """The bodies that are whole now."""
        pending = self._pending
        pending += data
        bodies = []
        at = 0
        while len(pending) - at >= _HEAD:
            length = int.from_bytes(pending[at : at + _HEAD], "little")
            if length > self._limit:
                raise FrameError(f"a frame of {length} bytes")
            if len(pending) - at - _HEAD < length:
                break
            at += _HEAD
            bodies.append(bytes(pending[at : at + length]))
            at += length
        del pending[:at]
        return bodies

    @property
    def is_inside(self) -> bool:
        """Whether a frame has begun and is not whole."""
        return bool(self._pending)

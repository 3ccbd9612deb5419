"""The bytes of messages, frames, log records and stores, without any connection."""

from kelo.codec.frame import FrameReader, frame
from kelo.codec.message import Field, Kind, Message, Mode, Value, is_array, kind_of
from kelo.errors import CodecError, DecodeError, FieldError, FieldMissing, FrameError, LogRecordError, StoreError

__all__ = [
    "CodecError",
    "DecodeError",
    "Field",
    "FieldError",
    "FieldMissing",
    "FrameError",
    "FrameReader",
    "Kind",
    "LogRecordError",
    "Message",
    "Mode",
    "StoreError",
    "Value",
    "frame",
    "is_array",
    "kind_of",
]

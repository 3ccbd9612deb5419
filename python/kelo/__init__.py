"""Messages, clients and services of a Kelo system, in plain Python.

    import asyncio, kelo

    async def main():
        async with kelo.connect() as bus:
            for link in await bus.get_all("netif"):
                print(link.name, link.mtu)

    asyncio.run(main())

`kelo.codec` has the bytes, `kelo.bus` the client, `kelo.blocking` the same without asyncio, `kelo.service` what
answers.  What needs an event loop is imported when it is first used.
"""

from __future__ import annotations

from typing import TYPE_CHECKING, Any

from kelo.codec.message import Field, Message
from kelo.errors import (
    AlreadyExists,
    BrokenPath,
    Busy,
    CodecError,
    DecodeError,
    Disconnected,
    Failed,
    FieldError,
    FieldMissing,
    KeloError,
    MissingFields,
    NotAllowed,
    NotImplementedByService,
    PathError,
    RootError,
    ServiceError,
    Timeout,
    TooBig,
    UnknownId,
    UnknownNextId,
)

if TYPE_CHECKING:
    from kelo.bus import Bus, connect
    from kelo.names import Object
    from kelo.service import Handler, Service, Table, serve
    from kelo.watch import Change, Watch

_LATER = {
    "Bus": "kelo.bus",
    "Change": "kelo.watch",
    "Handler": "kelo.service",
    "Object": "kelo.names",
    "Service": "kelo.service",
    "Table": "kelo.service",
    "Watch": "kelo.watch",
    "connect": "kelo.bus",
    "serve": "kelo.service",
}

__all__ = [
    "AlreadyExists",
    "BrokenPath",
    "Bus",
    "Busy",
    "Change",
    "CodecError",
    "DecodeError",
    "Disconnected",
    "Failed",
    "Field",
    "FieldError",
    "FieldMissing",
    "Handler",
    "KeloError",
    "Message",
    "MissingFields",
    "NotAllowed",
    "NotImplementedByService",
    "Object",
    "PathError",
    "RootError",
    "Service",
    "ServiceError",
    "Table",
    "Timeout",
    "TooBig",
    "UnknownId",
    "UnknownNextId",
    "Watch",
    "connect",
    "serve",
]


def __getattr__(name: str) -> Any:
    if name not in _LATER:
        raise AttributeError(f"module 'kelo' has no attribute '{name}'")
    from importlib import import_module

    return getattr(import_module(_LATER[name]), name)

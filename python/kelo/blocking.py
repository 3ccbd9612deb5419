"""The client without asyncio: every call returns when its answer is there.

    with kelo.blocking.connect() as bus:
        print(bus.get("netif", id=2).mtu)
        for change in bus.watch("netif"):
            print(change.kind.value, change.id)

A thread of its own runs the event loop, so what services tell is taken while nobody waits.  A bus may be used from
several threads.
"""

from __future__ import annotations

import asyncio
import threading
from collections.abc import Coroutine, Iterator, Sequence
from contextlib import AbstractAsyncContextManager, contextmanager
from pathlib import Path
from typing import Any, Generic, Protocol, TypeVar, Union

from kelo import ids
from kelo import bus as asynchronous
from kelo.bus import AnyPath, Fields, Following
from kelo.codec.message import Message
from kelo.names import Object
from kelo.process import TIMEOUT
from kelo.watch import Change, Watch

T = TypeVar("T")
C = TypeVar("C", covariant=True)


class _Source(Protocol[C]):
    async def __anext__(self) -> C: ...

    async def close(self) -> None: ...


class _Loop:
    """An event loop in a thread of its own."""

    def __init__(self) -> None:
        self._loop = asyncio.new_event_loop()
        self._thread = threading.Thread(target=self._loop.run_forever, name="kelo", daemon=True)
        self._thread.start()

    def wait_for(self, coroutine: Coroutine[Any, Any, T]) -> T:
        future = asyncio.run_coroutine_threadsafe(coroutine, self._loop)
        try:
            return future.result()
        except BaseException:
            # Interrupted while it waited: nobody wants the answer any more.
            future.cancel()
            raise

    def end(self) -> None:
        self._loop.call_soon_threadsafe(self._loop.stop)
        self._thread.join()
        self._loop.close()


class Stream(Generic[T]):
    """The items that come, one after the other: `for each in stream`."""

    def __init__(self, loop: _Loop, source: _Source[T]) -> None:
        self._loop = loop
        self._source = source

    def __iter__(self) -> Stream[T]:
        return self

    def __next__(self) -> T:
        try:
            return self._loop.wait_for(self._next())
        except _Ended:
            raise StopIteration from None

    async def _next(self) -> T:
        try:
            return await self._source.__anext__()
        except StopAsyncIteration:
            raise _Ended from None

    def __enter__(self) -> Stream[T]:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        self._loop.wait_for(self._source.close())


class _Ended(Exception):
    pass


class Bus:
    """As `kelo.bus.Bus`, whose operations say what each of these does."""

    def __init__(self, loop: _Loop, bus: asynchronous.Bus) -> None:
        self._loop = loop
        self._bus = bus

    @property
    def id(self) -> int:
        return self._bus.id

    def get(self, path: AnyPath, fields: Fields = None, /, *, id: int | None = None, **named: Any) -> Object:
        return self._loop.wait_for(self._bus.get(path, fields, id=id, **named))

    def set(self, path: AnyPath, fields: Fields = None, /, *, id: int | None = None, **named: Any) -> Object:
        return self._loop.wait_for(self._bus.set(path, fields, id=id, **named))

    def add(self, path: AnyPath, fields: Fields = None, /, *, id: int | None = None, **named: Any) -> Object:
        return self._loop.wait_for(self._bus.add(path, fields, id=id, **named))

    def remove(self, path: AnyPath, fields: Fields = None, /, *, id: int | None = None, **named: Any) -> Object:
        return self._loop.wait_for(self._bus.remove(path, fields, id=id, **named))

    def reset(self, path: AnyPath, fields: Fields = None, /, **named: Any) -> Object:
        return self._loop.wait_for(self._bus.reset(path, fields, **named))

    def count(self, path: AnyPath, fields: Fields = None, /, **named: Any) -> int:
        return self._loop.wait_for(self._bus.count(path, fields, **named))

    def send(
        self,
        path: AnyPath,
        command: Union[str, int] = ids.CMD_NOOP,
        fields: Fields = None,
        /,
        *,
        id: int | None = None,
        reply: bool = True,
        **named: Any,
    ) -> Object:
        return self._loop.wait_for(self._bus.send(path, command, fields, id=id, reply=reply, **named))

    def get_all(self, path: AnyPath, fields: Fields = None, /, **named: Any) -> list[Object]:
        return self._loop.wait_for(self._bus.get_all(path, fields, **named))

    def watch(self, path: AnyPath, fields: Fields = None, /, **named: Any) -> Stream[Change]:
        return Stream(self._loop, self._loop.wait_for(_begun(self._bus.watch(path, fields, **named))))

    def subscribe(
        self,
        path: AnyPath,
        command: Union[str, int] = ids.CMD_NOTIFY,
        fields: Fields = None,
        /,
        *,
        limit: int = 1000,
        **named: Any,
    ) -> Stream[Message]:
        subscription = self._bus.subscribe(path, command, fields, limit=limit, **named)
        return Stream(self._loop, self._loop.wait_for(subscription))

    def services(self) -> list[Object]:
        return self._loop.wait_for(self._bus.services())

    def start(self, service: str | int) -> None:
        self._loop.wait_for(self._bus.start(service))

    def stop(self, service: str | int) -> None:
        self._loop.wait_for(self._bus.stop(service))

    def restart(self, service: str | int) -> None:
        self._loop.wait_for(self._bus.restart(service))

    def leave(self, service: str | int) -> None:
        self._loop.wait_for(self._bus.leave(service))

    def undo_records(self) -> list[Object]:
        return self._loop.wait_for(self._bus.undo_records())

    def undo(self, id: int) -> None:
        self._loop.wait_for(self._bus.undo(id))

    def log(self, fields: Fields = None, /, **named: Any) -> list[Object]:
        return self._loop.wait_for(self._bus.log(fields, **named))

    def follow_log(self, fields: Fields = None, /, **named: Any) -> Stream[Change]:
        return Stream(self._loop, self._loop.wait_for(_begun(self._bus.follow_log(fields, **named))))

    def mute(self, topic: int, muted: bool = True) -> None:
        self._loop.wait_for(self._bus.mute(topic, muted))


async def _begun(following: Following) -> Watch:
    return await following.__aenter__()


@contextmanager
def connect(
    path: str | None = None,
    *,
    service: int = 0,
    timeout: float | None = TIMEOUT,
    fields: Sequence[str | Path] | None = None,
) -> Iterator[Bus]:
    """A connection to the loader, as `kelo.connect` makes it."""
    loop = _Loop()
    connection = asynchronous.connect(path, service=service, timeout=timeout, fields=fields)
    try:
        bus = loop.wait_for(_entered(connection))
        try:
            yield Bus(loop, bus)
        finally:
            loop.wait_for(_left(connection))
    finally:
        loop.end()


async def _entered(connection: AbstractAsyncContextManager[asynchronous.Bus]) -> asynchronous.Bus:
    return await connection.__aenter__()


async def _left(connection: AbstractAsyncContextManager[asynchronous.Bus]) -> None:
    await connection.__aexit__(None, None, None)

"""Following the table of a service, whatever happens to the service.

    idle --watch--> fetching --last chunk--> following
                       |   ^                     |
                    error  delay         error, its process ended
                       v   |                     |
                      waiting <------------------'

The subscription goes out before the first request, and what a service sends arrives in order.  So whatever changes
while the table is fetched is told by a notification that comes after the chunk with the old state, and the last word
about each object is the right one.

W1  an id that was told is in known or in stale, never in both
W2  stale is what a complete fetch did not confirm, and empty while following
W3  at most one change of each object and two of the table wait for whoever reads the changes, who may take his time
"""

from __future__ import annotations

import asyncio
import enum
from collections.abc import AsyncIterator
from dataclasses import dataclass
from typing import Optional

from kelo import ids
from kelo.codec.message import Message
from kelo.errors import CodecError, Disconnected, Failed, KeloError, ServiceError
from kelo.names import Dictionary, Object
from kelo.process import Process, error_of

FIRST_DELAY = 0.05
LONGEST_DELAY = 1.0
FETCH_TIMEOUT = 60.0


class Kind(enum.Enum):
    CHANGED = "changed"  # an object is new, has changed, or is the same as before
    REMOVED = "removed"  # one that was told before is gone
    COMPLETE = "complete"  # the whole table was told, also after each time it was lost
    LOST = "lost"  # the service ended or failed: what is known may be old


@dataclass(frozen=True)
class Change:
    kind: Kind
    id: int = ids.BADID
    object: Optional[Object] = None  # of CHANGED
    reason: Optional[ServiceError] = None  # of LOST; None if its process ended

    @property
    def is_changed(self) -> bool:
        return self.kind is Kind.CHANGED

    @property
    def is_removed(self) -> bool:
        return self.kind is Kind.REMOVED

    @property
    def is_complete(self) -> bool:
        return self.kind is Kind.COMPLETE

    @property
    def is_lost(self) -> bool:
        return self.kind is Kind.LOST


async def walk(
    process: Process, path: list[int], extra: Message, timeout: float | None
) -> AsyncIterator[list[bytes]]:
    """The objects of a table, a chunk at a time."""
    request = extra.copy()
    while True:
        reply = await process.request(path, ids.CMD_GETALL, request, timeout)
        objects = reply.get(ids.STD_OBJS)
        if objects is None:
            raise Failed("the reply has no objects")
        yield objects
        following = reply.get(ids.STD_GETALLID)
        if following is None:
            return
        if following == request.get(ids.STD_GETALLID):
            raise Failed("the table does not go on")
        request[ids.STD_GETALLID] = following


class Watch:
    """The changes of one table: `async for change in watch`.  `table` is what was told, as far as it was read."""

    def __init__(self, process: Process, path: list[int], extra: Message, dictionary: Dictionary) -> None:
        self.table: dict[int, Object] = {}
        self.is_complete = False  # is everything known that the service has told?
        self._process = process
        self._path = path
        self._extra = extra
        self._dictionary = dictionary
        self._number = process.add(self)
        self._known: set[int] = set()
        self._stale: set[int] = set()
        self._lost = False
        self._broken: asyncio.Future[Optional[ServiceError]] = asyncio.get_running_loop().create_future()
        # The news that wait to be read, in order: the objects by their ids, the table by a Change.
        self._waiting: dict[int | Change, Optional[Message]] = {}
        self._wake = asyncio.Event()
        self._failure: Optional[KeloError] = None
        self._closed = False
        self._task = asyncio.create_task(self._follow())

    # Reading

    def __aiter__(self) -> Watch:
        return self

    async def __anext__(self) -> Change:
        while True:
            while self._waiting:
                what = next(iter(self._waiting))
                message = self._waiting.pop(what)
                if isinstance(what, Change):
                    return what
                if message is not None:
                    self.table[what] = Object(message, self._dictionary)
                    return Change(Kind.CHANGED, what, self.table[what])
                if self.table.pop(what, None) is not None:
                    return Change(Kind.REMOVED, what)
            if self._failure is not None:
                raise self._failure
            if self._closed:
                raise StopAsyncIteration
            self._wake.clear()
            await self._wake.wait()

    async def __aenter__(self) -> Watch:
        return self

    async def __aexit__(self, *_: object) -> None:
        await self.close()

    async def close(self) -> None:
        """Ends the subscription; reading the changes ends, too."""
        if self._closed:
            return
        self._closed = True
        self._task.cancel()
        await asyncio.gather(self._task, return_exceptions=True)
        self._process.remove(self._number)
        if not self._process.is_ended:
            self._subscribe(ids.CMD_UNSUBSCRIBE)
        self._wake.set()

    # Following

    def _subscribe(self, command: int) -> None:
        message = self._extra.copy()
        message[ids.SYS_TO] = self._path
        message[ids.SYS_FROM] = [self._number]
        message[ids.SYS_CMD] = command
        message[ids.SYS_NOTIFYCMD] = ids.CMD_NOTIFY
        self._process.send(message)

    async def _follow(self) -> None:
        delay = FIRST_DELAY
        try:
            while True:
                self._stale |= self._known  # W1
                self._known.clear()
                self._broken = asyncio.get_running_loop().create_future()
                fetch = asyncio.create_task(self._fetch())
                try:
                    await asyncio.wait((fetch, self._broken), return_when=asyncio.FIRST_COMPLETED)
                    if not self._broken.done():
                        await fetch
                        delay = FIRST_DELAY
                        self._say_complete()
                    reason = await self._broken
                except ServiceError as error:
                    reason = error
                finally:
                    fetch.cancel()
                    await asyncio.gather(fetch, return_exceptions=True)
                self.is_complete = False
                if not self._lost:
                    self._lost = True
                    self._say(Change(Kind.LOST, reason=reason))
                await asyncio.sleep(delay)
                delay = min(2 * delay, LONGEST_DELAY)
        except KeloError as error:
            self._failure = error
            self._wake.set()

    async def _fetch(self) -> None:
        self._subscribe(ids.CMD_SUBSCRIBE)
        async for objects in walk(self._process, self._path, self._extra, FETCH_TIMEOUT):
            for each in objects:
                self._take(each)

    def _take(self, data: bytes) -> None:
        try:
            message = Message.decode(data)
        except CodecError as error:
            message = getattr(error, "message", Message())
        id = message.get(ids.STD_ID, ids.BADID)
        was_stale = id in self._stale
        self._stale.discard(id)
        if ids.STD_DEAD not in message:
            self._known.add(id)
            self._waiting[id] = message
        elif id in self._known or was_stale:
            self._known.discard(id)
            self._waiting[id] = None
        self._wake.set()

    def _say_complete(self) -> None:
        for id in sorted(self._stale):  # W2
            self._waiting[id] = None
        self._stale.clear()
        self._lost = False
        self.is_complete = True
        self._say(Change(Kind.COMPLETE))

    def _say(self, change: Change) -> None:
        tables = [what for what in self._waiting if isinstance(what, Change)]
        if len(tables) > 1 or change in tables:  # W3
            for what in tables:
                del self._waiting[what]
        self._waiting[change] = None
        self._wake.set()

    def _break(self, reason: Optional[ServiceError]) -> None:
        if not self._broken.done():
            self._broken.set_result(reason)

    # What arrives

    def _is_from_provider(self, message: Message) -> bool:
        return message.get(ids.SYS_FROM, [])[:1] == self._path[:1]

    def receive(self, message: Message) -> None:
        if not self._is_from_provider(message):
            return
        command = message.get(ids.SYS_CMD)
        if command == ids.CMD_NOTIFY:
            for each in message.get(ids.STD_OBJS, []):
                self._take(each)
        elif command is None and (error := error_of(message)) is not None:
            self._break(error)

    def disconnected(self, message: Message) -> None:
        if self._process.is_ended:
            self._failure = Disconnected("the loader has ended the connection")
            self._wake.set()
        elif self._is_from_provider(message):
            self._break(None)

"""The client: asks and tells the services of this machine.

    async with kelo.connect() as bus:
        link = await bus.get("netif", id=2)
        print(link.name, link.mtu)
        await bus.set("netif:2", descr="to the provider")
        async for change in bus.watch("netif"):
            print(change.kind.value, change.id, change.object)

A path is written as klctl takes it ("netif", "netif/0", "24/0:7") or is a list of numbers.  Fields are named as klctl
names them, in keywords or, where a name is no word of Python, in a mapping.  Errors of services are raised as
ServiceErrors; times are in seconds, None for no limit.
"""

from __future__ import annotations

import asyncio
from collections import deque
from collections.abc import AsyncIterator, Awaitable, Callable, Mapping, Sequence
from contextlib import asynccontextmanager
from pathlib import Path
from typing import Any, Optional, Union
from weakref import WeakSet

from kelo import ids
from kelo.codec.message import Message
from kelo.errors import CodecError, Disconnected, KeloError, PathError
from kelo.names import Dictionaries, Dictionary, Object, Target
from kelo.process import TIMEOUT, Process
from kelo.watch import Change, Watch, walk

AnyPath = Union[str, int, Sequence[int]]
Fields = Optional[Mapping[Any, Any]]

_FIRST_PICKED_ID = 0x10000  # ids from here on are picked by the loader and do not stay
_UNDO_TIMEOUT = 35.0  # the undo service waits for 30 s itself


class Subscription:
    """Notifications as they come: `async for message in subscription`.

    At most `limit` of them wait to be read; of more the oldest are thrown away and counted in `lost`.  Nothing says
    when the service has ended and forgotten its subscribers: `watch` takes care of that.
    """

    def __init__(self, process: Process, path: list[int], command: int, extra: Message, limit: int) -> None:
        self.lost = 0
        self._process = process
        self._path = path
        self._command = command
        self._extra = extra
        self._waiting: deque[Message] = deque(maxlen=limit)
        self._wake = asyncio.Event()
        self._closed = False
        self._number = process.add(self)
        self._subscribe(ids.CMD_SUBSCRIBE)

    def __aiter__(self) -> Subscription:
        return self

    async def __anext__(self) -> Message:
        while not self._waiting:
            if self._process.is_ended:
                raise Disconnected("the loader has ended the connection")
            if self._closed:
                raise StopAsyncIteration
            self._wake.clear()
            await self._wake.wait()
        return self._waiting.popleft()

    async def __aenter__(self) -> Subscription:
        return self

    async def __aexit__(self, *_: object) -> None:
        await self.close()

    async def close(self) -> None:
        if self._closed:
            return
        self._closed = True
        self._process.remove(self._number)
        if not self._process.is_ended:
            self._subscribe(ids.CMD_UNSUBSCRIBE)
        self._wake.set()

    def _subscribe(self, command: int) -> None:
        message = self._extra.copy()
        message[ids.SYS_TO] = self._path
        message[ids.SYS_FROM] = [self._number]
        message[ids.SYS_CMD] = command
        message[ids.SYS_NOTIFYCMD] = self._command
        self._process.send(message)

    def receive(self, message: Message) -> None:
        if message.get(ids.SYS_FROM, [])[:1] != self._path[:1] or message.get(ids.SYS_CMD) != self._command:
            return
        self.lost += len(self._waiting) == self._waiting.maxlen
        self._waiting.append(message)
        self._wake.set()

    def disconnected(self, message: Message) -> None:
        self._wake.set()


class Bus:
    """A connection to ask through.  Its requests carry the rights of the user who runs it."""

    def __init__(self, process: Process, dictionaries: Dictionaries, timeout: float | None = TIMEOUT) -> None:
        self.timeout = timeout
        self._process = process
        self._dictionaries = dictionaries
        self._names: dict[int, str] = {}
        # Those that are open are also held by the process or by their task.
        self._followers: WeakSet[Union[Watch, Subscription]] = WeakSet()

    @property
    def id(self) -> int:
        """The service id that the loader gave to this process."""
        return self._process.id

    @property
    def process(self) -> Process:
        return self._process

    async def close(self) -> None:
        """Ends what follows a service, and the connection."""
        for follower in list(self._followers):
            await follower.close()
        await self._process.flush()
        await self._process.close()

    # One object or setting

    async def get(self, path: AnyPath, fields: Fields = None, /, *, id: int | None = None, **named: Any) -> Object:
        """Reads settings (CMD_GET), or one object (CMD_GETOBJ) when there is an id."""
        return await self._ask(path, ids.CMD_GET, ids.CMD_GETOBJ, id, fields, named)

    async def set(self, path: AnyPath, fields: Fields = None, /, *, id: int | None = None, **named: Any) -> Object:
        """Changes settings (CMD_SET), or one object (CMD_SETOBJ) when there is an id."""
        return await self._ask(path, ids.CMD_SET, ids.CMD_SETOBJ, id, fields, named)

    async def add(self, path: AnyPath, fields: Fields = None, /, *, id: int | None = None, **named: Any) -> Object:
        """Adds an object (CMD_ADDOBJ)."""
        return await self._ask(path, ids.CMD_ADDOBJ, ids.CMD_ADDOBJ, id, fields, named)

    async def remove(self, path: AnyPath, fields: Fields = None, /, *, id: int | None = None, **named: Any) -> Object:
        """Removes an object (CMD_REMOVEOBJ)."""
        return await self._ask(path, ids.CMD_REMOVEOBJ, ids.CMD_REMOVEOBJ, id, fields, named)

    async def reset(self, path: AnyPath, fields: Fields = None, /, **named: Any) -> Object:
        """Resets settings (CMD_RESET)."""
        return await self._ask(path, ids.CMD_RESET, ids.CMD_RESET, None, fields, named)

    async def count(self, path: AnyPath, fields: Fields = None, /, **named: Any) -> int:
        """How many objects a table has (CMD_GETCOUNT)."""
        reply = await self._ask(path, ids.CMD_GETCOUNT, ids.CMD_GETCOUNT, None, fields, named)
        return reply.message.get(ids.STD_GETALLNO, 0)

    async def send(
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
        """Sends any command.  Without `reply` nobody answers, and what is returned is empty."""
        to, dictionary, message = await self._prepared(path, id, fields, named)
        code = dictionary.command_of(command, to[1:])
        if reply:
            return Object(await self._process.request(to, code, message, self.timeout), dictionary)
        message[ids.SYS_TO] = to
        message[ids.SYS_CMD] = code
        self._process.send(message)
        await self._process.flush()
        return Object(Message(), dictionary)

    # Tables

    async def chunks(self, path: AnyPath, fields: Fields = None, /, **named: Any) -> AsyncIterator[list[Object]]:
        """The objects of a table (CMD_GETALL), a reply of the service at a time."""
        to, dictionary, message = await self._prepared(path, None, fields, named)
        async for objects in walk(self._process, to, message, self.timeout):
            yield [_object(each, dictionary) for each in objects]

    async def get_all(self, path: AnyPath, fields: Fields = None, /, **named: Any) -> list[Object]:
        """A whole table."""
        return [each async for objects in self.chunks(path, fields, **named) for each in objects]

    def watch(self, path: AnyPath, fields: Fields = None, /, **named: Any) -> Following:
        """Follows a table through crashes and restarts of its service: all objects first, then every change."""

        async def begin() -> Watch:
            to, dictionary, message = await self._prepared(path, None, fields, named)
            return Watch(self._process, to, message, dictionary)

        return Following(self._followers, begin)

    async def subscribe(
        self,
        path: AnyPath,
        command: Union[str, int] = ids.CMD_NOTIFY,
        fields: Fields = None,
        /,
        *,
        limit: int = 1000,
        **named: Any,
    ) -> Subscription:
        """Notifications of one command, as they come."""
        to, dictionary, message = await self._prepared(path, None, fields, named)
        code = dictionary.command_of(command, to[1:])
        subscription = Subscription(self._process, to, code, message, limit)
        self._followers.add(subscription)
        await self._process.flush()
        return subscription

    # The services that come with the loader

    async def services(self) -> list[Object]:
        """The loader's table of its services."""
        return await self.get_all(ids.SERVICE_LOADER)

    async def start(self, service: str | int) -> None:
        await self._act(service, "start")

    async def stop(self, service: str | int) -> None:
        await self._act(service, "stop")

    async def restart(self, service: str | int) -> None:
        await self._act(service, "restart")

    async def leave(self, service: str | int) -> None:
        """Asks a service to leave; returns when it has left, raises Busy if it refused."""
        await self._act(service, "leave")

    async def undo_records(self) -> list[Object]:
        """The changes that services have reported, the newest first."""
        return await self.get_all(ids.SERVICE_UNDO)

    async def undo(self, id: int) -> None:
        """Undoes a change, or does it again when it is undone."""
        message = Message({ids.STD_ID: id})
        await self._process.request([ids.SERVICE_UNDO], ids.CMD_START, message, _UNDO_TIMEOUT)

    async def log(self, fields: Fields = None, /, **named: Any) -> list[Object]:
        """The lines that the log service has in memory: bus.log(process="netif", topics=[4])."""
        return await self.get_all(ids.SERVICE_LOG, fields, **named)

    def follow_log(self, fields: Fields = None, /, **named: Any) -> Following:
        """The same, and what comes."""
        return self.watch(ids.SERVICE_LOG, fields, **named)

    async def mute(self, topic: int, muted: bool = True) -> None:
        """Has no source written any more that has this topic, until the log service is started again."""
        message = Message({ids.STD_ID: topic, ids.LOG_MUTED: muted})
        await self._process.request([ids.SERVICE_LOG, ids.LOG_RULES], ids.CMD_SETOBJ, message, self.timeout)

    # Names

    async def dictionary(self, path: AnyPath) -> Dictionary:
        """The names of a service."""
        return (await self._resolve(path))[2]

    async def _act(self, service: str | int, action: str) -> None:
        number = (await self._resolve(service))[0][0]
        message = Message({ids.STD_ID: number, ids.SVC_ACTION: ids.SVC_ACTIONS[action]})
        await self._process.request([ids.SERVICE_LOADER], ids.CMD_SETOBJ, message, self.timeout)

    async def _ask(
        self, path: AnyPath, command: int, with_id: int, id: int | None, fields: Fields, named: Mapping[str, Any]
    ) -> Object:
        to, dictionary, message = await self._prepared(path, id, fields, named)
        code = with_id if ids.STD_ID in message else command
        return Object(await self._process.request(to, code, message, self.timeout), dictionary)

    async def _prepared(
        self, path: AnyPath, id: int | None, fields: Fields, named: Mapping[str, Any]
    ) -> tuple[list[int], Dictionary, Message]:
        to, in_path, dictionary = await self._resolve(path)
        message = dictionary.message({**(fields or {}), **named})
        if id is None:
            id = in_path
        if id is not None:
            message[ids.STD_ID] = id
        return to, dictionary, message

    async def _resolve(self, path: AnyPath) -> tuple[list[int], int | None, Dictionary]:
        target = Target.parse(path if isinstance(path, (str, int)) else tuple(path))
        service = target.service
        name: str | None
        if service in ("loader", ids.SERVICE_LOADER):
            number, name = ids.SERVICE_LOADER, "loader"
        elif isinstance(service, int):
            number, name = service, await self._name_of(service)
        else:
            number, name = await self._number_of(service), service
        dictionary = self._dictionaries.of(name)
        return [number, *dictionary.handlers_of(target.handlers)], target.id, dictionary

    async def _read_names(self) -> dict[int, str]:
        names = {}
        async for objects in walk(self._process, [ids.SERVICE_LOADER], Message(), self.timeout):
            for each in objects:
                message = Message.decode(each)
                names[message.get(ids.STD_ID, ids.BADID)] = message.get(ids.SVC_NAME, "")
        self._names = names
        return names

    async def _name_of(self, number: int) -> str | None:
        if number not in self._names:
            # A service without a name has no dictionary, and is served all the same.
            try:
                await self._read_names()
            except Disconnected:
                raise
            except KeloError:
                pass
        return self._names.get(number)

    async def _number_of(self, name: str) -> int:
        for number, known in self._names.items():
            if known == name and number < _FIRST_PICKED_ID:
                return number
        found = [number for number, known in (await self._read_names()).items() if known == name]
        if len(found) != 1:
            raise PathError(f"{'several services are' if found else 'no service is'} called '{name}'")
        return found[0]


class Following:
    """A watch that begins when it is first read: `async for`, or `async with` for one that ends with its block."""

    def __init__(self, followers: WeakSet[Union[Watch, Subscription]], begin: Callable[[], Awaitable[Watch]]) -> None:
        self._followers = followers
        self._begin = begin
        self._watch: Optional[Watch] = None

    async def __aenter__(self) -> Watch:
        if self._watch is None:
            self._watch = await self._begin()
            self._followers.add(self._watch)
        return self._watch

    async def __aexit__(self, *_: object) -> None:
        if self._watch is not None:
            await self._watch.close()
            self._watch = None

    async def __aiter__(self) -> AsyncIterator[Change]:
        async with self as watch:
            async for change in watch:
                yield change


def _object(data: bytes, dictionary: Dictionary) -> Object:
    try:
        return Object(Message.decode(data), dictionary)
    except CodecError as error:
        return Object(getattr(error, "message", Message()), dictionary)


@asynccontextmanager
async def connect(
    path: str | None = None,
    *,
    service: int = 0,
    timeout: float | None = TIMEOUT,
    fields: Sequence[str | Path] | None = None,
) -> AsyncIterator[Bus]:
    """A connection to the loader.  `fields`: the folders of dictionaries; `service`: an id to ask for."""
    dictionaries = Dictionaries(None if fields is None else [Path(folder) for folder in fields])
    process = await Process.connect(service, path=path)
    bus = Bus(process, dictionaries, timeout)
    process.run()
    try:
        yield bus
    finally:
        await bus.close()

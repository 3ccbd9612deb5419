"""Services: objects that others address, ask, change and follow.

    class Hello(kelo.Handler):
        text = "hello"

        def get(self, request):
            return {"descr": self.text}

        def set(self, request):
            if "descr" not in (asked := self.named(request)):
                raise kelo.MissingFields()
            self.text = asked.descr

    async def main():
        async with kelo.serve(34) as service:
            service.add(Hello(), 0)              # its path is [34, 0]
            await service.run()

What an operation returns is the body of the reply: a Message, a mapping of fields by name or id, or None for "done".
To refuse, it raises a ServiceError.  It may be a coroutine; other requests are answered meanwhile.

S1  a request is answered once, unless it has no number; then never
S2  a batch of changes goes out 200 ms after its first, or with its hundredth; whoever caused all of it is not told
S3  the process leaves only while no request is being answered
"""

from __future__ import annotations

import asyncio
import inspect
from bisect import bisect_left
from collections.abc import AsyncIterator, Awaitable, Mapping, Sequence
from contextlib import asynccontextmanager
from itertools import islice
from pathlib import Path
from typing import Any, ClassVar, Optional, Union

from kelo import ids
from kelo.bus import Bus
from kelo.codec.message import Message
from kelo.errors import CodecError, Failed, KeloError, NotAllowed, NotImplementedByService, ServiceError, UnknownId
from kelo.names import NO_DICTIONARY, Dictionaries, Dictionary, Object
from kelo.process import TIMEOUT, Process, error_message, error_of

Body = Union[Message, Object, Mapping[Any, Any], None]
Result = Union[Body, Awaitable[Body]]

READ, CHANGE, CONTROL, NOBODY = 64, 128, 512, 0x80000000
_RIGHTS = {
    ids.CMD_GETPOLICIES: READ,
    ids.CMD_NOOP: READ,
    ids.CMD_GETOBJ: READ,
    ids.CMD_GETALL: READ,
    ids.CMD_ADDOBJ: CHANGE,
    ids.CMD_SETOBJ: CHANGE,
    ids.CMD_REMOVEOBJ: CHANGE,
    ids.CMD_MOVEOBJ: CHANGE,
    ids.CMD_NOTIFY: NOBODY,
    ids.CMD_SUBSCRIBE: READ,
    ids.CMD_UNSUBSCRIBE: READ,
    ids.CMD_GET: READ,
    ids.CMD_SET: CHANGE,
    ids.CMD_RESET: CHANGE,
    ids.CMD_POLL: CONTROL,
    ids.CMD_START: CONTROL,
    ids.CMD_CANCEL: CONTROL,
    ids.CMD_GETCOUNT: READ,
}
_POLICY_BITS = 0x08000001
_POLICY_ALLOWED = 0x00000002
_SUBSCRIPTIONS = 0xA8000001  # in the data of a handler
_HANDLERS = 0xA8000001  # in the data of a process: an object for each handler, its STD_ID the number
_HANDLER_DATA = 0x28000002

BATCH_SECONDS = 0.2
BATCH_OBJECTS = 100
BATCH_BYTES = 16383
CHUNK_BYTES = 16384

_KEPT_SYSTEM_FIELDS = frozenset((ids.SYS_ERRSTR, ids.SYS_CTRL_ARG, ids.SYS_NOTIFYCMD, ids.SYS_NOTIFYPATH))
_CLEANED: frozenset[int] = frozenset(
    value for name, value in vars(ids).items() if name.startswith("SYS_") and value not in _KEPT_SYSTEM_FIELDS
)


def without_system_fields(message: Message) -> Message:
    """The part of a message that is its sender's."""
    rest = Message()
    # From the back, so that lists keep their order.
    for field, value in reversed(list(message.items())):
        if field not in _CLEANED:
            rest[field] = value
    return rest


def _without_paths(message: Message) -> Message:
    rest = message.copy()
    rest.discard(ids.SYS_TO)
    rest.discard(ids.SYS_FROM)
    return rest


class Handler:
    """An object with a number in its process.  Override the operations that it supports."""

    dictionary: ClassVar[Dictionary] = NO_DICTIONARY  # names in the mappings that operations return

    def __init__(self) -> None:
        self.rights = dict(_RIGHTS)  # what each command needs; one that is not here is nobody's
        self.subscriptions: list[Message] = []  # requests without their system fields, but SYS_FROM and SYS_NOTIFYCMD
        self.number = ids.BADID
        self._service: Optional[Service] = None
        self._changes: set[int] = set()
        self._originator: list[int] = []
        self._batch: Optional[asyncio.TimerHandle] = None

    @property
    def service(self) -> Service:
        if self._service is None:
            raise KeloError("this handler was not added to a service")
        return self._service

    # Operations

    def get(self, request: Message) -> Result:
        raise NotImplementedByService()

    def set(self, request: Message) -> Result:
        raise NotImplementedByService()

    def reset(self, request: Message) -> Result:
        raise NotImplementedByService()

    def get_object(self, request: Message, id: int) -> Result:
        raise NotImplementedByService()

    def set_object(self, request: Message, id: int) -> Result:
        raise NotImplementedByService()

    def add_object(self, request: Message) -> Result:
        raise NotImplementedByService()

    def remove_object(self, request: Message, id: int) -> Result:
        raise NotImplementedByService()

    def move_object(self, request: Message, id: int) -> Result:
        raise NotImplementedByService()

    def get_all(self, request: Message, start: int, count: int) -> Result:
        """`count` objects from `start` on; BADID and 0 when the request does not say."""
        raise NotImplementedByService()

    def get_count(self, request: Message) -> Result:
        raise NotImplementedByService()

    def other(self, request: Message, command: int) -> Result:
        """Every command that has no operation of its own."""
        raise NotImplementedByService()

    def shutdown(self, request: Message) -> None:
        pass

    def object(self, id: int) -> Body:
        """An object as notifications carry it; None if it is gone."""
        return None

    # What may be told

    def broken(self, notice: Message) -> None:
        """A message of this handler could not be delivered; SYS_FROM is the path that could not be followed."""

    def subscribed(self, record: Message) -> None:
        pass

    def unsubscribed(self, record: Message) -> None:
        pass

    def should_notify(self, record: Message, notification: Message) -> bool:
        originator = notification.get(ids.SYS_NOTIFYPATH)
        if originator is not None and record.get(ids.SYS_FROM) == originator:
            return False
        return record.get(ids.SYS_NOTIFYCMD, ids.CMD_NOTIFY) == notification.get(ids.SYS_CMD, ids.CMD_NOTIFY)

    def save(self, data: Message) -> None:
        """Adds what outlives the process; field 0xa8000001 is taken."""
        if self.subscriptions:
            self.send_changes()
            data[_SUBSCRIPTIONS] = [record.encode() for record in self.subscriptions]

    def load(self, data: Message) -> None:
        """Takes it back, when the handler is added to its service."""
        for record in data.get(_SUBSCRIPTIONS, []):
            self.subscriptions.append(Message.decode(record))
            self.subscribed(self.subscriptions[-1])

    # Sending

    def send(self, message: Message) -> None:
        """Puts this handler's number in front of SYS_FROM and sends the message."""
        if self.number != ids.BADID:
            message[ids.SYS_FROM] = [self.number, *message.get(ids.SYS_FROM, [])]
        self.service.process.send(message)

    def changed(self, id: int, cause: Union[Message, Sequence[int], None] = None) -> None:
        """An object changed.  `cause`: the request, or its SYS_FROM, that changed it."""
        if not self.subscriptions:
            return
        path = list(cause.get(ids.SYS_FROM, []) if isinstance(cause, Message) else cause or [])
        if not self._changes:
            self._originator = path
            self._batch = asyncio.get_running_loop().call_later(BATCH_SECONDS, self.send_changes)
        elif self._originator != path:
            self._originator = []
        self._changes.add(id)
        if len(self._changes) >= BATCH_OBJECTS:  # S2
            self.send_changes()

    def send_changes(self) -> None:
        """Sends the changes that have gathered."""
        if self._batch is not None:
            self._batch.cancel()
            self._batch = None
        changes, self._changes = sorted(self._changes), set()
        originator, self._originator = self._originator, []
        objects = _in_order([self._changed_object(id) for id in changes])
        while objects:
            size = taken = 0
            flat: list[bytes] = []
            for each in objects:
                data = each.encode()
                if flat and size + len(data) > BATCH_BYTES:
                    break
                flat.append(data)
                size += len(data)
                taken += 1
            objects = objects[taken:]
            notification = Message({ids.SYS_CMD: ids.CMD_NOTIFY, ids.STD_OBJS: flat})
            if originator:
                notification[ids.SYS_NOTIFYPATH] = originator
            self.notify(notification)

    def notify(self, notification: Message) -> None:
        """Sends a notification of one's own making, SYS_CMD included, to whom it interests."""
        paths = [
            record[ids.SYS_FROM]
            for record in self.subscriptions
            if ids.SYS_FROM in record and self.should_notify(record, notification)
        ]
        if not paths:
            return
        to = paths[0] if len(paths) == 1 else [ids.PATH_MULTI]
        if len(paths) > 1:
            for path in paths:
                to += [len(path), *path]
        notification[ids.SYS_TO] = to
        self.send(notification)

    def report_undo(self, request: Message, undo: Body, description: str, command: int | None = None) -> None:
        """Reports to the undo service that a request changed something, and what message takes that back."""
        message = self.body(undo)
        if command is not None:
            message[ids.SYS_CMD] = command
        report = Message({ids.SYS_TO: [ids.SERVICE_UNDO]})
        record = request.get(ids.STD_UNDOID)
        if record is not None:
            report[ids.SYS_CMD] = ids.CMD_SETOBJ
            report[ids.STD_ID] = record
        else:
            report[ids.SYS_CMD] = ids.CMD_ADDOBJ
            report[ids.UNDO_REQUEST] = _without_paths(request).encode()
            report[ids.UNDO_DESCRIPTION] = description
            report[ids.UNDO_USER] = request.get(ids.SYS_USER, "")
        report[ids.UNDO_RIGHTS] = self.rights.get(request.get(ids.SYS_CMD, ids.CMD_NOOP), NOBODY)
        report[ids.UNDO_MESSAGE] = _without_paths(message).encode()
        self.send(report)

    def body(self, body: Body) -> Message:
        """A body as a message of its own."""
        if body is None:
            return Message()
        if isinstance(body, Message):
            return body.copy()
        if isinstance(body, Object):
            return body.message.copy()
        return self.dictionary.message(body)

    def named(self, request: Message) -> Object:
        """A request whose fields are seen by name."""
        return Object(request, self.dictionary)

    # What arrives

    def allows(self, request: Message) -> bool:
        need = self.rights.get(request.get(ids.SYS_CMD, ids.CMD_NOOP), NOBODY)
        return request.get(ids.SYS_POLICY, 0xFFFFFFFF) & need == need

    def receive(self, message: Message) -> None:
        if ids.SYS_CMD not in message and (error := error_of(message)) is not None:
            if error.code == ids.ERROR_BRKPATH:
                self.broken(message)
            return
        command = message.get(ids.SYS_CMD, ids.CMD_NOOP)
        if command == ids.CMD_GETPOLICIES:
            return self._answer(message, self._policies(message))
        if not self.allows(message):
            return self._answer(message, error_message(NotAllowed()))
        if command == ids.CMD_SUBSCRIBE:
            return self._subscribe(message)
        if command == ids.CMD_UNSUBSCRIBE:
            return self._unsubscribe(message)
        if command == ids.CMD_DISCONNECTED:
            return self.disconnected(message)
        try:
            result = self._carry_out(message, command)
        except Exception as error:
            return self._refuse(message, error)
        if inspect.isawaitable(result):
            self.service.keep(self._finish(message, result))
        else:
            self._answer(message, result)

    def disconnected(self, message: Message) -> None:
        path: list[int] = message.get(ids.SYS_FROM, [])
        if not path:
            return
        for record in list(self.subscriptions):
            if record.get(ids.SYS_FROM, [])[: len(path)] == path:
                self.unsubscribed(record)
                self.subscriptions.remove(record)

    def _carry_out(self, request: Message, command: int) -> Result:
        if command == ids.CMD_NOOP:
            return None
        if command == ids.CMD_SHUTDOWN:
            self.shutdown(request)
            return None
        if command == ids.CMD_GETALL:
            return self.get_all(request, request.get(ids.STD_GETALLID, ids.BADID), request.get(ids.STD_GETALLNO, 0))
        plain = {
            ids.CMD_GET: self.get,
            ids.CMD_SET: self.set,
            ids.CMD_RESET: self.reset,
            ids.CMD_ADDOBJ: self.add_object,
            ids.CMD_GETCOUNT: self.get_count,
        }.get(command)
        if plain is not None:
            return plain(request)
        of_object = {
            ids.CMD_GETOBJ: self.get_object,
            ids.CMD_SETOBJ: self.set_object,
            ids.CMD_REMOVEOBJ: self.remove_object,
            ids.CMD_MOVEOBJ: self.move_object,
        }.get(command)
        if of_object is None:
            return self.other(request, command)
        id = request.get(ids.STD_ID)
        if id is None:
            raise UnknownId()
        return of_object(request, id)

    async def _finish(self, request: Message, result: Awaitable[Body]) -> None:
        try:
            body = await result
        except Exception as error:
            return self._refuse(request, error)
        self._answer(request, body)

    def _answer(self, request: Message, body: Any) -> None:
        try:
            reply = self.body(body)
        except Exception as error:
            return self._refuse(request, error)
        # The number in front of SYS_FROM, as with everything that this handler sends.
        if self.number != ids.BADID:
            reply[ids.SYS_FROM] = [self.number]
        self.service.process.reply(request, reply)  # S1

    def _refuse(self, request: Message, error: Exception) -> None:
        if not isinstance(error, ServiceError):
            asyncio.get_running_loop().call_exception_handler(
                {"message": "a request could not be answered", "exception": error}
            )
            error = Failed(f"{type(error).__name__} in the service")
        self._answer(request, error_message(error))

    def _policies(self, request: Message) -> Message:
        have = request.get(ids.SYS_POLICY, 0xFFFFFFFF)
        entries = []
        for command, need in sorted(self.rights.items()):
            entry = Message({ids.STD_ID: command, _POLICY_BITS: need, _POLICY_ALLOWED: have & need == need})
            entries.append(entry.encode())
        return Message({ids.STD_OBJS: entries})

    def _record(self, request: Message) -> Message:
        record = without_system_fields(request)
        if ids.SYS_FROM in request:
            record[ids.SYS_FROM] = request[ids.SYS_FROM]
        return record

    def _subscribe(self, request: Message) -> None:
        record = self._record(request)
        if record not in self.subscriptions:
            self.subscriptions.append(record)
            self.subscribed(record)

    def _unsubscribe(self, request: Message) -> None:
        record = self._record(request)
        if record in self.subscriptions:
            self.unsubscribed(record)
            self.subscriptions.remove(record)

    def _changed_object(self, id: int) -> Message:
        body = self.object(id)
        message = Message({ids.STD_DEAD: 1}) if body is None else self.body(body)
        message[ids.STD_ID] = id
        return message


def _in_order(objects: list[Message]) -> list[Message]:
    """Objects that know their successor come behind it, so that each can be put in front of one that is known."""
    decisive = (each for each in objects if ids.STD_NEXTID in each or ids.STD_DEAD not in each)
    first = next(decisive, None)
    if first is None or ids.STD_NEXTID not in first:
        return objects
    changed = {each[ids.STD_ID] for each in objects}
    before: dict[int, Message] = {}
    ends = []
    for each in objects:
        following = each.get(ids.STD_NEXTID, ids.BADID)
        if following not in changed:
            ends.append(each)
        else:
            before.setdefault(following, each)
    ordered = []
    for end in ends:
        each_or_none: Optional[Message] = end
        while each_or_none is not None:
            ordered.append(each_or_none)
            each_or_none = before.pop(each_or_none[ids.STD_ID], None)
    return ordered


class Table(Handler):
    """A handler with a table: put objects in and take them out, and it answers in chunks and tells of changes."""

    def __init__(self) -> None:
        super().__init__()
        self._objects: dict[int, Message] = {}
        self._order: Optional[list[int]] = []  # the ids in ascending order; None: to be sorted anew

    def put(self, id: int, body: Body, cause: Union[Message, Sequence[int], None] = None) -> None:
        """Adds or changes an object."""
        message = self.body(body)
        message[ids.STD_ID] = id
        if self._objects.get(id) != message:
            if id not in self._objects:
                self._order = None
            self._objects[id] = message
            self.changed(id, cause)

    def take(self, id: int, cause: Union[Message, Sequence[int], None] = None) -> None:
        """Removes an object; UnknownId if there is none."""
        if self._objects.pop(id, None) is None:
            raise UnknownId()
        self._order = None
        self.changed(id, cause)

    def __contains__(self, id: int) -> bool:
        return id in self._objects

    def __len__(self) -> int:
        return len(self._objects)

    def __getitem__(self, id: int) -> Object:
        return Object(self._objects[id], self.dictionary)

    def object(self, id: int) -> Body:
        return self._objects.get(id)

    def get_object(self, request: Message, id: int) -> Result:
        if id not in self._objects:
            raise UnknownId()
        return self._objects[id]

    def get_count(self, request: Message) -> Result:
        return {ids.STD_GETALLNO: len(self._objects)}

    def get_all(self, request: Message, start: int, count: int) -> Result:
        if self._order is None:
            self._order = sorted(self._objects)
        first = 0 if start == ids.BADID else bisect_left(self._order, start)
        objects: list[bytes] = []
        size = 0
        for id in islice(self._order, first, None):
            if size >= CHUNK_BYTES or (count and len(objects) >= count):
                return {ids.STD_OBJS: objects, ids.STD_GETALLID: id}
            objects.append(self._objects[id].encode())
            size += len(objects[-1])
        return {ids.STD_OBJS: objects}


class Service:
    """A process that serves.  `bus` asks others."""

    def __init__(self, process: Process, dictionaries: Dictionaries, timeout: float | None) -> None:
        self.process = process
        self.bus = Bus(process, dictionaries, timeout)
        self.settings = _nested(process.ready, ids.READY_CONFIGURATION)
        self.starts: int = process.ready.get(ids.READY_STARTS, 0)
        self._data: dict[int, Message] = {}
        for each in _nested(process.ready, ids.CTRL_DATA).get(_HANDLERS, []):
            entry = Message.decode(each)
            self._data[entry.get(ids.STD_ID, ids.BADID)] = entry.nested(_HANDLER_DATA)
        self._handlers: list[Handler] = []
        self._tasks: set[asyncio.Task[None]] = set()
        self._leaves = False
        self._runs = False
        self._stopped = asyncio.Event()
        process.on_leave = self._leave

    @property
    def id(self) -> int:
        return self.process.id

    def add(self, handler: Handler, number: int | None = None) -> None:
        """Gives a handler its number; without one it gets what names no handler: its path is the service's."""
        handler.number = self.process.add(handler, ids.BADID if number is None else number)
        handler._service = self
        self._handlers.append(handler)
        data = self._data.pop(handler.number, None)
        if data is not None:
            handler.load(data)

    def remove(self, handler: Handler) -> None:
        self.process.remove(handler.number)
        self._handlers.remove(handler)

    def keep(self, work: Any) -> None:
        """Does some work beside the loop; while it is under way the process does not leave."""
        task: asyncio.Task[None] = asyncio.ensure_future(work)
        self._tasks.add(task)
        task.add_done_callback(self._tasks.discard)

    def start(self) -> None:
        """Begins to serve, beside whatever this program does."""
        if not self._runs and not self.process.is_ended:
            self._runs = True
            self.process.run()

    async def run(self) -> None:
        """Serves, and returns when the service was stopped, has left, or has lost the loader."""
        self.start()
        ended = asyncio.ensure_future(self.process.wait_ended())
        stopped = asyncio.ensure_future(self._stopped.wait())
        try:
            await asyncio.wait((ended, stopped), return_when=asyncio.FIRST_COMPLETED)
        finally:
            ended.cancel()
            stopped.cancel()

    def stop(self) -> None:
        self._stopped.set()

    def may_leave(self, value: bool = True) -> None:
        """Says that this process can be started again on demand, and so may be asked to leave."""
        self._leaves = value
        self.process.send_control(ids.CTRL_LEAVE_VALUE, {ids.SYS_CTRL_ARG: int(value)})

    def want_leave(self) -> None:
        """Asks the loader to be asked."""
        self.process.send_control(ids.CTRL_WANT_LEAVE)

    def _leave(self) -> bool:
        if not self._leaves or self._tasks:  # S3
            return False
        entries = []
        for handler in self._handlers:
            data = Message()
            handler.save(data)
            if len(data):
                entries.append(Message({ids.STD_ID: handler.number, _HANDLER_DATA: data}).encode())
        fields: dict[int, object] = {}
        if entries:
            fields[ids.CTRL_DATA] = Message({_HANDLERS: entries})
        try:
            self.process.send_control(ids.CTRL_LEFT, fields)
        except CodecError:
            return False  # it would lose what it has to keep
        self.stop()
        return True


def _nested(message: Message, field: int) -> Message:
    try:
        return message.nested(field)
    except CodecError:
        return Message()


@asynccontextmanager
async def serve(
    service: int = 0,
    version: int = 0,
    *,
    path: str | None = None,
    timeout: float | None = TIMEOUT,
    fields: Sequence[str | Path] | None = None,
) -> AsyncIterator[Service]:
    """Registers as a service, on the connection that the loader passed on if it started this process."""
    dictionaries = Dictionaries(None if fields is None else [Path(folder) for folder in fields])
    process = await Process.connect(service, version, path, inherit=True)
    made = Service(process, dictionaries, timeout)
    try:
        yield made
    finally:
        for task in list(made._tasks):
            task.cancel()
        await made.bus.close()

"""One process on the message system: its connection to the loader, its open requests, and who takes what arrives.

`kelo.bus` asks through it.  Everything runs on the event loop of whoever called
`Process.connect`.

P1  a request is open from its sending to its reply, its time-out or the end of the connection, one of which it gets
P2  nothing is sent about a reply or a notice
P3  once the connection has ended every open and every later request raises Disconnected
P4  nothing but replies is handed out before the process runs: the receivers may not be there yet
"""

from __future__ import annotations

import asyncio
import os
import socket
import struct
from collections.abc import Callable, Sequence
from typing import Optional, Protocol

from kelo import ids
from kelo.codec.frame import FrameReader, frame
from kelo.codec.message import Message
from kelo.errors import BrokenPath, CodecError, Disconnected, ServiceError, Timeout, service_error
from kelo.root import under_root

SOCKET = "/ram/kelosock"  # under the root
INHERITED = 3  # the descriptor that the loader passes to a process that it starts
TIMEOUT = 5.0
CONFIRMATION = 10.0
_READ_BYTES = 65536
_PEER = struct.Struct("iII")  # SO_PEERCRED: process, user, group


class Receiver(Protocol):
    """A receiver with a number of its own in a process."""

    def receive(self, message: Message) -> None:
        """Takes a message whose path ended here, replies excepted."""

    def disconnected(self, message: Message) -> None:
        """Hears that another process has ended: CMD_DISCONNECTED, whose SYS_FROM is its path."""


def error_of(message: Message) -> ServiceError | None:
    """The error that a message carries."""
    if message.get(ids.SYS_STATUS, ids.STATUS_OK) != ids.STATUS_ERROR:
        return None
    return service_error(message.get(ids.SYS_ERRNO, ids.ERROR_UNKNOWN), message.get(ids.SYS_ERRSTR, ""))


def error_message(error: ServiceError) -> Message:
    message = Message({ids.SYS_STATUS: ids.STATUS_ERROR, ids.SYS_ERRNO: error.code})
    if error.text:
        message[ids.SYS_ERRSTR] = error.text
    return message


def is_reply(message: Message) -> bool:
    return message.get(ids.SYS_TYPE, ids.TYPE_REQUEST) == ids.TYPE_REPLY


class Process:
    """A registered connection."""

    def __init__(self, reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
        self.id = 0  # the service id that the loader gave
        self.ready = Message()  # what it said when it confirmed the registration
        self.on_leave: Optional[Callable[[], bool]] = None  # the loader asks to leave: will it?
        self._reader = reader
        self._writer = writer
        self._frames = FrameReader()
        self._arrived: list[bytes] = []
        self._receivers: dict[int, Receiver] = {}
        self._held: Optional[list[Message]] = []  # what came before the process runs; then None
        self._open: dict[int, asyncio.Future[Message]] = {}
        self._next_request = 1
        self._ended: Optional[Disconnected] = None
        self._end = asyncio.get_running_loop().create_future()
        self._task: Optional[asyncio.Task[None]] = None

    @classmethod
    async def connect(
        cls, service: int = 0, version: int = 0, path: str | None = None, inherit: bool = False
    ) -> Process:
        """Connects and registers.  `inherit`: on the connection that the loader passed on, if it did.

        Without a path at the loader's socket.  Disconnected if there is no loader or it does not confirm.
        """
        inherited = _inherited() if inherit else None
        if path is None and inherited is None:
            path = under_root(SOCKET)
        try:
            if inherited is not None:
                streams = await asyncio.open_unix_connection(sock=inherited)
            else:
                streams = await asyncio.open_unix_connection(path)
        except OSError as error:
            raise Disconnected(f"there is no loader at {path}: {error.strerror}") from None
        process = cls(*streams)
        try:
            await asyncio.wait_for(process._register(service, version), CONFIRMATION)
        except asyncio.TimeoutError:
            await process.close()
            raise Disconnected("the loader did not confirm the registration") from None
        except BaseException:
            await process.close()
            raise
        return process

    async def _register(self, service: int, version: int) -> None:
        self.send_control(ids.CTRL_HELLO, {ids.REGISTRATION_VALUES: [service, version] + 10 * [0]})
        while True:
            message = await self._next_message()
            if message is None:
                raise Disconnected(f"the loader did not confirm the registration of {service or 'this process'}")
            if message.get(ids.SYS_CTRL) == ids.CTRL_READY:
                break
        self.ready = message
        self.id = message.get(ids.READY_ID, 0)
        self._task = asyncio.create_task(self._read())

    def run(self) -> None:
        """Tells the loader that the process has entered its loop, and hands out what came before."""
        self.send_control(ids.CTRL_RUNNING)
        held, self._held = self._held or [], None
        for message in held:
            self._hand_out(message)

    async def close(self) -> None:
        """Ends the connection."""
        self._finish(Disconnected("the connection was closed"))
        if self._task is not None and self._task is not asyncio.current_task():
            self._task.cancel()
            await asyncio.gather(self._task, return_exceptions=True)
        self._writer.close()
        try:
            await self._writer.wait_closed()
        except OSError:
            pass

    async def wait_ended(self) -> None:
        """Returns when the connection has ended."""
        await asyncio.shield(self._end)

    @property
    def is_ended(self) -> bool:
        return self._ended is not None

    # Numbers in this process

    def add(self, receiver: Receiver, number: int | None = None) -> int:
        """Gives a receiver its number, the next free one if none is asked for."""
        if number is None:
            number = next(n for n in range(1, ids.BADID) if n not in self._receivers)
        elif number in self._receivers:
            raise ValueError(f"the number {number} is taken")
        self._receivers[number] = receiver
        return number

    def remove(self, number: int) -> None:
        self._receivers.pop(number, None)

    # Out

    def send(self, message: Message) -> None:
        """Sends a message as it is.  CodecError if it does not fit into a frame."""
        if self._ended is not None:
            raise self._ended
        data = frame(message)
        if message.get(ids.SYS_TO, [])[:1] == [ids.PATH_SELF]:
            own = message.copy()
            own[ids.SYS_TO] = own[ids.SYS_TO][1:]
            asyncio.get_running_loop().call_soon(self._hand_out, own)
            return
        self._writer.write(data)

    async def flush(self) -> None:
        """Returns when what was sent is mostly on its way."""
        try:
            await self._writer.drain()
        except OSError:
            pass  # the reader hears of it

    def send_control(self, code: int, fields: dict[int, object] | None = None) -> None:
        message = Message({ids.SYS_TO: [ids.SERVICE_LOADER], ids.SYS_CTRL: code})
        for field, value in (fields or {}).items():
            message[field] = value
        self.send(message)

    async def request(
        self, to: Sequence[int], command: int, message: Message | None = None, timeout: float | None = TIMEOUT
    ) -> Message:
        """Sends a request and returns the reply; raises the ServiceError that it is, Timeout if there is none."""
        asked = message.copy() if message is not None else Message()
        number = self._next_request
        self._next_request = number + 1 & 0x7FFFFFFF or 1
        asked[ids.SYS_TO] = list(to)
        asked[ids.SYS_CMD] = command
        asked[ids.SYS_TYPE] = ids.TYPE_REQUEST
        asked[ids.SYS_REPLYEXP] = True
        asked[ids.SYS_REQID] = number
        future: asyncio.Future[Message] = asyncio.get_running_loop().create_future()
        self._open[number] = future  # P1
        try:
            self.send(asked)
            await self.flush()
            reply = await asyncio.wait_for(future, timeout)
        except asyncio.TimeoutError:
            raise Timeout() from None
        finally:
            self._open.pop(number, None)
        error = error_of(reply)
        if error is not None:
            raise error
        return reply

    def reply(self, request: Message, reply: Message) -> None:
        """Answers a request; one without a number gets no answer."""
        number = request.get(ids.SYS_REQID)
        if number is None or self.is_ended:
            return
        reply[ids.SYS_REQID] = number
        reply[ids.SYS_TYPE] = ids.TYPE_REPLY
        reply[ids.SYS_TO] = request.get(ids.SYS_FROM, [])
        try:
            self.send(reply)
        except CodecError:
            self.reply(request, error_message(service_error(ids.ERROR_TOOBIG)))

    # In

    async def _next_message(self) -> Message | None:
        while True:
            while self._arrived:
                try:
                    return Message.decode(self._arrived.pop(0))
                except CodecError:
                    continue  # the loader carries none such
            try:
                data = await self._reader.read(_READ_BYTES)
            except OSError:
                data = b""
            if not data:
                return None
            self._arrived = self._frames.feed(data)

    async def _read(self) -> None:
        try:
            while (message := await self._next_message()) is not None:
                self._hand_out(message)
        except CodecError:
            pass  # no frame: nobody knows where the next one begins
        finally:
            self._finish(Disconnected("the loader has ended the connection"))

    def _finish(self, reason: Disconnected) -> None:
        if self._ended is not None:
            return
        self._ended = reason
        for future in self._open.values():  # P3
            if not future.done():
                future.set_exception(reason)
        self._end.set_result(None)
        for receiver in list(self._receivers.values()):
            receiver.disconnected(Message())

    def _hand_out(self, message: Message) -> None:
        try:
            self._dispatch(message)
        except Exception as error:  # of whoever received it; the connection is none the worse
            asyncio.get_running_loop().call_exception_handler(
                {"message": "a message could not be handled", "exception": error}
            )

    def _dispatch(self, message: Message) -> None:
        control = message.get(ids.SYS_CTRL)
        if control is None and is_reply(message):
            future = self._open.get(message.get(ids.SYS_REQID, 0))
            if future is not None and not future.done():
                future.set_result(message)
            return
        if self._held is not None:  # P4
            self._held.append(message)
            return
        if control is not None:
            if control == ids.CTRL_LEAVE and (self.on_leave is None or not self.on_leave()):
                self.send_control(ids.CTRL_REFUSED)
            return
        path: list[int] = message.get(ids.SYS_TO, [])
        if not path and message.get(ids.SYS_CMD) == ids.CMD_DISCONNECTED:
            for receiver in list(self._receivers.values()):
                receiver.disconnected(message)
            return
        # A path that names nobody is for the receiver with the number of the process itself.
        receiver_or_none = self._receivers.get(path[0] if path else ids.BADID)
        if receiver_or_none is None or len(path) > 1:
            return self._break_path(message)
        if path:
            message[ids.SYS_TO] = path[1:]
        receiver_or_none.receive(message)

    def _break_path(self, message: Message) -> None:
        path: list[int] = message.get(ids.SYS_TO, [])
        if ids.SYS_CMD not in message and error_of(message) is not None:
            return  # P2
        answer = error_message(BrokenPath())
        answer[ids.SYS_FROM] = path
        if message.get(ids.SYS_REPLYEXP, False):
            self.reply(message, answer)
        elif message.get(ids.SYS_FROM):
            answer[ids.SYS_TO] = message[ids.SYS_FROM]
            if not self.is_ended:
                self.send(answer)


def _inherited() -> Optional[socket.socket]:
    """The connection that the loader made for this process, if it did: its other end is the parent's."""
    try:
        connection = socket.socket(fileno=os.dup(INHERITED))
    except OSError:
        return None
    try:
        if connection.family == socket.AF_UNIX:
            peer = connection.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, _PEER.size)
            if _PEER.unpack(peer)[0] == os.getppid():
                os.close(INHERITED)
                return connection
    except OSError:
        pass
    connection.close()
    return None

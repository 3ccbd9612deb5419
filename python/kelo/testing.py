"""A loader to test with, in the process of the test.

    async with kelo.testing.FakeLoader() as loader:
        async with kelo.serve(34, path=loader.path) as service, kelo.connect(loader.path) as bus:
            service.add(Hello(), 0)
            service.start()
            assert (await bus.get((34, 0))).descr == "hello"

Services and clients connect to it as to the real one, by the same code.  It registers them, carries what they send,
vouches for SYS_FROM, answers for who is not there, tells of ends, and shows its table of services.  It starts nobody,
holds nothing for those to come, and grants every right, or those in `rights`.
"""

from __future__ import annotations

import asyncio
import os
import shutil
import tempfile
from typing import Optional

from kelo import ids
from kelo.codec.frame import FrameReader
from kelo.codec.message import Message
from kelo.errors import BrokenPath, CodecError, NotImplementedByService, ServiceError, UnknownId
from kelo.process import error_message, error_of, is_reply

_FIRST_PICKED_ID = 0x10000
_MAX_PATH = 32


class _Peer:
    def __init__(self, writer: asyncio.StreamWriter) -> None:
        self.id = 0
        self.writer = writer
        self.open: dict[tuple[int, int], Message] = {}  # requests to it that wait: the asker and the number

    def send(self, message: Message) -> None:
        body = message.encode()
        if not self.writer.is_closing():
            self.writer.write(len(body).to_bytes(4, "little") + body)


class FakeLoader:
    """`async with FakeLoader() as loader`; `loader.path` is its socket."""

    def __init__(self, names: dict[int, str] | None = None, rights: int | None = None) -> None:
        self.names = names or {}  # of services, as the configuration of a loader would have them
        self.rights = rights  # what requests may do; None: everything
        self.path = ""
        self.carried = 0  # messages
        self._peers: dict[int, _Peer] = {}
        self._next_id = _FIRST_PICKED_ID
        self._folder = ""
        self._server: Optional[asyncio.Server] = None
        self._tasks: set[asyncio.Task[None]] = set()

    async def __aenter__(self) -> FakeLoader:
        self._folder = tempfile.mkdtemp()
        self.path = os.path.join(self._folder, "kelosock")
        self._server = await asyncio.start_unix_server(self._serve, self.path)
        return self

    async def __aexit__(self, *_: object) -> None:
        if self._server is not None:
            self._server.close()
            await self._server.wait_closed()
        for task in list(self._tasks):
            task.cancel()
        await asyncio.gather(*self._tasks, return_exceptions=True)
        shutil.rmtree(self._folder, ignore_errors=True)

    def disconnect(self, service: int) -> None:
        """Ends the connection of a service, as its end would."""
        self._peers[service].writer.close()

    def ask_to_leave(self, service: int) -> None:
        self._peers[service].send(Message({ids.SYS_TO: [ids.SERVICE_LOADER], ids.SYS_CTRL: ids.CTRL_LEAVE}))

    async def _serve(self, reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
        task = asyncio.current_task()
        assert task is not None
        self._tasks.add(task)
        peer = _Peer(writer)
        try:
            await self._take_from(peer, reader)
        except (OSError, CodecError, asyncio.CancelledError):
            pass  # garbage ends a connection as well
        finally:
            self._tasks.discard(task)
            self._end(peer)
            writer.close()

    async def _take_from(self, peer: _Peer, reader: asyncio.StreamReader) -> None:
        frames = FrameReader(0xFFFF)
        while data := await reader.read(65536):
            for body in frames.feed(data):
                message = Message.decode(body)
                if not message.get(ids.SYS_TO):
                    return
                if ids.SYS_CTRL in message:
                    if not self._control(peer, message):
                        return
                elif not peer.id:
                    return
                else:
                    self._carry(peer, message)

    def _control(self, peer: _Peer, message: Message) -> bool:
        if message[ids.SYS_TO] != [ids.SERVICE_LOADER]:
            return False
        if message[ids.SYS_CTRL] != ids.CTRL_HELLO:
            return bool(peer.id)
        values: list[int] = message.get(ids.REGISTRATION_VALUES, [])
        wanted = values[0] if values else 0
        if peer.id or wanted in self._peers or wanted == ids.SERVICE_LOADER:
            return False
        if not wanted:
            wanted, self._next_id = self._next_id, self._next_id + 1
        peer.id = wanted
        self._peers[wanted] = peer
        peer.send(
            Message({
                ids.SYS_TO: [ids.SERVICE_LOADER],
                ids.SYS_CTRL: ids.CTRL_READY,
                ids.READY_ID: wanted,
                ids.READY_STARTS: 1,
            })
        )
        return True

    def _end(self, peer: _Peer) -> None:
        if self._peers.get(peer.id) is not peer:
            return
        del self._peers[peer.id]
        for request in peer.open.values():
            self._refuse(request, [peer.id, *request[ids.SYS_TO]])
        notice: dict[int, object] = {ids.SYS_CMD: ids.CMD_DISCONNECTED, ids.SYS_FROM: [peer.id], ids.SYS_TO: []}
        for other in self._peers.values():
            other.open = {key: request for key, request in other.open.items() if key[0] != peer.id}
            other.send(Message(notice))

    def _carry(self, sender: _Peer, message: Message) -> None:
        self.carried += 1
        message[ids.SYS_FROM] = [sender.id, *message.get(ids.SYS_FROM, [])]
        if self.rights is not None:
            message[ids.SYS_POLICY] = self.rights
        path = message[ids.SYS_TO]
        if path[0] == ids.PATH_ALL:
            for other in list(self._peers.values()):
                if other is not sender:
                    self._deliver(message, [other.id, *path[1:]])
        elif path[0] == ids.PATH_MULTI:
            for each in _paths(path[1:]):
                self._deliver(message, each)
        else:
            self._deliver(message, path)

    def _deliver(self, original: Message, path: list[int]) -> None:
        message = original.copy()
        message[ids.SYS_TO] = path[1:]
        asker = message[ids.SYS_FROM][0]
        if path[0] == ids.SERVICE_LOADER:
            return self._answer(message)
        peer = self._peers.get(path[0])
        if peer is None:
            return self._refuse(message, path)
        number = message.get(ids.SYS_REQID)
        if is_reply(message):
            answered = self._peers[asker].open.pop((path[0], number or 0), None)
            if answered is None or number is None:
                return
        elif message.get(ids.SYS_REPLYEXP, False) and number is not None:
            peer.open[asker, number] = message
        peer.send(message)

    # As the loader does for whoever cannot: a reply if one is expected, else a notice.
    def _refuse(self, request: Message, path: list[int]) -> None:
        if is_reply(request) or (ids.SYS_CMD not in request and error_of(request) is not None):
            return
        answer = error_message(BrokenPath())
        answer[ids.SYS_FROM] = path
        self._send_back(request, answer, request.get(ids.SYS_REPLYEXP, False))

    def _send_back(self, request: Message, answer: Message, as_reply: bool) -> None:
        asker, *rest = request[ids.SYS_FROM]
        answer[ids.SYS_TO] = rest
        if as_reply:
            answer[ids.SYS_TYPE] = ids.TYPE_REPLY
            if ids.SYS_REQID in request:
                answer[ids.SYS_REQID] = request[ids.SYS_REQID]
        if asker in self._peers:
            self._peers[asker].send(answer)

    def _answer(self, request: Message) -> None:
        if ids.SYS_REQID not in request or is_reply(request):
            return
        try:
            answer = self._table(request)
        except ServiceError as error:
            answer = error_message(error)
        answer[ids.SYS_FROM] = [ids.SERVICE_LOADER]
        self._send_back(request, answer, True)

    def _table(self, request: Message) -> Message:
        command = request.get(ids.SYS_CMD, ids.CMD_NOOP)
        rows = {
            id: Message({ids.STD_ID: id, ids.SVC_NAME: self.names.get(id, "python"), 0x08000004: 4})
            for id in sorted(self._peers)
        }
        if command == ids.CMD_NOOP:
            return Message()
        if command == ids.CMD_GETALL:
            return Message({ids.STD_OBJS: [row.encode() for row in rows.values()]})
        if command == ids.CMD_GETOBJ:
            id = request.get(ids.STD_ID, ids.BADID)
            if id not in rows:
                raise UnknownId()
            return rows[id]
        raise NotImplementedByService()


def _paths(rest: list[int]) -> list[list[int]]:
    """The paths behind PATH_MULTI; none if one of them is malformed."""
    paths = []
    while rest:
        count = rest[0]
        if not 0 < count < len(rest) or count > _MAX_PATH:
            return []
        paths.append(rest[1 : count + 1])
        rest = rest[count + 1 :]
    return paths

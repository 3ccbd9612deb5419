"""Services in Python.  The work of handlers is tried on the fake loader and on the real one."""

from __future__ import annotations

import asyncio
import unittest
from contextlib import AsyncExitStack
from typing import Any

import kelo
import kelo.testing
from kelo import ids
from kelo.bus import Bus
from kelo.codec import Message
from kelo.names import Dictionary
from kelo.service import Body, Handler, Result, Service, Table, without_system_fields
from tests.loader import SECONDS, Loader, LoaderTest, connected, program, python_program, service
from tests.test_bus import until

TEXT = 0x20000001


class Hello(Handler):
    dictionary = Dictionary({"text": TEXT})

    def __init__(self) -> None:
        super().__init__()
        self.text = "hello"
        self.notices: list[Message] = []
        self.go_on = asyncio.Event()

    def get(self, request: Message) -> Result:
        return {"text": self.text}

    def set(self, request: Message) -> Result:
        if TEXT not in request:
            raise kelo.MissingFields()
        self.text = request[TEXT]
        return None

    async def reset(self, request: Message) -> Body:
        await self.go_on.wait()
        return Message({TEXT: "later"})

    def get_object(self, request: Message, id: int) -> Result:
        if id == 3:
            raise ZeroDivisionError
        if id == 4:
            return {"no such name": 1}
        return {TEXT: 60000 * "x", 0x20000002: 60000 * "x"} if id == 5 else Message({ids.STD_ID: id})

    def other(self, request: Message, command: int) -> Result:
        if command == 0x60001:
            return {TEXT: f"{command:#x} of {request.get(ids.SYS_FROM)}"}
        raise kelo.ServiceError("no", 0x120007)

    def broken(self, notice: Message) -> None:
        self.notices.append(notice)


class Handlers(unittest.IsolatedAsyncioTestCase):
    """On the fake loader."""

    async def asyncSetUp(self) -> None:
        self.stack = await self.enterAsyncContext(AsyncExitStack())
        self.bus = await self.connect()
        self.service = await self.serve()
        self.hello, self.table = Hello(), Table()
        self.service.add(self.hello)
        self.service.add(self.table, 3)
        self.running = asyncio.create_task(self.service.run())
        self.faults: list[dict[str, Any]] = []
        asyncio.get_running_loop().set_exception_handler(lambda _, context: self.faults.append(context))

    async def connect(self) -> Bus:
        if not hasattr(self, "fake"):
            self.fake = await self.enterAsyncContext(kelo.testing.FakeLoader())
        return await self.stack.enter_async_context(kelo.connect(self.fake.path, timeout=SECONDS, fields=[]))

    async def serve(self) -> Service:
        return await self.stack.enter_async_context(kelo.serve(500, path=self.fake.path))

    async def test_commands(self) -> None:
        self.assertEqual((await self.bus.get(500)).message[TEXT], "hello")
        self.assertEqual(await self.bus.set(500, {TEXT: "new"}), {})
        self.assertEqual((await self.bus.get(500)).message[TEXT], "new")
        with self.assertRaises(kelo.MissingFields):
            await self.bus.set(500)
        with self.assertRaises(kelo.NotImplementedByService):
            await self.bus.add(500)
        with self.assertRaises(kelo.UnknownId):
            await self.bus.send(500, "getobj")
        self.assertEqual((await self.bus.get(500, id=9)).id, 9)
        self.assertEqual(await self.bus.send(500), {})
        self.assertIn(str([self.bus.id]), (await self.bus.send(500, 0x60001)).message[TEXT])
        with self.assertRaisesRegex(kelo.ServiceError, r"no \(7\)") as raised:
            await self.bus.send(500, 0x60002)
        self.assertEqual((raised.exception.code, raised.exception.name), (0x120007, "0x120007"))

    async def test_what_goes_wrong_inside_is_an_answer(self) -> None:
        with self.assertRaisesRegex(kelo.Failed, "ZeroDivisionError in the service"):
            await self.bus.get(500, id=3)
        with self.assertRaises(kelo.Failed):
            await self.bus.get(500, id=4)
        with self.assertRaises(kelo.TooBig):
            await self.bus.get(500, id=5)
        self.assertEqual(len(self.faults), 2)
        self.assertEqual((await self.bus.get(500)).message[TEXT], "hello")

    async def test_others_are_answered_while_one_waits(self) -> None:
        waiting = asyncio.create_task(self.bus.reset(500))
        self.assertEqual((await self.bus.get(500)).message[TEXT], "hello")
        self.assertFalse(waiting.done())
        self.hello.go_on.set()
        self.assertEqual((await waiting).message[TEXT], "later")

    async def test_a_request_without_a_number_is_not_answered(self) -> None:
        before = await self.bus.send(500, "set", {TEXT: "quiet"}, reply=False)
        self.assertEqual(before, {})
        self.assertEqual((await self.bus.get(500)).message[TEXT], "quiet")

    async def test_broken_paths(self) -> None:
        for path in ((500, 9), (500, 3, 1), (501,)):
            with self.subTest(path=path), self.assertRaises(kelo.BrokenPath):
                await self.bus.get(path)
        self.hello.send(Message({ids.SYS_TO: [self.bus.id, 99], ids.SYS_CMD: ids.CMD_NOOP}))
        self.hello.send(Message({ids.SYS_TO: [502], ids.SYS_CMD: ids.CMD_NOOP}))
        for _ in range(SECONDS * 100):
            if len(self.hello.notices) == 2:
                break
            await asyncio.sleep(0.01)
        self.assertEqual({tuple(notice[ids.SYS_FROM]) for notice in self.hello.notices}, {(self.bus.id, 99), (502,)})

    async def test_the_rights_of_a_request(self) -> None:
        reader = {ids.SYS_POLICY: 64}
        self.assertEqual((await self.bus.get(500, reader)).message[TEXT], "hello")
        with self.assertRaises(kelo.NotAllowed):
            await self.bus.set(500, {TEXT: "x", **reader})
        with self.assertRaises(kelo.NotAllowed):
            await self.bus.send(500, 0x60001, reader)
        self.hello.rights[ids.CMD_SET] = 64
        await self.bus.set(500, {TEXT: "x", **reader})
        policies = await self.bus.send(500, "getpolicies", {ids.SYS_POLICY: 0})
        entries = [Message.decode(each) for each in policies.message[ids.STD_OBJS]]
        self.assertEqual(
            [(entry[0x08000001], entry[2]) for entry in entries if entry[ids.STD_ID] == ids.CMD_SET], [(64, False)]
        )

    async def test_a_table_is_followed(self) -> None:
        for id in range(1, 1001):
            self.table.put(id, {TEXT: 20 * "x"})
        self.assertEqual(len(await self.bus.get_all((500, 3))), 1000)
        self.assertEqual([each.id for each in await self.bus.get_all((500, 3), STD_GETALLNO=100)], list(range(1, 1001)))
        self.assertEqual(await self.bus.count((500, 3)), 1000)
        async with self.bus.watch((500, 3)) as watch:
            self.assertEqual(len(await until(watch, "complete")), 1001)
            self.table.take(5)
            (gone,) = await until(watch, "removed")
            self.assertEqual(gone.id, 5)
            for id in range(1, 101):
                self.table.put(id, {TEXT: "new"})
            await self.bus.get((500, 3), id=100)
            changed = [await asyncio.wait_for(anext(watch), SECONDS) for _ in range(100)]
            self.assertEqual([change.id for change in changed], list(range(1, 101)))
        await self.bus.get((500, 3), id=100)
        self.assertEqual(self.table.subscriptions, [])

    async def test_who_changed_it_is_not_told(self) -> None:
        other = await self.connect()
        async with await self.bus.subscribe((500, 3)) as first, await other.subscribe((500, 3)) as second:
            await self.bus.send((500, 3))
            await other.send((500, 3))
            self.assertEqual(len(self.table.subscriptions), 2)
            cause = self.table.subscriptions[0][ids.SYS_FROM]
            self.table.put(1, {TEXT: "a"}, cause)
            self.table.send_changes()
            told = await asyncio.wait_for(anext(second), SECONDS)
            self.assertEqual(told[ids.SYS_NOTIFYPATH], cause)
            self.table.put(2, {TEXT: "b"})
            both = [await asyncio.wait_for(anext(each), SECONDS) for each in (first, second)]
            self.assertEqual([Message.decode(each[ids.STD_OBJS][0])[ids.STD_ID] for each in both], [2, 2])

    async def test_a_subscriber_that_ends_is_forgotten(self) -> None:
        other = await self.connect()
        await other.subscribe((500, 3))
        await other.send((500, 3))
        self.assertEqual(len(self.table.subscriptions), 1)
        await other.close()
        for _ in range(SECONDS * 100):
            if not self.table.subscriptions:
                break
            await asyncio.sleep(0.01)
        self.assertEqual(self.table.subscriptions, [])

    async def test_stopping(self) -> None:
        self.assertFalse(self.running.done())
        self.service.stop()
        await asyncio.wait_for(self.running, SECONDS)


class HandlersOnTheLoader(Handlers):
    """The same on the real one."""

    async def connect(self) -> Bus:
        if not hasattr(self, "loader"):
            self.loader = self.enterContext(Loader())
        return await self.stack.enter_async_context(connected())

    async def serve(self) -> Service:
        return await self.stack.enter_async_context(kelo.serve(500))


class Notifications(unittest.TestCase):
    def test_objects_come_behind_their_successors(self) -> None:
        from kelo.service import _in_order

        def row(id: int, following: int | None = None, dead: bool = False) -> Message:
            message = Message({ids.STD_ID: id})
            if following is not None:
                message[ids.STD_NEXTID] = following
            if dead:
                message[ids.STD_DEAD] = 1
            return message

        def order(*rows: Message) -> list[int]:
            return [each[ids.STD_ID] for each in _in_order(list(rows))]

        self.assertEqual(order(row(1, 2), row(2, 3), row(3)), [3, 2, 1])
        self.assertEqual(order(row(1), row(2, 1)), [1, 2])
        self.assertEqual(order(row(3, dead=True), row(1, 2), row(2, 9)), [3, 2, 1])
        self.assertEqual(order(row(1, dead=True), row(2, dead=True)), [1, 2])

    def test_system_fields_are_taken_out(self) -> None:
        m = Message({ids.SYS_TO: [1], ids.SYS_CMD: 5, ids.SYS_NOTIFYCMD: 6, 0x20000001: "a", 0x20000002: "b"})
        rest = without_system_fields(m)
        self.assertEqual(rest, Message({ids.SYS_NOTIFYCMD: 6, 0x20000001: "a", 0x20000002: "b"}))
        self.assertEqual(list(rest)[1:], [0x20000002, 0x20000001])


class FakeLoaders(unittest.IsolatedAsyncioTestCase):
    async def asyncSetUp(self) -> None:
        self.fake = await self.enterAsyncContext(kelo.testing.FakeLoader({500: "hello"}, rights=64))

    async def test_names_rights_and_ends(self) -> None:
        async with kelo.connect(self.fake.path, fields=[]) as bus:
            async with kelo.serve(500, path=self.fake.path) as service:
                service.add(Hello())
                service.start()
                self.assertEqual((await bus.get("hello")).message[TEXT], "hello")
                with self.assertRaises(kelo.NotAllowed):
                    await bus.set("hello", {TEXT: "x"})
                with self.assertRaises(kelo.Disconnected):
                    async with kelo.connect(self.fake.path, service=500):
                        pass
                service.add(Table(), 3)
                async with bus.watch("hello/3") as watch:
                    await until(watch, "complete")
                    self.fake.disconnect(500)
                    (lost,) = await until(watch, "lost")
                    self.assertIsNone(lost.reason)
                await service.run()
            with self.assertRaises(kelo.BrokenPath):
                await bus.get(500)
            self.assertGreater(self.fake.carried, 5)

    async def test_an_open_request_of_a_service_that_ends(self) -> None:
        async with kelo.connect(self.fake.path) as bus, kelo.serve(500, path=self.fake.path) as service:
            hello = Hello()
            hello.rights[ids.CMD_RESET] = 64
            service.add(hello)
            service.start()
            waiting = asyncio.create_task(bus.reset(500))
            await bus.get(500)
            self.fake.disconnect(500)
            with self.assertRaises(kelo.BrokenPath):
                await asyncio.wait_for(waiting, SECONDS)

    async def test_garbage_ends_its_sender_only(self) -> None:
        async with kelo.connect(self.fake.path) as bus:
            for garbage in (b"\xff\xff\xff\xff", b"\2\0\0\0M2", b"\1\0\0\0x", b"\0"):
                reader, writer = await asyncio.open_unix_connection(self.fake.path)
                writer.write(garbage)
                writer.write_eof()
                self.assertEqual(await asyncio.wait_for(reader.read(), SECONDS), b"")
                writer.close()
            self.assertEqual(len(await bus.services()), 1)


class StartedByTheLoader(LoaderTest):
    configuration = service("table", 41, *python_program("python_table")) + service("undo", 17, program("kl-undo"))

    async def test_it_serves_leaves_and_comes_again(self) -> None:
        await self.running(41)
        async with self.bus.watch("table/3") as watch:
            await until(watch, "complete")
            await self.bus.set("table/3:7", descr="seven")
            (change,) = await until(watch, "changed")
            self.assertEqual(change.object, {"id": 7, "descr": "seven"})
            await self.bus.leave("table")
            self.assertEqual((await self.bus.get("loader", id=41)).state, "left")
            # The next request starts it again; it knows its objects, and whom to tell.
            self.assertEqual((await self.bus.get("table/3:7")).descr, "seven")
            self.assertEqual((await self.bus.get("loader", id=41)).starts, 2)
            await self.bus.set("table/3:8", descr="eight")
            while (change := (await until(watch, "changed"))[-1]).id != 8:
                pass
            self.assertFalse(change.is_lost)

    async def test_undo(self) -> None:
        await self.running(17)
        await self.bus.set("table/3:7", descr="one")
        await self.bus.set("table/3:7", descr="two")
        while True:
            records = [each for each in await self.bus.undo_records() if each.description == "object 7"]
            if len(records) >= 2:
                break
            await asyncio.sleep(0.01)
        await self.bus.undo(records[0].id)
        self.assertEqual((await self.bus.get("table/3:7")).descr, "one")
        await self.bus.undo(records[0].id)
        self.assertEqual((await self.bus.get("table/3:7")).descr, "two")


if __name__ == "__main__":
    unittest.main()

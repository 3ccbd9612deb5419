"""The client against the loader and its services."""

from __future__ import annotations

import asyncio
import os
import random
import signal
import unittest
from collections.abc import AsyncIterator
from concurrent.futures import ThreadPoolExecutor

import kelo
import kelo.blocking
from kelo import ids
from kelo.bus import AnyPath, Bus
from kelo.codec import Message
from kelo.watch import Change, Watch
from tests.loader import FIELDS, SECONDS, Loader, LoaderTest, connected, program, service

TABLE = (40, 3)
VALUE, PAYLOAD, HOLD, FIRST, COUNT = 0x08000001, 0x30000002, 0x00000003, 0x08000004, 0x08000005
DIGEST, SUBSCRIPTIONS = 0x10000006, 0x08000007
NOTIFY_OWN = 0x60001


def digest_of(values: dict[int, int]) -> int:
    digest = 0xCBF29CE484222325
    for id, value in sorted(values.items()):
        for word in (id, value):
            digest = (digest ^ word) * 0x100000001B3 & 0xFFFFFFFFFFFFFFFF
    return digest


async def until(watch: AsyncIterator[Change], kind: str) -> list[Change]:
    """The changes up to the first of this kind, which is the last of them."""
    changes: list[Change] = []
    while not changes or changes[-1].kind.value != kind:
        changes.append(await asyncio.wait_for(anext(watch), SECONDS))
    return changes


class Asking(LoaderTest):
    configuration = service("hello", 34, program("hello")) + service("table", 40, program("kl-test-table"))

    async def test_the_service_of_the_guide(self) -> None:
        self.assertEqual(await self.bus.get("hello/0"), {"descr": "hello"})
        await self.bus.set("hello/0", descr="good day")
        self.assertEqual((await self.bus.get("hello/0")).descr, "good day")
        self.assertEqual((await self.bus.get((34, 0)))["STD_DESCR"], "good day")
        with self.assertRaises(kelo.MissingFields) as raised:
            await self.bus.set("hello/0")
        self.assertEqual(str(raised.exception), "std failure: missing fields (5)")
        self.assertEqual(raised.exception.name, "ERROR_MISSING")
        with self.assertRaises(kelo.NotImplementedByService):
            await self.bus.reset("hello/0")

    async def test_errors(self) -> None:
        paths: tuple[AnyPath, ...] = ("hello/5", 35, "hello/0/1")
        for path in paths:
            with self.subTest(path=path), self.assertRaises(kelo.BrokenPath):
                await self.bus.get(path)
        with self.assertRaisesRegex(kelo.PathError, "no service is called 'nobody'"):
            await self.bus.get("nobody")
        with self.assertRaisesRegex(kelo.PathError, "no field is called 'nothing'"):
            await self.bus.set("hello/0", nothing=1)
        with self.assertRaises(kelo.UnknownId):
            await self.bus.get("table/3", id=7)
        with self.assertRaises(kelo.FieldError):
            await self.bus.set("hello/0", {0x20000001: 60000 * "x", 0x20000002: 60000 * "x", 0x20000003: 3})
        with self.assertRaises(kelo.CodecError):
            await self.bus.set("hello/0", {0x20000001: 60000 * "x", 0x20000002: 60000 * "x"})
        self.assertEqual((await self.bus.get("hello/0")).descr, "hello")

    async def test_objects(self) -> None:
        await self.bus.set(TABLE, {VALUE: 5}, id=7)
        self.assertEqual(await self.bus.get("table/3:7"), {"id": 7, "u32:1": 5})
        self.assertEqual(await self.bus.count("table/3"), 1)
        await self.bus.remove("table/3", id=7)
        self.assertEqual(await self.bus.get_all("table/3"), [])
        with self.assertRaises(kelo.NotImplementedByService):
            await self.bus.add("table/3")

    async def test_a_table_in_chunks(self) -> None:
        await self.bus.set(TABLE, {FIRST: 1, COUNT: 3000})
        chunks = [chunk async for chunk in self.bus.chunks("table/3")]
        self.assertGreater(len(chunks), 1)
        self.assertEqual([each.id for chunk in chunks for each in chunk], list(range(1, 3001)))
        self.assertEqual([each.id for each in await self.bus.get_all("table/3")], list(range(1, 3001)))

    async def test_the_services(self) -> None:
        row = await self.running(34)
        self.assertEqual((row.name, row.state, row.starts), ("hello", "running", 1))
        self.assertEqual({each.id for each in await self.bus.services()}, {1, 34, 40, self.bus.id})
        await self.bus.stop("hello")
        while (await self.bus.get("loader", id=34)).state != "stopped":
            await asyncio.sleep(0.01)
        await self.bus.start("hello")
        await self.running(34)
        with self.assertRaises(kelo.Failed):
            await self.bus.leave("hello")

    async def test_commands(self) -> None:
        self.assertEqual(await self.bus.send("hello/0"), {})
        self.assertEqual((await self.bus.send("table/3", "getcount")).message[ids.STD_GETALLNO], 0)
        self.assertEqual(await self.bus.send("hello/0", "CMD_SET", descr="x", reply=False), {})
        self.assertEqual((await self.bus.send("hello/0", ids.CMD_GET)).descr, "x")
        with self.assertRaises(kelo.PathError):
            await self.bus.send("hello/0", "nonsense")

    async def test_requests_side_by_side(self) -> None:
        await self.bus.set(TABLE, {FIRST: 0, COUNT: 200})
        found = await asyncio.gather(*(self.bus.get("table/3", id=id) for id in range(200)))
        self.assertEqual([each.id for each in found], list(range(200)))

    async def test_no_reply_in_time(self) -> None:
        silent = await self.enterAsyncContext(connected(500))
        silent.process.add(_Silent(), 1)
        self.bus.timeout = 0.05
        with self.assertRaises(kelo.Timeout):
            await self.bus.get((500, 1))
        # The reply to what nobody waits for any more is thrown away.
        self.bus.timeout = SECONDS
        self.assertEqual((await self.bus.get("hello/0")).descr, "hello")

    async def test_notifications(self) -> None:
        async with await self.bus.subscribe("table/3", NOTIFY_OWN) as subscription:
            await self.bus.send("table/3", NOTIFY_OWN)
            message = await asyncio.wait_for(anext(subscription), SECONDS)
            self.assertEqual(message[ids.SYS_CMD], NOTIFY_OWN)
            self.assertEqual(message[ids.SYS_FROM], list(TABLE))
        self.assertEqual((await self.bus.send("table/3", "getcount")).message[SUBSCRIPTIONS], 0)
        async with await self.bus.subscribe("table/3", limit=2) as subscription:
            for value in range(5):
                await self.bus.set(TABLE, {VALUE: value}, id=value)
                await self.bus.send("table/3", "start", {FIRST: 1, COUNT: 1})  # tells at once
            await self.bus.get("hello/0")
            while subscription.lost < 3:
                await asyncio.sleep(0.01)
            last = [await anext(subscription), await anext(subscription)]
            self.assertEqual([each[ids.SYS_CMD] for each in last], 2 * [ids.CMD_NOTIFY])

    async def test_the_loader_goes_away(self) -> None:
        self.assertFalse(self.bus.process.is_ended)
        watch = await self.enterAsyncContext(self.bus.watch("table/3"))
        await until(watch, "complete")
        open_request = asyncio.create_task(self.bus.send((self.bus.id, 77), reply=True))
        await asyncio.gather(open_request, return_exceptions=True)
        self.loader.end(signal.SIGKILL)
        await asyncio.wait_for(self.bus.process.wait_ended(), SECONDS)
        with self.assertRaises(kelo.Disconnected):
            await self.bus.get("hello/0")
        with self.assertRaises(kelo.Disconnected):
            await asyncio.wait_for(anext(watch), SECONDS)


class _Silent:
    def receive(self, message: Message) -> None:
        pass

    def disconnected(self, message: Message) -> None:
        pass


class Connecting(LoaderTest):
    async def test_no_loader(self) -> None:
        with self.assertRaisesRegex(kelo.Disconnected, "there is no loader at /nowhere"):
            async with kelo.connect("/nowhere"):
                pass

    async def test_an_id_that_is_taken(self) -> None:
        async with connected(500) as first:
            self.assertEqual(first.id, 500)
            with self.assertRaisesRegex(kelo.Disconnected, "did not confirm"):
                async with connected(500):
                    pass

    async def test_a_path_in_this_process_that_leads_nowhere(self) -> None:
        async with connected(500) as other:
            with self.assertRaises(kelo.BrokenPath):
                await self.bus.get((500, 9))
            self.assertFalse(other.process.is_ended)

    async def test_a_request_to_itself(self) -> None:
        with self.assertRaises(kelo.BrokenPath):
            await self.bus.get((self.bus.id, 9))


class Watching(LoaderTest):
    configuration = service("table", 40, program("kl-test-table"))

    async def test_the_table_and_its_changes(self) -> None:
        await self.bus.set(TABLE, {FIRST: 1, COUNT: 3})
        async with self.bus.watch("table/3") as watch:
            first = await until(watch, "complete")
            self.assertEqual([change.id for change in first[:-1]], [1, 2, 3])
            self.assertTrue(first[0].is_changed and first[-1].is_complete and watch.is_complete)
            await self.bus.set(TABLE, {VALUE: 50}, id=9)
            (new,) = await until(watch, "changed")
            self.assertEqual((new.id, new.object), (9, {"id": 9, "u32:1": 50}))
            await self.bus.remove("table/3", id=2)
            (gone,) = await until(watch, "removed")
            self.assertEqual((gone.id, sorted(watch.table)), (2, [1, 3, 9]))
        self.assertEqual((await self.bus.send("table/3", "getcount")).message[SUBSCRIPTIONS], 0)

    async def test_a_restart(self) -> None:
        await self.bus.set(TABLE, {FIRST: 1, COUNT: 3})
        async with self.bus.watch("table/3") as watch:
            await until(watch, "complete")
            await self.bus.restart("table")
            self.assertEqual([change.kind.value for change in await until(watch, "lost")], ["lost"])
            gone = await until(watch, "complete")
            self.assertEqual([change.id for change in gone if change.is_removed], [1, 2, 3])
            self.assertEqual(watch.table, {})

    async def test_a_service_that_comes_later(self) -> None:
        async with self.bus.watch((500, 3)) as watch:
            (lost,) = await until(watch, "lost")
            self.assertIsInstance(lost.reason, kelo.BrokenPath)
            self.assertFalse(watch.is_complete)

    async def test_for_without_with(self) -> None:
        await self.bus.set(TABLE, {FIRST: 1, COUNT: 2})
        seen = []
        async for change in self.bus.watch("table/3"):
            seen.append(change.kind.value)
            if change.is_complete:
                break
        self.assertEqual(seen, ["changed", "changed", "complete"])

    async def test_who_does_not_read_gets_the_last_word_only(self) -> None:
        async with self.bus.watch("table/3") as watch:
            await until(watch, "complete")
            for value in range(300):
                await self.bus.set(TABLE, {VALUE: value}, id=1)
            while watch._waiting.get(1) != Message({ids.STD_ID: 1, VALUE: 299}):
                await asyncio.sleep(0.01)
            self.assertEqual(len(watch._waiting), 1)
            (last,) = await until(watch, "changed")
            assert last.object is not None
            self.assertEqual(last.object["u32:1"], 299)


class Restarts(LoaderTest):
    """The table changes all the time, differs at each start, and its service ends in whatever it is doing."""

    configuration = service("table", 40, program("kl-test-table"), "changing")
    restarts = int(os.environ.get("KELO_RESTARTS", "25"))

    async def test_what_is_followed_is_what_there_is(self) -> None:
        r = random.Random(1)
        async with self.bus.watch("table/3") as watch:
            reader = asyncio.create_task(read(watch))
            for _ in range(self.restarts):
                await asyncio.sleep(r.random() * 0.05)
                await self.bus.restart("table")
            await self.running(40)
            await self.bus.send("table/3", "cancel")
            await asyncio.wait_for(self.until_equal(self.bus, watch), SECONDS)
            reader.cancel()
        self.assertGreater((await self.bus.get("loader", id=40)).starts, 1)

    async def until_equal(self, bus: Bus, watch: Watch) -> None:
        while True:
            digest = (await bus.send("table/3", "getcount")).message[DIGEST]
            if watch.is_complete and digest == digest_of({id: each["u32:1"] for id, each in watch.table.items()}):
                return
            await asyncio.sleep(0.05)


async def read(watch: Watch) -> None:
    async for _ in watch:
        pass


class Companions(LoaderTest):
    configuration = (
        service("netif", 32, program("netif"))
        + service("undo", 17, program("kl-undo"))
        + service("log", 18, program("kl-logd"))
    )

    async def test_netif_by_name(self) -> None:
        links = await self.bus.get_all("netif")
        self.assertIn("lo", [link.name for link in links])
        lo = next(link for link in links if link.name == "lo")
        one = await self.bus.get("netif", id=lo.id)
        self.assertEqual(one.mtu, lo.mtu)
        self.assertIn("mtu", dir(one))
        self.assertIsInstance(one.addresses, list)
        self.assertEqual(list(one)[:3], ["id", "name", "up"])

    async def test_undo(self) -> None:
        before = (await self.bus.get("netif:1")).get("descr", "")
        await self.bus.set("netif:1", descr="to itself, " + before)
        while True:
            records = await self.bus.undo_records()
            if records and records[0].undo.descr == before:
                break
            await asyncio.sleep(0.01)
        self.assertEqual((records[0].description, records[0].get("undone", False)), ("description of lo", False))
        self.assertEqual(records[0].undo.descr, before)
        await self.bus.undo(records[0].id)
        self.assertEqual((await self.bus.get("netif", id=1)).get("descr", ""), before)
        with self.assertRaises(kelo.UnknownId):
            await self.bus.undo(99)

    async def test_log(self) -> None:
        await self.running(18)
        await self.bus.set("netif:1", descr="logged")
        async with self.bus.follow_log(process="netif") as lines:
            while True:
                change = await asyncio.wait_for(anext(lines), SECONDS)
                if change.object is not None and "description" in change.object.text:
                    break
                if change.is_complete:
                    await self.bus.set("netif:1", descr="logged again")
        self.assertIn("description of lo", (await self.bus.log(process="netif"))[-1].text)
        self.assertEqual(await self.bus.log(process="nobody"), [])
        await self.bus.mute(32)
        self.assertTrue((await self.bus.get("log/1", id=32)).muted)
        await self.bus.mute(32, False)


class Blocking(unittest.TestCase):
    def setUp(self) -> None:
        configuration = service("hello", 34, program("hello")) + service("table", 40, program("kl-test-table"))
        self.loader = self.enterContext(Loader(configuration))
        asyncio.run(self.answers())
        self.bus = self.enterContext(kelo.blocking.connect(fields=list(FIELDS), timeout=SECONDS))

    async def answers(self) -> None:
        async with connected() as bus:
            await bus.get("hello/0")

    def test_asking(self) -> None:
        self.assertGreaterEqual(self.bus.id, 0x10000)
        self.bus.set("hello/0", descr="blocking")
        self.assertEqual(self.bus.get("hello/0").descr, "blocking")
        self.assertEqual(self.bus.send("hello/0", "get").descr, "blocking")
        with self.assertRaises(kelo.MissingFields):
            self.bus.set("hello/0")
        self.bus.set("table/3", {VALUE: 1}, id=5)
        self.assertEqual([each.id for each in self.bus.get_all("table/3")], [5])
        self.assertEqual(self.bus.count("table/3"), 1)
        self.bus.remove("table/3", id=5)
        self.assertIn("hello", [each.name for each in self.bus.services()])

    def test_watching(self) -> None:
        self.bus.set("table/3", {FIRST: 1, COUNT: 2})
        with self.bus.watch("table/3") as changes:
            self.assertEqual([next(changes).kind.value for _ in range(3)], ["changed", "changed", "complete"])
            self.bus.restart("table")
            self.assertTrue(next(changes).is_lost)
        self.assertEqual(list(changes), [])

    def test_notifications(self) -> None:
        with self.bus.subscribe("table/3", NOTIFY_OWN) as notifications:
            self.bus.send("table/3", NOTIFY_OWN)
            self.assertEqual(next(notifications)[ids.SYS_CMD], NOTIFY_OWN)

    def test_from_several_threads(self) -> None:
        with ThreadPoolExecutor(8) as pool:
            found = list(pool.map(lambda _: str(self.bus.get("hello/0").descr), range(200)))
        self.assertEqual(found, 200 * ["hello"])


if __name__ == "__main__":
    unittest.main()

"""The examples do what they say."""

from __future__ import annotations

import asyncio
import subprocess
import sys
import unittest

import kelo
from kelo.root import under_root
from tests.golden import ROOT
from tests.loader import SECONDS, LoaderTest, program, service
from tests.test_bus import until

EXAMPLES = ROOT / "python" / "examples"


def example(name: str) -> tuple[str, str, str]:
    return sys.executable, "-B", str(EXAMPLES / f"{name}.py")


class Examples(LoaderTest):
    configuration = (
        service("netif", 32, *example("mock_netif"))
        + service("hello", 34, program("hello"))
        + service("undo", 17, program("kl-undo"))
    )

    async def test_the_mock_is_a_netif(self) -> None:
        await self.running(32)
        links = await self.bus.get_all("netif")
        self.assertEqual([(link.name, link.mtu, link.up) for link in links], [("lo", 65536, 1), ("eth0", 1500, 1)])
        async with self.bus.watch("netif") as watch:
            await until(watch, "complete")
            carrier = watch.table[2].running
            (change,) = await until(watch, "changed")
            assert change.object is not None
            self.assertEqual((change.id, change.object.running), (2, not carrier))
        await self.bus.set("netif:1", descr="to itself")
        self.assertEqual((await self.bus.get("netif:1")).descr, "to itself")
        with self.assertRaises(kelo.UnknownId):
            await self.bus.set("netif:3", descr="x")
        with self.assertRaises(kelo.MissingFields):
            await self.bus.set("netif:1")
        while not (records := await self.bus.undo_records()):
            await asyncio.sleep(0.01)
        await self.bus.undo(records[0].id)
        self.assertEqual((await self.bus.get("netif:1")).descr, "")

    async def test_the_report(self) -> None:
        await self.running(32)
        await self.running(34)
        run = await asyncio.to_thread(
            subprocess.run, example("report"), stdout=subprocess.PIPE, text=True, timeout=SECONDS, check=True
        )
        self.assertIn("netif (32): running\n    id=1, name=lo, up=True, running=True, mtu=65536, descr=\n", run.stdout)
        # Its handler 0 answers; nothing answers for the service itself.
        self.assertIn("hello (34): running\n    std failure: not implemented (3)\n", run.stdout)


class WithoutALoader(unittest.TestCase):
    def test_they_say_so(self) -> None:
        for name in ("report", "mock_netif"):
            run = subprocess.run(example(name), stderr=subprocess.PIPE, text=True, timeout=SECONDS)
            self.assertNotEqual(run.returncode, 0)
            place = under_root("/ram/kelosock")
            self.assertEqual(run.stderr, f"{name}.py: there is no loader at {place}: No such file or directory\n")


if __name__ == "__main__":
    unittest.main()

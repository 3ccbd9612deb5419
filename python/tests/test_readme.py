"""The listings of README.md run as they stand."""

from __future__ import annotations

import asyncio
import contextlib
import io
import re
import textwrap
import unittest
from typing import Any

import kelo
import kelo.blocking
import kelo.testing
from tests.golden import ROOT
from tests.loader import SECONDS, LoaderTest, program, service


def listing(beginning: str) -> str:
    """The listing that has this in it."""
    found = re.findall(r"^```python\n(.*?)^```$", (ROOT / "python" / "README.md").read_text(), re.M | re.S)
    (text,) = [each for each in found if beginning in each]
    return str(text)


async def run(code: str, **names: Any) -> str:
    """The output of a listing."""
    scope: dict[str, Any] = {"kelo": kelo, "asyncio": asyncio, **names}
    exec("async def listing():\n" + textwrap.indent(code, "    "), scope)
    out = io.StringIO()
    with contextlib.redirect_stdout(out):
        await asyncio.wait_for(scope["listing"](), SECONDS)
    return out.getvalue()


class Listings(LoaderTest):
    configuration = service("hello", 34, program("hello")) + service("table", 40, program("kl-test-table"))

    async def test_asking(self) -> None:
        await self.running(34)
        lines = (await run(listing("bus.services()"))).splitlines()
        self.assertEqual(lines[0], "hello")
        self.assertIn("34 hello running", lines)
        self.assertEqual((await self.bus.get("hello/0")).descr, "good day")

    async def test_following(self) -> None:
        await self.bus.set("table/3", {"u32:1": 7}, id=5)
        printed = await run(listing('bus.watch("table/3")'), bus=self.bus)
        self.assertEqual(printed, "5 is now {id: 5, u32:1: 7}\nthat is all of them\n")

    async def test_serving_and_testing(self) -> None:
        names: dict[str, Any] = {"kelo": kelo}
        exec(listing("class Hello(kelo.Handler)"), names)
        await run(listing("kelo.testing.FakeLoader()"), Hello=names["Hello"])
        await self.bus.stop("hello")
        while (await self.bus.get("loader", id=34)).state != "stopped":
            await asyncio.sleep(0.01)
        # In the place of the one in C++.
        serving = asyncio.create_task(names["main"]())
        while (await self.bus.get("loader", id=34)).state != "running":
            await asyncio.sleep(0.01)
        self.assertEqual((await self.bus.get("hello/0")).descr, "hello")
        with self.assertRaises(kelo.MissingFields):
            await self.bus.set("hello/0")
        serving.cancel()
        await asyncio.gather(serving, return_exceptions=True)

    async def test_without_asyncio(self) -> None:
        code = listing("kelo.blocking.connect()")
        self.assertEqual(await asyncio.to_thread(lambda: asyncio.run(run(code))), "hello\n")


if __name__ == "__main__":
    unittest.main()

#!/usr/bin/python3
"""mock_netif.py: in the place of netif, two links that nobody has, for programs that want to be tried.

Its path is [32], as netif's. Descriptions can be set; every second the second link loses its carrier or gets it back.
"""

from __future__ import annotations

import asyncio
import itertools
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

import kelo  # noqa: E402
from kelo.ids import CMD_SETOBJ  # noqa: E402
from kelo.names import Dictionaries  # noqa: E402

SERVICE = 32


class MockNetif(kelo.Table):
    dictionary = Dictionaries().of("netif")

    def __init__(self) -> None:
        super().__init__()
        self.link(1, name="lo", mtu=65536, running=True)
        self.link(2, name="eth0", mtu=1500, running=True)

    def link(self, id: int, **fields: object) -> None:
        """Changes what is known of a link."""
        before = dict(self[id]) if id in self else {"up": True, "descr": ""}
        self.put(id, {**before, **fields})

    def set_object(self, request: kelo.Message, id: int) -> None:
        asked = self.named(request)
        if id not in self:
            raise kelo.UnknownId()
        if "descr" not in asked:
            raise kelo.MissingFields()
        before = self[id].descr
        self.put(id, {**self[id], "descr": asked.descr}, request)
        self.report_undo(request, {"id": id, "descr": before}, f"description of {self[id].name}", CMD_SETOBJ)


async def main() -> None:
    async with kelo.serve(SERVICE) as service:
        netif = MockNetif()
        service.add(netif)
        service.start()
        for running in itertools.cycle((False, True)):
            await asyncio.sleep(1)
            if service.process.is_ended:
                return
            netif.link(2, running=running)


if __name__ == "__main__":
    try:
        asyncio.run(main())
    except kelo.Disconnected as error:
        sys.exit(f"mock_netif.py: {error}")

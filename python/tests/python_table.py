"""A service for the loader to start: a table at its handler 3 whose objects anybody may set, and which may leave."""

from __future__ import annotations

import asyncio

import kelo
from kelo import ids
from kelo.codec import Message


class Objects(kelo.Table):
    def set_object(self, request: Message, id: int) -> None:
        before = self[id].get("descr", "") if id in self else ""
        self.put(id, {"descr": request.get(ids.STD_DESCR, "")}, request)
        self.report_undo(request, {"STD_ID": id, "descr": before}, f"object {id}", ids.CMD_SETOBJ)

    def remove_object(self, request: Message, id: int) -> None:
        self.take(id, request)

    def save(self, data: Message) -> None:
        super().save(data)
        data[0xA8000002] = [self[id].message for id in range(100) if id in self]

    def load(self, data: Message) -> None:
        super().load(data)
        for each in data.get(0xA8000002, []):
            message = Message.decode(each)
            self.put(message[ids.STD_ID], message)


async def main() -> None:
    async with kelo.serve(41) as service:
        service.add(Objects(), 3)
        service.may_leave()
        await service.run()


asyncio.run(main())

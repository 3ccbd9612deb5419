#!/usr/bin/python3
"""report.py: what all services of this machine show, one line for each object."""

from __future__ import annotations

import asyncio
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

import kelo  # noqa: E402


async def tell(bus: kelo.Bus, service: kelo.Object) -> None:
    print(f"{service.name} ({service.id}): {service.state}")
    if service.state != "running" or service.id == bus.id:
        return
    try:
        async for objects in bus.chunks(service.id):
            for each in objects:
                print("   ", ", ".join(f"{name}={value}" for name, value in each.items()))
    except kelo.ServiceError as error:
        print("   ", error)


async def main() -> int:
    try:
        async with kelo.connect() as bus:
            for service in await bus.services():
                await tell(bus, service)
    except kelo.Disconnected as error:
        print(f"report.py: {error}", file=sys.stderr)
        return 4
    return 0


if __name__ == "__main__":
    sys.exit(asyncio.run(main()))

#!/usr/bin/python3
"""figures.py: how long `import kelo` takes, and how many small requests a second the codec writes and reads.

A small request is one of bench/message: two paths of two, six numbers, a flag and a short text.
"""

from __future__ import annotations

import os
import subprocess
import sys
import tempfile
import time
from collections.abc import Callable
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))

from kelo.codec import Message  # noqa: E402

ROUNDS = 5
IMPORT = "import time; begin = time.process_time(); import {}; print(time.process_time() - begin)"


def small_request() -> Message:
    m = Message()
    m[0x88FF0001] = [24, 7]
    m[0x88FF0002] = [0x10003, 5]
    for field, value in (
        (0x08FF0003, 1),
        (0x08FF0006, 0x1000),
        (0x08FF0007, 0xFE0002),
        (0x08FF000B, 0xFFFFFFFF),
        (0x08FE0001, 3),
        (0x08000005, 200),
    ):
        m[field] = value
    m[0x00FF0005] = True
    m[0x20FF000A] = "ahovcjqxelsz"
    return m


def import_seconds(module: str) -> float:
    """Of the processor, with the modules compiled as those of an installed package are."""
    with tempfile.TemporaryDirectory() as folder:
        environment = dict(os.environ, PYTHONPYCACHEPREFIX=folder)
        command = [sys.executable, "-c", IMPORT.format(module)]

        def once() -> float:
            run = subprocess.run(command, cwd=HERE, env=environment, stdout=subprocess.PIPE, check=True)
            return float(run.stdout)

        return min(once() for _ in range(2 * ROUNDS))


def a_second(work: Callable[[], object], count: int = 10_000) -> int:
    best = 0.0
    for _ in range(ROUNDS):
        begin = time.process_time()
        for _ in range(count):
            work()
        best = max(best, count / (time.process_time() - begin))
    return round(best)


def main() -> None:
    m = small_request()
    data = m.encode()
    for module in ("kelo", "kelo.codec", "kelo.bus"):
        print(f"import {module:11} {import_seconds(module) * 1000:6.1f} ms")
    print(f"build and encode   {a_second(lambda: small_request().encode()):7} a second")
    print(f"encode             {a_second(m.encode):7} a second")
    print(f"decode             {a_second(lambda: Message.decode(data)):7} a second")
    print(f"decode and encode  {a_second(lambda: Message.decode(data).encode()):7} a second ({len(data)} bytes)")


if __name__ == "__main__":
    main()

"""A loader of the test's own.  Needs a private root, and the programs in KL_BIN_DIR."""

from __future__ import annotations

import asyncio
import os
import signal
import subprocess
import sys
import tempfile
import unittest
from collections.abc import AsyncIterator
from contextlib import asynccontextmanager
from pathlib import Path
from typing import Optional

import kelo
from kelo.bus import Bus
from tests.golden import ROOT

BIN = Path(os.environ.get("KL_BIN_DIR", ROOT / "build" / "release" / "bin"))
HERE = Path(__file__).resolve().parent
FIELDS = [ROOT / "tools" / "fields"]
SECONDS = 30


def service(name: str, id: int, *command: str) -> str:
    words = ", ".join(f'"{word}"' for word in command)
    environment = f'{{ PYTHONPATH = "{ROOT / "python"}" }}'  # a service has none of the loader's
    return f'[[service]]\nname = "{name}"\nid = {id}\ncommand = [{words}]\nenvironment = {environment}\n'


def program(name: str) -> str:
    return str(BIN / name)


def python_program(name: str) -> tuple[str, str, str]:
    """A service of the tests in Python."""
    return sys.executable, "-B", str(HERE / f"{name}.py")


class Loader:
    """Runs kl-loader with a configuration, from `with` to its end."""

    def __init__(self, configuration: str = "") -> None:
        self._configuration = configuration
        self._folder = tempfile.TemporaryDirectory()
        self._process: Optional[subprocess.Popen[bytes]] = None

    def __enter__(self) -> Loader:
        file = Path(self._folder.name, "kl-loader.toml")
        file.write_text(self._configuration)
        self._log = open(Path(self._folder.name, "log"), "wb")
        self._process = subprocess.Popen(
            [program("kl-loader"), "--config", str(file)], stdout=self._log, stderr=self._log
        )
        return self

    def __exit__(self, *_: object) -> None:
        self.end()
        self._log.close()
        self._folder.cleanup()

    def end(self, with_signal: int = signal.SIGTERM) -> None:
        if self._process is not None:
            self._process.send_signal(with_signal)
            self._process.wait(SECONDS)
            self._process = None

    def log(self) -> str:
        return Path(self._folder.name, "log").read_text(errors="replace")


@asynccontextmanager
async def connected(service: int = 0) -> AsyncIterator[Bus]:
    """A bus on a loader that may still be starting."""
    for attempt in range(100 * SECONDS):
        try:
            async with kelo.connect(service=service, fields=list(FIELDS), timeout=SECONDS) as bus:
                yield bus
            return
        except kelo.Disconnected as error:
            if "there is no loader" not in str(error):
                raise
        await asyncio.sleep(0.01)
    raise AssertionError("the loader does not start")


class LoaderTest(unittest.IsolatedAsyncioTestCase):
    """A test with a loader and a bus."""

    configuration = ""

    async def asyncSetUp(self) -> None:
        self.loader = self.enterContext(Loader(self.configuration))
        self.bus = await self.enterAsyncContext(connected())
        # Told with a failure only.
        self.addCleanup(lambda: print(self.loader.log(), end="") if self._has_failed() else None)

    def _has_failed(self) -> bool:
        result = self._outcome.result  # type: ignore[attr-defined]
        return any(test is self for test, _ in [*result.errors, *result.failures])

    async def running(self, number: int) -> kelo.Object:
        """The row of a service in the loader's table, once it runs."""
        for _ in range(100 * SECONDS):
            row = await self.bus.get("loader", id=number)
            if row.state == "running":
                return row
            await asyncio.sleep(0.01)
        raise AssertionError(f"service {number} does not run: {row}\n{self.loader.log()}")

#!/usr/bin/env python3
"""What tshark makes of a session of the system that klctl has captured.

Needs a private root, and the programs in KL_BIN_DIR.  Exit status: that of unittest; 77 without tshark.
"""

import asyncio
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[4]
sys.path.insert(0, str(ROOT / "python"))

import kelo  # noqa: E402
from kelo import ids  # noqa: E402
from kelo.codec import Message  # noqa: E402
from tests.loader import BIN, SECONDS, LoaderTest, program, service  # noqa: E402

EVERY = 700
LAST = 78  # nobody has this number, so the loader answers in its place
HOSTILE = "\x1b[2J\r\n\u202e"
NETIF = 32


def nested(depth: int) -> Message:
    message = Message()
    message[0x20000001] = HOSTILE
    for _ in range(depth):
        outer = Message()
        outer[0x28000002] = message.encode()
        message = outer
    return message


def every_kind() -> dict:
    """A field of each type, alone and as an array of none, one and several."""
    values = {0: True, 1: 0xFFFFFFFF, 2: 1 << 63, 3: bytes(range(16)), 4: HOSTILE, 5: nested(40).encode(), 6: b"\x00\xff"}
    fields = {}
    for kind, value in values.items():
        fields[kind << 27 | 10] = value
        for number, count in enumerate((0, 1, 3), 11):
            fields[1 << 31 | kind << 27 | number] = [value] * count
    return fields


class Every(kelo.Table):
    """Has an object with all of it, and says so when it changes."""

    def set_object(self, request: Message, id: int) -> None:
        self.put(id, every_kind(), request)


class Klctl:
    """klctl capture, from when it is there until it is told to end."""

    def __init__(self, file: pathlib.Path, *options: str) -> None:
        self.file = file
        self.process = subprocess.Popen(
            [program("klctl"), "capture", "-o", str(file), *options], stderr=subprocess.PIPE, text=True
        )
        self.wish = self.process.stderr.readline()

    async def end(self) -> int:
        """The number of messages, of which none was lost, once the last one of a session is there."""
        while f"({LAST})".encode() not in self.file.read_bytes():
            await asyncio.sleep(0.01)
        self.process.send_signal(signal.SIGINT)
        said = self.process.communicate(timeout=SECONDS)[1]
        count, _, rest = said.removeprefix("klctl: ").partition(" ")
        assert (self.process.returncode, rest) == (0, "messages, 0 lost\n"), said
        return int(count)


class Capture(LoaderTest):
    configuration = service("netif", NETIF, program("netif"))

    async def asyncSetUp(self) -> None:
        await super().asyncSetUp()
        await self.running(NETIF)
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.script = str(self.folder / "kelo.lua")
        descriptions = sorted(map(str, (ROOT / "tools/fields").glob("*.toml")))
        subprocess.run([program("klgen"), "dissector", "-o", self.script, *descriptions], check=True)

    async def session(self) -> None:
        """Requests, replies, errors, notifications, a death, and every type of field in them."""
        await self.bus.get_all("netif")
        with self.assertRaises(kelo.UnknownId):
            await self.bus.get("netif", id=99)
        with self.assertRaises(kelo.BrokenPath):
            await self.bus.get(77)
        async with kelo.serve(EVERY) as every:
            every.add(Every(), 0)
            every.start()
            changes = await self.bus.subscribe((EVERY, 0))
            await self.bus.set((EVERY, 0), {0x08000001: 1}, id=5)
            await asyncio.wait_for(anext(changes), SECONDS)
            self.assertEqual((await self.bus.get((EVERY, 0), id=5)).message[0x20000000 | 10], HOSTILE)
        await self.bus.restart("netif")
        with self.assertRaises(kelo.BrokenPath):
            await self.bus.get(LAST)

    def packets(self, klctl: Klctl, *names: str) -> list[list[str]]:
        """The values of these fields, of each packet; tshark has nothing else to say."""
        options = [word for name in names for word in ("-e", name)]
        ended = subprocess.run(
            ["tshark", "-r", str(klctl.file), "-X", "lua_script:" + self.script,
             "-T", "fields", "-E", "separator=|", "-E", "aggregator=;", *options],
            capture_output=True, text=True, check=False, env=dict(os.environ, HOME=str(self.folder)),
        )
        errors = [line for line in ended.stderr.splitlines() if line and "Running as user" not in line]
        self.assertEqual((ended.returncode, errors), (0, []))
        return [line.split("|") for line in ended.stdout.splitlines()]

    async def test_a_session_is_whole_and_has_names(self) -> None:
        whole = Klctl(self.folder / "whole.pcapng")
        cut = Klctl(self.folder / "cut.pcapng", "--bytes", "40")
        headers = Klctl(self.folder / "headers.pcapng", "--headers")
        await self.session()
        with self.subTest("whole"):
            self.judge_whole(await whole.end(), whole)
        with self.subTest("of messages that were cut the beginning is shown"):
            count = await cut.end()
            rows = self.packets(cut, "kelo.malformed", "frame.cap_len")
            self.assertEqual([row[0] for row in rows], [""] * count)
            self.assertEqual(max(int(row[1]) for row in rows), 44)
        with self.subTest("of headers the comment says what passed"):
            count = await headers.end()
            rows = self.packets(headers, "kelo.malformed", "frame.cap_len", "frame.comment")
            self.assertEqual([row[:2] for row in rows], [["", "4"]] * count)
            self.assertTrue(any("reply CMD_GETALL" in row[2] for row in rows), rows)

    def judge_whole(self, count: int, klctl: Klctl) -> None:
        rows = self.packets(klctl, "kelo.malformed", "_ws.malformed", "kelo.kind", "kelo.sender", "kelo.to",
                            "kelo.command", "kelo.error", "frame.comment", "kelo.field")
        self.assertEqual([row[:2] for row in rows], [["", ""]] * count)
        _, _, kinds, senders, receivers, commands, errors, comments, _ = map(set, zip(*rows))
        self.assertLessEqual({"request", "reply", "error", "message", "control"}, kinds)
        self.assertLessEqual({"netif (32)", "loader (1)", "unnamed (700)", "unnamed (77)"}, senders)
        self.assertLessEqual({"netif", "700.0", "loader"}, receivers)
        self.assertLessEqual({"GETALL", "SUBSCRIBE", "SETOBJ", "NOTIFY"}, commands)
        self.assertLessEqual({"unknownid", "brkpath"}, errors)
        self.assertIn("by the loader", comments)
        shown = {field for row in rows for field in row[8].split(";")}
        for part in ("action = restart", "mtu = 65536 bytes", "u64:10 = 9223372036854775808", "raw:10 = 00:ff",
                     "bool[]:13 = [true, true, true]", "u32[]:11 = []", "string:10 = \\x1b[2J\\x0d\\x0a\u202e",
                     "addr6[]:12 = [1:203:405:607:809:a0b:c0d:e0f]", "message:10 = 301 bytes"):
            self.assertIn(part, shown)


if __name__ == "__main__":
    if not shutil.which("tshark"):
        print("SKIPPED: there is no tshark")
        sys.exit(77)
    assert BIN.is_dir(), BIN
    unittest.main(argv=sys.argv[:1])

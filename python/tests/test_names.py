"""Descriptions: what of them is read, and that those of the companions are read whole."""

from __future__ import annotations

import tomllib
import unittest

from kelo import PathError, ids
from kelo.codec import Message
from kelo.names import Dictionary, Object, Target
from tests.golden import ROOT

LEASES = """
fields = [
  { name = "id", field = "u32:std.1" },
  { name = "state", type = "u32", id = 4, unit = "s", values = { free = 1, taken = 2 } },
  { name = "pin", field = "string:5", secret = true },
]
settings = [{ name = "seconds", field = "u32:1", default = 3600 }]

[service]
name = "leases"

[[objects]]
name = "lease"
key = "id"
fields = ["id", "state", { name = "mac", field = "raw:1" }]
commands = ["getall", { name = "release_all", code = 0x60001, takes = [{ name = "who", field = "string:9" }] }]

[[objects]]
name = "pool"
handler = 3
commands = [{ name = "release_all", code = 0x60002, right = "change" }]
"""


class Descriptions(unittest.TestCase):
    leases = Dictionary.parse(LEASES)

    def test_fields_are_read_wherever_they_are_written(self) -> None:
        self.assertEqual(
            self.leases.fields,
            {"id": 0x08FE0001, "state": 0x08000004, "pin": 0x20000005, "mac": 0x30000001, "who": 0x20000009},
        )
        self.assertEqual(self.leases.words, {0x08000004: {"free": 1, "taken": 2}})
        self.assertEqual(self.leases.units, {0x08000004: "s"})
        self.assertEqual(self.leases.settings, {"seconds": 0x08000001})

    def test_objects_stand_for_their_handlers(self) -> None:
        self.assertEqual(Target.parse("leases/pool:7"), Target("leases", ("pool",), 7))
        self.assertEqual(self.leases.handlers_of(Target.parse("leases/pool").handlers), (3,))
        self.assertEqual(self.leases.handlers_of(Target.parse("leases/lease").handlers), ())
        self.assertEqual(self.leases.handlers_of(Target.parse("leases/4/5").handlers), (4, 5))
        with self.assertRaisesRegex(PathError, "no object is called 'poll'; there are lease, pool"):
            self.leases.handlers_of(("poll",))

    def test_commands_are_those_of_their_object(self) -> None:
        self.assertEqual(self.leases.command_of("release_all"), 0x60001)
        self.assertEqual(self.leases.command_of("release_all", [3]), 0x60002)
        self.assertEqual(self.leases.command_of("getall", [3]), ids.CMD_GETALL)
        self.assertEqual(self.leases.command_of(0x60003), 0x60003)
        with self.assertRaises(PathError):
            self.leases.command_of("release_all", [4])

    def test_secrets_are_kept_and_not_printed(self) -> None:
        shown = Object(Message({0x20000005: "1234", 0x08000004: 2}), self.leases)
        self.assertEqual(shown.pin, "1234")
        self.assertEqual(repr(shown), "{state: 'taken', pin: (secret)}")

    def test_mistakes(self) -> None:
        for text in ("fields = 7", "fields = [7]", "fields = [{ name = 'a' }]", "[[objects]]\nhandler = 1", "]]"):
            with self.subTest(text), self.assertRaises(PathError):
                Dictionary.parse(text)

    def test_those_of_the_companions(self) -> None:
        for file in (ROOT / "tools" / "fields").iterdir():
            description = tomllib.loads(file.read_text())
            names = Dictionary.parse(file.read_text(), str(file))
            self.assertEqual(list(names.fields), [row["name"] for row in description["fields"]])
            self.assertEqual(list(names.objects), [each["name"] for each in description["objects"]])
        loader = Dictionary.parse((ROOT / "tools" / "fields" / "loader.toml").read_text())
        self.assertEqual(loader.command_of("explain_rights"), 0x60001)


if __name__ == "__main__":
    unittest.main()

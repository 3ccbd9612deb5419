#!/usr/bin/env python3
"""What tshark shows of messages by a dissector that klgen has made.

usage: dissector_test.py KLGEN...

The capture is made here.  What is malformed the codec of the Python package says, which was written from docs/message.md.
Exit status: that of unittest; 77 without tshark.
"""

import pathlib
import random
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[3]
sys.path.insert(0, str(ROOT / "python"))

from kelo.codec import DecodeError, Kind, Message, is_array, kind_of  # noqa: E402

KLGEN = []
LINKTYPE_USER0 = 147
SYS_TO, SYS_FROM, SYS_TYPE, SYS_STATUS = 0x88FF0001, 0x88FF0002, 0x08FF0003, 0x08FF0004
SYS_REPLYEXP, SYS_REQID, SYS_CMD, SYS_ERRNO, SYS_ERRSTR = 0x00FF0005, 0x08FF0006, 0x08FF0007, 0x08FF0008, 0x20FF0009
SYS_CTRL = 0x08FF000D
STD_ID, STD_OBJS = 0x08FE0001, 0xA8FE0002
CMD_GETOBJ, CMD_NOTIFY = 0xFE0002, 0xFE000B
READY_ID, READY_CONFIGURATION = 0x08000001, 0x28000005


def block(kind, body):
    body += bytes(-len(body) % 4)
    size = len(body) + 12
    return struct.pack("<II", kind, size) + body + struct.pack("<I", size)


def option(code, value):
    return struct.pack("<HH", code, len(value)) + value + bytes(-len(value) % 4)


def capture(packets):
    """A pcapng file of (sender, bytes, how many were there)."""
    senders = sorted({sender for sender, _, _ in packets})
    text = block(0x0A0D0D0A, struct.pack("<IHHq", 0x1A2B3C4D, 1, 0, -1))
    for sender in senders:
        text += block(1, struct.pack("<HHI", LINKTYPE_USER0, 0, 0) + option(2, sender.encode()) + option(0, b""))
    for sender, part, whole in packets:
        text += block(6, struct.pack("<IIIII", senders.index(sender), 0, 0, len(part), whole) + part)
    return text


def frame(message):
    body = message.encode() if isinstance(message, Message) else message
    return struct.pack("<I", len(body)) + body


def message(**fields):
    made = Message()
    for name, value in fields.items():
        made[globals()[name]] = value
    return made


class Dissector(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.script = cls.folder.name + "/kelo.lua"
        secret = pathlib.Path(cls.folder.name, "locked.toml")
        secret.write_text('settings = [{ name = "key", field = "string:3", secret = true, doc = "of the door" },\n'
                          '            { name = "speed", field = "u32:4", unit = "bytes", doc = "a \\"rate\\" ]]" }]\n'
                          '[service]\nname = "locked"\nid = 600\ntitle = "L"\nversion = "1.0"\ndoc = "d"\n')
        descriptions = sorted(map(str, (ROOT / "tools/fields").glob("*.toml"))) + [str(secret)]
        subprocess.run([*KLGEN, "dissector", "-o", cls.script, *descriptions], check=True)

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    def tshark(self, packets, *options):
        """Its output, with nothing on its standard error stream but that it is run by root."""
        file = self.folder.name + "/x.pcapng"
        pathlib.Path(file).write_bytes(capture([p if len(p) == 3 else (*p, len(p[1])) for p in packets]))
        ended = subprocess.run(["tshark", "-r", file, "-X", "lua_script:" + self.script, *options],
                               capture_output=True, text=True, check=False)
        errors = [line for line in ended.stderr.splitlines() if line and "Running as user" not in line]
        self.assertEqual((ended.returncode, errors), (0, []))
        return ended.stdout

    def fields(self, packets, *names):
        options = [word for name in names for word in ("-e", name)]
        text = self.tshark(packets, "-T", "fields", "-E", "separator=|", "-E", "aggregator=;", *options)
        return [line.split("|") for line in text.splitlines()]

    def malformed(self, packets):
        """For each packet, whether it is."""
        return [row[0] != "" for row in self.fields(packets, "kelo.malformed")]

    def test_a_request_is_shown_by_the_names_of_its_receiver(self):
        request = message(SYS_TO=[32, 0], SYS_FROM=[1], SYS_TYPE=1, SYS_REPLYEXP=True, SYS_REQID=5, SYS_CMD=CMD_GETOBJ, STD_ID=2)
        rows = self.fields([("web (65540)", frame(request))], "kelo.sender", "kelo.service", "kelo.kind", "kelo.to",
                           "kelo.from", "kelo.command", "kelo.request", "_ws.col.Info", "kelo.malformed")
        self.assertEqual(rows, [["web (65540)", "netif", "request", "netif.0", "1", "GETOBJ", "5", "GETOBJ id=2", ""]])

    def test_a_second_script_adds_its_services_to_the_first(self):
        second = self.folder.name + "/second.lua"
        description = pathlib.Path(self.folder.name, "leases.toml")
        description.write_text('fields = [{ name = "mac", field = "string:1" }]\n'
                               '[service]\nname = "leases"\nid = 601\ntitle = "L"\nversion = "1.0"\ndoc = "d"\n')
        subprocess.run([*KLGEN, "dissector", "-o", second, str(description)], check=True)
        sent = message(SYS_TO=[601], SYS_TYPE=1, SYS_REQID=5)
        text = self.tshark([("netif (32)", frame(sent))], "-X", "lua_script:" + second, "-T", "fields",
                           "-e", "kelo.to", "-e", "kelo.service", "-e", "kelo.field")
        self.assertTrue(text.startswith("leases\tleases\t"), text)

    def test_what_is_no_request_is_shown_by_the_names_of_its_sender(self):
        lo = message(STD_ID=1)
        lo[0x08000004], lo[0x00000005], lo[0x30000002] = 65536, True, b"\x02\xfc\x00"
        lo[0x98000003] = [bytes.fromhex("fe80" + "00" * 13 + "01"), bytes.fromhex("00" * 10 + "ffff" + "c0000201")]
        reply = message(SYS_TO=[65540, 7], SYS_TYPE=2, SYS_REQID=5, STD_OBJS=[lo.encode()])
        notice = message(SYS_TO=[65540, 7], SYS_CMD=CMD_NOTIFY, STD_OBJS=[lo.encode()])
        for sent, kind, info in ((reply, "reply", "1 objects"), (notice, "message", "NOTIFY")):
            rows = self.fields([("netif (32)", frame(sent))], "kelo.kind", "_ws.col.Info", "kelo.field")
            self.assertEqual(rows[0][:2], [kind, info])
            for shown in ("mtu = 65536 bytes", "up = true", "hwaddr = 02:fc:00", "addresses = [fe80::1, 192.0.2.1]"):
                self.assertIn(shown, rows[0][2].split(";"))

    def test_an_error_says_which(self):
        sent = message(SYS_TO=[65540], SYS_TYPE=2, SYS_STATUS=2, SYS_ERRNO=0xFE0004, SYS_ERRSTR="no \x1b[31m such")
        rows = self.fields([("netif (32)", frame(sent))], "kelo.kind", "kelo.error", "_ws.col.Info")
        self.assertEqual(rows, [["error", "unknownid", "error unknownid: no \\x1b[31m such"]])

    def test_settings_have_names_and_secrets_are_not_shown(self):
        settings = Message()
        settings[0x20000003], settings[0x08000004] = "sesame", 9600
        ready = message(SYS_TO=[1], SYS_CTRL=8, READY_ID=600, READY_CONFIGURATION=settings.encode())
        rows = self.fields([("loader (1)", frame(ready))], "kelo.control", "kelo.field")
        self.assertEqual(rows[0][0], "CTRL_READY")
        shown = rows[0][1].split(";")
        self.assertIn("READY_ID = 600", shown)
        self.assertIn("key = (secret)", shown)
        self.assertIn("speed = 9600 bytes", shown)
        self.assertNotIn("sesame", self.tshark([("loader (1)", frame(ready))], "-V"))

    def test_what_nobody_describes_has_its_number(self):
        sent = message(SYS_TO=[9000, 3], SYS_CMD=77)
        sent[0x08000063] = 1
        rows = self.fields([("x", frame(sent))], "kelo.command", "kelo.to", "kelo.field")
        self.assertEqual(rows[0][:2], ["0x4d", "9000.3"])
        self.assertIn("u32:99 = 1", rows[0][2].split(";"))

    def test_golden_messages_are_whole(self):
        golden = ROOT / "tests/golden"
        packets = [("x", frame((golden / f"{name}.msg").read_bytes())) for name in ("arrays", "long", "nested", "scalars")]
        packets += [("x", path.read_bytes()) for path in sorted(golden.glob("*.frame"))]
        self.assertEqual(self.malformed(packets), [False] * len(packets))
        self.assertGreater(len(packets), 8)

    def test_of_a_frame_that_was_cut_the_part_is_shown(self):
        whole = frame(message(SYS_TO=[32, 0], SYS_CMD=CMD_GETOBJ, STD_ID=2))
        packets = [("x", whole[:n], len(whole)) for n in range(len(whole))]
        self.assertEqual(self.malformed(packets), [False] * len(packets))
        shown = self.fields([packets[-1], ("x", whole)], "kelo.to", "kelo.command")  # the last record is SYS_TO
        self.assertEqual(shown, [["", "GETOBJ"], ["netif.0", "GETOBJ"]])

    def test_messages_may_be_nested_deep(self):
        inner = message(STD_ID=1)
        for _ in range(1000):
            outer = Message()
            outer[0x28000001] = inner.encode()
            inner = outer
        self.assertEqual(self.malformed([("x", frame(inner))]), [False])

    def test_a_length_that_is_not_that_of_the_packet_is_malformed(self):
        whole = frame(message(SYS_TO=[32]))
        self.assertEqual(self.malformed([("x", whole + b"x"), ("x", whole[:-1]), ("x", b"abc"), ("x", whole)]),
                         [True, True, True, False])

    def test_what_is_malformed_the_codec_says_too(self):
        chance = random.Random(1)
        seeds = [(ROOT / f"tests/golden/{name}.msg").read_bytes() for name in ("arrays", "nested", "scalars")]
        packets, expected = [], []
        for _ in range(1000):
            body = bytearray(chance.choice(seeds))
            for _ in range(chance.randint(1, 3)):
                body[chance.randrange(len(body))] = chance.randrange(256)
            if chance.random() < 0.3:
                del body[chance.randrange(2, len(body)):]
            if body[:2] != b"M2":
                continue
            packets.append(("x", frame(bytes(body))))
            expected.append(not is_whole(bytes(body), 16))
        found = self.malformed(packets)
        self.assertEqual([packets[i][1].hex() for i in range(len(packets)) if found[i] != expected[i]], [])
        self.assertGreater(sum(expected), 300)
        self.assertGreater(len(expected) - sum(expected), 100)


def is_whole(body, depth):
    """Whether the message, and each in it down to some depth, is one."""
    try:
        made = Message.decode(body)
    except DecodeError:
        return False
    for field, value in made.items():
        if kind_of(field) is Kind.MESSAGE and depth:
            if not all(is_whole(inner, depth - 1) for inner in (value if is_array(field) else [value])):
                return False
    return True


if __name__ == "__main__":
    if not shutil.which("tshark"):
        print("SKIPPED: there is no tshark")
        sys.exit(77)
    KLGEN = sys.argv[1:]
    unittest.main(argv=sys.argv[:1])

#!/usr/bin/env python3
"""The metrics of a real loader, as an independent reader understands them, and what docs/ says about them.

usage: metrics_test.py BIN_DIR  (in a private root)
Exit status: that of unittest; 77 without prometheus_client.
"""

import json
import os
import pathlib
import re
import socket
import stat
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[3]
sys.path.append("/usr/lib/python3/dist-packages")  # where Debian has it, whichever Python this is

try:
    from prometheus_client.openmetrics.parser import text_string_to_metric_families as read_openmetrics
    from prometheus_client.parser import text_string_to_metric_families as read_older_format
except ImportError:
    sys.exit(77)

BIN_DIR = None
SOCKET = os.environ.get("KL_ROOT", "") + "/ram/kelometrics"
SHOWN = 'a"} 1\\x0a\\\\\\x1b[2J\\xe2\\x80\\xae'  # once the reader has taken away its own backslashes
CONFIGURATION = """
[loader]
metrics_socket = true
[[service]]
name = "idle"
id = 40
[[service]]
name = "a\\"} 1\\n\\\\\\u001b[2J\\u202e"
id = 41
"""


def names_in(text):
    return set(re.findall(r"\bkelo_\w+", text))


def samples(families):
    return {sample.name for family in families for sample in family.samples}


def counters(families):
    return {(s.name, *s.labels.values()): s.value for f in families if f.type == "counter" for s in f.samples}


class Loader:
    """A loader that takes connections."""

    def __init__(self, folder):
        file = pathlib.Path(folder, "loader.toml")
        file.write_text(CONFIGURATION)
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as ready:
            ready.bind(f"{folder}/ready")
            environment = dict(os.environ, NOTIFY_SOCKET=f"{folder}/ready")
            self.process = subprocess.Popen([f"{BIN_DIR}/kl-loader", "--config", file], env=environment)
            ready.settimeout(60)
            assert b"READY=1" in ready.recv(1000)

    def end(self):
        self.process.terminate()
        return self.process.wait()


def from_socket():
    with socket.socket(socket.AF_UNIX) as connection:
        connection.connect(SOCKET)
        return b"".join(iter(lambda: connection.recv(65536), b"")).decode()


def from_klctl():
    return subprocess.run([f"{BIN_DIR}/klctl", "metrics"], check=True, capture_output=True, text=True).stdout


class OfARealLoader(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.loader = Loader(cls.folder.name)

    @classmethod
    def tearDownClass(cls):
        status = cls.loader.end()
        cls.folder.cleanup()
        assert status == 0, status

    def test_socket_and_klctl_say_the_same_in_openmetrics(self):
        told, asked = list(read_openmetrics(from_socket())), list(read_openmetrics(from_klctl()))
        about = [[(f.name, f.type, f.unit, f.documentation) for f in families] for families in (told, asked)]
        self.assertEqual(*about)
        self.assertEqual([f.type for f in told], sorted(f.type for f in told), "counters first")
        for families in told, asked:
            services = {s.labels["service"] for f in families for s in f.samples if s.labels}
            self.assertEqual(services, {"loader", "idle", SHOWN})
            states = {s.labels["service"]: s.value for f in families if f.name == "kelo_state" for s in f.samples}
            self.assertEqual(states, {"loader": 4, "idle": 1, SHOWN: 1})

    def test_counters_never_become_less(self):
        before = counters(read_openmetrics(from_socket()))
        asked = counters(read_openmetrics(from_klctl()))
        after = counters(read_openmetrics(from_socket()))
        self.assertEqual(before.keys(), after.keys())
        for name, value in before.items():
            self.assertGreaterEqual(asked[name], value, name)
            self.assertGreaterEqual(after[name], asked[name], name)
        connections = ("kelo_connections_total",)
        self.assertGreater(after[connections], before[connections])

    def test_the_older_format_is_understood_as_well(self):
        text = from_socket()
        self.assertEqual(samples(read_older_format(text)), samples(read_openmetrics(text)))

    def test_nobody_else_connects(self):
        self.assertEqual(stat.S_IMODE(os.stat(SOCKET).st_mode), 0o660)

    def test_all_that_documents_ask_for_is_there(self):
        there = set()
        for family in read_openmetrics(from_socket()):
            there.add(family.name + ("_total" if family.type == "counter" else ""))
        dashboard = json.loads((ROOT / "docs/metrics-dashboard.json").read_text())
        asked = [target["expr"] for panel in dashboard["panels"] for target in panel["targets"]]
        asked += [variable["definition"] for variable in dashboard["templating"]["list"]]
        page = (ROOT / "docs/metrics.md").read_text()
        asked += re.findall(r"^\| [^`|]+ \| `([^`]*kelo_[^`]*)` \|$", page, re.MULTILINE)
        self.assertGreater(len(asked), 20)
        for expression in asked:
            self.assertTrue(names_in(expression), expression)
            self.assertLessEqual(names_in(expression), there, expression)
        self.assertEqual(names_in(" ".join(asked)), there, "each has its curve or its alarm")


if __name__ == "__main__":
    BIN_DIR = sys.argv[1]
    unittest.main(argv=sys.argv[:1])

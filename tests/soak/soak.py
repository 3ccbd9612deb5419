#!/usr/bin/env python3
"""Drives the whole system for a while at random, watches every process, and judges the end of it.

usage: soak.py BIN MINUTES SEED OUT     in a private root; scripts/soak starts it

BIN holds the programs; soak.csv, soak.svg and traffic.svg go to the folder OUT.  For the first eighth of the run every
service is killed now and then; later the loader and the long-living services stay, because they are judged, and the
others go on being killed.  Exit status: 0 nothing is wrong, 1 something is, which is printed.
"""

import collections
import json
import os
import pathlib
import random
import signal
import socket
import subprocess
import sys
import time

import figures

SAMPLE_SECONDS = 5
MOST_KIB = 512  # what a process may need more at the end: a page of heap here and there
PATIENCE_SECONDS = 60

SERVICES = {"log": 18, "undo": 17, "system": 24, "netif": 32, "keeper": 60, "chatter": 61, "follower": 62}
SHORT_LIVED = ("keeper", "netif", "follower")

CONFIGURATION = """
[loader]
state_folder = "/kelo/loader"
metrics_socket = true

[[service]]
name = "log"
id = 18
command = ["{bin}/kl-logd", "--config", "/kelo/kl-logd.toml"]

[[service]]
name = "undo"
id = 17
command = ["{bin}/kl-undo"]

[[service]]
name = "system"
id = 24
command = ["{bin}/kl-system"]

[[service]]
name = "netif"
id = 32
command = ["{bin}/netif"]

[[service]]
name = "keeper"
id = 60
command = ["{bin}/kl-soak-keeper"]
start = "demand"

[[service]]
name = "chatter"
id = 61
command = ["{bin}/kl-soak-chatter", "{seed}"]

[[service]]
name = "follower"
id = 62
command = ["{bin}/kl-soak-follower"]
"""

LOG_CONFIGURATION = """
[log]
memory = 262144

[[file]]
path = "/kelo/log/all.log"
size = 262144
files = 3
"""


class Soak:
    def __init__(self, programs, minutes, seed):
        self.programs = pathlib.Path(programs)
        self.seconds = minutes * 60
        self.random = random.Random(seed)
        self.seed = seed
        self.samples = []
        self.looks = []  # at the metrics
        self.counts = collections.Counter()
        self.wrong = []

    # --- the system

    def start(self):
        pathlib.Path("/kelo/loader.toml").write_text(CONFIGURATION.format(bin=self.programs, seed=self.seed))
        pathlib.Path("/kelo/kl-logd.toml").write_text(LOG_CONFIGURATION)
        with open("/kelo/loader.log", "wb") as log:
            self.loader = subprocess.Popen([self.programs / "kl-loader", "--config", "/kelo/loader.toml"],
                                           stdout=log, stderr=log)
        self.expect("every service to run", self.all_run)

    def klctl(self, *words):
        self.counts["klctl runs"] += 1
        done = subprocess.run([self.programs / "klctl", "--json", *words], capture_output=True, text=True, check=False)
        if done.returncode == 3:
            self.counts[f"of them timed out: {' '.join(words[:3])}"] += 1
        return done

    def ask(self, *words):
        """The JSON of an answer, or None."""
        done = self.klctl(*words)
        try:
            return json.loads(done.stdout) if done.returncode == 0 else None
        except ValueError:
            return None

    def table(self):
        return {row["name"]: row for row in self.ask("getall", "loader") or [] if row["id"] in (1, *SERVICES.values())}

    def all_run(self):
        for number in SERVICES.values():
            self.klctl("send", str(number))  # starts what has left
        table = self.table()
        return all(table.get(name, {}).get("state") == "running" for name in SERVICES)

    def expect(self, what, condition):
        """Waits until it holds; it is wrong if it never does."""
        end = time.monotonic() + PATIENCE_SECONDS
        while not condition():
            if time.monotonic() > end or self.loader.poll() is not None:
                self.wrong.append(f"waited in vain for {what}: {json.dumps(self.table())}")
                return
            time.sleep(0.2)

    # --- what happens to it

    def random_object(self):
        return f"60/3:{self.random.randint(1, 500)}"

    def set_object(self):
        self.klctl("set", self.random_object(), "descr=" + "x" * self.random.randint(0, 2000))

    def get_object(self):
        self.klctl("get", self.random_object())

    def describe_interface(self):
        self.klctl("set", "netif:1", f"descr=number {self.random.randint(1, 9)}")

    def undo(self):
        records = self.ask("undo", "list")
        if records:
            self.counts["undos"] += 1
            self.klctl("undo", "run", str(self.random.choice(records)["id"]))

    def read_log(self):
        self.klctl("log", "--since", "2s")

    def read_tables(self):
        self.klctl("getall", "60/3")
        self.klctl("services")

    def mute(self):
        topic = self.random.choice(("7", "700"))
        self.counts["mutes"] += 1
        self.klctl("log", "mute", topic)
        self.klctl("log", "unmute", topic)

    def flood(self):
        self.counts["log floods"] += 1
        self.klctl("send", "61/3", "CMD_START", "u32:std.4=20000")

    def leave(self):
        self.counts["leaves"] += self.klctl("leave", self.random.choice(("keeper", "netif"))).returncode == 0

    def restart(self):
        self.counts["restarts"] += 1
        self.klctl("restart", self.random.choice(SHORT_LIVED))

    def kill(self):
        everybody = time.monotonic() < self.began + self.seconds / 8
        name = self.random.choice(tuple(SERVICES) if everybody else SHORT_LIVED)
        pid = self.table().get(name, {}).get("pid")
        if pid:
            self.counts["kills"] += 1
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass  # it was faster

    def drop_in(self):
        """A client that is killed with its request half way."""
        client = subprocess.Popen([self.programs / "klctl", "watch", "60/3"], stdout=subprocess.DEVNULL,
                                  stderr=subprocess.DEVNULL)
        time.sleep(self.random.random() / 5)
        client.kill()
        client.wait()
        self.counts["clients killed"] += 1

    ACTIONS = ((set_object, 10), (get_object, 6), (describe_interface, 3), (undo, 4), (read_log, 2), (read_tables, 3),
               (mute, 1), (flood, 1), (leave, 2), (restart, 1), (kill, 3), (drop_in, 2))

    def drive(self):
        self.began = time.monotonic()
        next_sample = self.began
        actions, weights = zip(*self.ACTIONS)
        while (now := time.monotonic()) < self.began + self.seconds and self.loader.poll() is None:
            if now >= next_sample:
                self.sample(now - self.began)
                next_sample += SAMPLE_SECONDS
            self.random.choices(actions, weights)[0](self)
            time.sleep(self.random.random() / 3)
        self.sample(self.seconds)

    # --- what is seen of it

    def sample(self, seconds):
        self.looks.append((round(seconds, 1), figures.metrics_in(self.metrics())))
        for name, row in self.table().items():
            try:
                self.samples.append(self.look_at(seconds, name, row["pid"]))
            except (KeyError, OSError):
                pass  # there is no process at the moment

    @staticmethod
    def metrics():
        """The loader's text, or none where there is no loader, which is judged at the end."""
        with socket.socket(socket.AF_UNIX) as connection:
            try:
                connection.connect("/ram/kelometrics")
                return b"".join(iter(lambda: connection.recv(65536), b"")).decode()
            except OSError:
                return ""

    @staticmethod
    def look_at(seconds, name, pid):
        figure = collections.Counter()
        for line in pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines()[1:]:
            key, kib = line.split()[:2]
            figure[key.split("_")[0].rstrip(":")] += int(kib)
        return figures.Sample(round(seconds, 1), name, pid, figure["Private"], figure["Rss"],
                              len(os.listdir(f"/proc/{pid}/fd")))

    # --- the end

    def judge(self):
        self.expect("every service to run at the end", self.all_run)
        self.klctl("send", "61/3", "CMD_CANCEL")
        self.expect("the end of all open requests", self.nothing_is_open)
        self.expect("a copy that equals its original", self.copy_is_right)
        self.check_table()
        for path in ("1", "17", "18", "24", "32", "60/3", "61/3", "62/3"):
            if self.klctl("send", path).returncode != 0:
                self.wrong.append(f"{path} does not answer")
        self.check_growth()
        self.end()

    def chatter(self):
        return self.ask("get", "61/3", "CMD_GETCOUNT") or {}

    def nothing_is_open(self):
        state = self.chatter()
        waiting = sum(row["requests"] + row["queue"] for row in self.table().values() if row["name"] != "loader")
        return state.get(field("u32", 5)) == 0 and waiting == 0

    def copy_is_right(self):
        original = self.ask("get", "60/3", "CMD_GETCOUNT")
        return original is not None and original == self.ask("get", "62/3", "CMD_GETCOUNT")

    def check_table(self):
        children = {int(pid) for pid in
                    pathlib.Path(f"/proc/{self.loader.pid}/task/{self.loader.pid}/children").read_text().split()}
        rows = self.ask("getall", "loader") or []
        known = {row["pid"] for row in rows if row["id"] in SERVICES.values()}
        if known != children:
            self.wrong.append(f"the table has the processes {sorted(known)}, the loader {sorted(children)}")
        strangers = [row for row in rows if row["id"] not in (1, *SERVICES.values())]
        if len(strangers) != 1:  # the one that asks
            self.wrong.append(f"the table has strangers: {strangers}")

    def check_growth(self):
        print(f"{'':10}{'private KiB':>24}{'descriptors':>16}")
        print(f"{'least in':10}{'2nd quarter':>14}{'last':>10}{'2nd':>10}{'last':>6}")
        for growth in figures.growths(self.samples, self.seconds):
            print(f"{growth.service:10}{growth.private_kib[0]:14}{growth.private_kib[1]:10}"
                  f"{growth.descriptors[0]:10}{growth.descriptors[1]:6}")
            self.wrong += growth.faults(MOST_KIB)

    def end(self):
        state = self.chatter()
        self.counts["requests of the chatter's last process"] = state.get(field("u64", 2), 0)
        self.counts["of these timed out"] = state.get(field("u64", 4), 0)
        self.counts["messages through the loader"] = sum(row.get("messages_out", 0) for row in self.table().values())
        self.loader.terminate()
        try:
            status = self.loader.wait(PATIENCE_SECONDS)
        except subprocess.TimeoutExpired:
            status = "none"
            self.loader.kill()
        if status != 0:
            self.wrong.append(f"the loader ended with status {status}")
        if self.klctl("store", "check", "/kelo/soak/table").returncode != 0:
            self.wrong.append("the keeper's store is damaged")


def field(kind, number):
    return f"{kind}:{number}"


def main():
    programs, minutes, seed, out = sys.argv[1], float(sys.argv[2]), int(sys.argv[3]), pathlib.Path(sys.argv[4])
    soak = Soak(programs, minutes, seed)
    soak.start()
    if not soak.wrong:
        soak.drive()
        soak.judge()
    figures.write_csv(out / "soak.csv", soak.samples)
    (out / "soak.svg").write_text(figures.svg(soak.samples, soak.seconds), encoding="utf-8")
    (out / "traffic.svg").write_text(figures.traffic_svg(soak.looks, soak.seconds), encoding="utf-8")
    for what, count in soak.counts.items():
        print(f"{count:10}  {what}")
    for what in soak.wrong:
        print(f"soak: WRONG: {what}")
    if soak.wrong:
        print(*pathlib.Path("/kelo/loader.log").read_text(errors="replace").splitlines()[-40:], sep="\n")
    return 1 if soak.wrong else 0


if __name__ == "__main__":
    sys.exit(main())

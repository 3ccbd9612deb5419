#!/usr/bin/env python3
"""Writes docs/performance.md, and its pictures beside it, of what one run of `scripts/bench --peers` left in a folder.

usage: report.py RESULTS DOCS

RESULTS holds the JSON files of the benchmarks (message.json, loop.json, ...), callgrind's dumps (counts/, loop-
counts/), and the files `sizes`, `text` and `machine`. What is not there is left out of the page. The same results
make the same page: nothing is written by hand, also no sentence about who needs the least.
"""

import json
import pathlib
import sys
import textwrap

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
import gate  # noqa: E402
import plot  # noqa: E402
import table  # noqa: E402

LEVEL = 1.1  # closer together than that, two figures count as equal
WIDTH = 120
PROGRAMS = ("message", "loop", "store", "log", "allocator", "router")
MESSAGES = ("W1", "W2", "W3")
FLAT = (10, 100, 1000, 5000)
ENTRIES = (100, 10_000, 100_000)
IDLE = (10, 100, 1_000, 5_000)
FIGURE = table.number


def paragraph(words, first="", rest=""):
    return textwrap.fill(words, WIDTH, initial_indent=first, subsequent_indent=rest, break_long_words=False,
                         break_on_hyphens=False)


def rows_of(head, rows):
    """A table; a column without any figure is left out."""
    kept = [n for n in range(len(head)) if n == 0 or any(row[n] for row in rows)]
    line = lambda row: "| " + " | ".join(row[n] for n in kept) + " |"
    return "\n".join([line(head), "|" + "|".join("---" if n == 0 else "---:" for n in kept) + "|", *map(line, rows)])


def joined(parts):
    return "; ".join(parts)


def leaders(cases):
    """Where the product, whose sides begin with kl, costs least of {CASE: {SIDE: cost}} and where not, in words."""
    least, level, beaten = [], [], []
    for case, sides in cases.items():
        own = min((value for side, value in sides.items() if side.startswith("kl")), default=None)
        others = {side: value for side, value in sides.items() if not side.startswith("kl")}
        if own is None or not others:
            continue
        best = min(others, key=others.get)
        if own * LEVEL < others[best]:
            least.append(case)
        elif others[best] * LEVEL < own:
            beaten.append(f"{case}: {best} at {FIGURE(others[best] / own)} of kl")
        else:
            level.append(f"{case}: {best}")
    said = []
    if beaten:
        said.append(paragraph(f"others cost less in {len(beaten)}: {joined(beaten)}", "- ", "  "))
    if level:
        said.append(paragraph(f"about the same in {len(level)}: {joined(level)}", "- ", "  "))
    if least:
        said.append(paragraph(f"kl costs least in {len(least)}: {joined(least)}", "- ", "  "))
    count = len(beaten) + len(level) + len(least)
    return "\n".join([f"By time, of the cases that others have, too ({count}):", "", *said]) if count else ""


class Results:
    """What is in the folder."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)

    def measured(self, name):
        path = self.folder / f"{name}.json"
        return table.medians(path) if path.exists() else {}

    def counts(self, name):
        path = self.folder / name
        return table.instruction_counts(path) if path.is_dir() else {}

    def lines(self, name):
        path = self.folder / name
        return [line.split("\t") for line in path.read_text().splitlines()] if path.exists() else []

    def contexts(self):
        """What each program said of itself and of the machine."""
        return [json.loads(path.read_text())["context"] for path in sorted(self.folder.glob("*.json"))]

    def loads(self):
        """The number of processes that were ready to run when a program began."""
        return [context["load_avg"][0] for context in self.contexts() if context.get("load_avg")]

    def peers(self):
        """{PEER: version}, as the programs gave them."""
        found = {}
        for context in self.contexts():
            found |= {key[5:]: value for key, value in context.items() if key.startswith("peer ")}
        return dict(sorted(found.items(), key=lambda item: item[0].lower()))


# --- messages

WAYS = {"kl": "", "kl, by view": " by view", "kl, in place": " in place"}


def message_sides(own, peers, case, figure):
    """What each side needs for a case; the product has several ways to read."""
    sides = {}
    for side, way in WAYS.items():
        if case + way in own:
            sides[side] = own[case + way][figure]
    return sides | {peer: cases[case][figure] for peer, cases in peers.items() if case in cases}


def message_page(results, pictures):
    own, peers = table.split_peers(results.measured("message"))
    if not own:
        return []
    counts = results.counts("counts")
    cases = [f"{message}/{operation}" for message in MESSAGES
             for operation in ("build+flatten", "parse", "parse+read", "copy of a parsed message")]
    cases = [case for case in cases if case in own]
    names = [*WAYS, *peers]
    ratios = {case: message_sides(own, peers, case, "ratio") for case in cases}
    pictures["performance-messages.svg"] = plot.page(
        [plot.bars(f"{message}: ratio to the hand-written limit; less is better",
                   {case.partition("/")[2]: ratios[case] for case in cases if case.startswith(message)})
         for message in MESSAGES if any(case.startswith(message) for case in cases)])
    page = ["## Messages", paragraph(
        "W1 is a small request of ten fields, W2 an object of twenty with a W1 inside, W3 a table of a hundred W2."
        " The limit fills and reads a plain struct that knows every field. kl reads by values; by views, which "
        "leave texts and nested messages where they are; or in place, from the bytes without a message. A peer "
        "that decodes nested messages at once pays for them in parse, where kl leaves them bytes; parse+read is "
        "the row that compares."),
        leaders(ratios), "![bars](performance-messages.svg)", "Ratios to the limit:",
        rows_of(["case", "limit, ns", *names],
                [[case, FIGURE(own[case]["limit_ns"]), *(FIGURE(ratios[case].get(name)) for name in names)]
                 for case in cases]),
        "Allocations of one operation:",
        rows_of(["case", *names], [[case, *(FIGURE(message_sides(own, peers, case, "allocations").get(name))
                                           for name in names)] for case in cases])]
    if counts:
        keys = lambda case: [*(f"{case}{way}/product" for way in WAYS.values()),
                             *(f"{case}: {peer}/product" for peer in peers)]
        page += ["Instructions of one operation:",
                 rows_of(["case", "limit", *names],
                         [[case, FIGURE(counts.get(f"{case}/limit")), *(FIGURE(counts.get(key)) for key in keys(case))]
                          for case in cases])]
    return page + growth_page(own, pictures)


def growth_page(own, pictures):
    series = {}
    for operation in ("build+flatten", "parse+read", "parse+read in place"):
        points = {n: own[f"flat {n}/{operation}"]["product_ns"] / n for n in FLAT if f"flat {n}/{operation}" in own}
        if len(points) > 1:
            series[operation] = points
    if not series:
        return []
    pictures["performance-growth.svg"] = plot.page([plot.curves("One field of a message of n texts, ns", series)])
    return ["### Growth with the number of fields", "Nanoseconds for one field of a message of n texts:",
            rows_of(["operation", *map(FIGURE, FLAT)],
                    [[operation, *(FIGURE(points.get(n)) for n in FLAT)] for operation, points in series.items()]),
            "![growth](performance-growth.svg)"]


# --- what has one way only

def beside_page(own, peers, cases, counts, floor=None):
    """Words and tables: ratios, allocations if somebody makes any, and the instructions that were counted.

    A floor, {NAME: measured}, stands in the tables and is nobody whom the product is compared with.
    """
    sides = {"kl": own, **peers, **(floor or {})}
    of = lambda case, figure: {side: measured[case][figure] for side, measured in sides.items() if case in measured}
    cells = lambda case, figure: [FIGURE(of(case, figure).get(side)) for side in sides]
    rivals = {case: {side: ratio for side, ratio in of(case, "ratio").items() if side not in (floor or {})}
              for case in cases}
    page = [leaders(rivals), "Ratios to the limit:",
            rows_of(["case", "limit, ns", *sides],
                    [[case, FIGURE(own[case]["limit_ns"]), *cells(case, "ratio")] for case in cases])]
    if any(value for case in cases for value in of(case, "allocations").values()):
        page += ["Allocations of one operation:",
                 rows_of(["case", *sides], [[case, *cells(case, "allocations")] for case in cases])]
    if counts:
        names = lambda case: [case, *(f"{case}: {peer}" for peer in peers)]
        page += ["Instructions of one operation:",
                 rows_of(["case", "limit", *sides],
                         [[case, FIGURE(counts.get(f"{case}/limit")),
                           *(FIGURE(counts.get(f"{name}/product")) for name in names(case))] for case in cases])]
    return page


def loop_page(results, pictures):
    own, peers = table.split_peers(results.measured("loop"))
    if not own:
        return []
    with_peers = {case: {"kl": own[case]["ratio"], **{peer: cases[case]["ratio"] for peer, cases in peers.items()
                                                      if case in cases}} for case in own if "sockets" in case}
    pictures["performance-loop.svg"] = plot.page(
        [plot.bars("A pass: ratio to bare poll; less is better",
                   {case.removeprefix("pass/"): sides for case, sides in with_peers.items()})])
    return ["## Event loop", paragraph(
        "Timers: a thousand wait. The limit is a bare binary heap and bare poll. Where no kernel's clock is named "
        "it is a variable for everybody. kl asks poll, the others epoll: poll looks at every socket, so what it "
        "needs grows with their number, and epoll needs no more for quiet ones and more for those that are ready."),
        *beside_page(own, peers, list(own), results.counts("loop-counts")), "![bars](performance-loop.svg)"]


def store_page(results, pictures):
    own, peers = table.split_peers(results.measured("store"))
    if not own:
        return []
    bare = peers.pop("bare intent", {})
    cases = [case for case in own if "free slots" not in case]
    panels = []
    for operation in ("set new", "get"):
        names = {n: f"{operation}, {n:,} of 200 B" for n in ENTRIES}
        series = {side: {n: measured[name]["product_ns"] for n, name in names.items() if name in measured}
                  for side, measured in {"kl": own, **peers}.items()}
        series = {side: points for side, points in series.items() if points}
        if series:
            panels.append(plot.curves(f"{operation}: ns beside n entries of 200 bytes", series))
    if panels:
        pictures["performance-store.svg"] = plot.page(panels)
    page = ["## Store", paragraph(
        "The limit is two bare writes, or one read, in one bracket of a lock. Nobody syncs. kl answers for what a "
        "kill at any moment leaves; what that costs at least is the column \"announced\": the same bracket with "
        "the change written to the lock file before and taken from it after.")]
    page += beside_page(own, peers, cases, {}, {"announced": bare} if bare else {})
    if panels:
        page.append("![curves](performance-store.svg)")
    rows = []
    for case in own:
        if "free slots" in case:
            rows.append([case, FIGURE(own[case]["product_ns"]), FIGURE(own[case]["ratio"])])
    if rows:
        page += ["With free slots; what is opened again reads all of them:", rows_of(["case", "ns", "ratio"], rows)]
    return page


def log_page(results, _):
    own = results.measured("log")
    if not own:
        return []
    return ["## Log", "The limit is one write of a ready record.",
            rows_of(["case", "limit, ns", "kl", "allocations"],
                    [[case, FIGURE(f["limit_ns"]), FIGURE(f["ratio"]), FIGURE(f["allocations"])]
                     for case, f in own.items()])]


def allocator_page(results, _):
    own, peers = table.split_peers(results.measured("allocator"))
    if not own:
        return []
    return ["## Allocator of identifiers", "The limit is a counter.", *beside_page(own, peers, list(own), {})]


def router_page(results, pictures):
    own = results.measured("router")
    if not own:
        return []
    beside = {n: own.get(f"round trip beside {n} idle services") for n in IDLE}
    series = {side: {n: figures[key] for n, figures in beside.items() if figures and key in figures}
              for side, key in (("kl", "product"), ("relay", "limit"))}
    page = ["## Router", paragraph(
        "W1, typed on both ends and decoded by the service, through the loader; all processes on one core. The relay "
        "moves frames of the same size through three processes on bare sockets and looks at nothing. Of times less"
        " is better; of \"64 outstanding\", messages in a second, more is."),
        rows_of(["case", "kl", "relay", "ratio", "low to high"],
                [[case, FIGURE(f.get("product")), FIGURE(f.get("limit")), FIGURE(f.get("ratio")),
                  f'{FIGURE(f["low"])} to {FIGURE(f["high"])}' if "low" in f else ""] for case, f in own.items()])]
    if all(len(points) > 1 for points in series.values()):
        pictures["performance-router.svg"] = plot.page(
            [plot.curves("A round trip beside n idle services, ns", series)])
        page.append("![curves](performance-router.svg)")
    return page


def sizes_page(results, _):
    rows = [["libkl.so, code (.text)", FIGURE(int(line[0]))] for line in results.lines("text")]
    rows += [[name, FIGURE(int(value))] for name, value in results.lines("sizes")]
    return ["## Sizes", rows_of(["what", "bytes"], rows)] if rows else []


def kept_page(path, counted):
    """The counts that a change is compared with; those of the programs `counted` stand above already."""
    kept = {name: count for name, count in gate.read_kept(path).items() if name.partition(": ")[0] not in counted}
    return ["## Instructions", "Those that `scripts/bench --gate` holds:",
            rows_of(["case", "instructions"], [[name, f"{count:,}"] for name, count in kept.items()])] if kept else []


def machine_words(results):
    machine = dict(results.lines("machine"))
    if not machine:
        return []
    peers = ", ".join(f"{name} {version}" for name, version in results.peers().items())
    loads = results.loads()
    busy = ("" if not loads or max(loads) <= int(machine["cores"]) else
            f" Other work kept the machine busy (load {min(loads):.0f} to {max(loads):.0f}): a ratio of times that is "
            "not far from another one's says little here.")
    return [paragraph(f"Measured on {machine['day']} at commit {machine['commit']}: {machine['cores']} cores "
                      f"({machine['processor']}), {machine['kernel']}, {machine['compiler']}. "
                      f"Beside it: {peers}.{busy}")]


def head(results):
    counted = [figures["repetitions"] for name in PROGRAMS for figures in results.measured(name).values()]
    least, most = min(counted, default=0), max(counted, default=0)
    some = f"{least:.0f} to {most:.0f}" if least < most else f"{most:.0f}"
    taken = "they were measured once" if most == 1 else f"they are medians of {some} repetitions"
    missing = [name for name in PROGRAMS if not results.measured(name)]
    return ["# Performance", paragraph(
        "What kl costs, beside a hand-written limit (the least work that does the same) and beside other libraries"
        " on the same work in the same run. Figures are ratios to the limit unless they name a unit; "
        f"{taken}, in turns with the limit, and carry over to other machines better than "
        "nanoseconds do. Two that differ by less than a tenth count as equal. Instructions and calls are counted "
        "and do not depend on what else the machine does. Every side's values are read and summed before anything "
        "is timed."),
        *machine_words(results),
        f"Not measured in this run: {', '.join(missing)}." if missing else "",
        "This page is made by a program from one run. To make it again:",
        "```\nscripts/bench --peers      # installs the peers, measures, and writes this page\n```"]


def make(results, kept):
    """The page, and its pictures by name."""
    pictures = {}
    parts = head(results)
    for part in (message_page, loop_page, store_page, log_page, allocator_page, router_page, sizes_page):
        parts += part(results, pictures)
    parts += kept_page(kept, {name for name, folder in (("message", "counts"), ("loop", "loop-counts"))
                              if results.counts(folder)})
    return "\n\n".join(part for part in parts if part) + "\n", pictures


def main(folder, docs):
    page, pictures = make(Results(folder), pathlib.Path(__file__).resolve().parent / "instructions")
    for name, content in {"performance.md": page, **pictures}.items():
        pathlib.Path(docs, name).write_text(content)


if __name__ == "__main__":
    main(*sys.argv[1:])

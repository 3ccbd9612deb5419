#!/usr/bin/env python3
"""Prints what the benchmarks measured, as tables with the aims beside the figures.

usage: table.py [--message JSON] [--counts DIR] [--loop JSON] [--loop-counts DIR] [--log JSON] [--store JSON] [--allocator JSON]
                [--router JSON] [--sizes FILE] [--text BYTES]

JSON files are Google Benchmark's; DIR holds callgrind's dumps of `message_bench --instructions`
or of the loop's.
A figure that misses its aim is marked with "<-".
"""

import argparse
import json
import pathlib
import re
import statistics
import sys

MISSED = "<-"

# The aims of the product, as a ratio to the limit, and in allocations for one operation.
MESSAGE_AIMS = {
    "W1/build+flatten": 16, "W1/parse": 4, "W1/parse+read": 4, "W1/parse+read by reference": 4,
    "W2/build+flatten": 12, "W2/parse+read": 5, "W2/parse+read by reference": 5,
    "W2/copy of a parsed message": 5,
    "W3/parse+read": 5, "W3/parse+read by reference": 5,
    **{f"{case}/parse+read in place": aim
       for case, aim in (("W1", 2), ("W2", 2), ("W3", 2), ("flat 100", 3), ("flat 1000", 3), ("flat 5000", 3))},
    "W1/parse+read by view": 4.2, "W2/parse+read by view": 4, "W3/parse+read by view": 4.5,
    "flat 5000/build+flatten": 6, "flat 5000/parse+read": 5, "flat 5000/parse+read by reference": 5,
}
ALLOCATION_AIMS = {"W1/parse": 1, "W2/parse": 1}
LOG_AIMS = {"lstream, 48 characters": 1.25, "lstream, 200 characters": 1.25, "Logger::log, 48 characters": 1.25}
MUTED_CASE = "muted line behind isMuted()"
MUTED_NS_AIM = 10
GROWTH_AIM = 1.5
TEXT_AIM = 150 * 1024
SIZE_AIMS = {"kl::message": 8, "heap of an empty message": 0,
             "first block of a message with one number": 1032}

STORE_AIMS = {f"{operation}, {count} of {size}": aim
              for operation, aim in (("set new", 1.6), ("overwrite", 1.6), ("batch of 100", 2.5), ("get", 1.2))
              for count in ("100", "10,000", "100,000") for size in ("200 B", "2 KB")}
# How much more an operation may cost with 100,000 free slots than with 1,000; reopening for each of them.
FREE_SLOT_AIMS = {"set new": 1.5, "reopen": 5}
ALLOCATOR_AIMS = {"1,000 free ranges": 5, "100,000 free ranges": 8}

# Router figures: the ratio to the relay, and whether more is better.
ROUTER_AIMS = {
    "round trip": (1.5, False), "round trip, 16 KiB": (1.35, False), "64 outstanding": (2.5, True),
    "fan-out to 100": (1.2, False), "connect and register": (3, False),
    "system calls a round trip": (14, False), "idle service, private KiB": (200, False),
}


def medians(path):
    """Counter medians by case: {case: {counter: median over the repetitions}}."""
    runs = {}
    measured = json.loads(pathlib.Path(path).read_text())["benchmarks"]
    for run in sorted(measured, key=lambda run: run["family_index"]):  # as the program added them
        if run["run_type"] != "iteration":
            continue
        name = re.sub(r"/(manual_time|iterations:\d+|repeats:\d+|min_time:[\d.]+)", "", run["name"])
        runs.setdefault(name, []).append(run)
    counters = {}
    for name, repeated in runs.items():
        numbers = [key for key, value in repeated[0].items() if isinstance(value, (int, float))]
        counters[name] = {key: statistics.median(run[key] for run in repeated) for key in numbers}
        counters[name]["repetitions"] = len(repeated)
    return counters


def instruction_counts(folder):
    """Instructions by "CASE/side" from the dumps of one run over kCountedRuns operations."""
    counted_runs = 4
    counts = {}
    for dump in pathlib.Path(folder).iterdir():
        text = dump.read_text(errors="replace")
        name = re.search(r"^desc: Trigger: Client Request: (.*)$", text, re.M)
        total = re.search(r"^(?:summary|totals): (\d+)", text, re.M)
        if name and total:
            counts[name.group(1)] = int(total.group(1)) / counted_runs
    return counts


def split_peers(measured):
    """What is the product's own, and what "CASE: PEER" says of its cases, as {PEER: {CASE: figures}}."""
    own, peers = {}, {}
    for name, figures in measured.items():
        case, _, peer = name.rpartition(": ")
        if case in measured:
            peers.setdefault(peer, {})[case] = figures
        else:
            own[name] = figures
    return own, peers


def number(value, digits=3):
    if value is None:
        return ""
    if value >= 1000 or value == int(value):
        return f"{value:,.0f}"
    return f"{value:.{max(0, digits - len(str(int(value))))}f}"


def mark(value, aim, more_is_better=False):
    if aim is None:
        return ""
    return MISSED if (value < aim if more_is_better else value > aim) else ""


def print_table(title, head, rows):
    print(f"\n{title}\n")
    widths = [max(len(str(row[i])) for row in [head, *rows]) for i in range(len(head))]
    for row in [head, ["-" * width for width in widths], *rows]:
        cells = [str(row[0]).ljust(widths[0])]
        cells += [str(cell).rjust(width) for cell, width in zip(row[1:], widths[1:])]
        print("  ".join(cells).rstrip())


def print_pairs(title, measured, aims, counts):
    head = ["case", "ratio", "aim", "", "allocations", "aim", "", "heap bytes", "product ns", "limit ns"]
    if counts:
        head += ["instructions", "of the limit"]
    rows = []
    for case, figures in measured.items():
        aim, most = aims.get(case), ALLOCATION_AIMS.get(case)
        row = [case, number(figures["ratio"]), number(aim), mark(figures["ratio"], aim),
               number(figures["allocations"]), number(most), mark(figures["allocations"], most),
               number(figures["heap_bytes"]), number(figures["product_ns"]), number(figures["limit_ns"])]
        if counts:
            row += [number(counts.get(f"{case}/{side}")) for side in ("product", "limit")]
        rows.append(row)
    repetitions = max(figures["repetitions"] for figures in measured.values())
    print_table(f"{title}: cost of one operation, beside a hand-written limit "
                f"(medians of {repetitions:.0f} repetitions)", head, rows)


def print_peers(title, own, peers, counts):
    """One row for each case that a peer has: ratio, allocations and instructions of the product and of each of them."""
    sides = {"kl": own, **peers}
    head = ["case", *sides, "allocations:", *sides]
    head += ["instructions:", *sides] if counts else []
    rows = []
    for case in own:
        if not any(case in figures for figures in peers.values()):
            continue
        of = lambda figure: [number(measured.get(case, {}).get(figure)) for measured in sides.values()]
        row = [case, *of("ratio"), "", *of("allocations")]
        if counts:
            names = [case, *(f"{case}: {peer}" for peer in peers)]
            row += ["", *(number(counts.get(f"{name}/product")) for name in names)]
        rows.append(row)
    if rows:
        print_table(f"{title}, beside others: ratios to the limit", head, rows)


def print_beside_peers(title, measured, aims):
    """One row for each case; the ratios of "CASE: PEER" stand behind it, in a column for each peer."""
    peers = list(dict.fromkeys(case.partition(": ")[2] for case in measured if ": " in case))
    cases = list(dict.fromkeys(case.partition(": ")[0] for case in measured))
    rows = []
    for case in cases:
        own = measured.get(case, {})
        ratio, aim = own.get("ratio"), aims.get(case)
        row = [case, number(ratio), number(aim), mark(ratio, aim) if own else ""]
        row += [number(own.get(figure)) for figure in ("allocations", "heap_bytes", "product_ns", "limit_ns")]
        row += [number(measured.get(f"{case}: {peer}", {}).get("ratio")) for peer in peers]
        rows.append(row)
    repetitions = max(figures["repetitions"] for figures in measured.values())
    print_table(f"{title}: cost of one operation, as a ratio to a hand-written limit; on the right what others cost "
                f"(medians of {repetitions:.0f} repetitions)",
                ["case", "ratio", "aim", "", "allocations", "heap bytes", "product ns", "limit ns", *peers], rows)


def print_growth(measured):
    rows = []
    for operation in ("build+flatten", "parse", "parse+read", "copy of a parsed message", "compare"):
        small, large = measured.get(f"flat 100/{operation}"), measured.get(f"flat 5000/{operation}")
        if small and large:
            growth = (large["product_ns"] / 5000) / (small["product_ns"] / 100)
            rows.append([operation, number(small["product_ns"] / 100), number(large["product_ns"] / 5000),
                         number(growth), number(GROWTH_AIM), mark(growth, GROWTH_AIM)])
    if rows:
        print_table("Long lists: cost of one field",
                    ["operation", "ns at 100", "ns at 5,000", "growth", "aim", ""], rows)


def print_free_slots(measured):
    rows = []
    for operation, aim in FREE_SLOT_AIMS.items():
        few, many = measured.get(f"{operation}, 1,000 free slots"), measured.get(f"{operation}, 100,000 free slots")
        if few and many:
            shares = (1000, 100000) if operation == "reopen" else (1, 1)
            costs = few["product_ns"] / shares[0], many["product_ns"] / shares[1]
            growth = costs[1] / costs[0]
            rows.append([operation, *map(number, costs), number(growth), number(aim), mark(growth, aim)])
    if rows:
        print_table("Store with many free slots: cost of one set, of each slot when it is opened again",
                    ["operation", "ns at 1,000", "ns at 100,000", "growth", "aim", ""], rows)


def print_log(measured):
    muted = measured.pop(MUTED_CASE, None)
    if measured:
        print_pairs("Log", measured, LOG_AIMS, {})
    if muted:
        print_table("Log: a line that nobody wants", ["case", "ns", "aim", "", "allocations"],
                    [[MUTED_CASE, number(muted["product_ns"]), number(MUTED_NS_AIM),
                      mark(muted["product_ns"], MUTED_NS_AIM), number(muted["allocations"])]])


def print_router(measured):
    rows = []
    for case, figures in measured.items():
        aim, more = ROUTER_AIMS.get(case, (None, False))
        value = figures.get("ratio", figures.get("value"))
        spread = f'{number(figures["low"])} to {number(figures["high"])}' if "low" in figures else ""
        rows.append([case, number(value), number(aim), mark(value, aim, more),
                     number(figures.get("product")), number(figures.get("limit")), spread,
                     number(figures.get("loader_ns"))])
    print_table("Router: beside a raw relay of frames of the same size",
                ["case", "figure", "aim", "", "product", "relay", "low to high", "loader's CPU ns"], rows)


def print_sizes(path, text_bytes):
    rows = []
    if text_bytes is not None:
        rows.append(["libkl.so, code (.text)", number(text_bytes), number(TEXT_AIM), mark(text_bytes, TEXT_AIM)])
    for line in pathlib.Path(path).read_text().splitlines() if path else []:
        name, value = line.split("\t")
        aim = SIZE_AIMS.get(name)
        rows.append([name, number(int(value)), number(aim), mark(int(value), aim)])
    if rows:
        print_table("Sizes in bytes", ["what", "bytes", "aim", ""], rows)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--message")
    parser.add_argument("--counts")
    parser.add_argument("--loop")
    parser.add_argument("--loop-counts")
    parser.add_argument("--log")
    parser.add_argument("--store")
    parser.add_argument("--allocator")
    parser.add_argument("--router")
    parser.add_argument("--sizes")
    parser.add_argument("--text", type=int)
    options = parser.parse_args()
    if options.message:
        measured = medians(options.message)
        counts = instruction_counts(options.counts) if options.counts else {}
        own, peers = split_peers(measured)
        print_pairs("Messages", own, MESSAGE_AIMS, counts)
        print_growth(own)
        print_peers("Messages", own, peers, counts)
    if options.loop:
        own, peers = split_peers(medians(options.loop))
        counts = instruction_counts(options.loop_counts) if options.loop_counts else {}
        print_pairs("Event loop", own, {}, counts)
        print_peers("Event loop", own, peers, counts)
    if options.log:
        print_log(medians(options.log))
    if options.store:
        measured = medians(options.store)
        print_beside_peers("Store", measured, STORE_AIMS)
        print_free_slots(measured)
    if options.allocator:
        print_beside_peers("Identifiers", medians(options.allocator), ALLOCATOR_AIMS)
    if options.router:
        print_router(medians(options.router))
    print_sizes(options.sizes, options.text)
    print(f'\nA figure marked "{MISSED}" misses its aim.')


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Compares counted instructions with those that are kept in bench/instructions, and ends with status 1 where one grew.

usage: gate.py [--keep] KEPT DIR...

Each DIR holds callgrind's dumps of one program: of `NAME_bench --instructions` a dump for each case, or, in folders
called CASE@TIMES, what all processes of a system executed, for the difference of two numbers of operations.
A count may grow by 3 % and 30 instructions, which is what a compiler's next patch and a crossed page change.
With --keep the file is written anew.
"""

import pathlib
import re
import sys

SHARE, CONSTANT = 0.03, 30
COUNTED_RUNS = 4  # of each case of `--instructions`


def total_of(dump):
    """The count of a dump: 0 for that of a process that was replaced before it executed anything."""
    found = re.search(r"^(?:summary|totals): (\d+)", dump, re.M)
    return int(found.group(1)) if found else 0


def cases_of(folder):
    """{CASE: instructions} of one program's dumps; its limits are nobody's concern here."""
    counts = {}
    for path in folder.iterdir():
        dump = path.read_text(errors="replace")
        name = re.search(r"^desc: Trigger: Client Request: (.*)/product$", dump, re.M)
        if name:
            counts[f"{folder.name}: {name.group(1)}"] = total_of(dump) / COUNTED_RUNS
    return counts


def differences_of(folders):
    """{CASE: instructions} of pairs of folders CASE@TIMES."""
    runs = {}
    for folder in folders:
        case, _, times = folder.name.partition("@")
        runs.setdefault(case, []).append((int(times), sum(total_of(path.read_text(errors="replace"))
                                                          for path in folder.iterdir())))
    counts = {}
    for case, measured in runs.items():
        (few, before), (many, after) = sorted(measured)
        counts[case] = (after - before) / (many - few)
    return counts


def read_kept(path):
    lines = (line for line in path.read_text().splitlines() if not line.startswith("#"))
    return {name: int(count.replace(",", "")) for count, name in (line.split(None, 1) for line in lines if line)}


def write_kept(path, counts):
    head = [line for line in path.read_text().splitlines() if line.startswith("#")] if path.exists() else []
    path.write_text("\n".join(head + [f"{round(count):>12,} {name}" for name, count in sorted(counts.items())]) + "\n")


def judge(counts, kept):
    """The findings on the counts; the second result tells whether they pass."""
    said, passes = [], True
    for name in sorted(counts.keys() | kept.keys()):
        now, before = counts.get(name), kept.get(name)
        if now is None or before is None:
            said.append(f"{name}: {'is not measured any more' if now is None else 'is not kept yet'}")
            passes = False
        elif now > before * (1 + SHARE) + CONSTANT:
            said.append(f"{name}: {now:,.0f} instructions, {before:,} are kept")
            passes = False
        elif now < before * (1 - SHARE) - CONSTANT:
            said.append(f"{name}: {now:,.0f} instructions only, {before:,} are kept")
    return said, passes


def main(arguments):
    keep = "--keep" in arguments
    kept, *folders = (pathlib.Path(argument) for argument in arguments if argument != "--keep")
    counts = differences_of([folder for folder in folders if "@" in folder.name])
    for folder in folders:
        if "@" not in folder.name:
            counts |= cases_of(folder)
    if keep:
        write_kept(kept, counts)
        print(f"gate: kept the counts of {len(counts)} cases")
        return 0
    said, passes = judge(counts, read_kept(kept))
    for line in said:
        print(f"gate: {line}")
    print(f"gate: {len(counts)} cases counted; " + ("none grew" if passes else
          "what grew for a good reason is kept by scripts/bench --gate --keep"))
    return 0 if passes else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))

#!/usr/bin/env python3
"""Lints what is compiled as one: clang-tidy looks at the sources of a unit at once.

usage: lint.py FOLDER UNIT... [-- OPTION...]

FOLDER holds compile_commands.json.  Most of the linter's time goes into the standard library's headers, and ten sources
read them once.  They become one source, because clang-tidy looks closely at no file that another one includes.  What it
finds is told with the places in the sources.  Exit status: 0 nothing found, 1 findings, 2 usage.
"""

import bisect
import concurrent.futures
import os
import pathlib
import re
import subprocess
import sys

INCLUDED = re.compile(r'^#include "(/.*)"$')  # a source names what it includes by a shorter path
PLACE = re.compile(r"^(/[^:]*):(\d+):(?=\d+: )", re.M)


def joined(unit):
    """Puts the sources where the unit includes them; the lines at which they begin, and their names."""
    text, starts = [], [(0, str(unit))]
    for line in unit.read_text().splitlines():
        source = INCLUDED.match(line)
        if not source:
            text.append(line)
            continue
        text.append(f'#line 1 "{source.group(1)}"')
        starts.append((len(text), source.group(1)))
        text += pathlib.Path(source.group(1)).read_text().splitlines()
    if len(starts) > 1:
        unit.write_text("\n".join(text) + "\n")
    return starts


def findings(folder, unit, options):
    starts = joined(unit)
    result = subprocess.run(["clang-tidy", "--quiet", "-p", folder, *options, str(unit)],
                            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, check=False)

    def place(match):
        if match.group(1) != str(unit):
            return match.group(0)
        start, name = starts[bisect.bisect(starts, (int(match.group(2)), chr(0x10FFFF))) - 1]
        return f"{os.path.relpath(name)}:{int(match.group(2)) - start}:"

    return result.returncode, PLACE.sub(place, result.stdout)


def main():
    words = sys.argv[1:]
    end = words.index("--") if "--" in words else len(words)
    folder, units, options = words[:1], words[1:end], words[end + 1:]
    if not units:
        print(__doc__.split("\n\n")[1], file=sys.stderr)
        return 2
    status = 0
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for code, text in pool.map(lambda unit: findings(folder[0], pathlib.Path(unit).resolve(), options), units):
            status = status or (1 if code else 0)
            print(text, end="", flush=True)
    return status


if __name__ == "__main__":
    sys.exit(main())

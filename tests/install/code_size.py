#!/usr/bin/env python3
"""Compares the code of a library with a bound, and says which functions take most of it.

usage: code_size.py --most BYTES LIBRARY
"""

import argparse
import subprocess
import sys

SHOWN = 30


def lines_of(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout.splitlines()


def code_bytes(library):
    """The size of the section .text."""
    for line in lines_of("size", "-A", library):
        words = line.split()
        if words[:1] == [".text"]:
            return int(words[1])
    raise SystemExit(f"{library}: no section .text")


def largest(library):
    """Pairs of size and name, the largest first; one name for each address."""
    functions = {}
    for line in lines_of("nm", "-S", "-C", "--defined-only", library):
        words = line.split(" ", 3)
        if len(words) == 4 and words[2] in "tTwW":
            functions[words[0]] = (int(words[1], 16), words[3])
    return sorted(functions.values(), reverse=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--most", type=int, required=True)
    parser.add_argument("library")
    options = parser.parse_args()

    taken = code_bytes(options.library)
    print(f"{options.library}: {taken:,} bytes of code, at most {options.most:,}")
    if taken <= options.most:
        return 0
    for size, name in largest(options.library)[:SHOWN]:
        print(f"{size:8,}  {name}")
    return 1


if __name__ == "__main__":
    sys.exit(main())

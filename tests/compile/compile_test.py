#!/usr/bin/env python3
"""Checks what the compiler refuses, and what it must not refuse, in the public headers.

usage: compile_test.py COMPILER INCLUDE_FOLDER FILE

FILE is compiled once for each of its lines "#if CASE == N  // TEXT": TEXT must be in what the compiler says then, or,
where it is "compiles", the compiler must say nothing at all.  All else in FILE belongs to every case.
"""

import concurrent.futures
import re
import subprocess
import sys

CASE = re.compile(r"^#(?:el)?if CASE == (\d+)  // (.+)$", re.M)


def main():
    compiler, include, path = sys.argv[1:]
    with open(path, encoding="utf-8") as file:
        cases = CASE.findall(file.read())

    def said(case):
        command = [compiler, "-std=c++20", "-O1", "-Wall", "-Wextra", "-Wconversion", "-Wno-sign-conversion", "-Wshadow",
                   "-I", include, f"-DCASE={case[0]}", "-S", "-o", "/dev/null", path]
        return subprocess.run(command, capture_output=True, text=True, check=False).stderr

    failed = not cases
    with concurrent.futures.ThreadPoolExecutor(max_workers=2) as pool:
        for (number, text), output in zip(cases, pool.map(said, cases)):
            if output == "" if text == "compiles" else text in output:
                continue
            failed = True
            print(f"{path}: case {number}: the compiler does not say \"{text}\" but\n{output}")
    print(f"{len(cases)} cases")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())

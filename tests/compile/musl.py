#!/usr/bin/env python3
"""musl.py BUILD: compiles the library, as BUILD/compile_commands.json does it, with the headers of musl instead of
glibc's, without making anything.  Every warning is an error.

There is no libstdc++ for musl here: the machine's own is taken, and in the folder musl are the three of its headers
that know glibc.  So this finds what musl does not declare, or declares otherwise, and nothing that shows when a program
runs.
"""

import concurrent.futures
import json
import os
import pathlib
import shlex
import subprocess
import sys
import tempfile

HERE = pathlib.Path(__file__).resolve().parent
SOURCE = HERE.parent.parent


def said_by(command):
    """The lines that a command prints."""
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout.splitlines()


def folders(compiler, kernel):
    """Where the compiler looks for headers: this project's three, the C++ library, the compiler, musl, the kernel."""
    machine = said_by([compiler, "-dumpmachine"])[0]
    version = said_by([compiler, "-dumpversion"])[0].split(".")[0]
    own = pathlib.Path(said_by([compiler, "-print-file-name=include"])[0])
    musl = pathlib.Path("/usr/include") / machine.replace("-gnu", "-musl")
    if not (musl / "features.h").exists():
        sys.exit(f"musl: {musl} has no headers: install them with scripts/bootstrap check")
    library = pathlib.Path("/usr/include/c++") / version
    for name, place in (("linux", "/usr/include/linux"), ("asm-generic", "/usr/include/asm-generic"),
                        ("asm", f"/usr/include/{machine}/asm")):
        os.symlink(place, os.path.join(kernel, name))
    return [HERE / "musl", library, pathlib.Path("/usr/include") / machine / "c++" / version, own, musl, kernel]


def options(compiler, kernel):
    """The options that turn a command of the build into one for musl."""
    taken = ["-fsyntax-only", "-nostdinc", "-nostdinc++", "-D__locale_t=locale_t"]
    return taken + [part for folder in folders(compiler, kernel) for part in ("-isystem", str(folder))]


def musl_command(command, extra):
    """The command without what it makes, and with the other headers."""
    words = shlex.split(command)
    at = words.index("-o")
    return words[:at] + words[at + 2:] + extra


def complaints(command, folder):
    """The complaints of the compiler; none if all is well."""
    done = subprocess.run(command, cwd=folder, capture_output=True, text=True, check=False)
    return done.stderr if done.returncode != 0 or done.stderr else ""


def check_headers(compiler, extra, folder):
    """Whether it is musl that is looked at: a program that asks for glibc is told that there is none."""
    probe = os.path.join(folder, "probe.cpp")
    with open(probe, "w", encoding="ascii") as file:
        file.write("#include <features.h>\n#include <string>\n#ifdef __GLIBC__\n#error glibc\n#endif\n")
    said = complaints([compiler, "-std=c++20", *extra, "-c", probe], folder)
    if said:
        sys.exit(f"musl: its headers are not what is compiled with\n{said}")


def main():
    """Compiles what there is of the library, as many units at once as there are processors."""
    build = pathlib.Path(sys.argv[1]).resolve()
    commands = json.loads((build / "compile_commands.json").read_text(encoding="utf-8"))
    library = (str(SOURCE / "lib") + "/", str(build / "lib") + "/")
    units = [entry for entry in commands if entry["file"].startswith(library)]
    if not units:
        sys.exit(f"musl: {build} compiles nothing of the library")
    with tempfile.TemporaryDirectory() as kernel:
        compiler = shlex.split(units[0]["command"])[0]
        extra = options(compiler, kernel)
        check_headers(compiler, extra, kernel)
        with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
            said = list(pool.map(
                lambda entry: complaints(musl_command(entry["command"], extra), entry["directory"]), units))
    for text in filter(None, said):
        print(text, file=sys.stderr)
    return 1 if any(said) else 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Compares what the library exports with the kept list and with what the public headers declare.

usage: exports.py [--refresh] [--headers DIR] [LIBRARY]

--refresh writes the list anew.  The list leaves out what depends on compiler and optimisation: code
of inline functions that the compiler chose to emit.  Against the headers every symbol is checked.
"""

import argparse
import pathlib
import re
import subprocess
import sys

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parents[1]
LIST = HERE / "exported_symbols.txt"
HEAD = "# What libkl.so exports. Written by: tests/install/exports.py --refresh [LIBRARY]\n"

# The demangler's words in front of a name.
SPECIAL = re.compile(r"^(?:vtable for|typeinfo for|typeinfo name for|VTT for|construction vtable for|"
                     r"guard variable for|non-virtual thunk to|virtual thunk to|reference temporary #\d+ for) ")
STRING = re.compile(r"std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> ?>")
STREAM = re.compile(r"std::basic_(i|o|io)stream<char, std::char_traits<char> ?>")
VA_LIST = re.compile(r"__va_list_tag ?\*|std::__va_list")
ALLOCATOR = re.compile(r", std::allocator<(?:[^<>]|<(?:[^<>]|<[^<>]*>)*>)*>(?= ?>)")


def plain(name):
    """A demangled name without what the standard library adds to its own types."""
    name = STREAM.sub(r"std::\1stream", STRING.sub("std::string", name))
    name = VA_LIST.sub("va_list", name)
    while ALLOCATOR.search(name):
        name = ALLOCATOR.sub("", name)
    return name.replace(" >", ">")


def exported(library):
    """Pairs of the kind that nm prints and the name."""
    output = subprocess.run(["nm", "-D", "--defined-only", "-C", library], check=True, capture_output=True,
                            text=True).stdout
    lines = (line.split(" ", 2) for line in output.splitlines())
    return sorted({(kind, plain(name)) for _, kind, name in lines if kind != "A"})


def belongs_to_list(kind, name):
    return kind not in "Ww" and (kind not in "Vv" or SPECIAL.match(name))


OPERATOR = re.compile(r"\boperator\s*(\(\)|\[\]|[^\s\w(]+)(?=\()")


def identifiers(name):
    """The identifiers of a symbol's own qualified name, without arguments and namespaces."""
    name = re.sub(r"\[abi:\w+\]", "", SPECIAL.sub("", name).split("-in-")[0])
    operator = OPERATOR.search(name)
    if operator:
        name = name[:operator.start()] + "operator"
    while re.search(r"<[^<>]*>", name):
        name = re.sub(r"<[^<>]*>", "", name)
    name = name.replace("(anonymous namespace)", "anonymous_namespace").split("(", 1)[0]
    words = [word for word in re.findall(r"\w+", name.split(" ")[-1]) if word != "kl"]
    return words[:-1] + ["operator" + operator.group(1)] if operator else words


def declared_words(headers):
    text = "\n".join(path.read_text() for path in sorted(pathlib.Path(headers).glob("*.h")))
    text = re.sub(r"//[^\n]*", "", text)
    return set(re.findall(r"\w+", text)) | {"operator" + match.group(1) for match in OPERATOR.finditer(text)}


def undeclared(symbols, headers):
    """Names with an identifier that no public header knows, or from outside the namespace."""
    words = declared_words(headers)
    for _, name in symbols:
        if set(identifiers(name)) - words or not re.search(r"\bkl::|^(version2string|getOSVersion|insmod|rmmod)\b", name):
            yield name


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--refresh", action="store_true")
    parser.add_argument("--headers", default=ROOT / "include/kl")
    parser.add_argument("library", nargs="?", default=ROOT / "build/release/lib/libkl.so")
    options = parser.parse_args()

    symbols = exported(options.library)
    now = sorted({name for kind, name in symbols if belongs_to_list(kind, name)})
    if options.refresh:
        LIST.write_text(HEAD + "".join(f"{name}\n" for name in now))
        return 0

    kept = [line for line in LIST.read_text().splitlines() if line and not line.startswith("#")]
    findings = [f"exported, but no public header declares it: {name}" for name in undeclared(symbols, options.headers)]
    findings += [f"exported, but not in the list: {name}" for name in now if name not in kept]
    findings += [f"in the list, but not exported: {name}" for name in kept if name not in now]
    for finding in findings:
        print(finding)
    if now != kept:
        print(f"\nIf the change is meant, write the list anew:\n  tests/install/exports.py --refresh {options.library}")
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""What a program that was compiled against the public headers relies on, and whether a change of it breaks the program:
sizes of classes, places of their members and bases, slots of virtual functions, values of enumerators, other names of
types.  Exported symbols are the business of exports.py.

usage: layouts.py [--compiler CXX] [--accept REASON] [--list]

Compares the headers with the kept list (layouts.txt): status 1 where something breaks or is not kept yet.  --accept
writes the list anew and the reason into docs/abi.md; --list prints what the headers have.
"""

import argparse
import pathlib
import re
import subprocess
import sys
import tempfile

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parents[1]
LIST = HERE / "layouts.txt"
REASONS = ROOT / "docs" / "abi.md"
HEAD = "# What compiled programs rely on. Written by: tests/install/layouts.py --accept REASON\n"

ENTRY = re.compile(r" <([0-9a-f]+)><([0-9a-f]+)>: Abbrev Number: \d+ \((DW_TAG_\w+)\)")
ATTRIBUTE = re.compile(r"    <[0-9a-f]+>   (DW_AT_\w+)\s*: (.*)")
TEXT = re.compile(r"\((?:indirect |indexed )?(?:line )?string[^)]*\): (.*)")
CLASSES = ("DW_TAG_class_type", "DW_TAG_structure_type", "DW_TAG_union_type")
QUALIFIERS = {"DW_TAG_pointer_type": "*", "DW_TAG_reference_type": "&", "DW_TAG_rvalue_reference_type": "&&",
              "DW_TAG_const_type": " const", "DW_TAG_volatile_type": " volatile"}
PUBLIC = 1


class Entry:
    """One entry of the debugging information, with those inside it."""

    def __init__(self, tag, above):
        self.tag, self.above, self.inside, self.attributes = tag, above, [], {}

    def __getitem__(self, name):
        return self.attributes.get("DW_AT_" + name)

    def number(self, name):
        words = re.match(r"(-?(?:0x[0-9a-f]+|\d+))", self[name] or "")
        return int(words.group(1), 0) if words else 0

    @property
    def name(self):
        found = TEXT.match(self["name"] or "")
        return (found.group(1) if found else self["name"] or "").strip()

    @property
    def path(self):
        above = self.above.path if self.above else ""
        if self.tag == "DW_TAG_compile_unit":
            return ""
        return f"{above}::{self.name}" if above else self.name


def entries_of(dump):
    """The entries at the top, and all of them by their place."""
    top, by_place, stack, last = [], {}, [], None
    for line in dump:
        found = ENTRY.match(line)
        if found:
            depth, place, tag = int(found.group(1), 16), found.group(2), found.group(3)
            del stack[depth:]
            last = Entry(tag, stack[-1] if stack else None)
            (stack[-1].inside if stack else top).append(last)
            stack.append(last)
            by_place[place] = last
        elif last is not None:
            found = ATTRIBUTE.match(line)
            if found:
                last.attributes[found.group(1)] = found.group(2).strip()
    return top, by_place


class Reader:
    """Turns the entries of a namespace into lines of the list."""

    def __init__(self, dump, namespace):
        self.top, self.by_place = entries_of(dump)
        self.namespace = namespace
        self.lines = set()

    def read(self):
        for unit in self.top:
            self.read_names(unit)
        return self.lines

    def type_of(self, entry):
        place = re.match(r"<0x([0-9a-f]+)>", entry["type"] or "")
        return self.by_place.get(place.group(1)) if place else None

    def type_text(self, entry):
        kind = self.type_of(entry)
        if kind is None:
            return "void"
        if kind.tag == "DW_TAG_array_type":
            return self.type_text(kind) + "".join(f"[{bound.number('upper_bound') + 1}]" for bound in kind.inside)
        if kind.tag in QUALIFIERS:
            return self.type_text(kind) + QUALIFIERS[kind.tag]
        if kind.tag == "DW_TAG_subroutine_type":
            return f"{self.type_text(kind)}({self.arguments_text(kind)})"
        return kind.path or "?"

    def arguments_text(self, function):
        return ", ".join(self.type_text(argument) for argument in function.inside
                         if argument.tag == "DW_TAG_formal_parameter" and not argument["artificial"])

    def bytes_of(self, entry):
        """How long something of the entry's type is."""
        kind = self.type_of(entry)
        count = 1
        while kind is not None and kind["byte_size"] is None:
            if kind.tag == "DW_TAG_array_type":
                for bound in kind.inside:
                    count *= bound.number("upper_bound") + 1
            kind = self.type_of(kind)
        return count * kind.number("byte_size") if kind else "?"

    def is_ours(self, entry):
        inside = self.namespace == "" or (entry.path + "::").startswith(self.namespace + "::")
        return inside and "<" not in entry.path

    def read_names(self, entry):
        for inner in entry.inside:
            if inner.tag == "DW_TAG_namespace":
                self.read_names(inner)
            elif inner.name and self.is_ours(inner) and not inner["declaration"]:
                self.read_name(inner)

    def read_name(self, entry):
        if entry.tag in CLASSES:
            self.read_class(entry)
        elif entry.tag == "DW_TAG_enumeration_type":
            self.lines.add(f"{entry.path}: enum of {entry.number('byte_size')} bytes")
            for value in entry.inside:
                self.lines.add(f"{entry.path}: enumerator {value.name} = {value.number('const_value')}")
        elif entry.tag == "DW_TAG_typedef":
            self.lines.add(f"{entry.path}: stands for {self.type_text(entry)}")

    def slot_text(self, function):
        slot = re.search(r"DW_OP_constu: (\d+)", function["vtable_elem_location"])
        return f"{slot.group(1) if slot else '?'} {function.name}({self.arguments_text(function)})"

    def is_inherited(self, function, owner):
        """Whether a base has this function in this slot: to override it, or not any more, moves nothing."""
        for inner in owner.inside:
            base = self.type_of(inner) if inner.tag == "DW_TAG_inheritance" else None
            if base is None:
                continue
            slots = [self.slot_text(known) for known in base.inside if known["vtable_elem_location"]]
            if self.slot_text(function) in slots or self.is_inherited(function, base):
                return True
        return False

    def read_class(self, entry):
        self.lines.add(f"{entry.path}: class of {entry.number('byte_size')} bytes")
        for inner in entry.inside:
            is_public = inner.number("accessibility") == PUBLIC or (
                inner["accessibility"] is None and entry.tag != "DW_TAG_class_type")
            if inner.tag == "DW_TAG_inheritance":
                self.lines.add(f"{entry.path}: base at {inner.number('data_member_location')} {self.type_text(inner)}")
            elif inner.tag == "DW_TAG_member" and not inner["external"]:
                what = f"{self.type_text(inner)} {inner.name}" if is_public else f"{self.bytes_of(inner)} bytes"
                self.lines.add(f"{entry.path}: member at {inner.number('data_member_location')} {what}")
            elif inner.tag == "DW_TAG_subprogram" and inner["vtable_elem_location"]:
                if not self.is_inherited(inner, entry):
                    self.lines.add(f"{entry.path}: virtual {self.slot_text(inner)}")
            elif inner.name and not inner["declaration"]:
                self.read_name(inner)


def layouts(source, compiler, options, namespace="kl"):
    """The lines of the list for a source text."""
    with tempfile.TemporaryDirectory() as folder:
        made = pathlib.Path(folder, "all.o")
        subprocess.run([compiler, "-std=c++20", "-x", "c++", "-gdwarf-5", "-fno-eliminate-unused-debug-types",
                        "-femit-class-debug-always", *options, "-c", "-", "-o", str(made)],
                       input=source, text=True, check=True)
        dump = subprocess.run(["readelf", "--debug-dump=info", str(made)], check=True, capture_output=True,
                              text=True, errors="replace").stdout
    return Reader(dump.splitlines(), namespace).read()


def public_headers():
    return "".join(f'#include "kl/{path.name}"\n' for path in sorted((ROOT / "include" / "kl").glob("*.h")))


def judge(before, now):
    """The changes that break compiled programs, and those that only add."""
    gone = sorted(before - now)
    known = {line.split(": ")[0] for line in before}
    breaks, adds = [f"gone: {line}" for line in gone], []
    for line in sorted(now - before):
        owner, what = line.split(": ", 1)
        changes_it = owner in known and what.split()[0] in ("class", "enum", "base", "member", "virtual", "stands")
        (breaks if changes_it else adds).append(f"new: {line}")
    return breaks, adds


def read_list():
    return {line for line in LIST.read_text().splitlines() if line and not line.startswith("#")} \
        if LIST.exists() else set()


def accept(now, reason):
    LIST.write_text(HEAD + "\n".join(sorted(now)) + "\n")
    REASONS.write_text(REASONS.read_text().rstrip("\n") + f"\n\n- {reason}\n")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--compiler", default="g++")
    parser.add_argument("--accept", metavar="REASON")
    parser.add_argument("--list", action="store_true")
    options = parser.parse_args()
    now = layouts(public_headers(), options.compiler, [f"-I{ROOT / 'include'}"])
    if options.list:
        print("\n".join(sorted(now)))
        return 0
    if options.accept:
        accept(now, options.accept)
        return 0
    breaks, adds = judge(read_list(), now)
    for line in breaks:
        print(f"breaks compiled programs: {line}")
    for line in adds:
        print(f"adds to what they may rely on: {line}")
    if breaks or adds:
        print("tests/install/layouts.py --accept REASON keeps it; what breaks programs needs another major version")
    return 1 if breaks or adds else 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Checks the source tree itself: what CONTRIBUTING.md asks for and a machine can see.

usage: tidy.py [--root DIR] [--compiler CXX] [CHECK...]

Without a name all checks run; --list names them.  Each finding is one line, "FILE:LINE: what is
wrong".  Exit status: 0 nothing found, 1 findings, 2 usage.
"""

import argparse
import concurrent.futures
import fnmatch
import os
import pathlib
import re
import shutil
import subprocess
import sys

PROGRAMS = ("services", "tools", "examples")  # each folder below them is a program of its own
SHARED = ("lib/base", "lib/protocol", "services/common", "services/describe")  # rooms whose headers others may see
LENT = {"testkit": ("services/loader",)}  # a room that plays another one uses its sources
NOT_OURS = {".git", "build", "__pycache__"}
EXCEPTIONS = "tests/tidy/exceptions.txt"
LONGEST_LINE = 120  # of a document, in characters
LONGEST_FUNCTION = 29  # in lines between its braces
MADE_REGION = ("<!-- klgen ", ".\\\" klgen ")  # begins where a table of a description begins or ends

# Public headers include only headers of a layer below their own.
LAYERS = (
    {"export", "bind", "callable", "ticks"},
    {"message", "description"},
    {"field", "records", "address"},
    {"conventions", "runner", "message_view", "described"},
    {"backtrace", "services", "logger", "store", "new_store", "allocator", "utilities", "chunk", "rights", "timer", "result"},
    {"looper", "post", "wall_timer", "embed", "commands"},
    {"reget", "table", "client"},
    {"watcher", "test", "coroutine"},
    {"follower"},
)

# The rooms of a house from the top to the bottom: a file includes internal headers of its own room and of rooms below.
# Rooms in one group do not see each other.  A file that lies in no room lies above all of them.
ROOMS = {
    "lib": (("system", "store", "ids", "tables", "log"), ("looper",), ("protocol",), ("loop",), ("message",), ("base",)),
    "lib/store": (("space",), ("journal",), ("files",)),
    "services/logd": (("asking", "config"), ("intake",), ("keeping",)),
    "services/loader": (("own",), ("watch",), ("life",), ("admission",), ("routing",), ("transport",), ("crashes",), ("config",), ("logging",), ("quota",)),
    "tools/klctl": (("verbs",), ("output",), ("ask",), ("values",)),
}

INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"')
TEST = re.compile(r"^\s*(?:TEST|TEST_F|TEST_P|TYPED_TEST|TYPED_TEST_P)\(\s*(\w+)\s*,\s*(\w+)\s*\)", re.M)
NO_FUNCTION = re.compile(r"\s*(?:namespace|class|struct|union|enum|extern)\b")
VOID_PREDICATE = re.compile(r"^(?!\s*//)[^\n\"]*\bvoid\s+(?:\w+::)*((?:is|has|can|must|may)[A-Z]\w*)\s*\(", re.M)
ANY_INCLUDE = re.compile(r"^#include ([<\"]\S+)", re.M)
USING = re.compile(r"^using (?:\w+::)*(\w+|operator[^;]+);", re.M)
CODE_COMMENT = re.compile(r"//[^\n]*")
COMMENT = re.compile(r"^[ \t]*//[^\n]*(?:\n[ \t]*//[^\n]*)*", re.M)
TEST_NAME = re.compile(r"\b([A-Z]\w*)\.([A-Z]\w*)\b")
OTHER_TEST = re.compile(r"\badd_test\(\s*NAME\s+([A-Z]\w*)\.([A-Z]\w*)")  # of a CMakeLists.txt
PAGE_TEST = re.compile(r"`([A-Z]\w*\*?)?\.([A-Z*][\w*]*)`")  # `Suite.Test`, `Suite.Begin*`, and `.Test` of the same suite


class Tree:
    """The files of a source tree, by their path from its root."""

    def __init__(self, root, compiler="c++"):
        self.root = pathlib.Path(root).resolve()
        self.compiler = compiler
        self.files = sorted(self._walk())
        self._texts = {}

    def _walk(self):
        for folder, folders, names in os.walk(self.root):
            folders[:] = [name for name in folders if name not in NOT_OURS]
            for name in set(names) - NOT_OURS:
                yield (pathlib.Path(folder) / name).relative_to(self.root).as_posix()

    def text(self, path):
        if path not in self._texts:
            self._texts[path] = (self.root / path).read_text(encoding="utf-8", errors="replace")
        return self._texts[path]

    def code(self):
        return [path for path in self.files if path.endswith((".cpp", ".h"))]

    def includes(self, path):
        for line, text in enumerate(self.text(path).splitlines(), 1):
            match = INCLUDE.match(text)
            if match:
                yield line, match.group(1)


def top(path):
    return path.split("/", 1)[0]


def home(path):
    """The folder that a file belongs to: a room of the library, or a program's own folder."""
    parts = path.split("/")
    return "/".join(parts[:2]) if parts[0] in ("lib",) + PROGRAMS and len(parts) > 2 else parts[0]


def line_of(text, position):
    return text.count("\n", 0, position) + 1


# --- the checks; each yields (file, line, what is wrong)


def check_tests(tree):
    """Each source has its test file; the exceptions are listed with their reasons."""
    exceptions = {}
    if EXCEPTIONS in tree.files:
        for line, text in enumerate(tree.text(EXCEPTIONS).splitlines(), 1):
            if text.strip() and not text.startswith("#"):
                path, _, reason = text.partition(" ")
                exceptions[path] = line
                if not reason.strip():
                    yield EXCEPTIONS, line, f"no reason for {path}"
    files = set(tree.files)
    for path in tree.files:
        if top(path) not in ("lib", "testkit") + PROGRAMS or not path.endswith(".cpp"):
            continue
        test = f"tests/{path[:-len('.cpp')]}_test.cpp"
        line = exceptions.pop(path, None)
        if test in files and line:
            yield EXCEPTIONS, line, f"{path} has its test: no exception is needed"
        elif test not in files and not line:
            yield path, 1, f"no {test}, and no reason in {EXCEPTIONS}"
    for path, line in exceptions.items():
        yield EXCEPTIONS, line, f"no source {path}"


def resolve(tree, path, included):
    """The file that an include names, from the root or from the including file's folder or program."""
    candidates = [f"lib/{included}", included, os.path.normpath(os.path.join(os.path.dirname(path), included)),
                  f"{home(path)}/{included}", f"include/{included}"]
    return next((name for name in candidates if name in tree.files), None)


def users_of(path):
    """The houses whose shared rooms a file may see."""
    return {"lib": ("lib",), "services": ("services",), "tools": ("services",), "testkit": ("services",)}.get(top(path), ())


def check_includes(tree):
    """Folders meet only in include/kl and in shared rooms: any other internal header stays with its folder and its tests."""
    for path in tree.code():
        for line, included in tree.includes(path):
            target = resolve(tree, path, included)
            if target is None or target.startswith("include/kl/"):
                continue
            owner = home(target)
            if top(path) == "tests":
                mine = (target.startswith("tests/") or path.startswith(f"tests/{owner}/") or
                        (owner in SHARED and top(owner) in users_of(path[len("tests/"):])))
            elif top(path) == "fuzz":
                mine = True  # a target looks behind its subject's headers, and at the models of its tests
            else:
                mine = (home(path) == owner or owner in LENT.get(home(path), ()) or
                        (owner in SHARED and top(owner) in users_of(path)))
            if not mine:
                yield path, line, f"{target} is internal to {owner}/"


def check_arrows(tree):
    """Inside a house a file includes only headers of its own room and of rooms below it."""
    for house, groups in ROOMS.items():
        level = {room: height for height, rooms in enumerate(reversed(groups)) for room in rooms}

        def room_of(path):
            below = path[len(house) + 1:].split("/")
            return below[0] if len(below) > 1 and below[0] in level else ""

        for path in tree.code():
            if not path.startswith(house + "/"):
                continue
            mine = room_of(path)
            for line, included in tree.includes(path):
                target = resolve(tree, path, included)
                if target is None or not target.startswith(house + "/"):
                    continue
                theirs = room_of(target)
                if mine != theirs and level.get(mine, len(groups)) <= level.get(theirs, len(groups)):
                    yield path, line, f"{target} does not lie below {house}/{mine}".rstrip("/")


def check_essays(tree):
    """Each source of the library, a program or an example opens with what it does: its first line is a comment."""
    for path in tree.files:
        if top(path) not in ("lib", "testkit") + PROGRAMS or not path.endswith(".cpp"):
            continue
        if not tree.text(path).startswith(("// ", "/* ", "/** ")):
            yield path, 1, "does not open with a comment that says what it does"


def check_predicates(tree):
    """A function whose name asks a question answers it: one without a result is named by what it does."""
    for path in tree.code():
        for match in VOID_PREDICATE.finditer(tree.text(path)):
            yield path, line_of(tree.text(path), match.start()), f"{match.group(1)} asks and does not answer"


def check_functions(tree):
    """A function has at most 29 lines between its braces, where each brace stands as clang-format puts it."""
    for path in tree.code():
        if top(path) not in ("include", "lib", "testkit") + PROGRAMS:
            continue
        lines = tree.text(path).splitlines()
        for end, text in enumerate(lines):
            if not re.fullmatch(r" *}", text):
                continue
            begin = next((at for at in range(end - 1, -1, -1)
                          if lines[at] and not lines[at].startswith("#") and indentation(lines[at]) < len(text)), 0)
            if NO_FUNCTION.match(lines[begin]):
                continue
            # Parameters and what a constructor initialises are indented further than its body.
            body = next(at for at in range(begin + 1, end + 1) if at == end or indentation(lines[at]) == len(text) + 1)
            if end - body > LONGEST_FUNCTION:
                yield path, begin + 1, f"{end - body} lines, and a function has at most {LONGEST_FUNCTION}"


def indentation(line):
    return len(line) - len(line.lstrip())


def check_needless(tree):
    """A name that a source takes from a namespace is used in that source, and a header is included once."""
    for path in tree.code():
        text = tree.text(path)
        for match in USING.finditer(text) if path.endswith(".cpp") else ():
            if len(re.findall(rf"\b{re.escape(match.group(1))}\b", CODE_COMMENT.sub("", text))) == 1:
                yield path, line_of(text, match.start()), f"{match.group(1)} is not used"
        seen = set()
        for match in ANY_INCLUDE.finditer(text):
            if match.group(1) in seen:
                yield path, line_of(text, match.start()), f"{match.group(1)} is included twice"
            seen.add(match.group(1))


def check_programs(tree):
    """Companions, tools and examples use the public headers, their own, and those that are made of NAME.toml (NAME.kl.h)
    or of NAME.h.in."""
    for path in tree.code():
        if top(path) not in PROGRAMS:
            continue
        for line, included in tree.includes(path):
            target = resolve(tree, path, included)
            made = included.endswith(".kl.h") or f"{os.path.dirname(path)}/{included}.in" in tree.files
            if target is None and not made:
                yield path, line, f'"{included}" is neither a public header nor one of {home(path)}/'


def check_layers(tree):
    """Public headers include each other only downwards."""
    layer = {name: level for level, names in enumerate(LAYERS) for name in names}
    for path in tree.files:
        match = re.fullmatch(r"include/kl/(\w+)\.h", path)
        if not match:
            continue
        if match.group(1) not in layer:
            yield path, 1, "this public header has no layer: give it one in tests/tidy/tidy.py"
            continue
        for line, included in tree.includes(path):
            below = re.fullmatch(r"kl/(\w+)\.h", included)
            if not below or below.group(1) not in layer:
                yield path, line, f'"{included}" is not a public header'
            elif layer[below.group(1)] >= layer[match.group(1)]:
                yield path, line, f"{included} does not lie below kl/{match.group(1)}.h"


def check_headers(tree):
    """Each public header compiles alone."""
    headers = [path for path in tree.files if re.fullmatch(r"include/kl/\w+\.h", path)]

    def compile_alone(path):
        command = [tree.compiler, "-std=c++20", "-fsyntax-only", "-Wall", "-Wextra", "-Wconversion", "-Wshadow",
                   "-Wnon-virtual-dtor", "-Werror", "-I", str(tree.root / "include"), "-x", "c++", "-"]
        source = f'#include "{path[len("include/"):]}"\n' * 2
        return subprocess.run(command, input=source, capture_output=True, text=True, check=False)

    with concurrent.futures.ThreadPoolExecutor(max_workers=2) as pool:
        for path, result in zip(headers, pool.map(compile_alone, headers)):
            if result.returncode != 0:
                first = next((text for text in result.stderr.splitlines() if "error" in text), result.stderr.strip())
                yield path, 1, f"does not compile alone: {first}"


def tests_in(tree):
    kinds = {".cpp": TEST, "CMakeLists.txt": OTHER_TEST}
    return {match.groups() for path in tree.files if path.startswith("tests/")
            for end, pattern in kinds.items() if path.endswith(end)
            for match in pattern.finditer(tree.text(path))}


def tests_missing_on_pages(tree, tests):
    names = {".".join(test) for test in tests}
    for path in tree.files:
        for line, text in enumerate(tree.text(path).splitlines() if path.endswith(".md") else (), 1):
            suite = None
            for note in PAGE_TEST.finditer(text):
                suite = note.group(1) or suite
                name = f"{suite}.{note.group(2)}"
                if not fnmatch.filter(names, name):
                    yield path, line, f"no test {name}"


def check_held_by(tree):
    """Each "Held by" and each page names real tests, and what is kept on purpose says by which it is held."""
    tests = tests_in(tree)
    yield from tests_missing_on_pages(tree, tests)
    for path in tree.code():
        text = tree.text(path)
        for comment in COMMENT.finditer(text):
            words = re.sub(r"\n[ \t]*//", lambda match: " " * len(match.group()), comment.group())
            held = list(re.finditer(r"Held\s+by\b", words))
            kept = re.search(r"Kept\s+on\s+purpose", words)
            if kept and not held:
                yield path, line_of(text, comment.start() + kept.start()), "kept on purpose, but held by no test"
            for note in held:
                sentence = re.split(r"\.(?:\s|$)", words[note.end():], maxsplit=1)[0]
                names = [match.groups() for match in TEST_NAME.finditer(sentence)]
                line = line_of(text, comment.start() + note.start())
                if not names:
                    yield path, line, 'a "Held by" without a Suite.Test'
                for suite, name in names:
                    if (suite, name) not in tests:
                        yield path, line, f"no test {suite}.{name}"


def check_man_pages(tree):
    """Man pages are formatted without a warning."""
    pages = [path for path in tree.files if re.search(r"\.[1-8]$", path) and not path.startswith("tests/")]
    if pages and not shutil.which("groff"):
        yield pages[0], 1, "groff is missing: install it with scripts/bootstrap test"
        return
    for path in pages:
        result = subprocess.run(["groff", "-man", "-ww", "-z", "-Tutf8", str(tree.root / path)],
                                capture_output=True, text=True, check=False)
        for text in result.stderr.splitlines():
            where = re.search(r":(\d+): (.*)", text)
            yield path, int(where.group(1)) if where else 1, where.group(2) if where else text


def check_words(tree):
    """Nothing speaks of one developer's machine, of work undone or of an unfinished merge."""
    unwanted = (
        (re.compile(r"(?<![\w.$}])/(?:home|Users|work|root)/\w"), "a path of one machine"),
        (re.compile(r"\b(?:TO" r"DO|FIX" r"ME|XX" r"X)\b"), "work undone"),
        (re.compile(r"^(?:<{7}|={7}|>{7})(?: |$)"), "an unfinished merge"),
        (re.compile(r"[ \t]+$"), "blanks at the end"),
    )
    for path in tree.files:
        if path.endswith((".bin", ".png")) or path.startswith(("fuzz/corpus/", "tests/golden/", "tests/tidy/")):
            continue
        for line, text in enumerate(tree.text(path).splitlines(), 1):
            for pattern, what in unwanted:
                if pattern.search(text):
                    yield path, line, f"{what}: {text.strip()[:60]}"


def check_lines(tree):
    """Documents have lines of at most 120 characters; tables that klgen makes in them are as wide as they are."""
    for path in tree.files:
        if not re.search(r"(?:\.md|/man/[^/]+\.[1-8])$", path):
            continue
        is_made = False
        for line, text in enumerate(tree.text(path).splitlines(), 1):
            if text.startswith(MADE_REGION):
                is_made = not text.split("klgen ", 1)[1].startswith("end")
            if len(text) > LONGEST_LINE and not (is_made and text.startswith("| ")):
                yield path, line, f"{len(text)} characters, and a document's lines have at most {LONGEST_LINE}"


CHECKS = {
    "tests": check_tests,
    "includes": check_includes,
    "arrows": check_arrows,
    "essays": check_essays,
    "predicates": check_predicates,
    "functions": check_functions,
    "needless": check_needless,
    "programs": check_programs,
    "layers": check_layers,
    "headers": check_headers,
    "held-by": check_held_by,
    "man-pages": check_man_pages,
    "words": check_words,
    "lines": check_lines,
}


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--root", default=pathlib.Path(__file__).resolve().parents[2])
    parser.add_argument("--compiler", default="c++")
    parser.add_argument("--list", action="store_true", help="name the checks")
    parser.add_argument("check", nargs="*")
    options = parser.parse_args()
    unknown = [name for name in options.check if name not in CHECKS]
    if unknown:
        parser.error(f"no check {unknown[0]}")
    if options.list:
        for name, check in CHECKS.items():
            print(f"{name:10} {check.__doc__.splitlines()[0]}")
        return 0
    tree = Tree(options.root, options.compiler)
    found = 0
    for name in options.check or CHECKS:
        for path, line, text in CHECKS[name](tree):
            print(f"{path}:{line}: {text}")
            found += 1
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())

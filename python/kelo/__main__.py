"""python3 -m kelo: Python with a bus at hand.

    $ python3 -m kelo
    >>> bus.get("netif:1").mtu
    65536
    >>> show(bus.services())

`bus` is a kelo.blocking.Bus.  The tabulator completes names of Python, of services between quotes, and of fields behind
a service's name.
"""

from __future__ import annotations

import argparse
import code
import re
import sys
from collections.abc import Iterable, Sequence
from pathlib import Path
from typing import Any, Optional

import kelo
import kelo.blocking
from kelo.names import Dictionaries, Object

_PATH = re.compile(r"""["']([^"'/:]+)[^"']*["']\s*,""")
_OPEN_QUOTE = re.compile(r"""\bbus\.\w+\(\s*["']([^"']*)$""")
_DELIMITERS = " \t\n()[]{},=\"'"


class Completer:
    """Knows what may stand at the end of a line."""

    def __init__(self, bus: kelo.blocking.Bus, names: dict[str, Any], dictionaries: Dictionaries) -> None:
        import rlcompleter

        self._bus = bus
        self._python = rlcompleter.Completer(names)
        self._dictionaries = dictionaries
        self._found: list[str] = []

    def of_line(self, line: str, text: str) -> list[str]:
        """Completions of `text`, with which the line ends."""
        if _OPEN_QUOTE.search(line):
            return self._beginning(text, self._services())
        named = _PATH.search(line)
        if named is not None and line.lstrip().startswith("bus.") and not line[: -len(text) or None].endswith("="):
            fields = self._dictionaries.of(named[1]).fields
            return self._beginning(text, [f"{name}=" for name in fields])
        found: list[str] = []
        while (each := self._python.complete(text, len(found))) is not None:
            found.append(each)
        return found

    def complete(self, text: str, state: int) -> Optional[str]:
        """Called by readline."""
        if state == 0:
            import readline

            try:
                self._found = self.of_line(readline.get_line_buffer()[: readline.get_endidx()], text)
            except kelo.KeloError:
                self._found = []
        return self._found[state] if state < len(self._found) else None

    def _services(self) -> Iterable[str]:
        return [each.get("name", "") for each in self._bus.services()]

    @staticmethod
    def _beginning(text: str, words: Iterable[str]) -> list[str]:
        return sorted({word for word in words if word and word.startswith(text)})


def show(objects: Object | Sequence[Object]) -> None:
    """Prints an object, or several, a line each."""
    for each in [objects] if isinstance(objects, Object) else objects:
        print(each)


def main() -> int:
    parser = argparse.ArgumentParser(prog="python3 -m kelo", description="Python with a bus at hand.")
    parser.add_argument("--fields", metavar="DIR", help="where the dictionaries are")
    options = parser.parse_args()
    folders = [options.fields] if options.fields else None
    try:
        dictionaries = Dictionaries([Path(options.fields)] if options.fields else None)
        with kelo.blocking.connect(fields=folders) as bus:
            names: dict[str, Any] = {"bus": bus, "kelo": kelo, "show": show}
            if sys.stdin.isatty():
                _prepare_line(Completer(bus, names, dictionaries))
            banner = f"kelo: service {bus.id}; ask with bus.get(...), bus.get_all(...), help(bus)"
            code.InteractiveConsole(names).interact(banner if sys.stdin.isatty() else "", exitmsg="")
    except kelo.Disconnected as error:
        print(f"kelo: {error}", file=sys.stderr)
        return 4
    except kelo.RootError as error:
        print(f"kelo: {error}", file=sys.stderr)
        return 1
    return 0


def _prepare_line(completer: Completer) -> None:
    try:
        import readline
    except ImportError:
        return
    readline.set_completer_delims(_DELIMITERS)
    readline.set_completer(completer.complete)
    readline.parse_and_bind("tab: complete")


if __name__ == "__main__":
    sys.exit(main())

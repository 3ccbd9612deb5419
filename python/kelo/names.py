"""Names for fields, values, objects and commands: the descriptions of services, and objects shown by them.

A description is the file SERVICE.toml that klctl uses, too (docs/descriptions.md).  A field is named as klctl names it:
by the dictionary ("mtu"), as a standard or system field ("STD_DESCR", "descr"), or by its type and number ("u32:5",
"string:std.9", "u32[]:8", "0x0a000005").
"""

from __future__ import annotations

import os
import re
import socket
import tomllib
from collections.abc import Iterable, Iterator, Mapping
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

from kelo import ids
from kelo.codec.message import ARRAY, Kind, Message, is_array, kind_of
from kelo.errors import CodecError, PathError
from kelo.root import under_root

_KINDS = {kind.name.lower(): kind.value << 27 for kind in Kind}
_SPACES = {"global": 0x00, "local": 0xFD, "std": 0xFE, "sys": 0xFF}
_SPACE_NAMES = {0x00: "", 0xFD: "local.", 0xFE: "std.", 0xFF: "sys."}
_EXPLICIT = re.compile(r"(bool|u32|u64|addr6|string|message|raw)(\[\])?:(?:([a-z]+|\d+)\.)?(0[xX][0-9a-fA-F]+|\d+)")
_HEXADECIMAL = re.compile(r"0[xX][0-9a-fA-F]{8}")

_STANDARD = {name: int(value) for name, value in vars(ids).items() if name.startswith(("STD_", "SYS_"))}
_SHORT = {name[4:].lower(): value for name, value in _STANDARD.items() if name.startswith("STD_")}
_STANDARD_NAMES = {value: name.lower() for name, value in _SHORT.items()} | {
    value: name for name, value in _STANDARD.items() if name.startswith("SYS_")
}


def explicit_name(id: int) -> str:
    """The name that every field has: "u32:5", "string:std.9"."""
    try:
        kind = kind_of(id).name.lower() + ("[]" if is_array(id) else "")
    except CodecError:
        return f"{id:#010x}"
    if id & 0x06000000:
        return f"{id:#010x}"
    space = id >> 16 & 0xFF
    return f"{kind}:{_SPACE_NAMES.get(space, f'{space}.')}{id & 0xFFFF}"


def explicit_field(name: str) -> int | None:
    """The id that an explicit name stands for; None if it is no such name."""
    if _HEXADECIMAL.fullmatch(name):
        return int(name, 16)
    match = _EXPLICIT.fullmatch(name)
    if not match:
        return None
    kind, array, space_name, number_text = match.groups()
    number = int(number_text, 0) if number_text[:2].lower() == "0x" else int(number_text)
    space = 0
    if space_name is not None:
        space = _SPACES.get(space_name, int(space_name) if space_name.isdigit() else -1)
    if not 0 <= space <= 0xFF or number > 0xFFFF:
        return None
    return _KINDS[kind] | (ARRAY if array else 0) | space << 16 | number


def _field_of(row: Mapping[str, Any], where: str) -> int:
    """The id of a field as a description has it: field = "u32:5", or type and id."""
    name = row["field"] if "field" in row else f"{row['type']}:{row['id']}"
    id = explicit_field(name)
    if id is None:
        raise PathError(f"{where}: '{name}' is no field")
    return id


def _field_rows(description: Mapping[str, Any]) -> Iterator[Mapping[str, Any]]:
    """The fields of a description, in the order of the file; some are written where they are used."""
    yield from description.get("fields", [])
    for each in description.get("objects", []):
        commands = [command for command in each.get("commands", []) if not isinstance(command, str)]
        lists = [each.get("fields", [])] + [command.get(key, []) for command in commands for key in ("takes", "gives")]
        yield from (row for rows in lists for row in rows if not isinstance(row, str))


@dataclass(frozen=True)
class Dictionary:
    """The names of one service: of its fields, of values of its u32 fields, of its objects, commands and settings."""

    fields: dict[str, int] = field(default_factory=dict)  # in the order in which they are shown
    words: dict[int, dict[str, int]] = field(default_factory=dict)
    units: dict[int, str] = field(default_factory=dict)  # of numbers: "s", "bytes", "1/100"
    secrets: frozenset[int] = frozenset()  # fields that are not to be shown
    objects: dict[str, tuple[int, ...]] = field(default_factory=dict)  # the handlers of each; none: the service itself
    commands: dict[tuple[int, ...], dict[str, int]] = field(default_factory=dict)  # of the service's own, by handlers
    settings: dict[str, int] = field(default_factory=dict)

    @classmethod
    def parse(cls, text: str, where: str = "dictionary") -> Dictionary:
        try:
            description = tomllib.loads(text)
            rows = [(row, _field_of(row, where)) for row in _field_rows(description)]
            objects: dict[str, tuple[int, ...]] = {}
            commands: dict[tuple[int, ...], dict[str, int]] = {}
            for each in description.get("objects", []):
                handlers = (each["handler"],) if "handler" in each else ()
                objects[each["name"]] = handlers
                own = [command for command in each.get("commands", []) if not isinstance(command, str)]
                commands[handlers] = {command["name"]: command["code"] for command in own if "code" in command}
            return cls(
                fields={row["name"]: id for row, id in rows},
                words={id: dict(row["values"]) for row, id in rows if "values" in row},
                units={id: row["unit"] for row, id in rows if "unit" in row},
                secrets=frozenset(id for row, id in rows if row.get("secret", False)),
                objects=objects,
                commands=commands,
                settings={row["name"]: _field_of(row, where) for row in description.get("settings", [])},
            )
        except (tomllib.TOMLDecodeError, KeyError, TypeError, ValueError, AttributeError) as error:
            raise PathError(f"{where}: {error}") from None

    def handlers_of(self, handlers: Iterable[int | str]) -> tuple[int, ...]:
        """The handlers of a path, in which the name of an object stands for its own; PathError if there is none."""
        numbers: list[int] = []
        for handler in handlers:
            if isinstance(handler, str) and handler not in self.objects:
                known = f"; there are {', '.join(self.objects)}" if self.objects else ""
                raise PathError(f"no object is called '{handler}'{known}")
            numbers += self.objects[handler] if isinstance(handler, str) else (handler,)
        return tuple(numbers)

    def command_of(self, command: str | int, handlers: Iterable[int] = ()) -> int:
        """A command of the service's own at these handlers, or a standard one; PathError if there is none."""
        own = self.commands.get(tuple(handlers), {})
        return own[command] if isinstance(command, str) and command in own else command_of(command)

    def id_of(self, name: str) -> int:
        """The field of this name; PathError if there is none."""
        for names in (self.fields, _SHORT, _STANDARD):
            if name in names:
                return names[name]
        id = explicit_field(name)
        if id is None:
            raise PathError(f"no field is called '{name}'")
        return id

    def name_of(self, id: int) -> str:
        for name, known in self.fields.items():
            if known == id:
                return name
        return _STANDARD_NAMES.get(id) or explicit_name(id)

    def value_of(self, id: int, value: Any) -> Any:
        """A value as people write it, as a message takes it: words, texts of addresses, mappings for messages."""
        if is_array(id):
            return [self._single_of(id, element) for element in value]
        return self._single_of(id, value)

    def _single_of(self, id: int, value: Any) -> Any:
        kind = kind_of(id)
        if isinstance(value, Object):
            value = value.message
        if kind == Kind.U32 and isinstance(value, str):
            if value not in self.words.get(id, {}):
                raise PathError(f"{self.name_of(id)} has no value '{value}'")
            return self.words[id][value]
        if kind == Kind.ADDR6 and isinstance(value, str):
            try:
                return socket.inet_pton(socket.AF_INET6, value)
            except OSError:
                raise PathError(f"'{value}' is no IPv6 address") from None
        if kind == Kind.MESSAGE and isinstance(value, Mapping):
            return self.message(value)
        return value

    def shown(self, id: int, value: Any) -> Any:
        """The other way round: a value of a message as people read it."""
        if is_array(id):
            return [self._single_shown(id, element) for element in value]
        return self._single_shown(id, value)

    def _single_shown(self, id: int, value: Any) -> Any:
        kind = kind_of(id)
        if kind == Kind.U32:
            return next((word for word, number in self.words.get(id, {}).items() if number == value), value)
        if kind == Kind.ADDR6:
            return socket.inet_ntop(socket.AF_INET6, value)
        if kind == Kind.MESSAGE:
            try:
                return Object(Message.decode(value), self)
            except CodecError:
                return value
        return value

    def message(self, fields: Mapping[Any, Any]) -> Message:
        """A message of fields by name or id."""
        message = Message()
        for key, value in fields.items():
            id = key if isinstance(key, int) else self.id_of(key)
            message[id] = self.value_of(id, value)
        return message


NO_DICTIONARY = Dictionary()

_SHOWN_DEPTH = 16  # of messages in messages, whoever nested them


class Object(Mapping[str, Any]):
    """A message whose fields are seen by name: link["mtu"], link.mtu, dict(link).

    Values are those of a message, but addresses are texts, u32 values that the dictionary has words for are words, and
    nested messages are Objects.  System fields are left out; `message` has them.  Secret fields are there, and their
    values are not printed.
    """

    __slots__ = ("message", "dictionary")

    def __init__(self, message: Message, dictionary: Dictionary = NO_DICTIONARY) -> None:
        self.message = message
        self.dictionary = dictionary

    @property
    def id(self) -> int:
        """Its STD_ID; BADID if it has none."""
        return self.message.get(ids.STD_ID, ids.BADID)

    def __getitem__(self, name: str) -> Any:
        try:
            id = self.dictionary.id_of(name)
        except PathError:
            raise KeyError(name) from None
        value = self.message.get(id)
        if value is None:
            raise KeyError(name)
        return self.dictionary.shown(id, value)

    def __getattr__(self, name: str) -> Any:
        if name.startswith("__"):
            raise AttributeError(name)
        try:
            return self[name]
        except KeyError:
            raise AttributeError(f"this object has no '{name}'") from None

    def __dir__(self) -> list[str]:
        return [*super().__dir__(), *(name for name in self if name.isidentifier())]

    def __iter__(self) -> Iterator[str]:
        shown = list(self.dictionary.fields.values())
        places = {int(ids.STD_ID): -1} | {id: place for place, id in enumerate(shown)}
        # System fields are the journey's, not the object's.
        own = [id for id in self.message if id >> 16 & 0xFF != 0xFF or id in places]
        for id in sorted(own, key=lambda id: (places.get(id, len(shown)), id)):
            yield self.dictionary.name_of(id)

    def __len__(self) -> int:
        return sum(1 for _ in self)

    def __eq__(self, other: object) -> bool:
        if isinstance(other, Object):
            return self.message == other.message
        return isinstance(other, Mapping) and dict(self.items()) == dict(other)

    __hash__ = None  # type: ignore[assignment]

    def __repr__(self) -> str:
        return self._text(_SHOWN_DEPTH)

    def _text(self, depth: int) -> str:
        if not depth:
            return "{...}"

        def text(value: Any) -> str:
            if isinstance(value, list):
                return "[" + ", ".join(map(text, value)) + "]"
            return value._text(depth - 1) if isinstance(value, Object) else repr(value)

        def shown(name: str, value: Any) -> str:
            return "(secret)" if self.dictionary.id_of(name) in self.dictionary.secrets else text(value)

        return "{" + ", ".join(f"{name}: {shown(name, value)}" for name, value in self.items()) + "}"


def default_folders() -> list[Path]:
    """Where dictionaries are looked for: KELO_FIELDS, KL_ROOT, where kelo is installed, and where it is developed."""
    folders = [Path(folder) for folder in os.environ.get("KELO_FIELDS", "").split(os.pathsep) if folder]
    installed = ("/usr/local/share/kl/fields", "/usr/share/kl/fields")
    folders += [Path(folder) for folder in dict.fromkeys((*map(under_root, installed), *installed))]
    folders.append(Path(__file__).resolve().parents[2] / "tools" / "fields")
    return folders


class Dictionaries:
    """The dictionaries in a list of folders; the first that has one for a service counts."""

    def __init__(self, folders: list[Path] | None = None) -> None:
        self._folders = default_folders() if folders is None else folders
        self._known: dict[str, Dictionary] = {}

    def of(self, service: str | None) -> Dictionary:
        """The dictionary of a service; one without names if there is none."""
        if service is None or not re.fullmatch(r"[\w.-]+", service):
            return NO_DICTIONARY
        if service not in self._known:
            self._known[service] = self._read(service)
        return self._known[service]

    def _read(self, service: str) -> Dictionary:
        for folder in self._folders:
            file = folder / f"{service}.toml"
            try:
                text = file.read_text(encoding="utf-8")
            except (OSError, UnicodeDecodeError):
                continue
            return Dictionary.parse(text, str(file))
        return NO_DICTIONARY


@dataclass(frozen=True)
class Target:
    """A path as it is written: a service by name or number, handlers in it, perhaps an object."""

    service: str | int
    handlers: tuple[int | str, ...] = ()  # a name is that of an object
    id: int | None = None

    @classmethod
    def parse(cls, path: str | int | tuple[int, ...] | list[int]) -> Target:
        """ "netif", "netif/3", "log/rule:7", 32, (32, 3)."""
        if isinstance(path, int):
            return cls(path)
        if not isinstance(path, str):
            if not path:
                raise PathError("an empty path")
            return cls(path[0], tuple(path[1:]))
        whole, _, id = path.partition(":")
        service, *handlers = whole.split("/")
        if not service or (":" in path and not id):
            raise PathError(f"'{path}' is no path")
        return cls(
            _number(service) if service[0].isdigit() else service,
            tuple(_number(handler) if handler[:1].isdigit() else handler for handler in handlers),
            _number(id) if id else None,
        )


def _number(text: str) -> int:
    try:
        number = int(text, 16) if text[:2].lower() == "0x" else int(text)
    except ValueError:
        raise PathError(f"'{text}' is no number") from None
    if not 0 <= number <= 0xFFFFFFFF:
        raise PathError(f"'{text}' is no id")
    return number


def command_of(command: str | int) -> int:
    """A command by its name (CMD_GETCOUNT, or getcount in short) or number."""
    if isinstance(command, int):
        return command
    for name in (command, "CMD_" + command.upper()):
        if name in ids.COMMANDS:
            return ids.COMMANDS[name]
    if command[:1].isdigit():
        return _number(command)
    raise PathError(f"no command is called '{command}'")


__all__ = ["Dictionaries", "Dictionary", "Object", "Target", "command_of", "explicit_field", "explicit_name"]

# Shows the library's values in gdb as people read them: messages field by field, ids of fields, paths, timers and the
# loader's open requests.  gdb loads this file by itself when it loads the library (share/gdb/auto-load).
#
# Printed memory may be garbage: it was freed, or never written.  So each read is bounded, lists end after
# so many steps whatever their links say, text is escaped, and whatever cannot be read says so in place of its value.

import itertools

import gdb
import gdb.printing

MOST_FIELDS = 256
MOST_BYTES = 256
MOST_ELEMENTS = 32

TYPES = {0: "bool", 1: "u32", 2: "u64", 3: "addr6", 4: "string", 5: "message", 6: "raw"}
NAME_SPACES = {0x00: "", 0xFD: "local.", 0xFE: "std.", 0xFF: "sys."}
ELEMENT_BYTES = {0: 1, 1: 4, 2: 8, 3: 16}
OBJECTS = {
    2: "unsigned long long",
    4: "std::string",
    16: "std::vector<bool>",
    17: "std::vector<unsigned int>",
    18: "std::vector<unsigned long long>",
    20: "std::vector<std::string>",
}


def guarded(function):
    """Memory that gdb cannot read is an answer, too."""

    def call(self):
        try:
            return function(self)
        except Exception as error:  # gdb.MemoryError, gdb.error, and whatever garbage leads to
            return "<unreadable: %s>" % error

    return call


def id_text(field_id):
    space = field_id >> 16 & 0xFF
    number = field_id & 0xFFFF
    kind = TYPES.get(field_id >> 27 & 0xF, "?") + ("[]" if field_id >> 31 else "")
    return "%s:%s%d" % (kind, NAME_SPACES.get(space, "0x%02x." % space), number)


def read(address, size):
    return bytes(gdb.selected_inferior().read_memory(address, size)) if size > 0 else b""


def quoted(data, size):
    text = "".join(chr(b) if 32 <= b < 127 and b not in b'"\\' else "\\x%02x" % b for b in data)
    return '"%s"%s' % (text, "..." if size > len(data) else "")


def numbers(data, width):
    return [int.from_bytes(data[i : i + width], "little") for i in range(0, len(data), width)]


def listed(texts, count):
    return "[%s%s]" % (", ".join(texts), ", ..." if count > len(texts) else "")


def elements(data, kind, count):
    """The first elements of an array: of one size, or each behind its length."""
    texts = []
    width = ELEMENT_BYTES.get(kind & 0xF)
    if width == 16:
        texts = [data[i : i + 16].hex() for i in range(0, len(data) - 15, 16)]
    elif width:
        texts = [str(n) for n in numbers(data[: len(data) // width * width], width)]
    else:
        at = 0
        while at + 2 <= len(data):
            size = int.from_bytes(data[at : at + 2], "little")
            texts.append(quoted(data[at + 2 : at + 2 + size], size))
            at += 2 + size
    return listed(texts[: min(count, MOST_ELEMENTS)], count)


def value_text(kind, data, size, count):
    if kind & 0x10:
        return elements(data, kind, count)
    if kind == 2:
        return str(int.from_bytes(data, "little" if is_little_endian() else "big"))
    if kind in (4, 5):
        return quoted(data, size)
    return data.hex() + ("..." if size > len(data) else "")


def is_little_endian():
    return "little" in gdb.execute("show endian", to_string=True)


class Message:
    """kl::message: its fields, in the order in which they lie in memory."""

    def __init__(self, value):
        self.value = value

    def _rep(self):
        rep = self.value["rep_"]
        return rep.dereference() if int(rep) else None

    def _bools(self, rep):
        if int(rep["boolId"]) != 0xFFFFFFFF:
            yield int(rep["boolId"]), "true" if int(rep["boolValue"]) else "false"
        elif int(rep["bools"]):
            for key, value in self._slots(rep["bools"].dereference(), 1):
                yield key, "true" if value[0] else "false"

    def _slots(self, table, width):
        capacity = int(table["capacity_"])
        keys = int(table["keys_"])
        if not 0 < capacity <= 1 << 20:
            raise gdb.error("a table of %d slots" % capacity)
        if capacity <= 64:
            live = [int(table["bits_"]["small"]["live"])]
        else:
            large = table["bits_"]["large"]
            live = numbers(read(int(large + 1), (capacity + 63) // 64 * 8), 8)
        for slot in range(min(capacity, 4 * MOST_FIELDS)):
            if live[slot // 64] >> slot % 64 & 1:
                key = int.from_bytes(read(keys + 4 * slot, 4), "little" if is_little_endian() else "big")
                yield key, read(keys + 4 * capacity + width * slot, width)

    def _u32s(self, rep):
        for key, value in self._slots(rep["u32s"], 4):
            yield key, str(int.from_bytes(value, "little" if is_little_endian() else "big"))

    def _nodes(self, nodes):
        node = nodes["head_"]
        for _ in range(MOST_FIELDS):
            if not int(node):
                return
            yield int(node["id"]), self._node_value(node)
            node = node["next"]

    def _node_value(self, node):
        kind = int(node["kind"])
        held = node["object"]
        address = int(held["_M_b"]["_M_p"])
        if address:
            name = OBJECTS.get(kind)
            if name is None:
                return "<an object at 0x%x>" % address
            return gdb.Value(address).cast(gdb.lookup_type(name).pointer()).dereference()
        at = int(node + 1)
        if int(node["borrows"]):
            at = int(gdb.Value(at).cast(gdb.lookup_type("void").pointer().pointer()).dereference())
        size = int(node["size"])
        return value_text(kind, read(at, min(size, MOST_BYTES)), size, int(node["count"]))

    def _fields(self):
        rep = self._rep()
        if rep is None:
            return
        parts = (self._bools(rep), self._u32s(rep), self._nodes(rep["fields"]), self._nodes(rep["arrays"]))
        yield from itertools.islice(itertools.chain(*parts), MOST_FIELDS)

    @guarded
    def to_string(self):
        return "kl::message" if self._rep() is not None else "an empty kl::message"

    def children(self):
        try:
            for field_id, value in self._fields():
                yield id_text(field_id), value
        except Exception as error:
            yield "<unreadable>", str(error)


class FieldId:
    def __init__(self, value):
        self.value = value

    @guarded
    def to_string(self):
        field_id = int(self.value["id_"])
        return "%s (0x%08x)" % (id_text(field_id), field_id)


class Path:
    """loader::Path, whose elements lie in a frame, little-endian."""

    def __init__(self, value):
        self.value = value

    @guarded
    def to_string(self):
        size = int(self.value["size_"])
        shown = min(size, MOST_ELEMENTS)
        return listed([str(n) for n in numbers(read(int(self.value["at_"]), 4 * shown), 4)], size)


def kept_path(value):
    size = int(value["size_"])
    shown = min(size, MOST_ELEMENTS)
    few = value["few_"]["_M_elems"]
    inline = few.type.strip_typedefs().range()[1] + 1
    if size <= inline:
        return listed([str(int(few[i])) for i in range(shown)], size)
    first = value["many_"]["_M_impl"]["_M_start"]
    return listed([str(int(first[i])) for i in range(shown)], size)


class KeptPath:
    def __init__(self, value):
        self.value = value

    @guarded
    def to_string(self):
        return kept_path(self.value)


class OpenRequest:
    def __init__(self, value):
        self.value = value

    @guarded
    def to_string(self):
        request = self.value
        sides = [str(int(s["id"])) if int(s) else "nobody" for s in (request["caller"], request["callee"])]
        held = ", held" if int(request["isHeld"]) else ""
        return "request %d: %s%s asks %s%s for 0x%x%s" % (
            int(request["id"]),
            sides[0],
            kept_path(request["returnPath"]),
            sides[1],
            kept_path(request["path"]),
            int(request["command"]),
            held,
        )


class Timer:
    """kl::ThinRunner::TimerPtr: a handle to a timer, or to none."""

    def __init__(self, value):
        self.value = value

    @guarded
    def to_string(self):
        info = self.value["info_"]
        if not int(info):
            return "no timer"
        if int(info["generation"]) != int(self.value["generation_"]):
            return "a timer that has fired or was cancelled"
        return "a timer, tick %d, data 0x%x" % (int(info["expiry"]), int(info["data"]))


def register():
    printers = gdb.printing.RegexpCollectionPrettyPrinter("libkl")
    printers.add_printer("message", "^kl::message$", Message)
    printers.add_printer("field", "^kl::field<.*>$", FieldId)
    printers.add_printer("timer", "^kl::ThinRunner::TimerPtr$", Timer)
    printers.add_printer("path", "^loader::Path$", Path)
    printers.add_printer("kept path", "^loader::KeptPath$", KeptPath)
    printers.add_printer("open request", "^loader::OpenRequest$", OpenRequest)
    gdb.printing.register_pretty_printer(gdb.current_objfile(), printers, replace=True)


register()

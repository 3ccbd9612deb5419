"""The order in which booleans and u32 values are written: that of the slots of a table.

A table begins with 11 slots.  A key goes into the first free slot from its number modulo the number of slots on, the
first slot following the last.  Before an insertion the table is doubled when one key more than it holds would fill
more than a half and a sixteenth of it; the keys then move, in the order of their old slots.  To set a key that is there
already counts as an insertion here.  A removal frees the slot and never makes a table smaller.

While keys were only added, the order follows from the sequence of the keys alone, and it is computed when the
message is written.  Once more has happened than that, the message keeps a `SlotTable`.
"""

from __future__ import annotations

from collections.abc import Iterable, Iterator
from functools import lru_cache

FIRST_CAPACITY = 11


def room_of(capacity: int) -> int:
    """How many keys a table of this capacity takes before the next insertion doubles it."""
    return (capacity >> 1) + (capacity >> 4)


# How many keys a table holds when the next insertion doubles it: 5, 12, 24, 49 and so on.
FULL_COUNTS = frozenset(room_of(FIRST_CAPACITY << doublings) for doublings in range(32))

_FREE = -1
_CACHED_KEYS = 32


def _find(follower: list[int], slot: int) -> int:
    """The first free slot from `slot` on; a taken slot names one behind it, and the way is shortened in passing."""
    while follower[slot] != slot:
        follower[slot] = slot = follower[follower[slot]]
    return slot


def _fill(keys: Iterable[int], capacity: int) -> tuple[list[int], list[int]]:
    slots = [_FREE] * capacity
    follower = list(range(capacity))
    for key in keys:
        slot = _find(follower, key % capacity)
        slots[slot] = key
        follower[slot] = slot + 1 if slot + 1 < capacity else 0
    return slots, follower


def _slots_after(keys: tuple[int, ...]) -> list[int]:
    """The slots of a new table that these different keys were added to, one after the other."""
    capacity = FIRST_CAPACITY
    taken = 0
    slots, follower = _fill((), capacity)
    for key in keys:
        if taken == room_of(capacity):
            capacity *= 2
            slots, follower = _fill((old for old in slots if old != _FREE), capacity)
        slot = _find(follower, key % capacity)
        slots[slot] = key
        follower[slot] = slot + 1 if slot + 1 < capacity else 0
        taken += 1
    return slots


def _ordered(keys: tuple[int, ...]) -> tuple[int, ...]:
    return tuple(key for key in _slots_after(keys) if key != _FREE)


_remembered = lru_cache(maxsize=1024)(_ordered)


def slot_order(keys: tuple[int, ...]) -> tuple[int, ...]:
    """The order in which keys are written that were added to an empty table in the order given."""
    if len(keys) < 2:
        return keys
    return _remembered(keys) if len(keys) <= _CACHED_KEYS else _ordered(keys)


class SlotTable:
    """The slots of a table that saw more than additions."""

    def __init__(self, keys: Iterable[int]) -> None:
        added = tuple(keys)
        self._slots = _slots_after(added)
        self._count = len(added)

    def copy(self) -> SlotTable:
        other = SlotTable(())
        other._slots = list(self._slots)
        other._count = self._count
        return other

    def insert(self, key: int, present: bool) -> None:
        if self._count + 1 > room_of(len(self._slots)):
            self._slots, _ = _fill(self, 2 * len(self._slots))
        if present:
            return
        slots = self._slots
        slot = key % len(slots)
        while slots[slot] != _FREE:
            slot = slot + 1 if slot + 1 < len(slots) else 0
        slots[slot] = key
        self._count += 1

    def remove(self, key: int) -> None:
        self._slots[self._slots.index(key)] = _FREE
        self._count -= 1

    def __iter__(self) -> Iterator[int]:
        return (key for key in self._slots if key != _FREE)

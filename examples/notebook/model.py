"""What is stored: notes, and what orders them."""

from __future__ import annotations

import dataclasses
import datetime as dt
from enum import IntEnum
from typing import ClassVar, Generic, Iterator, TypeVar

T = TypeVar("T")

WEEKDAYS = ("mon", "tue", "wed", "thu", "fri", "sat", "sun")


class Priority(IntEnum):
    LOW = 1
    NORMAL = 2
    HIGH = 3

    @classmethod
    def parse(cls, text: str) -> Priority:
        return cls[text.strip().upper()]


@dataclasses.dataclass(order=True)
class Note:
    title: str
    body: str = ""
    priority: Priority = Priority.NORMAL
    tags: list[str] = dataclasses.field(default_factory=list)
    created: dt.datetime = dataclasses.field(default_factory=dt.datetime.now)

    limit: ClassVar[int] = 10_000

    @property
    def words(self) -> int:
        return sum(1 for word in self.body.split() if word)

    @staticmethod
    def clean(text: str) -> str:
        return " ".join(text.split())


class Stack(Generic[T]):
    """The last few things; the oldest falls out at the bottom."""

    def __init__(self, depth: int = 8) -> None:
        self.depth = depth
        self._items: list[T] = []

    def push(self, item: T) -> None:
        self._items = [*self._items[1 - self.depth :], item]
        self.newest = item

    def __iter__(self) -> Iterator[T]:
        yield from reversed(self._items)

    class Empty(Exception):
        pass

    def pop(self) -> T:
        if not self._items:
            raise Stack.Empty
        return self._items.pop()

"""Notes on disk, read and written without holding anybody up."""

import asyncio
import contextlib
import json
import os.path
from typing import AsyncIterator

try:
    import tomllib as toml
except ImportError:
    toml = None

from . import settings
from .model import Note, Priority, Stack


class Store:
    suffix = ".json"
    opened = 0

    def __init__(self, folder: str | None = None):
        self.folder = folder or settings.folder
        self.undo: Stack[Note] = Stack()
        self.lock = asyncio.Lock()
        Store.opened += 1

    def path_of(self, title, *parts, extension=None, **unused):
        name = "-".join([title, *parts])
        return os.path.join(self.folder, name + (extension or self.suffix))

    async def load(self, title: str) -> Note:
        def read():
            with open(self.path_of(title), encoding="utf-8") as file:
                return json.load(file)

        async with self.lock:
            fields = await asyncio.to_thread(read)
        fields["priority"] = Priority(fields.pop("priority", Priority.NORMAL))
        self.last = note = Note(**fields)
        return note

    async def titles(self) -> AsyncIterator[str]:
        for entry in sorted(os.scandir(self.folder), key=lambda entry: entry.name):
            if (name := entry.name).endswith(self.suffix):
                yield name.removesuffix(self.suffix)


@contextlib.asynccontextmanager
async def open_store(folder=None):
    store = Store(folder)
    try:
        yield store
    finally:
        store.undo = Stack()

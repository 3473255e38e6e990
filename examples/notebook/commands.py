"""The command line: one line in, one answer out."""

import asyncio
import shlex
import sys

import notebook.settings
from notebook.model import *
from notebook.store import open_store

history = []


def parse(line: str):
    match shlex.split(line):
        case []:
            return None
        case ["show", title]:
            return show, {"title": title}
        case ["list", *tags] if tags:
            return list_notes, {"tags": {tag.lower() for tag in tags}}
        case ["list"]:
            return list_notes, {}
        case [("-v" | "--verbose") as flag, *rest]:
            notebook.settings.verbose = True
            notebook.settings.asked_by = flag
            return parse(shlex.join(rest))
        case [name, *_]:
            raise LookupError(f"no command {name!r}")


async def show(store, title):
    note = await store.load(title)
    print(note.title, "=" * len(note.title), note.body, sep="\n")


async def list_notes(store, tags=frozenset()):
    global history
    found = [title async for title in store.titles()]
    for title in found:
        note = await store.load(title)
        if tags and not tags & set(note.tags):
            continue
        print(f"{note.priority.name:>6}  {title}")
    history = [*history, *found]


async def main(arguments: list[str]) -> int:
    counter = 0

    def count():
        nonlocal counter
        counter += 1
        return counter

    async with open_store() as store:
        for line in arguments or sys.stdin:
            try:
                if command := parse(line):
                    function, options = command
                    await function(store, **options)
                    count()
            except (LookupError, OSError) as error:
                print(f"notebook: {error}", file=sys.stderr)
    return 0 if counter else 1


if __name__ == "__main__":
    sys.exit(asyncio.run(main(sys.argv[1:])))

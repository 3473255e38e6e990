#!/usr/bin/env python3
"""Damages databases in every way it knows, and compares what the program then answers.

    bench/damage.py [--program FILE] [--count N] [--seed N] PATH...

Each database is damaged once: bits flipped, pages zeroed, swapped or doubled, cut, its header
overwritten, rows edited. Then `classes --json` is asked, `index` is run, and asked again. A wrong
answer is one that differs from that of the undamaged database; one that stays damaged is one in
which `verify` finds something after `index`. Both counts, and that of crashes, must be 0.
"""
import argparse
import random
import shutil
import sqlite3
import subprocess
import sys
import tempfile
from pathlib import Path

PAGE = 4096
EDITS = [
    "DELETE FROM {t} WHERE rowid = (SELECT rowid FROM {t} ORDER BY random() LIMIT 1)",
    "UPDATE records SET data = x'00' WHERE id = (SELECT id FROM records ORDER BY random() LIMIT 1)",
    "UPDATE records SET classes = NULL",
    "UPDATE files SET place = place + 274877906944",
    "UPDATE files SET name = 'w:x'",
    "DELETE FROM scans",
    "CREATE VIEW v AS SELECT * FROM files",
    "DROP TABLE lost",
]


def flip(data, chance):
    for _ in range(chance.choice([1, 8, 64])):
        data[chance.randrange(len(data))] ^= 1 << chance.randrange(8)


def pages(data, chance):
    one, two = (PAGE * chance.randrange(len(data) // PAGE) for _ in range(2))
    kind = chance.randrange(3)
    first, second = bytes(data[one:one + PAGE]), bytes(data[two:two + PAGE])
    data[one:one + PAGE] = bytes(PAGE) if kind == 0 else second
    if kind == 1:
        data[two:two + PAGE] = first


def cut(data, chance):
    del data[chance.randrange(1, len(data)):]


def header(data, chance):
    at = chance.randrange(100)
    data[at:at + 4] = chance.randbytes(4)


def edit(path, chance):
    database = sqlite3.connect(path)
    database.execute(chance.choice(EDITS).format(t=chance.choice(["files", "records", "changes"])))
    database.commit()
    database.close()


def damage(path, chance):
    kind = chance.choice([flip, pages, cut, header, edit])
    if kind is edit:
        edit(path, chance)
    else:
        data = bytearray(path.read_bytes())
        kind(data, chance)
        path.write_bytes(data)
    return kind.__name__


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--program", default="build/release/bin/scopeinfo")
    parser.add_argument("--count", type=int, default=600)
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 30))
    parser.add_argument("paths", nargs="+")
    args = parser.parse_args()
    print("seed", args.seed)
    chance = random.Random(args.seed)
    folder = Path(tempfile.mkdtemp())
    wrong = damaged = crashed = 0

    def run(command, database, *more):
        nonlocal crashed
        done = subprocess.run([args.program, command, "--db", database, *more], capture_output=True)
        crashed += done.returncode < 0
        return done

    good = folder / "good.db"
    run("index", good, *args.paths)
    expected = run("classes", good, "--json", *args.paths).stdout
    for number in range(args.count):
        home = folder / str(number)
        home.mkdir()
        bad = home / "index.db"
        shutil.copyfile(good, bad)
        kind = damage(bad, chance)
        first = run("classes", bad, "--json", *args.paths).stdout
        run("index", bad, *args.paths)
        again = run("classes", bad, "--json", *args.paths).stdout
        stays = run("verify", bad).returncode != 0 or again != expected
        if first != expected or stays:
            print(number, kind, "wrong" * (first != expected), "stays damaged" * stays)
        wrong += first != expected
        damaged += stays
        shutil.rmtree(home)
    shutil.rmtree(folder)
    print(f"{args.count} damaged: {wrong} wrong, {damaged} stay damaged, {crashed} crashed")
    return 1 if wrong + damaged + crashed else 0


if __name__ == "__main__":
    sys.exit(main())

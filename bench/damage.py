#!/usr/bin/env python3
"""Damages databases in every way it knows, and compares what the program then answers.

    bench/damage.py [--program FILE] [--count N] [--seed N] [--only N] PATH...

Each database is damaged by one to three faults: bits and header bytes flipped, pages zeroed,
swapped or doubled, the file cut or emptied, its tail torn, its log (-wal) and the index of that
(-shm) likewise, rows deleted, changed or exchanged by SQL. Half of them have a log that was never
written back, as after a kill. Then it asks `show`, `scopes`, `classes` and `imports`, each of a
copy of its own, then of all in turn, and repairs one copy by `index` and one by `verify --repair`.

  wrong         an answer differs from that of the undamaged database
  silent        so, without a word on standard error
  not healed    after the repair `verify` finds something, or after `index` an answer is wrong
  crashed       a command ended by a signal

All must be 0. What a log has lost at its end counts as an answer of its time, and an empty file as
a new one, if it is told that files are missing. A seed makes the same damage to databases of the
same files.
"""
import argparse
import json
import os
import random
import shutil
import sqlite3
import subprocess
import sys
import tempfile
from pathlib import Path

PAGE = 4096
TABLES = ["files", "scans", "records", "changes", "lost", "contents"]


def flip(data, chance):
    for _ in range(chance.choice([1, 8, 64])):
        data[chance.randrange(len(data))] ^= 1 << chance.randrange(8)


def pages(data, chance):
    size = min(PAGE, len(data))
    one, two = (size * chance.randrange(len(data) // size) for _ in range(2))
    kind = chance.randrange(3)
    first, second = bytes(data[one:one + size]), bytes(data[two:two + size])
    data[one:one + size] = bytes(size) if kind == 0 else second
    if kind == 1:
        data[two:two + size] = first


def cut(data, chance):
    del data[chance.choice([0, chance.randrange(len(data)), len(data) // PAGE // 2 * PAGE]):]


def tail(data, chance):
    """Of the last bytes as many as a disk had not yet written."""
    lost = min(len(data), chance.choice([1, 100, 512, PAGE, 5 * PAGE]))
    data[-lost:] = chance.choice([bytes(lost), chance.randbytes(lost), b""])


def header(data, chance):
    at = chance.randrange(min(100, len(data)))
    data[at:at + 4] = chance.randbytes(4)


def cell(data, chance):
    """Bytes of a page's own header and its list of cells."""
    at = PAGE * chance.randrange(max(1, len(data) // PAGE)) + chance.randrange(24)
    data[at % len(data)] = chance.randrange(256)


BYTES = [flip, pages, cut, tail, header, cell]


def changed(value, chance):
    if isinstance(value, int):
        return chance.choice([value + 1, -value, 0, value ^ 1 << chance.randrange(62), None])
    if isinstance(value, float):
        return chance.choice([value + 1, 0.0, -1.0, float("inf"), "x"])
    if isinstance(value, (str, bytes)):
        at = chance.randrange(len(value) + 1)
        more = "x" if isinstance(value, str) else b"x"
        return chance.choice([value[:at], value[:at] + more + value[at:], value[:0], value[at + 1:]])
    return chance.choice([0, 1, "", "x", b"x"])


def rows(database, chance):
    """Changes, deletes, doubles or exchanges rows, as someone with the SQLite shell might."""
    table = chance.choice(TABLES + ["files", "records", "records"])
    columns = [row[1] for row in database.execute(f"PRAGMA table_info({table})")]
    found = database.execute(f"SELECT * FROM {table} ORDER BY 1, 2").fetchall()
    if not found:
        table, columns = "scans", ["id", "name", "sum"]
        found = database.execute("SELECT * FROM scans ORDER BY 1").fetchall()
        if not found:
            return
    match = " WHERE " + " AND ".join(f"{c} IS ?" for c in columns)
    kind = chance.choice(["delete", "some", "all", "change", "change", "exchange", "double"])
    one, two = chance.choice(found), chance.choice(found)
    at = chance.randrange(len(columns))
    if kind == "all":
        database.execute(f"DELETE FROM {table}")
    elif kind in ("delete", "some"):
        for row in chance.sample(found, min(len(found), 1 if kind == "delete" else 5)):
            database.execute(f"DELETE FROM {table}{match}", row)
    elif kind == "change":
        database.execute(f"UPDATE OR IGNORE {table} SET {columns[at]} = ?{match}",
                         (changed(one[at], chance), *one))
    elif kind == "exchange":
        # Of everything but the key, or of one column.
        names = columns[1:] if chance.randrange(2) else [columns[max(1, at)]]
        for row, other in ((one, two), (two, one)):
            values = [other[columns.index(name)] for name in names]
            database.execute(f"UPDATE OR IGNORE {table} SET {', '.join(n + ' = ?' for n in names)}"
                             f" WHERE {columns[0]} IS ?", (*values, row[0]))
    else:
        marks = ", ".join("?" * len(columns))
        database.execute(f"INSERT OR IGNORE INTO {table} VALUES ({marks})",
                         (one[0] + chance.choice([1, 1 << 20, 1 << 38]), *one[1:]))


SCHEMAS = [
    "CREATE VIEW v AS SELECT * FROM files",
    "CREATE TRIGGER t AFTER INSERT ON records BEGIN DELETE FROM records; END",
    "DROP TABLE lost",
    "DROP INDEX ties",
    "CREATE INDEX more ON records(scan)",
    "ALTER TABLE files RENAME COLUMN name TO title",
    "PRAGMA user_version = 3",
]


def edit(path, chance):
    try:
        database = sqlite3.connect(path, isolation_level=None)
        database.execute("PRAGMA wal_autocheckpoint = 0")
        for _ in range(chance.choice([1, 1, 3])):
            if chance.randrange(12):
                rows(database, chance)
            else:
                database.execute(chance.choice(SCHEMAS))
    except (sqlite3.Error, TypeError, OverflowError):
        pass  # another fault came first, or the schema forbids it
    finally:
        database.close()


def damage(path, chance):
    done = []
    for _ in range(chance.choice([1, 1, 1, 2, 3])):
        kind = chance.choice(BYTES + [edit] * 4)
        # Before the log is gone: whoever opens the database and closes it writes it back.
        part = chance.choice(["", "-wal", "-wal", "-shm"])
        target = Path(str(path) + part)
        if kind is edit:
            edit(path, chance)
        else:
            target = target if target.exists() and target.stat().st_size else path
            data = bytearray(target.read_bytes())
            if data:
                kind(data, chance)
                target.write_bytes(data)
        done.append(kind.__name__ + (target.name[len(path.name):] if kind is not edit else ""))
    return "+".join(done)


def copy(source, target):
    for part in ("", "-wal", "-shm"):
        Path(str(target) + part).unlink(missing_ok=True)
        if os.path.exists(str(source) + part):
            shutil.copyfile(str(source) + part, str(target) + part)


class Bench:
    def __init__(self, args, folder):
        self.program = args.program
        self.paths = args.paths
        self.files = sorted(str(f) for p in args.paths for f in
                            ([Path(p)] if Path(p).is_file() else Path(p).rglob("*.py")))
        self.folder = folder
        self.counts = dict.fromkeys(["wrong", "silent", "not healed", "crashed"], 0)
        self.faults = []

    def run(self, command, database, *more):
        done = subprocess.run([self.program, command, "--db", database, *more], capture_output=True)
        if done.returncode < 0:
            self.fault("crashed", f"{command}: signal {-done.returncode}")
        return done

    def fault(self, kind, what):
        self.counts[kind] += 1
        self.faults.append(f"{kind}: {what}")

    def questions(self, file):
        return [("show", file), ("scopes", "--json", file), ("classes", "--json", *self.paths),
                ("imports", "--json", *self.paths)]

    def make(self):
        """Two databases of the same content, and the answers to all questions."""
        self.good, self.logged = self.folder / "good.db", self.folder / "logged.db"
        self.run("index", self.good, "--jobs", "1", *self.paths)
        made = self.folder / "made.db"
        self.run("index", made, "--jobs", "1", *self.files[:len(self.files) // 2])
        reader = sqlite3.connect(made, isolation_level=None)  # it keeps the log from being written back
        reader.execute("BEGIN")
        reader.execute("SELECT count(*) FROM files").fetchone()
        self.run("index", made, "--jobs", "1", *self.paths)
        copy(made, self.logged)
        reader.close()
        self.expected = {}

    def answer(self, question):
        if question not in self.expected:
            self.expected[question] = self.run(question[0], self.good, *question[1:]).stdout
        return self.expected[question]

    def is_part(self, done, question):
        """A log without its end is that of a process that was killed earlier: what had been stored
        by then is right, if it is said that files are missing. So is nothing of an empty file."""
        if b"not in the database" not in done.stderr or "--json" not in question:
            return False
        whole = json.loads(self.answer(question))
        return all(entry in whole for entry in json.loads(done.stdout))

    def check(self, number, seed):
        chance = random.Random(f"{seed} {number}")
        bad, used = (self.folder / f"{name}.db" for name in ("bad", "used"))
        self.faults = []
        is_logged = chance.randrange(2)
        copy(self.logged if is_logged else self.good, bad)
        kind = damage(bad, chance)
        is_logged = is_logged or bad.stat().st_size == 0
        questions = self.questions(chance.choice(self.files))

        def ask(question):
            done = self.run(question[0], used, *question[1:])
            if done.stdout == self.answer(question):
                return True
            if is_logged and self.is_part(done, question):
                return True
            self.fault("wrong", " ".join(question[:2]))
            if not done.stderr:
                self.fault("silent", " ".join(question[:2]))
            return False

        for question in questions:
            copy(bad, used)
            ask(question)
        for question in chance.sample(questions, len(questions)):
            ask(question)
        for repair in (["index", used, *self.paths], ["verify", used, "--repair"]):
            copy(bad, used)
            self.run(*repair)
            found = self.run("verify", used)
            if found.returncode != 0 and b"there is no database yet" not in found.stderr:
                self.fault("not healed", f"after {repair[0]}: {found.stderr.decode()[:200]}")
            if repair[0] == "index" and not all([ask(question) for question in questions]):
                self.fault("not healed", "answers after index")
        if self.faults:
            print(number, kind)
            for fault in self.faults:
                print("   ", fault)
        sys.stdout.flush()
        for left in self.folder.glob("used.db*"):
            left.unlink()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--program", default="build/release/bin/scopeinfo")
    parser.add_argument("--count", type=int, default=600)
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 30))
    parser.add_argument("--only", type=int, help="the one of that number, which is kept")
    parser.add_argument("paths", nargs="+")
    args = parser.parse_args()
    print("seed", args.seed)
    folder = Path(tempfile.mkdtemp())
    bench = Bench(args, folder)
    bench.make()
    numbers = range(args.count) if args.only is None else [args.only]
    for number in numbers:
        bench.check(number, args.seed)
    if args.only is None:
        shutil.rmtree(folder)
    else:
        print("kept in", folder)
    print(len(numbers), "damaged:", ", ".join(f"{n} {kind}" for kind, n in bench.counts.items()))
    return 1 if any(bench.counts.values()) else 0


if __name__ == "__main__":
    sys.exit(main())

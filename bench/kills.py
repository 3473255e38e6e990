#!/usr/bin/env python3
"""Kills `scopeinfo index` and `scopeinfo watch` at random moments while files change.

    bench/kills.py [--program FILE] [--count N] [--seed N]

After each kill `verify` must find no damage; after an `index` to the end the rows must be those of
a fresh index of the same files, the files that were seen included. The seed decides what changes
and how long a process lives, but not how far it comes in that time.
"""
import argparse
import os
import random
import shutil
import sqlite3
import subprocess
import sys
import tempfile
import time
from pathlib import Path

ROWS = """
    SELECT f.name, scope, s.name,
           iif(scanned_file > 0, (SELECT name FROM files WHERE id = scanned_file), scanned_file),
           scanned_scope, seen, classes, imports, data
    FROM records JOIN files f ON f.place = records.id & ~((1 << 38) - 1)
         LEFT JOIN scans s ON s.id = scan"""
FILES = "SELECT name, disk_time, scans_done FROM files WHERE disk_time IS NOT NULL"


class Tree:
    """Modules and packages that import each other, come, change and go."""

    def __init__(self, root, chance):
        self.root, self.chance, self.count = root, chance, 0
        self.clock = 1_600_000_000_000_000_000
        for _ in range(60):
            self.change()

    def name(self):
        return f"m{self.chance.randrange(25)}"

    def write(self, path):
        self.count += 1
        path.parent.mkdir(parents=True, exist_ok=True)
        imports = "".join(
            self.chance.choice([f"import {n}\n", f"from {n} import *\n", f"from .{n} import C as {n}\n",
                                f"import p{self.chance.randrange(4)}.{n}\n"])
            for n in (self.name() for _ in range(3)))
        body = "".join(f"class C{i or ''}({self.name()}.C):\n  def f{i}(self):\n    self.a{i} = {self.count}\n"
                       for i in range(self.chance.choice([1, 5, 60])))
        # Renamed into place: no process sees half of it. Each content has a time of its own, so
        # that a fresh index gives it the same one.
        new = path.with_suffix(".new")
        new.write_text(imports + body)
        self.clock += 1_000_000_000
        os.utime(new, ns=(self.clock, self.clock))
        os.replace(new, path)

    def change(self):
        folder = self.root / self.chance.choice(["", "", "p0", "p1", "p2", "p3"])
        kind = self.chance.randrange(10)
        if kind == 0 and folder != self.root:
            init = folder / "__init__.py"
            init.unlink() if init.exists() else self.write(init)
        elif kind == 1:
            (folder / f"{self.name()}.py").unlink(missing_ok=True)
        elif kind == 2 and folder != self.root:
            shutil.rmtree(folder, ignore_errors=True)
        else:
            self.write(folder / f"{self.name()}.py{self.chance.choice(['', '', '', 'i'])}")


def rows_of(database):
    connection = sqlite3.connect(database)
    rows = [sorted(map(repr, connection.execute(sql))) for sql in (FILES, ROWS)]
    connection.close()
    return rows


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--program", default="build/release/bin/scopeinfo")
    parser.add_argument("--count", type=int, default=100)
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 30))
    args = parser.parse_args()
    print("seed", args.seed)
    chance = random.Random(args.seed)
    folder = Path(tempfile.mkdtemp())
    root, database, fresh = folder / "tree", folder / "index.db", folder / "fresh.db"
    root.mkdir()
    tree = Tree(root, chance)
    failures = killed = 0

    def command(name, db, *more):
        return [args.program, name, "--db", db, "--workspace", root, *more]

    def run(*arguments):
        return subprocess.run(command(*arguments), capture_output=True, text=True)

    start = time.monotonic()
    run("index", database, root)
    whole = time.monotonic() - start
    for number in range(args.count):
        kind = chance.choice(["index", "watch"])
        if chance.randrange(8) == 0:
            for left in folder.glob("index.db*"):
                left.unlink()
        for _ in range(chance.choice([0, 1, 20])):
            tree.change()
        process = subprocess.Popen(command(kind, database, root), stdout=subprocess.DEVNULL,
                                   stderr=subprocess.DEVNULL)
        for _ in range(chance.choice([1, 3, 10]) if kind == "watch" else chance.choice([1, 2])):
            time.sleep(chance.random() * whole)
            tree.change()
        time.sleep(chance.random() * whole / 2)
        process.kill()
        killed += process.wait() == -9
        if not database.exists():
            continue  # so early that there is nothing to be wrong
        verified = run("verify", database)
        again = run("index", database, root)
        compared = run("verify", database, root)
        for left in folder.glob("fresh.db*"):
            left.unlink()
        run("index", fresh, root)
        wrong = [f"{done.args[1]}: {done.stderr[:500]}" for done in (verified, again, compared)
                 if done.returncode != 0 or "set aside" in done.stderr]
        for what, ours, theirs in zip(("files", "records"), rows_of(database), rows_of(fresh)):
            ours, theirs = set(ours), set(theirs)
            for row in sorted(ours - theirs)[:3]:
                wrong.append(f"{what}: more than fresh: {row[:300]}")
            for row in sorted(theirs - ours)[:3]:
                wrong.append(f"{what}: less than fresh: {row[:300]}")
        if wrong:
            failures += 1
            print(f"{number} {kind}:", *wrong, sep="\n    ", flush=True)
    shutil.rmtree(folder)
    print(f"{args.count} processes, {killed} killed before their end: {failures} wrong")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())

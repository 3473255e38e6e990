#!/usr/bin/env python3
"""usage: hostile.py PROGRAM [CASE...]

Makes source files that are hard on a scanner, indexes each by itself, and prints what that takes as
a table in Markdown: processor time for each byte, peak memory, and how long an interrupt (SIGINT,
after a fifth of a second) takes to be heard. The cases that are named, or all of them; the seed of
the random ones is fixed.
"""
import os
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

COUNT = 70_000
MIB = 1 << 20


def repeated(piece, size):
    return piece * (size // len(piece))


def long_function(lines):
    body = "".join(f"    name_{i} = call({i}, other)\n" for i in range(lines))
    return "def long_function(call, other):\n" + body


def nested_dicts(size):
    inner = "'key': {'inner': [1, 2, {'deep': (3, 4)}], 'other': 'value'}, "
    return "table = {\n" + repeated("    'name': {" + inner + "},\n", size) + "}\n"


CASES = {
    "list literal, 5 MB": lambda: "x = [" + repeated("1, ", 5 * MIB) + "]\n",
    "list literal, 50 MB": lambda: "x = [" + repeated("1, ", 50 * MIB) + "]\n",
    "dict of nested dicts, 20 MB": lambda: nested_dicts(20 * MIB),
    "random bytes, 20 MB": lambda: random.Random(1).randbytes(20 * MIB),
    "random printable bytes, 20 MB": lambda: bytes(
        random.Random(2).choices(b"abcdef01 ()[]{}'\"\\:=,.#\n\n  ", k=20 * MIB)),
    "random text, 20 MB": lambda: bytes(
        random.Random(3).choices(bytes(range(32, 127)) + b"\n\n\n\n", k=20 * MIB)),
    "random text, 4 MB": lambda: bytes(
        random.Random(3).choices(bytes(range(32, 127)) + b"\n\n\n\n", k=4 * MIB)),
    "closed brackets": lambda: ")" * (10 * COUNT),
    "quotes": lambda: "'" * (10 * COUNT),
    "def def ...": lambda: "def " * (10 * COUNT),
    "one string, 30 MB": lambda: 'x = """' + repeated("text \\n and more\n", 30 * MIB) + '"""\n',
    "an open string, 30 MB": lambda: 'x = """' + repeated("text and more\n", 30 * MIB),
    "line continuations": lambda: "x = 1 + " + "\\\n" * COUNT + "2\ny = 3\n",
    "comments": lambda: "# comment\n" * COUNT + "x = 1\n",
    "comments in a function": lambda: "def f():\n    a = 1\n" + "    # comment\n" * COUNT + "    b = 2\n",
    "comments in a list": lambda: "x = [1,\n" + "# comment\n" * COUNT + "]\n",
    "brackets in brackets": lambda: "x = " + "(" * COUNT + ")" * COUNT + "\n",
    "open brackets": lambda: "([{" * COUNT,
    "blocks in blocks": lambda: "".join(" " * i + "if x:\n" for i in range(2000)),
    "try without end": lambda: "try:\n" * COUNT,
    "if x: if x: ...": lambda: "if x:" * COUNT,
    "x = x = ...": lambda: "x = " * COUNT + "1\n",
    "not not ...": lambda: "x = " + "not " * COUNT + "1\n",
    "lambda: lambda: ...": lambda: "x = " + "lambda a, b: " * COUNT,
    "1 if y else ...": lambda: "x = " + "1 if y else " * COUNT + "2\n",
    "a polynomial of 100,000 terms": lambda: "y = " + " + ".join(
        f"{i % 97} * x ** {i}" for i in range(100_000)) + "\n",
    "1,000,000 dots": lambda: "x = a" + ".a" * 1_000_000 + "\n",
    "1,000,000 dots alone": lambda: "." * 1_000_000 + "\n",
    "a function of 40,000 lines": lambda: long_function(40_000),
    "elif, 100,000 times": lambda: "if x == 0:\n  y = 1\n" + "elif x == 1:\n  y = 2\n" * 100_000,
    "statements of two bytes, 16 MB": lambda: "x\n" * (8 * MIB),
    "names, 16 MB": lambda: "".join(f"n{i:x}=1\n" for i in range(2 * MIB - 300_000)),
    "formatted strings in each other": lambda: "x = " + "f'{" * COUNT,
    "decorators": lambda: "@d\n" * COUNT + "def f(): pass\n",
}


def run(program, folder, interrupt_after=None):
    """Seconds of processor time, peak memory in MiB, and seconds from the interrupt to the end."""
    database = folder / "hostile.db"
    for old in folder.glob("hostile.db*"):
        old.unlink()
    command = [program, "index", str(folder / "tree"), "--db", str(database), "--jobs", "1"]
    command += os.environ.get("HOSTILE_OPTIONS", "--max-file-size 100000000").split()
    child = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    heard = None
    if interrupt_after is not None:
        time.sleep(interrupt_after)
        start = time.monotonic()
        os.kill(child.pid, signal.SIGINT)
    messages = child.stderr.read().decode(errors="replace")
    _, status, usage = os.wait4(child.pid, 0)
    if interrupt_after is not None:
        heard = time.monotonic() - start
    elif status != 0:
        messages = messages.strip().splitlines()[-1:] or [f"status {status}"]
        print(f"  {messages[0]}", file=sys.stderr)
    return usage.ru_utime + usage.ru_stime, usage.ru_maxrss / 1024, heard


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    program = os.path.abspath(sys.argv[1])
    folder = Path(tempfile.mkdtemp(prefix="hostile"))
    print("| File | Bytes | Processor time | A byte | Peak memory | Interrupt heard in |")
    print("|---|---|---|---|---|---|")
    try:
        (folder / "tree").mkdir()
        for name in sys.argv[2:] or CASES:
            text = CASES[name]()
            data = text if isinstance(text, bytes) else text.encode()
            (folder / "tree" / "hostile.py").write_bytes(data)
            size = len(data)
            del text, data  # a child's peak memory begins with that of its parent
            seconds, memory, _ = run(program, folder)
            heard = run(program, folder, 0.2)[2]
            print(f"| {name} | {size:,} | {seconds:.2f} s | {seconds / size * 1e6:.2f} us | "
                  f"{memory:.0f} MiB | {heard:.2f} s |", flush=True)
    finally:
        shutil.rmtree(folder)


if __name__ == "__main__":
    main()

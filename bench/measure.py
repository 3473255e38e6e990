"""Measures the programs that bench/run has built, and prints a table in Markdown.

Runs whole processes here, alternately with their peers. bench_pairs measures within one process and
prints a line of JSON for each pair. Every result is a ratio of medians of one run, so that the
machine and its other work have as little influence as possible. Processor time is that of the
process and its threads, user and system time together.
"""

import json
import os
import platform
import shutil
import statistics
import subprocess
import sys
import sysconfig
import tempfile
import time
from pathlib import Path

BUILD = Path("build/bench")
SCOPEINFO = BUILD / "bin/scopeinfo"
PAIRS = BUILD / "bench/pairs/bench_pairs"
OPERATIONS = BUILD / "bench/bench_scopeinfo"
FLOORS = BUILD / "bench/floors"

MIB = 1 << 20


def say(text):
    print(text, file=sys.stderr, flush=True)


class Run:
    """One run of a program: wall and processor seconds, peak memory in bytes, what it printed."""

    def __init__(self, command, env=None):
        with tempfile.TemporaryFile() as output:
            start = time.perf_counter()
            process = subprocess.Popen(
                [str(part) for part in command],
                stdin=subprocess.DEVNULL,
                stdout=output,
                stderr=subprocess.DEVNULL,
                env={**os.environ, **(env or {})},
            )
            _, status, usage = os.wait4(process.pid, 0)
            self.wall = time.perf_counter() - start
            process.returncode = os.waitstatus_to_exitcode(status)
            output.seek(0)
            self.text = output.read().decode(errors="replace")
        self.cpu = usage.ru_utime + usage.ru_stime
        self.peak = usage.ru_maxrss * 1024
        if process.returncode != 0:
            raise SystemExit(f"bench/run: exit {process.returncode}: {' '.join(map(str, command))}\n{self.text[-2000:]}")


def in_turn(rounds, *makers):
    """Runs the makers alternately, `rounds` times; returns a list of runs for each."""
    runs = [[] for _ in makers]
    for _ in range(rounds):
        for made, make in zip(runs, makers):
            made.append(make())
    return runs


def median(runs, field):
    return statistics.median(getattr(run, field) for run in runs)


class Table:
    """The rows of the result: what, compared with what, both figures, their ratio, the target."""

    def __init__(self):
        self.rows = []

    def add(self, what, against, project, peer, unit, target, remark="", at_least=False, ratio=None):
        if ratio is None:
            ratio = project / peer
        shown = f"{ratio:.2f}" if ratio >= 0.1 else f"1/{1 / ratio:.0f}"
        if target is None:
            goal, met = "", ""
        else:
            goal = ("at least " if at_least else "at most ") + (f"{target:g}" if target >= 0.1 else f"1/{1 / target:.0f}")
            met = "yes" if (ratio >= target if at_least else ratio <= target) else "**no**"
        self.rows.append((what, against, f"{number(project)} {unit}", f"{number(peer)} {unit}", shown, goal, met, remark))

    def add_amount(self, what, against, project, peer, unit, target, remark=""):
        """Adds a row whose target bounds the difference, not the ratio, of the two figures."""
        more = project - peer
        met = "yes" if more <= target else "**no**"
        self.rows.append((what, against, f"{number(project)} {unit}", f"{number(peer)} {unit}",
                          f"{more:+.3g} {unit}", f"at most {target:+g} {unit}", met, remark))

    def print(self):
        head = ("What", "Against", "Project", "Peer", "Ratio", "Target", "Met", "Remark")
        widths = [max(len(row[i]) for row in [head, *self.rows]) for i in range(len(head))]
        line = lambda row: "| " + " | ".join(cell.ljust(width) for cell, width in zip(row, widths)) + " |"
        print(line(head))
        print("|" + "|".join("-" * (width + 2) for width in widths) + "|")
        for row in self.rows:
            print(line(row))


def number(value):
    return f"{value:,.0f}" if value >= 1000 else f"{value:.3g}"


# The machine and the versions of its programs.


def first_line(command):
    try:
        done = subprocess.run(command, capture_output=True, text=True, check=False)
        return (done.stdout or done.stderr).strip().splitlines()[0]
    except (OSError, IndexError):
        return "not there"


def package_version(name):
    done = subprocess.run(["dpkg-query", "-W", "-f", "${Version}", name], capture_output=True, text=True, check=False)
    return done.stdout.strip() or "unknown"


def processor():
    for line in Path("/proc/cpuinfo").read_text().splitlines():
        if line.startswith("model name"):
            return line.split(":", 1)[1].strip()
    return platform.machine()


def describe(library, files):
    memory = int(next(line for line in Path("/proc/meminfo").read_text().splitlines() if line.startswith("MemTotal")).split()[1])
    revision = first_line(["git", "describe", "--always", "--dirty"])
    peers = {"msgpack-cxx": "libmsgpack-cxx-dev", "protobuf": "libprotobuf-dev", "SQLite": "libsqlite3-dev",
             "tree-sitter": "libtree-sitter-dev", "jedi": "python3-jedi", "universal-ctags": "universal-ctags"}
    print(f"- Machine: {processor()}, {os.cpu_count()} processors, {memory / MIB:.1f} GiB, Linux {platform.release()}; "
          f"load at the start {os.getloadavg()[0]:.1f}")
    say(f"The input is {library}")
    print(f"- Input: the standard library of Python {platform.python_version()}, {len(files):,} files, "
          f"{sum(path.stat().st_size for path in files) / MIB:.1f} MiB")
    print(f"- Built: {revision}, {first_line(['g++', '--version'])}, as the preset `bench`")
    print("- Peers: " + ", ".join(f"{name} {package_version(package)}" for name, package in peers.items()))
    print()


def python_files(root):
    """About the files that an index run scans: for counts, and for making trees."""
    left_out = {"site-packages", "dist-packages", "__pycache__", "node_modules"}
    files = []
    for folder, folders, names in os.walk(root):
        folders[:] = sorted(name for name in folders if name not in left_out and not name.startswith("."))
        files += [Path(folder) / name for name in sorted(names) if name.endswith((".py", ".pyi")) and not name.startswith(".")]
    return [path for path in files if path.is_file()]


# The pairs within one process.


def measure_pairs(table, library):
    say("Pairs within one process")
    run = Run([PAIRS], {"SCOPEINFO_BENCH_ROOT": str(library)})
    pairs = {}
    for line in run.text.splitlines():
        if line.startswith("{"):
            pair = json.loads(line)
            pairs[pair["name"]] = pair

    def add(name, what, against, target):
        pair = pairs[name]
        table.add(what, against, pair["project"], pair["peer"], pair["unit"], target, pair["note"])

    add("encode", "encode one record", "protobuf, the message there already", 1.0)
    add("encode-filled", "encode one record", "protobuf, its message filled from the record", None)
    add("encode-built", "make and encode one record", "protobuf, message made", None)
    add("decode", "decode one record", "msgpack-cxx's visitor", 1.0)
    add("decode-allocations", "allocations of one decode", "the bound", 1.0)
    add("ask-hot", "`GetScopeInfo`, merged, 16 hot of 20,000", "LRU", 1.5)
    add("ask-zipf", "`GetScopeInfo`, merged, Zipf over 20,000", "LRU", 1.5)
    add("merge", "`GetScopeInfo`, from bytes in memory", "decode of the records", 3)
    add("first-read", "first read of a file of 40 scopes", "plain SQLite and decode", 2.0)
    add("write", "`WriteToDatabase`, a row", "plain SQLite", 1.15)
    add("add", "`AddScopeInfoListForSingleScan`, a record", "encode", 2.5)
    add("add-encoded", "the same, encoded beforehand", "encode", None)
    add("edit", "one file edited, until written (engine)", "parse and 1 ms", 1.5)
    add("memory-bytes", "memory for scopes held as bytes", "unordered maps", 0.5)
    add("memory", "memory for 20,000 scopes, all asked for", "unordered maps", 0.5)
    add("memory-added", "memory for 20,000 scopes, scanned", "unordered maps", 0.5)
    return [pair for name, pair in pairs.items() if name.startswith("stage-")]


# Whole processes.


def index(root, db, jobs):
    for leftover in db.parent.glob(db.name + "*"):
        leftover.unlink()
    return Run([SCOPEINFO, "index", root, "--db", db, "--jobs", jobs])


def measure_index(table, root, work, name, rounds):
    say(f"Index of {name}")
    db = work / "index.db"
    one, floor_one, two, floor_two = in_turn(
        rounds,
        lambda: index(root, db, 1),
        lambda: Run([FLOORS / "parsevisit", root, 1]),
        lambda: index(root, db, 2),
        lambda: Run([FLOORS / "parsevisit", root, 2]),
    )
    table.add(f"cold index of {name}, one worker, processor time", "parse and visit",
              median(one, "cpu"), median(floor_one, "cpu"), "s", 1.35)
    table.add(f"cold index of {name}, two workers, wall time", "parse and visit in two threads",
              median(two, "wall"), median(floor_two, "wall"), "s", 1.25)
    table.add_amount(f"peak memory of that, {name}", "parse and visit in two threads",
                     median(two, "peak") / MIB, median(floor_two, "peak") / MIB, "MiB", 64)
    return one[-1], two, db


def measure_unchanged(table, root, db):
    say("Index with nothing changed")
    again, floor = in_turn(
        11,
        lambda: Run([SCOPEINFO, "index", root, "--db", db]),
        lambda: Run([FLOORS / "walkstat", root, db]),
    )
    table.add("index with nothing changed, processor time", "walk, stat, one query",
              median(again, "cpu") * 1e3, median(floor, "cpu") * 1e3, "ms", 1.5)
    table.add("the same, wall time", "walk, stat, one query", median(again, "wall") * 1e3, median(floor, "wall") * 1e3, "ms", None)


JEDI = """
import jedi, pathlib, sys
jedi.settings.cache_directory = sys.argv[1]
path, scope = sys.argv[2], sys.argv[3]
code = pathlib.Path(path).read_text() + "\\n" + scope + "."
names = jedi.Script(code, path=path).complete()
assert len(names) > 10
print([name.name for name in names])
"""


def measure_show(table, library, db, work):
    say("One question, as a whole process")
    file, scope = library / "json/decoder.py", "JSONDecoder"
    # Debian's Python, for which Debian's jedi is installed.
    jedi = ["/usr/bin/python3", "-c", JEDI, work / "jedi", file, scope]
    Run(jedi)  # fills its cache
    show, floor, jedis = in_turn(
        15,
        lambda: Run([SCOPEINFO, "show", file, scope, "--db", db]),
        lambda: Run([FLOORS / "readrows", db, file]),
        lambda: Run(jedi),
    )
    table.add("`scopeinfo show FILE SCOPE`, processor time", "a program that reads the rows",
              median(show, "cpu") * 1e3, median(floor, "cpu") * 1e3, "ms", 1.75)
    table.add("the same, wall time", "a program that reads the rows", median(show, "wall") * 1e3, median(floor, "wall") * 1e3, "ms", None)
    table.add("the same, processor time", "jedi, its cache warm", median(show, "cpu") * 1e3, median(jedis, "cpu") * 1e3, "ms", 1 / 60)


def stats(db):
    return json.loads(Run([SCOPEINFO, "stats", "--db", db, "--json"]).text)


def measure_size(table, db):
    held = stats(db)
    table.add("size of the database", "bytes of its records", db.stat().st_size / MIB, held["bytes"]["records"] / MIB, "MiB", 1.6)


def measure_ctags(table, root, work, rounds):
    say("universal-ctags")
    db = work / "ctags.db"
    runs, tags = in_turn(
        rounds,
        lambda: index(root, db, 1),
        lambda: Run(["ctags", "-R", "--languages=Python", "--exclude=site-packages", "--exclude=dist-packages",
                     "-o", work / "tags", root]),
    )
    table.add("cold index, one worker, processor time", "universal-ctags", median(runs, "cpu"), median(tags, "cpu"), "s", None)


# Growth.


def make_trees(library, work):
    """A tree of 1,000 files, and one of ten copies of them; copy 0 is the same in both."""
    files = python_files(library)
    step = len(files) / 1000 if len(files) >= 1000 else 1
    chosen = [files[int(i * step)] for i in range(min(1000, len(files)))]
    trees = []
    for name, copies in (("tree1", 1), ("tree10", 10)):
        for copy in range(copies):
            for path in chosen:
                to = work / name / f"copy{copy}" / path.relative_to(library)
                to.parent.mkdir(parents=True, exist_ok=True)
                shutil.copyfile(path, to)
        trees.append(work / name)
    return trees


def stage_seconds(text):
    """Processor seconds of the workers, from the program's own summary."""
    seconds = 0.0
    for line in text.splitlines():
        words = line.split()
        if len(words) >= 3 and words[0] in ("read", "parse", "encode") and words[2] == "s":
            seconds += float(words[1])
    return seconds


def measure_growth(table, library, work):
    small, large = make_trees(library, work)
    sizes = [sum(path.stat().st_size for path in python_files(tree)) for tree in (small, large)]
    dbs = [work / "tree1.db", work / "tree10.db"]
    say("Index of 1,000 and of 10,000 files")
    runs = in_turn(3, lambda: index(small, dbs[0], 2), lambda: index(large, dbs[1], 2),
                   lambda: Run([FLOORS / "parsevisit", large, 2]))
    cost = [median(runs[i], "cpu") / sizes[i] * 1e9 for i in (0, 1)]
    table.add("10,000 files: index, processor time a byte", "1,000 files", cost[1], cost[0], "ns", 1.1)
    table.add_amount("10,000 files: peak memory, two workers", "parse and visit in two threads",
                     median(runs[1], "peak") / MIB, median(runs[2], "peak") / MIB, "MiB", 64)
    rates = []
    for i in (0, 1):
        seconds = statistics.median(run.cpu - stage_seconds(run.text) for run in runs[i])
        rates.append(stats(dbs[i])["records"] / seconds)
    table.add("10,000 files: rows stored a second", "1,000 files", rates[1], rates[0], "rows", 0.9, at_least=True,
              remark="all but the workers' processor time")
    say("Questions to 1,000 and 10,000 files")
    asked = in_turn(3, lambda: Run([PAIRS, "tree", small, dbs[0]]), lambda: Run([PAIRS, "tree", large, dbs[1]]))
    figures = []
    for of_tree in asked:
        lines = [{p["name"]: p["project"] for p in map(json.loads, run.text.splitlines())} for run in of_tree]
        figures.append({name: statistics.median(each[name] for each in lines) for name in lines[0]})
    table.add("10,000 files: hot hit", "1,000 files", figures[1]["tree-hit"], figures[0]["tree-hit"], "ns", 1.15)
    table.add("10,000 files: first read, a scope", "1,000 files", figures[1]["tree-first-read"], figures[0]["tree-first-read"], "ns", 1.4)


def print_stages(stages):
    whole = sum(stage["project"] for stage in stages)
    print("\nStages of an index run, on one thread, processor time:\n")
    print("| Stage | ns a byte of source | of all |\n|---|---|---|")
    for stage in stages:
        print(f"| {stage['name'].removeprefix('stage-')} | {stage['project']:.1f} | {stage['project'] / whole:.1%} |")


def print_operations(library):
    """Prints the trim and the refill, which have no peer."""
    say("Trim and refill")
    run = Run([OPERATIONS, "--benchmark_filter=Trim|Refill", "--benchmark_format=json", "--benchmark_min_time=0.2"],
              {"SCOPEINFO_BENCH_ROOT": str(library)})
    print("\nA trim from above 20,000 scopes to 15,000, and asking for what was trimmed:\n")
    print("| Operation | at once | a scope |\n|---|---|---|")
    for each in json.loads(run.text)["benchmarks"]:
        print(f"| {each['name']} | {each['cpu_time']:.1f} ms | {1e9 / each['items_per_second']:,.0f} ns |")


def main():
    quick = "--quick" in sys.argv[1:]
    start = time.perf_counter()
    library = Path(sysconfig.get_paths()["stdlib"]).resolve()
    describe(library, python_files(library))
    table = Table()
    with tempfile.TemporaryDirectory(prefix="scopeinfo-bench-") as folder:
        work = Path(folder)
        stages = measure_pairs(table, library)
        _, _, db = measure_index(table, library, work, "the library", 3)
        measure_unchanged(table, library, db)
        measure_show(table, library, db, work)
        measure_size(table, db)
        measure_ctags(table, library, work, 3)
        if not quick:
            measure_growth(table, library, work)
        table.print()
        print_stages(stages)
        print_operations(library)
    say(f"{time.perf_counter() - start:.0f} s")


if __name__ == "__main__":
    main()

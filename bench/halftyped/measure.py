"""How much of a half-typed file is still known, beside what parso's error recovery knows.

usage: bench/halftyped/run [--files N] [--seed S]... [--kind TEXT] [--no-peer] [--list] [FOLDER]...

Takes N valid files (600) of the Python libraries of this machine, or below the given folders, damages
each in every way that damage.py knows, and counts: are all definitions (classes and functions, by
qualified name) found but those of the damaged lines, and are the names of the damaged line's scope
known but those that only these lines bind? Prints a table for each seed, in Markdown: the share of
files with all definitions, the share of all definitions, the share of names. --kind measures the
kinds whose name contains TEXT, --list names the files and what was lost.
"""

import argparse
import ast
import collections
import json
import os
import random
import re
import subprocess
import sys
import tokenize
import warnings

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import damage as damages  # noqa: E402

MAX_BYTES = 200_000


def python_files(folders):
    for folder in folders:
        for path, below, names in os.walk(folder):
            below.sort()
            for name in sorted(names):
                if name.endswith(".py"):
                    yield os.path.join(path, name)


def default_folders():
    """The standard library, and site-packages in it or beside it."""
    return sorted({os.path.dirname(os.__file__), "/usr/lib/python3/dist-packages"})


def read_source(path):
    """The file as a damages.Source; None when it is not valid, or too large or small to tell much."""
    try:
        with tokenize.open(path) as file:
            text = file.read()
        if len(text) > MAX_BYTES or len(text) < 100 or "\f" in text or "\r" in text:
            return None
        compile(text, path, "exec", dont_inherit=True)
        source = damages.Source(path, text)
    except (OSError, SyntaxError, ValueError, RecursionError, tokenize.TokenError):
        return None
    return source if source.scopes else None


def choose_files(folders, count, rng):
    paths = list(python_files(folders))
    rng.shuffle(paths)
    sources = []
    for path in paths:
        if len(sources) == count:
            break
        source = read_source(path)
        if source:
            sources.append(source)
    return sources


# What is expected.

def keeps_header(node, line):
    """Whether the line still has the word and the whole name of the definition."""
    return re.match(r"\s*(async\s+)?(def|class)\s+%s(?!\w)" % re.escape(node.name), line) is not None


def expected_definitions(source, damage):
    """The qualified names and how often each; without those that the damaged lines define."""
    expected = collections.Counter()
    gone = []  # names whose definition cannot be known, and so nothing below it
    for name, first, _, node in source.scopes:
        if any(name.startswith(g + ".") for g in gone):
            continue
        header_end = max(first, body_line_before(node))
        if not damage.inserted and any(first <= row + 1 <= header_end for row in damage.rows):
            line = damage.new_lines.get(first - 1, source.lines[first - 1])
            if not keeps_header(node, line):
                gone.append(name)
            continue
        expected[name] += 1
    return expected


def body_line_before(node):
    return damages.body_line(node) - 1


class Bindings(ast.NodeVisitor):
    """The names that each scope binds, with the lines that bind them."""

    def __init__(self, tree):
        self.names = collections.defaultdict(lambda: collections.defaultdict(set))
        self.scope = ""
        self.visit(tree)

    def bind(self, name, line):
        self.names[self.scope][name].add(line)

    def visit_scope(self, node):
        self.bind(node.name, node.lineno)
        for part in node.decorator_list:
            self.visit(part)
        outer = self.scope
        self.scope = outer + "." + node.name if outer else node.name
        if not isinstance(node, ast.ClassDef):
            arguments = node.args
            for arg in (arguments.posonlyargs + arguments.args + arguments.kwonlyargs +
                        [a for a in (arguments.vararg, arguments.kwarg) if a]):
                self.bind(arg.arg, arg.lineno)
        for statement in node.body:
            self.visit(statement)
        self.scope = outer

    visit_FunctionDef = visit_AsyncFunctionDef = visit_ClassDef = visit_scope

    def skip(self, node):
        pass

    visit_Lambda = visit_ListComp = visit_SetComp = visit_DictComp = visit_GeneratorExp = skip

    def visit_Name(self, node):
        if isinstance(node.ctx, ast.Store):
            self.bind(node.id, node.lineno)

    def visit_Import(self, node):
        for alias in node.names:
            if alias.name != "*":
                self.bind(alias.asname or alias.name.split(".")[0], alias.lineno)

    visit_ImportFrom = visit_Import

    def visit_ExceptHandler(self, node):
        if node.name:
            self.bind(node.name, node.lineno)
        self.generic_visit(node)


def expected_names(source, damage):
    """The scope of the last damaged line, and the names that other lines bind in it."""
    row = damage.rows[-1]
    scope = source.scope_at(row + 1)
    lines = set() if damage.inserted else {r + 1 for r in damage.rows}
    for name, first, _, node in source.scopes:
        # A header that is damaged: what it says of the arguments is not expected.
        if name == scope and not damage.inserted and any(
                first <= r + 1 <= max(first, body_line_before(node)) for r in damage.rows):
            return scope, set()
        if any((scope + ".").startswith(name + ".") and first == r + 1 for r in damage.rows
               if not damage.inserted):
            return scope, set()
    return scope, {name for name, bound in source.bindings.names[scope].items() if bound - lines}


# What is found.

def our_findings(program, texts):
    data = b"".join(b"%d\n%s" % (len(t), t) for t in (t.encode("utf-8", "replace") for t in texts))
    done = subprocess.run([program], input=data, stdout=subprocess.PIPE, check=True)
    for line in done.stdout.splitlines():
        found = json.loads(line)
        definitions = collections.Counter()
        names = collections.defaultdict(set)
        for scope, bound in found["scopes"].items():
            plain = re.sub(r"#\d+", "", scope)
            names[plain].update(bound)
            if plain and "<" not in plain:
                definitions[plain] += 1
        yield definitions, names, found["errors"]


def peer_findings(texts):
    import parso
    for text in texts:
        definitions = collections.Counter()
        names = collections.defaultdict(set)
        # From the root down, with the qualified name of the scope around.
        pending = [(parso.parse(text), "")]
        while pending:
            node, scope = pending.pop()
            inner = scope
            if node.type in ("funcdef", "classdef"):
                name = node.name.value
                names[scope].add(name)
                inner = scope + "." + name if scope else name
                definitions[inner] += 1
            elif node.type == "name" and node.is_definition():
                names[scope].add(node.value)
            elif node.type in ("lambdef", "comp_for"):
                continue
            for child in getattr(node, "children", ()):
                if child is not getattr(node, "name", None) or node.type not in ("funcdef", "classdef"):
                    pending.append((child, inner))
        yield definitions, names, None


class Score:
    def __init__(self):
        self.files = self.whole = self.wanted = self.found = self.names = self.known = 0
        self.silent = 0

    def add(self, wanted, names, finding):
        definitions, found_names, _ = finding
        lost = wanted - definitions
        self.files += 1
        self.whole += not lost
        self.wanted += wanted.total()
        self.found += wanted.total() - lost.total()
        scope, expected = names
        unknown = expected - found_names.get(scope, set())
        self.names += len(expected)
        self.known += len(expected) - len(unknown)
        return lost, unknown

    def row(self):
        return "%d of %d (%.2f %%) | %.2f %% | %.2f %%" % (
            self.whole, self.files, 100 * self.whole / self.files,
            100 * self.found / max(self.wanted, 1), 100 * self.known / max(self.names, 1))


def measure_kind(args, kind, make, sources, seed):
    cases = []
    for source in sources:
        rng = random.Random("%s %s %s" % (seed, kind, source.path))
        made = make(source, rng)
        if made:
            cases.append((source, made, expected_definitions(source, made),
                          expected_names(source, made)))
    texts = [made.text for _, made, _, _ in cases]
    if not texts:
        return
    scores = []
    for findings in [our_findings(args.program, texts)] + ([] if args.no_peer
                                                           else [peer_findings(texts)]):
        score = Score()
        for (source, made, wanted, names), finding in zip(cases, findings, strict=True):
            lost, unknown = score.add(wanted, names, finding)
            if args.list and not scores and (lost or unknown):
                print("  %s:%s %s: lost %s; unknown %s" % (
                    source.path, ",".join(str(r + 1) for r in made.rows), kind,
                    " ".join(sorted(lost)) or "nothing", " ".join(sorted(unknown)) or "nothing"))
                if args.save:
                    with open(os.path.join(args.save, "%s_%d.py" % (
                            os.path.basename(source.path)[:-3], made.rows[0] + 1)), "w") as file:
                        file.write(made.text)
        scores.append(score)
    print("| %s | %s |" % (kind, " | ".join(score.row() for score in scores)), flush=True)


def main():
    parser = argparse.ArgumentParser(usage=__doc__.split("\n\n")[1][len("usage: "):])
    parser.add_argument("--program", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--files", type=int, default=600)
    parser.add_argument("--seed", action="append")
    parser.add_argument("--kind", default="")
    parser.add_argument("--no-peer", action="store_true")
    parser.add_argument("--list", action="store_true")
    parser.add_argument("--save", help="a folder for the damaged texts that --list names")
    parser.add_argument("folders", nargs="*", default=default_folders())
    args = parser.parse_args()
    warnings.simplefilter("ignore")
    sys.setrecursionlimit(10_000)
    for seed in args.seed or ["1"]:
        sources = choose_files(args.folders, args.files, random.Random("files " + seed))
        for source in sources:
            source.bindings = Bindings(source.tree)
        print("Seed %s, %d files, Python %s\n" % (seed, len(sources), sys.version.split()[0]))
        peer = "" if args.no_peer else " parso: files whole | definitions | names |"
        print("| damage | files whole | definitions | names |" + peer)
        print("|---|---|---|---|" + ("" if args.no_peer else "---|---|---|"))
        for kind, make in damages.KINDS.items():
            if args.kind in kind:
                measure_kind(args, kind, make, sources, seed)
        print()


main()

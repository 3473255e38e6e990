"""Half-typed sources: a valid file, and what an editor holds of it for a moment.

Each kind of damage is a function from a CSource and a random generator to a CDamage, or to None
where the file has no place for it.
"""

import ast
import io
import re
import tokenize

CLAUSES = ("elif", "else", "except", "finally", "case")


class Source:
    """A valid file: its lines, its statements, and the definitions and names that it holds."""

    def __init__(self, path, text):
        self.path = path
        self.text = text
        self.lines = re.split(r"(?<=\n)(?!\Z)", text)
        self.tree = ast.parse(text)
        self.statements = []  # (first row, last row, first word, indentation, last token)
        self._find_statements()
        self.scopes = []  # (qualified name, first line, last line, node)
        self._find_scopes(self.tree, "")

    def _find_statements(self):
        first = last = None
        after_decorator = False
        for token in tokenize.generate_tokens(io.StringIO(self.text).readline):
            if token.type in (tokenize.COMMENT, tokenize.NL, tokenize.INDENT, tokenize.DEDENT,
                              tokenize.ENDMARKER):
                continue
            if token.type == tokenize.NEWLINE:
                if first is not None:
                    line = self.lines[first.start[0] - 1]
                    self.statements.append(Statement(
                        first.start[0] - 1, last.end[0] - 1, first.string,
                        line[:first.start[1]], last.string, after_decorator))
                    after_decorator = first.string == "@"
                first = None
                continue
            first = first or token
            last = token

    def _find_scopes(self, node, prefix):
        for child in ast.iter_child_nodes(node):
            if isinstance(child, (ast.FunctionDef, ast.AsyncFunctionDef, ast.ClassDef)):
                name = prefix + child.name
                self.scopes.append((name, child.lineno, child.end_lineno, child))
                self._find_scopes(child, name + ".")
            else:
                self._find_scopes(child, prefix)

    def scope_at(self, line):
        """The innermost scope whose body holds the line, "" for the module."""
        found = ""
        for name, first, last, node in self.scopes:
            if body_line(node) <= line <= last:
                found = name
        return found


class Statement:
    def __init__(self, row, last_row, word, indent, last_token, after_decorator):
        self.row, self.last_row, self.word = row, last_row, word
        self.indent, self.last_token, self.after_decorator = indent, last_token, after_decorator

    def can_follow_new_line(self):
        return self.word not in CLAUSES and not self.after_decorator


def body_line(node):
    """The line that the body of a definition begins in."""
    first = node.body[0]
    decorators = getattr(first, "decorator_list", [])
    return max(node.lineno, min([first.lineno] + [d.lineno for d in decorators]))


class Damage:
    def __init__(self, lines, rows, inserted=False):
        self.text = "".join(lines)
        self.rows = rows  # of the valid file: those that were changed, or what a new line is before
        self.inserted = inserted
        self.new_lines = {} if inserted else {row: lines[row] for row in rows}


def line_end(line):
    return line[len(line.rstrip("\r\n")):]


def cut(line, rng):
    """The line without what stands behind a place in its middle."""
    text = line.rstrip("\r\n")
    begin = len(text) - len(text.lstrip())
    at = rng.randrange(begin + 1, len(text.rstrip()))
    return text[:at] + line_end(line)


def rows_to_cut(source, first=0):
    return [row for row in range(first, len(source.lines)) if len(source.lines[row].strip()) > 1]


def one_line(source, rng):
    rows = rows_to_cut(source)
    if not rows:
        return None
    row = rng.choice(rows)
    lines = list(source.lines)
    lines[row] = cut(lines[row], rng)
    return Damage(lines, [row])


def two_lines(source, rng):
    rows = rows_to_cut(source)
    if len(rows) < 2:
        return None
    chosen = sorted(rng.sample(rows, 2))
    lines = list(source.lines)
    for row in chosen:
        lines[row] = cut(lines[row], rng)
    return Damage(lines, chosen)


def below_bracket(source, rng):
    """The last bracket of a line is not closed, and ten lines or more below a line is cut."""
    rows = [s.row for s in source.statements
            if s.row == s.last_row and s.last_token in (")", "]", "}") and
            rows_to_cut(source, s.row + 10)]
    if not rows:
        return None
    row = rng.choice(rows)
    below = rng.choice(rows_to_cut(source, row + 10)[:90])
    lines = list(source.lines)
    text = lines[row]
    at = max(text.rfind(c) for c in ")]}")
    lines[row] = text[:at] + line_end(text)
    lines[below] = cut(lines[below], rng)
    return Damage(lines, [row, below])


def new_line(text):
    """A line that has just been begun, in front of a statement and as deep as that."""
    def make(source, rng):
        places = [s for s in source.statements if s.can_follow_new_line()]
        if not places:
            return None
        place = rng.choice(places)
        lines = list(source.lines)
        lines.insert(place.row, place.indent + text + (line_end(lines[place.row]) or "\n"))
        return Damage(lines, [place.row], inserted=True)
    return make


def header(words, pattern, otherwise):
    """In every other file a header that is there already loses its end, or a line is begun."""
    begin_line = new_line(otherwise)

    def make(source, rng):
        rows = [s.row for s in source.statements
                if s.word in words and s.row == s.last_row and s.last_token == ":" and
                re.match(pattern, source.lines[s.row])]
        if not rows or rng.random() < 0.5:
            return begin_line(source, rng)
        row = rng.choice(rows)
        lines = list(source.lines)
        lines[row] = re.match(pattern, lines[row]).group(1) + line_end(lines[row])
        return Damage(lines, [row])
    return make


KINDS = {
    "one line cut": one_line,
    "two lines cut": two_lines,
    "a line cut below an open bracket": below_bracket,
    "`self.`": new_line("self."),
    "`foo(`": new_line("foo("),
    "an open quote": new_line("x = 'abc"),
    'an open `"""`': new_line('x = """'),
    "`def f(`": header(("def", "async"), r"(\s*(?:async +)?def +\w+\()", "def f("),
    "`class C(`": header(("class",), r"(\s*class +\w+\()", "class C("),
    "`if x` without colon": header(("if", "while", "for", "with", "def", "class", "elif"),
                                   r"(.*):[^:]*$", "if x"),
}

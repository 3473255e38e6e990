"""What Python itself finds bound in each scope of source files, for the scanner to be compared with.

usage: symtable_check.py MOST_FILES [FOLDER...]

Prints, for an even choice of MOST_FILES files below each FOLDER (all of them when it is 0; without a
FOLDER the standard library, without site-packages, and Debian's stub files if they are there), the
lines

    F <path>                     a file; the lines up to the next one are about it
    S <scope>\t<name> <name> ... a scope and the names bound or declared in it, sorted

Scopes are named as the scanner names them, but for those without a name of their own: they carry no
index, as Python visits them in another order, and all comprehensions are <genexpr>. Their children are
merged alike. "?x" is declared in the scope and bound elsewhere. Files that this Python does not take
are left out, and counted in the last line: "X <count>".
"""

import ast
import os
import symtable
import sys
import tokenize
import warnings

STUBS = "/usr/lib/python3/dist-packages"  # where Debian puts them
COMPREHENSIONS = ("listcomp", "setcomp", "dictcomp", "genexpr")


def source_files(folder, excluded):
    for path, folders, files in os.walk(folder):
        folders[:] = sorted(f for f in folders if f not in excluded)
        for name in sorted(files):
            if name.endswith((".py", ".pyi")):
                yield os.path.join(path, name)


class Generators(ast.NodeTransformer):
    """Makes each comprehension a generator, which Python does not run together with what is around."""

    def visit_ListComp(self, node):
        self.generic_visit(node)
        return ast.GeneratorExp(node.elt, node.generators)

    visit_SetComp = visit_ListComp

    def visit_DictComp(self, node):
        self.generic_visit(node)
        return ast.GeneratorExp(ast.Tuple([node.key, node.value], ast.Load()), node.generators)


def table_of(source, path):
    if sys.version_info >= (3, 12):
        compile(source, path, "exec", dont_inherit=True)
        source = ast.unparse(Generators().visit(ast.parse(source)))
    return symtable.symtable(source, path, "exec")


def demangled(name, class_name):
    """The name as it is written, where Python made it private to a class."""
    prefix = "_" + class_name.lstrip("_") if class_name else ""
    if prefix not in ("", "_") and name.startswith(prefix + "__"):
        return name[len(prefix):]
    return name


def is_bound(symbol):
    return symbol.is_assigned() or symbol.is_parameter() or symbol.is_imported()


def bound_names(table, class_name, is_comprehension):
    names = set()
    for symbol in table.get_symbols():
        name = demangled(symbol.get_name(), class_name)
        declared = symbol.is_declared_global() or symbol.is_nonlocal()
        if is_comprehension and declared:
            names.add("?" + name)
        elif name == "__type_params__" and table.get_type() == "class":
            pass  # Python sets it where a class has type parameters
        elif is_bound(symbol) or symbol.is_annotated():
            names.add(name)
        elif declared and table.get_type() != "module":
            names.add("?" + name)
    return names


def globals_bound(table, class_name=""):
    """The names of the module that scopes within it bind, having declared them global."""
    names = set()
    for child in table.get_children():
        child_class = child.get_name() if child.get_type() == "class" else class_name
        names |= globals_bound(child, child_class)
    if table.get_type() != "module":
        names |= {demangled(symbol.get_name(), class_name) for symbol in table.get_symbols()
                  if symbol.is_declared_global() and is_bound(symbol)}
    return names


def scopes(table, path, class_name, is_comprehension=False, more=frozenset()):
    yield path, bound_names(table, class_name, is_comprehension) | more
    count = {}
    # By line: Python visits "else" before "except".
    for child in sorted(table.get_children(), key=lambda child: child.get_lineno()):
        name = child.get_name()
        more = set()
        if child.get_type() == "type alias":
            continue  # its parameters are seen in it alone, and it is no scope to the scanner
        if child.get_type().startswith("type param"):
            # To the scanner, the parameters are names of what has them.
            more = {n for n in bound_names(child, class_name, False) if n[0] != "."}
            child = next((c for c in child.get_children() if c.get_name() == name), child)
            if child.get_type() not in ("function", "class"):
                continue
        is_function = child.get_type() == "function"
        # A function cannot be named lambda; one can be named listcomp, but takes no ".0".
        is_child_comprehension = (is_function and name in COMPREHENSIONS
                                  and ".0" in child.get_parameters())
        if is_child_comprehension:
            leaf = "<genexpr>"
        elif is_function and name == "lambda":
            leaf = "<lambda>"
        else:
            leaf = demangled(name, class_name)
            count[leaf] = count.get(leaf, 0) + 1
            if count[leaf] > 1:
                leaf += "#%d" % count[leaf]
        child_class = name if child.get_type() == "class" else class_name
        child_path = path + "." + leaf if path else leaf
        yield from scopes(child, child_path, child_class, is_child_comprehension, more)


def main():
    most = int(sys.argv[1])
    files = []
    for folder in sys.argv[2:] or [os.path.dirname(os.__file__), STUBS]:
        excluded = ("__pycache__",) if sys.argv[2:] else ("__pycache__", "site-packages")
        found = list(source_files(folder, excluded))
        chosen = min(most or len(found), len(found))
        files += [found[i * len(found) // chosen] for i in range(chosen)]
    sys.setrecursionlimit(10000)
    warnings.simplefilter("ignore")
    left_out = 0
    out = open(sys.stdout.fileno(), "w", encoding="utf-8", errors="surrogateescape", closefd=False)
    for path in files:
        try:
            with tokenize.open(path) as file:
                table = table_of(file.read(), path)
        except (SyntaxError, ValueError, UnicodeError, RecursionError, MemoryError):
            left_out += 1
            continue
        out.write("F %s\n" % path)
        for scope, names in scopes(table, "", "", more=globals_bound(table)):
            out.write("S %s\t%s\n" % (scope, " ".join(sorted(names))))
    out.write("X %d\n" % left_out)
    out.flush()


main()

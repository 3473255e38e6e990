"""What Python itself finds bound in each scope of its library, for the scanner to be compared with.

usage: symtable_check.py MOST_FILES [FOLDER]

Prints, for an even choice of MOST_FILES files below FOLDER (the standard library when left out; all
files when MOST_FILES is 0), the lines

    F <path>                     a file; the lines up to the next one are about it
    S <scope>\t<name> <name> ... a scope and the names bound or declared in it, sorted

Scopes are named as the scanner names them, but for one thing: those without a name of their own
carry no index, as Python visits them in another order. The children of such scopes are merged alike.
Files that this Python does not take are left out, and counted in the last line: "X <count>".
"""

import os
import symtable
import sys
import tokenize
import warnings

UNNAMED = {
    "lambda": "<lambda>",
    "listcomp": "<listcomp>",
    "setcomp": "<setcomp>",
    "dictcomp": "<dictcomp>",
    "genexpr": "<genexpr>",
}


def source_files(folder):
    for path, folders, files in os.walk(folder):
        folders[:] = sorted(f for f in folders if f not in ("site-packages", "__pycache__"))
        for name in sorted(files):
            if name.endswith(".py"):
                yield os.path.join(path, name)


def demangled(name, class_name):
    """The name as it is written, where Python made it private to a class."""
    prefix = "_" + class_name.lstrip("_") if class_name else ""
    if prefix not in ("", "_") and name.startswith(prefix + "__"):
        return name[len(prefix):]
    return name


def bound_names(table, class_name, is_comprehension):
    names = set()
    for symbol in table.get_symbols():
        name = demangled(symbol.get_name(), class_name)
        declared = symbol.is_declared_global() or symbol.is_nonlocal()
        if is_comprehension and declared:
            names.add("?" + name)
        elif symbol.is_assigned() or symbol.is_parameter() or symbol.is_imported():
            names.add(name)
        elif symbol.is_annotated():
            names.add(name)
        elif declared:
            names.add("?" + name)
    return names


def scopes(table, path, class_name, is_comprehension=False):
    yield path, bound_names(table, class_name, is_comprehension)
    count = {}
    # By line: Python visits "else" before "except".
    for child in sorted(table.get_children(), key=lambda child: child.get_lineno()):
        name = child.get_name()
        is_function = child.get_type() == "function"
        # A function cannot be named lambda; one can be named listcomp, but takes no ".0".
        unnamed = is_function and name in UNNAMED and (
            name == "lambda" or ".0" in child.get_parameters())
        if unnamed:
            leaf = UNNAMED[name]
        else:
            leaf = demangled(name, class_name)
            count[leaf] = count.get(leaf, 0) + 1
            if count[leaf] > 1:
                leaf += "#%d" % count[leaf]
        child_class = name if child.get_type() == "class" else class_name
        child_path = path + "." + leaf if path else leaf
        yield from scopes(child, child_path, child_class, unnamed and name != "lambda")


def main():
    most = int(sys.argv[1])
    folder = sys.argv[2] if len(sys.argv) > 2 else os.path.dirname(os.__file__)
    files = list(source_files(folder))
    if most and len(files) > most:
        files = [files[i * len(files) // most] for i in range(most)]
    sys.setrecursionlimit(10000)
    warnings.simplefilter("ignore")
    left_out = 0
    out = open(sys.stdout.fileno(), "w", encoding="utf-8", errors="surrogateescape", closefd=False)
    for path in files:
        try:
            with tokenize.open(path) as file:
                table = symtable.symtable(file.read(), path, "exec")
        except (SyntaxError, ValueError, UnicodeError, RecursionError, MemoryError):
            left_out += 1
            continue
        out.write("F %s\n" % path)
        for scope, names in scopes(table, "", ""):
            out.write("S %s\t%s\n" % (scope, " ".join(sorted(names))))
    out.write("X %d\n" % left_out)
    out.flush()


main()

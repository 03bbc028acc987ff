"""Writes what the entry script needs as C++ data: entryScriptNeeds.py SOURCE OUTPUT.

Of each module that it imports: name, the function that imports it ("" for the script itself), whether it
is of the standard library, and what the script uses of it, dotted.
"""

import ast
import importlib.util
import os
import sys
import sysconfig

source_path, output_path = sys.argv[1:]
LIBRARY = os.path.realpath(sysconfig.get_path("stdlib"))


def imported(node):
    """(name that the script uses, module) of what an import statement brings."""
    for each in node.names:
        if isinstance(node, ast.ImportFrom):
            yield each.asname or each.name, "%s.%s" % (node.module, each.name)
        else:
            yield each.asname or each.name.split(".")[0], each.name


def dotted(node):
    """"a.b.c" of an expression that is one, else None."""
    if isinstance(node, ast.Attribute):
        inner = dotted(node.value)
        return inner and "%s.%s" % (inner, node.attr)
    return node.id if isinstance(node, ast.Name) else None


def in_library(module):
    """Its file's module of the standard library, such as posixpath for os.path, or None."""
    try:
        found = importlib.util.find_spec(module)
    except ImportError:
        return None
    is_inside = found is not None and os.path.realpath(found.origin or "").startswith(LIBRARY + os.sep)
    return found.name if is_inside else None


class Needs(ast.NodeVisitor):
    def __init__(self, tree):
        self.function, self.modules, self.known = "", {}, {}
        self.parameters = {node.name: [argument.arg for argument in node.args.args]
                           for node in tree.body if isinstance(node, ast.FunctionDef)}
        # The second round knows what was handed to functions that stand in front of their callers.
        for _ in range(2):
            self.visit(tree)

    def visit_FunctionDef(self, node):
        outer, self.function = self.function, node.name
        self.generic_visit(node)
        self.function = outer

    def visit_Import(self, node):
        for name, module in imported(node):
            if module not in sys.builtin_module_names:
                self.modules.setdefault(module, (self.function, set()))
                self.known.setdefault(name, set()).add((module, ""))

    visit_ImportFrom = visit_Import

    def visit_Call(self, node):
        """A module's part that is handed to a function is used under its parameter's name there."""
        for parameter, argument in zip(self.parameters.get(dotted(node.func), ()), node.args):
            first, _, rest = (dotted(argument) or "").partition(".")
            for module, inner in set(self.known.get(first, ())):
                self.known.setdefault(parameter, set()).add((module, ".".join(filter(None, (inner, rest)))))
        self.generic_visit(node)

    def visit_Attribute(self, node):
        first, _, rest = (dotted(node) or "").partition(".")
        for module, inner in self.known.get(first, ()):
            self.modules[module][1].add(".".join(filter(None, (inner, rest))))
        self.generic_visit(node)


with open(source_path) as source:
    needs = Needs(ast.parse(source.read()))
with open(output_path, "w") as output:
    output.write('#include "programs/tavrelInfo/Modules.h"\n\n')
    output.write("const std::uint32_t Info::byteCodeMagic = %d;\n"
                 % int.from_bytes(importlib.util.MAGIC_NUMBER, "little"))
    output.write("const std::vector<Info::NeededModule> Info::neededModules = {\n")
    for module, (function, names) in sorted(needs.modules.items()):
        library = in_library(module)
        uses = "" if library else ", ".join('"%s"' % name for name in sorted(names))
        output.write('    {"%s", "%s", %s, {%s}},\n'
                     % (library or module, function, "true" if library else "false", uses))
    output.write("};\n")

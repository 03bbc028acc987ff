"""Writes a Python file's code object as C++ data: embedEntryScript.py SOURCE NAME OUTPUT."""

import marshal
import sys

source_path, name, output_path = sys.argv[1:]
with open(source_path, "rb") as source_file:
    source = source_file.read()
# From format 3 on, back references depend on reference counts, and the bytes with them.
code = marshal.dumps(compile(source, name, "exec", dont_inherit=True, optimize=0), 2)
rows = [code[start:start + 20] for start in range(0, len(code), 20)]
with open(output_path, "w") as output_file:
    output_file.write('#include "MAIN/src/Embedded.h"\n\nconst unsigned char Launcher::entryScript[] = {\n')
    for row in rows:
        output_file.write("    " + ", ".join(map(str, row)) + ",\n")
    output_file.write("};\nconst std::uint32_t Launcher::entryScriptLength = %d;\n" % len(code))

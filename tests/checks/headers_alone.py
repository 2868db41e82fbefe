"""Every header compiles by itself.

A source that begins with its own header shows that of it, when it is compiled without precompiled headers: those of the library
always, the others by scripts/lint. So those headers are left out.

usage: headers_alone.py ROOT BUILD COMPILER INCLUDE_PATH (separated by ':')
"""
import pathlib
import re
import sys

import compiling


def begins_its_source(header):
    source = header.with_suffix(".cpp")
    first = re.search(r'^#include [<"](.+)[>"]', source.read_text(), re.M) if source.exists() else None
    return first is not None and pathlib.PurePath(first[1]).name == header.name


root, build, compiler, path = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]), sys.argv[3], sys.argv[4]
tops = ["sdk", "macOS", "platform", "simulator", "tools", "tests"]
flags = [f"-I{folder}" for folder in path.split(":") if folder]
compiling.report({
    str(header.relative_to(root)): [compiler, "-std=c++20", "-fsyntax-only", "-x", "c++", *flags, f"-I{header.parent}",
                                    "-include", str(header), "/dev/null"]
    for top in tops for header in (root / top).rglob("*.h") if not begins_its_source(header)},
    build / "headers_alone", "headers compile alone")

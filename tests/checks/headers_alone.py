"""Every header compiles by itself.

usage: headers_alone.py ROOT BUILD COMPILER INCLUDE_PATH (separated by ':')
"""
import pathlib
import sys

import compiling

root, build, compiler, path = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]), sys.argv[3], sys.argv[4]
tops = ["sdk", "macOS", "platform", "simulator", "tools", "tests"]
flags = [f"-I{folder}" for folder in path.split(":") if folder]
compiling.report({
    str(header.relative_to(root)): [compiler, "-std=c++20", "-fsyntax-only", "-x", "c++", *flags, f"-I{header.parent}",
                                    "-include", str(header), "/dev/null"]
    for top in tops for header in (root / top).rglob("*.h")}, build / "headers_alone", "headers compile alone")

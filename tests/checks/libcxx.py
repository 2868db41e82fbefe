"""Sources compile with libc++, the standard library of macOS; those of the library hold the locks that they say.

usage: libcxx.py ROOT BUILD_DIRECTORY FOLDER TOP...    the sources below these folders that the build compiles
"""
import json
import pathlib
import re
import shlex
import sys

import checking
import compiling

COMPILER = "clang++-14"
LOCKS = ["-Wthread-safety", "-D_LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS"]
# Of a command of the build: what only its own compiler has.
DROPPED = {"-include": 2, "-o": 2, "-MF": 2, "-MT": 2, "-MD": 1, "-c": 1, "-Winvalid-pch": 1, "-Werror": 1}


def as_libcxx(command, locks):
    words = shlex.split(command)
    words = words[next(i for i, word in enumerate(words) if word.startswith("-")):]
    kept = []
    while words:
        skipped = DROPPED.get(words[0], 0)
        kept += words[:0 if skipped else 1]
        words = words[skipped or 1:]
    return [COMPILER, "-stdlib=libc++", "-Werror", *(LOCKS if locks else []), *kept]


checking.need(COMPILER)
root, build, folder = (pathlib.Path(argument) for argument in sys.argv[1:4])
commands, needs = {}, {}
for entry in json.loads((build / "compile_commands.json").read_text()):
    source = pathlib.Path(entry["directory"], entry["file"]).resolve()
    if source.suffix != ".cpp" or not source.is_relative_to(root):
        continue
    top = source.relative_to(root).parts[0]
    if top not in sys.argv[4:]:
        continue
    name, command = str(source.relative_to(root)), as_libcxx(entry["command"], top in ("sdk", "macOS"))
    header = re.search(r"-include (\S+/cmake_pch\.hxx)", entry["command"])
    if top == "tests" and header:  # The same for all of them. The library's own sources show that they include what they use.
        made = str(folder / "tests.pch")
        commands.setdefault("precompiled", [*command[:-1], "-Wno-pragma-system-header-outside-header",
                                             "-x", "c++-header", header[1], "-o", made])
        needs[name] = "precompiled"
        command[-1:-1] = ["-include-pch", made]
    commands[name] = [*command[:-1], "-fsyntax-only", command[-1]]
compiling.report(commands, folder, "sources compile with libc++", needs)

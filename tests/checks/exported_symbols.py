"""The library exports what the list in the tree names, no more and no less.

usage: exported_symbols.py LIBRARY LIST COMPILER_ID        add --write to renew the list
"""
import pathlib
import sys

import checking

library, listing, compiler = sys.argv[1], pathlib.Path(sys.argv[2]), sys.argv[3]
if compiler != "GNU":
    checking.skip(f"the list is of the names that gcc makes, and this build is by {compiler}")
lines = checking.run("nm", "-D", "--defined-only", "-C", library, check=True).stdout.splitlines()
# Constructors and destructors stand there once for each of their kinds.
exported = {line.split(" ", 2)[2] for line in lines}
types = {name[13:] for name in exported if name.startswith("typeinfo for ") and f"typeinfo name {name[9:]}" in exported}
exported -= {f"typeinfo {part}for {name}" for part in ("", "name ") for name in types}
exported = sorted(exported | {f"typeinfo and its name for {name}" for name in types})
if "--write" in sys.argv:
    listing.write_text("\n".join(exported) + "\n")
listed = listing.read_text().splitlines()
checking.end([*(f"exported, but not listed: {name}" for name in exported if name not in listed),
              *(f"listed, but not exported: {name}" for name in listed if name not in exported)],
             f"{len(listed)} symbols are exported")

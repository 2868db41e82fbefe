"""The library exports what the list in the tree names, no more and no less.

usage: exported_symbols.py LIBRARY LIST COMPILER_ID        add --write to renew the list
"""
import subprocess
import sys


def main():
    library, list_path, compiler = sys.argv[1:4]
    if compiler != "GNU":
        print(f"skipped: the list is of the names that gcc makes, and this build is by {compiler}")
        return 77
    lines = subprocess.run(["nm", "-D", "--defined-only", "-C", library], capture_output=True, text=True,
                           check=True).stdout.splitlines()
    # Constructors and destructors stand there once for each of their kinds.
    exported = sorted({line.split(" ", 2)[2] for line in lines})
    if "--write" in sys.argv:
        with open(list_path, "w") as file:
            file.write("\n".join(exported) + "\n")
        return 0
    with open(list_path) as file:
        listed = file.read().splitlines()
    for name in sorted(set(exported) - set(listed)):
        print(f"exported, but not listed: {name}")
    for name in sorted(set(listed) - set(exported)):
        print(f"listed, but not exported: {name}")
    return 0 if exported == listed else 1


sys.exit(main())

"""What is shipped has the hardening that docs/security.md names, as far as hardening-check finds it in the files.

Looks at the build of the preset "package", or "release", whichever was made last; there is none before somebody made one.

usage: hardening.py ROOT
"""
import pathlib
import re
import sys

import checking

SHIPPED = ("lib/libkiv.so", "lib/libkivplatform.so", "bin/kivctl", "bin/kivsim")
# Where pybind11 is installed. Of the functions that could be checked it calls only some whose room the compiler does not know.
PYTHON, UNKNOWN_ROOM = "python/kiv/_kiv*.so", "no, only unprotected functions found!"
# A library is always at a place of its own.
WANTED = {"Position Independent Executable": ("yes", "no, regular shared library (ignored)"), "Stack protected": ("yes",),
          "Fortify Source functions": ("yes", "yes (some protected functions found)"), "Read-only relocations": ("yes",),
          "Immediate binding": ("yes",)}
MARKED = "Control flow integrity"


def is_protected(file, mark):
    """Where the system's own start files do not take part (Debian's), no file has the mark, but our functions begin so."""
    return mark == "yes" or checking.run("objdump", "-d", "--no-show-raw-insn", file).stdout.count("endbr64") > 100


checking.need("hardening-check")
builds = [build for build in (pathlib.Path(sys.argv[1], "build", name) for name in ("package", "release"))
          if all((build / file).exists() for file in SHIPPED)]
if not builds:
    checking.skip("neither the preset package nor release is built")
build = max(builds, key=lambda each: (each / SHIPPED[0]).stat().st_mtime)
bad = []
modules = [found.relative_to(build) for found in build.glob(PYTHON)]
for file in [*SHIPPED, *modules]:
    found = dict(re.findall(r"^ (.+?): (.*)$", checking.run("hardening-check", build / file).stdout, re.M))
    bad += [f"{file}: {name}: {found.get(name)}" for name, good in WANTED.items() if found.get(name) not in good
            and (file not in modules or found.get(name) != UNKNOWN_ROOM)]
    is_x86 = "x86-64" in checking.run("readelf", "-h", build / file).stdout.lower()
    if is_x86 and not is_protected(build / file, found.get(MARKED)):
        bad.append(f"{file}: {MARKED}: {found.get(MARKED)}")
# A file shows it only where a function has many pages on its stack.
if "-fstack-clash-protection" not in (build / "build.ninja").read_text():
    bad.append("not compiled with stack clash protection")
checking.end(bad, f"{len(SHIPPED) + len(modules)} files of {build} are hardened")

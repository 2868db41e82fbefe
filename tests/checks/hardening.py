"""What is shipped has the hardening that docs/security.md names, as far as hardening-check finds it in the files.

Looks at the build of the preset "package", or "release", whichever was made last; there is none before somebody made one.

usage: hardening.py ROOT
"""
import pathlib
import re
import shutil
import subprocess
import sys

SHIPPED = ("lib/libkiv.so", "lib/libkivplatform.so", "bin/kivctl", "bin/kivsim")
# A library is always at a place of its own.
WANTED = {"Position Independent Executable": ("yes", "no, regular shared library (ignored)"), "Stack protected": ("yes",),
          "Fortify Source functions": ("yes", "yes (some protected functions found)"), "Read-only relocations": ("yes",),
          "Immediate binding": ("yes",)}
MARKED = "Control flow integrity"


def run(*command):
    return subprocess.run(command, text=True, capture_output=True, timeout=120).stdout


def is_protected(file, mark):
    """Where the system's own start files do not take part (Debian's), no file has the mark, but our functions begin so."""
    return mark == "yes" or run("objdump", "-d", "--no-show-raw-insn", file).count("endbr64") > 100


def main():
    if shutil.which("hardening-check") is None:
        print("skipped: hardening-check is not installed (devscripts)")
        return 77
    builds = [build for build in (pathlib.Path(sys.argv[1], "build", name) for name in ("package", "release"))
              if all((build / file).exists() for file in SHIPPED)]
    if not builds:
        print("skipped: neither the preset package nor release is built")
        return 77
    build = max(builds, key=lambda each: (each / SHIPPED[0]).stat().st_mtime)
    bad = []
    for file in SHIPPED:
        found = dict(re.findall(r"^ (.+?): (.*)$", run("hardening-check", build / file), re.M))
        bad += [f"{file}: {name}: {found.get(name)}" for name, good in WANTED.items() if found.get(name) not in good]
        if "x86-64" in run("readelf", "-h", build / file).lower() and not is_protected(build / file, found.get(MARKED)):
            bad.append(f"{file}: {MARKED}: {found.get(MARKED)}")
    # A file shows it only where a function has many pages on its stack.
    if "-fstack-clash-protection" not in (build / "build.ninja").read_text():
        bad.append("not compiled with stack clash protection")
    print("\n".join(bad) or f"{len(SHIPPED)} files of {build} are hardened")
    return 1 if bad else 0


sys.exit(main())

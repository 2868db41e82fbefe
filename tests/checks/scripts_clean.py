"""The shell scripts and what is written in Python pass their linters. What is not Debian's alone is for any /bin/sh.

usage: scripts_clean.py ROOT
"""
import pathlib
import sys

import checking

# These may use all that bash has. In the others, whose shell may be the bash of 2006, shellcheck refuses what not every shell has.
DEBIANS = {".ci/run", "scripts/coverage", "scripts/fuzz", "scripts/lint", "scripts/test-packages", "scripts/test-packages-inside"}
NO_SCRIPTS = {"scripts/packages", "scripts/packages-full"}
IN_PYTHON = {"scripts/mutate"}

root = pathlib.Path(sys.argv[1]).resolve()
shell = {".ci/run", *(f"scripts/{f.name}" for f in (root / "scripts").iterdir())} - NO_SCRIPTS - IN_PYTHON
shell |= {f"packaging/debian/python/{f.name}" for f in (root / "packaging/debian/python").iterdir()}
python = [f for folder in ("benchmarks", "docs/site", "python/kiv", "tests/checks", "tests/python") for f in (root / folder).glob("*.py")]
python += sorted(root / script for script in IN_PYTHON)
complaints = [f"not for /bin/sh: {script}" for script in sorted(shell - DEBIANS)
              if not (root / script).read_text().startswith(("#!/bin/sh\n", "# shellcheck shell=sh\n"))]
for linter, files in (("shellcheck", shell), ("pyflakes3", python)):
    checking.need(linter)
    result = checking.run(linter, *sorted(map(str, files)), cwd=root)
    complaints += [result.stdout + result.stderr] if result.returncode != 0 else []
checking.end(complaints, f"{len(shell)} and {len(python)} files are clean")

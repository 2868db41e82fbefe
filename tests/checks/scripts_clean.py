"""The shell scripts and what is written in Python pass their linters.

usage: scripts_clean.py ROOT
"""
import pathlib
import shutil
import subprocess
import sys


def main():
    root = pathlib.Path(sys.argv[1])
    shell = [root / ".ci/run", *(root / "packaging/debian/python").iterdir(),
             *(f for f in (root / "scripts").iterdir() if f.read_bytes().startswith(b"#!/usr/bin/env bash"))]
    python = [f for folder in ("docs/site", "python/kiv", "tests/checks", "tests/python") for f in (root / folder).glob("*.py")]
    failed = False
    for linter, files in (("shellcheck", shell), ("pyflakes3", python)):
        if shutil.which(linter) is None:
            print(f"skipped: {linter} is not installed")
            return 77
        result = subprocess.run([linter, *sorted(map(str, files))], capture_output=True, text=True)
        failed = failed or result.returncode != 0
        print(result.stdout + result.stderr or f"{len(files)} files pass {linter}")
    return 1 if failed else 0


sys.exit(main())

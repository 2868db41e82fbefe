"""Every source is as the formatter leaves it.

usage: formatted.py ROOT
"""
import concurrent.futures
import pathlib
import shutil
import subprocess
import sys

FORMATTER = "clang-format-14"  # Others disagree in details.


def main():
    root = pathlib.Path(sys.argv[1])
    if shutil.which(FORMATTER) is None:
        print(f"skipped: {FORMATTER} is not installed")
        return 77
    tops = ["sdk", "macOS", "linux", "simulator", "tools", "examples", "python", "tests", "benchmarks", "fuzz"]
    sources = sorted(str(f) for top in tops for f in (root / top).rglob("*") if f.suffix in (".h", ".cpp", ".c"))

    def deviations(some):
        return subprocess.run([FORMATTER, "--dry-run", "-Werror", *some], capture_output=True, text=True).stderr

    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        complaints = "".join(pool.map(deviations, (sources[i::8] for i in range(8))))
    print(complaints or f"{len(sources)} sources are formatted")
    return 1 if complaints or not sources else 0


sys.exit(main())

"""Every source is as the formatter leaves it.

usage: formatted.py ROOT
"""
import concurrent.futures
import pathlib
import sys

import checking

FORMATTER = "clang-format-14"  # Others disagree in details.

checking.need(FORMATTER)
root = pathlib.Path(sys.argv[1])
tops = ["sdk", "macOS", "platform", "simulator", "tools", "examples", "python", "tests", "benchmarks", "fuzz"]
sources = [f for top in tops for f in (root / top).rglob("*") if f.suffix in (".h", ".cpp", ".c")]
assert sources
with concurrent.futures.ThreadPoolExecutor(2) as pool:
    looks = pool.map(lambda i: checking.run(FORMATTER, "--dry-run", "-Werror", *sources[i::8]), range(8))
complaints = [look.stderr for look in looks if look.stderr]
checking.end(complaints, f"{len(sources)} sources are formatted")

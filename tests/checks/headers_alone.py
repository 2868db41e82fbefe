"""Every header compiles by itself.

usage: headers_alone.py ROOT COMPILER INCLUDE_PATH (separated by ':')
"""
import concurrent.futures
import pathlib
import subprocess
import sys


def main():
    root, compiler, path = pathlib.Path(sys.argv[1]), sys.argv[2], sys.argv[3]
    tops = ["sdk", "macOS", "linux", "simulator", "tools", "tests"]
    headers = sorted(h for top in tops for h in (root / top).rglob("*.h"))
    flags = [f"-I{folder}" for folder in path.split(":") if folder]

    def alone(header):
        command = [compiler, "-std=c++20", "-fsyntax-only", "-x", "c++", *flags, f"-I{header.parent}", "-include",
                   str(header), "/dev/null"]
        return header, subprocess.run(command, capture_output=True, text=True)

    failed = 0
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        for header, result in pool.map(alone, headers):
            if result.returncode != 0:
                failed += 1
                print(f"{header.relative_to(root)} does not compile alone:\n{result.stderr}")
    print(f"{len(headers) - failed} of {len(headers)} headers compile alone")
    return 1 if failed or not headers else 0


sys.exit(main())

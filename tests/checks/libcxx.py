"""The library's sources compile with libc++, the standard library of macOS, and hold the locks that they say.

usage: libcxx.py ROOT INCLUDE_PATH (separated by ':')
"""
import concurrent.futures
import pathlib
import shutil
import subprocess
import sys

COMPILER = "clang++-14"


def main():
    root, path = pathlib.Path(sys.argv[1]), sys.argv[2]
    if shutil.which(COMPILER) is None:
        print(f"skipped: {COMPILER} is not installed")
        return 77
    sources = sorted(s for top in ("sdk", "macOS") for s in (root / top).rglob("*.cpp"))
    platform = root / "linux/platform/include"
    flags = [f"-I{folder}" for folder in path.split(":") if folder and folder != str(platform)]

    def compile_one(source):
        command = [COMPILER, "-std=c++20", "-stdlib=libc++", "-fsyntax-only", "-Wall", "-Wextra", "-Werror",
                   "-Wthread-safety", "-D_LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS",
                   "-DSPDLOG_FMT_EXTERNAL", "-DSPDLOG_COMPILED_LIB", *flags, "-isystem", str(platform), str(source)]
        return source, subprocess.run(command, capture_output=True, text=True)

    failed = 0
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        for source, result in pool.map(compile_one, sources):
            if result.returncode != 0:
                failed += 1
                print(f"{source.relative_to(root)}:\n{result.stderr}")
    print(f"{len(sources) - failed} of {len(sources)} sources compile with libc++")
    return 1 if failed or not sources else 0


sys.exit(main())

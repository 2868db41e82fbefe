"""The library's sources compile with libc++, the standard library of macOS, and hold the locks that they say.

usage: libcxx.py ROOT BUILD INCLUDE_PATH (separated by ':')
"""
import pathlib
import shutil
import sys

import compiling

COMPILER = "clang++-14"


def main():
    root, build, path = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]), sys.argv[3]
    if shutil.which(COMPILER) is None:
        print(f"skipped: {COMPILER} is not installed")
        return 77
    platform = root / "linux/platform/include"
    flags = [f"-I{folder}" for folder in path.split(":") if folder and folder != str(platform)]
    commands = {
        str(source.relative_to(root)): [
            COMPILER, "-std=c++20", "-stdlib=libc++", "-fsyntax-only", "-Wall", "-Wextra", "-Werror", "-Wthread-safety",
            "-D_LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS", "-DSPDLOG_FMT_EXTERNAL", "-DSPDLOG_COMPILED_LIB", *flags,
            "-isystem", str(platform), str(source)]
        for top in ("sdk", "macOS") for source in (root / top).rglob("*.cpp")}
    return compiling.report(commands, build / "libcxx.json", "sources compile with libc++")


sys.exit(main())

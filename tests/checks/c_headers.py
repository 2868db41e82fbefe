"""The C headers are strict C11, and C++ from C++11 on, for both compilers.

usage: c_headers.py INCLUDE_DIRECTORY CC CXX
"""
import shutil
import subprocess
import sys

# Each with a use that has to compile.
HEADERS = {"kiv_api.h": "", "kivLog.h": "", "kiv_types.h": "",
           "kivDext.h": 'int32_t use(void) { return kivDext_open_hps(1, "any", 2.0) + kivDext_free(); }'}
STRICT = ["-fsyntax-only", "-pedantic-errors", "-Wall", "-Wextra", "-Wstrict-prototypes", "-Werror"]


def main():
    include, cc, cxx = sys.argv[1:]
    compilers = [(cc, cxx)] + ([("clang-14", "clang++-14")] if shutil.which("clang++-14") else [])
    failed = False
    for c_compiler, cxx_compiler in compilers:
        for header, use in HEADERS.items():
            source = f"#include <kiv/{header}>\nint32_t use(void);\n{use}\n"
            for command in ([c_compiler, "-x", "c", "-std=c11", *STRICT],
                            *([cxx_compiler, "-x", "c++", f"-std={std}", *STRICT[:1], *STRICT[1:4], STRICT[5]]
                              for std in ("c++11", "c++20"))):
                result = subprocess.run([*command, f"-I{include}", "-"], input=source, capture_output=True, text=True)
                if result.returncode != 0:
                    failed = True
                    print(f"{header} with {' '.join(command)}:\n{result.stderr}")
    return 1 if failed else 0


sys.exit(main())

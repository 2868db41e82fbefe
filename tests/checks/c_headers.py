"""The C headers are strict C11, and C++ from C++11 on, for both compilers; an older C is told so in one line.

usage: c_headers.py INCLUDE_DIRECTORY CC CXX
"""
import re
import shutil
import sys

import checking

# Each with a use that has to compile.
HEADERS = {"kiv_api.h": "", "kivLog.h": "",
           "kiv_types.h": "int32_t use(void) { return *kiv_result_name(1) + *kiv_result_text(1); }",
           "kiv_version.h": "#if KIV_VERSION < 101\n#error\n#endif",
           "kivDriverService.h": 'const char* service = KIV_DRIVER_SERVICE_NAME "";',
           "kivDext.h": 'int32_t use(void) { return kivDext_open_hps(1, "any", 2.0) + kivDext_free(); }'}
STRICT = ["-fsyntax-only", "-pedantic-errors", "-Wall", "-Wextra", "-Wstrict-prototypes", "-Werror"]


def strict(include, cc, cxx):
    for header, use in HEADERS.items():
        source = f"#include <kiv/{header}>\n#include <stdint.h>\nint32_t use(void);\n{use}\n"
        for command in ([cc, "-x", "c", "-std=c11", *STRICT],
                        *([cxx, "-x", "c++", f"-std={std}", *STRICT[:4], STRICT[5]] for std in ("c++11", "c++20"))):
            result = checking.run(*command, f"-I{include}", "-", input=source)
            if result.returncode != 0:
                yield f"{header} with {' '.join(command)}:\n{result.stderr}"


def too_old(include, cc):
    source = "#include <kiv/kiv_api.h>\nkiv_scan_t found;\n"
    for std in ("c99", "gnu89", "c89"):
        result = checking.run(cc, "-x", "c", f"-std={std}", "-fsyntax-only", f"-I{include}", "-", input=source)
        errors = re.findall(r"\berror: (.*)", result.stderr)
        if len(errors) != 1 or "C11" not in errors[0]:
            yield f"kiv_api.h with {cc} -std={std} should give one error that names C11:\n{result.stderr}"


include, cc, cxx = sys.argv[1:]
compilers = [(cc, cxx)] + ([("clang-14", "clang++-14")] if shutil.which("clang++-14") else [])
complaints = [complaint for cc, cxx in compilers for complaint in (*strict(include, cc, cxx), *too_old(include, cc))]
checking.end(complaints, "the C headers are strict")

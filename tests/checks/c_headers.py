"""The C headers are strict C11, and C++ from C++11 on, for both compilers; an older C is told so in one line. Every
result code has its name and its text.

usage: c_headers.py INCLUDE_DIRECTORY CC CXX
"""
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

# Each with a use that has to compile.
HEADERS = {"kiv_api.h": "", "kivLog.h": "", "kiv_types.h": "",
           "kiv_version.h": "#if KIV_VERSION < 101\n#error\n#endif",
           "kivDriverService.h": 'const char* service = KIV_DRIVER_SERVICE_NAME "";',
           "kivDext.h": 'int32_t use(void) { return kivDext_open_hps(1, "any", 2.0) + kivDext_free(); }'}
STRICT = ["-fsyntax-only", "-pedantic-errors", "-Wall", "-Wextra", "-Wstrict-prototypes", "-Werror"]

NAMES = r"""
#include <kiv/kiv_api.h>
#include <stdio.h>
int main(void) {
    printf("%%s|%%s\n", kiv_result_name(0xE00002C2u), kiv_result_text(0xE00002C2u));
%s
    return 0;
}
"""


def run(command, source):
    return subprocess.run(command, input=source, capture_output=True, text=True)


def strict(include, cc, cxx):
    for header, use in HEADERS.items():
        source = f"#include <kiv/{header}>\n#include <stdint.h>\nint32_t use(void);\n{use}\n"
        for command in ([cc, "-x", "c", "-std=c11", *STRICT],
                        *([cxx, "-x", "c++", f"-std={std}", *STRICT[:4], STRICT[5]] for std in ("c++11", "c++20"))):
            result = run([*command, f"-I{include}", "-"], source)
            if result.returncode != 0:
                yield f"{header} with {' '.join(command)}:\n{result.stderr}"


def too_old(include, cc):
    source = "#include <kiv/kiv_api.h>\nkiv_scan_t found;\n"
    for std in ("c99", "gnu89", "c89"):
        result = run([cc, "-x", "c", f"-std={std}", "-fsyntax-only", f"-I{include}", "-"], source)
        errors = re.findall(r"\berror: (.*)", result.stderr)
        if len(errors) != 1 or "C11" not in errors[0]:
            yield f"kiv_api.h with {cc} -std={std} should give one error that names C11:\n{result.stderr}"


def result_codes(include, cc, cxx):
    """Every macro of the header that is a result code gives its own name, and a text of its own."""
    macros = run([cc, "-x", "c", "-dM", "-E", f"-I{include}", "-"], "#include <kiv/kiv_types.h>\n").stdout
    codes = sorted(re.findall(r"^#define (KIV_OK|KIV_ERR_\w+) ", macros, re.M))
    shown = "".join(f'    printf("%s|%s\\n", kiv_result_name({code}), kiv_result_text({code}));\n' for code in codes)
    for command in ([cc, "-x", "c", "-std=c11"], [cxx, "-x", "c++", "-std=c++11"]):
        with tempfile.TemporaryDirectory() as folder:
            program = str(pathlib.Path(folder, "names"))
            built = run([*command, "-Wall", "-Wextra", "-Werror", f"-I{include}", "-o", program, "-"], NAMES % shown)
            if built.returncode != 0:
                yield f"{' '.join(command)}:\n{built.stderr}"
                continue
            rows = [line.split("|") for line in run([program], "").stdout.splitlines()]
        if [name for name, _ in rows] != ["unknown", *codes]:
            yield f"the codes {codes} have the names {rows}"
        if len(codes) < 9 or len({text for _, text in rows if text}) != len(rows):
            yield f"a code lacks a text of its own: {rows}"


def main():
    include, cc, cxx = sys.argv[1:]
    compilers = [(cc, cxx)] + ([("clang-14", "clang++-14")] if shutil.which("clang++-14") else [])
    complaints = []
    for c_compiler, cxx_compiler in compilers:
        complaints += [*strict(include, c_compiler, cxx_compiler), *too_old(include, c_compiler),
                       *result_codes(include, c_compiler, cxx_compiler)]
    print("\n".join(complaints) or "the C headers are strict")
    return 1 if complaints else 0


sys.exit(main())

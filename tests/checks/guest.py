"""Another project may take this one as a part, by add_subdirectory or FetchContent: it gets the library alone, chooses
where and how things are built, keeps its own settings, and installs nothing of ours.

The guest compiles for real one source of each library, and takes the other objects from this build.

usage: guest.py ROOT BUILD_DIRECTORY CC CXX
       guest.py take BUILD_DIRECTORY COMPILE_COMMAND...
"""
import json
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile

import checking

COMPILED = ("platformMacOS.cpp", "iokit.cpp")

PROJECT = r"""cmake_minimum_required(VERSION 3.25)
project(guest VERSION 9.9 LANGUAGES C CXX)
set(CMAKE_CXX_STANDARD 17)
set(CMAKE_POSITION_INDEPENDENT_CODE OFF)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/own)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/own)
enable_testing()

function(settings result)
  get_cmake_property(names VARIABLES)
  list(FILTER names INCLUDE REGEX "^CMAKE_")
  # What GNUInstallDirs and the search for threads leave in the cache is not a setting.
  list(FILTER names EXCLUDE REGEX "^CMAKE_(INSTALL_.*DIR|HAVE_.*|CURRENT_.*)$")
  set(lines)
  foreach(name IN LISTS names)
    list(APPEND lines "${name}=${${name}}")
  endforeach()
  set(${result} "${lines}" PARENT_SCOPE)
endfunction()

if(FETCHCONTENT_SOURCE_DIR_KIV)
  include(FetchContent)
  FetchContent_Declare(kiv URL file:///nowhere)
  FetchContent_MakeAvailable(kiv)
else()
  settings(before)
  add_subdirectory(${KIV} kiv)
  settings(after)
  if(NOT after STREQUAL before)
    list(REMOVE_ITEM after ${before})
    message(FATAL_ERROR "changed settings: ${after}")
  endif()
endif()

add_executable(guest guest.c guest.cpp)
target_link_libraries(guest PRIVATE kiv::kiv kiv::cpp)
install(FILES guest.c DESTINATION share)
"""

C_PROGRAM = "#include <kiv/kiv_api.h>\n#include <stdio.h>\nint main(void) { return puts(kiv_result_name(KIV_ERR_NOT_OPENED)) < 0; }\n"
CXX_PART = "#include <kiv/HpsHttpHelper.h>\nstatic_assert(__cplusplus == 201703L, \"the guest's standard\");\n"
BINARIES = {"own/guest", "own/libkiv.so", "own/libkivplatform.so", "kiv/platform/libkivconversation.a",
            "kiv/platform/libkivos.a"}


def take(build, command):
    """Stands before the compiler."""
    source = command[-1]
    made = [build / entry["command"].partition(" -o ")[2].split()[0]
            for entry in json.loads((build / "compile_commands.json").read_text()) if entry["file"] == source]
    if source.endswith(COMPILED) or not made or not made[0].exists():
        os.execvp(command[0], command)
    shutil.copy(made[0], command[command.index("-o") + 1])


def guest_complaints(home, root, build, cc, cxx):
    configure = ["cmake", "-G", "Ninja", "-S", home, f"-DCMAKE_C_COMPILER={cc}", f"-DCMAKE_CXX_COMPILER={cxx}"]
    launcher = f"{sys.executable};-B;{__file__};take;{build}"
    steps = [[*configure, "-B", home / "fetched", f"-DFETCHCONTENT_SOURCE_DIR_KIV={root}"],
             [*configure, "-B", home / "b", f"-DKIV={root}", f"-DCMAKE_CXX_COMPILER_LAUNCHER={launcher}"],
             ["cmake", "--install", home / "b", "--prefix", home / "installed"],
             ["cmake", "--build", home / "b"], [home / "b/own/guest"]]
    for step in steps:
        ended = checking.run(*step, stderr=subprocess.STDOUT)
        if ended.returncode != 0:
            yield f"{' '.join(map(str, step))}\nends with {ended.returncode}:\n{ended.stdout}"
            return
    if ended.stdout != "KIV_ERR_NOT_OPENED\n":
        yield f"the guest's program says {ended.stdout}"
    installed = [str(f.relative_to(home / "installed")) for f in (home / "installed").rglob("*") if f.is_file()]
    if installed != ["share/guest.c"]:
        yield f"installed: {installed}"
    built = {str(f.relative_to(home / "b")) for f in (home / "b").rglob("*") if "CMakeFiles" not in f.parts
             and f.is_file() and not f.is_symlink() and f.read_bytes().startswith((b"\x7fELF", b"!<arch>"))}
    if {name.partition(".so.")[0] + ".so" * (".so." in name) for name in built} != BINARIES:
        yield f"built: {sorted(built)}"
    if "-Werror" in (home / "b/build.ninja").read_text():
        yield "warnings are errors"
    tests = checking.run("ctest", "--test-dir", home / "b", "-N").stdout
    if "Total Tests: 0" not in tests:
        yield f"tests: {tests}"


if sys.argv[1] == "take":
    take(pathlib.Path(sys.argv[2]), sys.argv[3:])
    sys.exit()
with tempfile.TemporaryDirectory() as folder:
    home = pathlib.Path(folder)
    for name, content in (("CMakeLists.txt", PROJECT), ("guest.c", C_PROGRAM), ("guest.cpp", CXX_PART)):
        (home / name).write_text(content)
    complaints = list(guest_complaints(home, *sys.argv[1:]))
checking.end(complaints, "a guest project gets the library and keeps its settings")

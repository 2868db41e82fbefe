"""Programs in C find the installed package without a JSON library; its C++ classes only with the very version that built
it. A request for another minor version is refused, and one for a later revision. Every file for users is installed.

usage: package.py ROOT BUILD_DIRECTORY VERSION
"""
import os
import pathlib
import subprocess
import sys
import tempfile

import checking

PROJECT = """cmake_minimum_required(VERSION 3.25)
project(user NONE)
if(OTHER)
  set(nlohmann_json_DIR ${OTHER})
  set(CMAKE_FIND_USE_CMAKE_SYSTEM_PATH OFF)
  set(CMAKE_FIND_USE_SYSTEM_ENVIRONMENT_PATH OFF)
endif()
find_package(kiv ${VERSION} REQUIRED COMPONENTS ${PARTS})
if(NOT TARGET kiv::kiv OR (PARTS AND NOT TARGET kiv::cpp))
  message(FATAL_ERROR "a target is missing")
endif()
"""
FOR_USERS = ("man/*", "packaging/*.service", "simulator/completions/*", "simulator/scenarios/*", "tools/kivctl/monitoring/*",
             "tools/kivctl/schema/*")
OTHER_VERSION = "set(PACKAGE_VERSION 3.0.0)\nset(PACKAGE_VERSION_COMPATIBLE TRUE)\n"
OTHER_PC = "Name: nlohmann_json\nDescription: another one\nVersion: 3.0.0\n"


complaints = []
with tempfile.TemporaryDirectory() as folder:
    home = pathlib.Path(folder)
    checking.run("cmake", "--install", sys.argv[2], "--prefix", home / "kiv", check=True, stderr=None)
    there = {path.name for path in (home / "kiv").rglob("*")}
    sources = [path for pattern in FOR_USERS for path in pathlib.Path(sys.argv[1]).glob(pattern)]
    complaints += [f"{path} is not installed" for path in sources if path.name not in there]
    (home / "other").mkdir()
    (home / "other/nlohmann_jsonConfig.cmake").write_text("")
    (home / "other/nlohmann_jsonConfigVersion.cmake").write_text(OTHER_VERSION)
    (home / "other/nlohmann_json.pc").write_text(OTHER_PC)
    (home / "CMakeLists.txt").write_text(PROJECT)
    pc = {"PKG_CONFIG_PATH": f"{home}/kiv/lib/pkgconfig"}
    other_pc = {"PKG_CONFIG_PATH": f"{home}/other:{home}/kiv/lib/pkgconfig", "PKG_CONFIG_LIBDIR": f"{home}/none"}

    def configure(parts, other="", version=""):
        return ["cmake", "--fresh", "-G", "Ninja", "-S", folder, "-B", f"{folder}/build", f"-DCMAKE_PREFIX_PATH={home}/kiv",
                f"-DPARTS={parts}", f"-DOTHER={other}", f"-DVERSION={version}"]

    major, minor, revision = map(int, sys.argv[3].split("."))
    minors = [f"{major}.{minor + 1}"] + ([f"{major}.{minor - 1}"] if minor else [])
    refused = [f"{major}.{minor}.{revision + 1}", f"{major + 1}", *(minors if major == 0 else minors[:1])]
    no_version, no_json = "considered but not accepted", "nlohmann_json"
    for command, environment, refusal in (
            (configure("", home / "other"), {}, None), (configure("cpp", home / "other"), {}, no_json),
            (configure("cpp"), {}, None),
            *((configure("", version=version), {}, None) for version in (f"{major}.{minor}", sys.argv[3])),
            *((configure("", version=version), {}, no_version) for version in refused),
            (["pkg-config", "--print-errors", "--exists", f"kiv = {sys.argv[3]}"], other_pc, None),
            (["pkg-config", "--print-errors", "--exists", "kiv-cpp"], other_pc, no_json),
            (["pkg-config", "--print-errors", "--exists", "kiv-cpp"], pc, None)):
        ended = checking.run(*command, env={**os.environ, **environment}, stderr=subprocess.STDOUT)
        if (ended.returncode == 0) != (refusal is None) or (refusal or "") not in ended.stdout:
            complaints.append(f"{' '.join(command)}\nends with {ended.returncode} and\n{ended.stdout}")
checking.end(complaints, "the package asks for its JSON library and keeps its version's promise")

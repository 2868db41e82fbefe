"""Who may include whom: arrows between the rooms of the tree never point up.

usage: include_rules.py ROOT
"""
import pathlib
import re
import sys

# A room: the files that are in it (first match wins).
ROOMS = [
    ("base", r"sdk/library/src/(kiv_export|kiv_json|kiv_types|kiv_version|vendor|guarded|jsonFields|jsonText|regularFile|"
             r"libraryThread)\.(h|cpp)"),
    ("thread", r"sdk/library/src/device/thread/"),
    ("device interfaces", r"sdk/library/src/device/(IDevice\w+|DeviceInfo)\.h"),
    ("device", r"sdk/library/src/device/"),
    ("config", r"sdk/library/src/config/"),
    ("log", r"sdk/library/src/log/"),
    ("api", r"sdk/library/src/"),
    ("thread manager", r"macOS/library/kivHpsClientKit/ThreadManager\."),
    ("rest interface", r"macOS/library/kivHpsClientKit/IRestApiClient\.h"),
    ("rest", r"macOS/library/kivHpsClientKit/"),
    ("adapters", r"macOS/library/driver/Device\w+MacOS\."),
    ("wire", r"macOS/library/driver/(wire|kivDriverService)\.h"),
    ("driver client", r"macOS/library/driver/"),
    ("driver process", r"linux/platform/include/kivplatform/"),
    ("platform", r"linux/platform/"),
    ("simulator", r"simulator/"),
    ("kivctl", r"tools/kivctl/"),
    ("examples", r"examples/"),
]

# What a room may include beside itself. Libraries stand in the same lists.
ALLOWED = {
    "base": ["nlohmann"],
    "thread": ["base"],
    "config": ["base", "nlohmann"],
    "log": ["base", "spdlog", "fmt", "os"],
    "thread manager": ["base"],
    "rest interface": ["base", "rest"],
    "rest": ["base", "log", "thread manager", "rest interface", "nlohmann", "curl"],
    "device interfaces": ["base", "rest interface"],
    "device": ["base", "device interfaces", "thread", "log", "rest interface", "nlohmann", "fmt", "CommonCrypto"],
    "wire": [],
    "driver client": ["base", "wire", "thread manager", "IOKit", "CoreFoundation", "mach", "pthread", "os"],
    "adapters": ["base", "wire", "driver client", "device interfaces", "rest interface", "rest"],
    "api": ["base", "device", "device interfaces", "thread", "config", "log", "adapters", "driver client"],
    "driver process": [],
    "platform": ["driver process", "IOKit", "CommonCrypto", "CoreFoundation", "mach", "pthread", "os"],
    "simulator": ["wire", "driver process", "IOKit/IOReturn.h", "nlohmann", "httplib.h", "CLI"],
    "kivctl": ["kiv/kiv_api.h", "kiv/kivLog.h", "nlohmann", "fmt", "CLI"],
    "examples": ["kiv/kiv_api.h", "kiv/kivLog.h"],
}

# One file each: the seams.
EXCEPTIONS = {
    "tools/kivctl/no_card_linux.cpp": ["driver process"],
    "tools/kivctl/driver.cpp": ["kiv/kivDriverClient.h"],
    "examples/talk_to_card.cpp": ["kiv/hpsClient.h"],
    "examples/use_driver.cpp": ["kiv/kivDriverClient.h"],
}
ONLY_IN = {"curl": {"macOS/library/kivHpsClientKit/kivClient.cpp"}}

LIBRARIES = {"nlohmann", "spdlog", "fmt", "curl", "CLI", "httplib.h", "os", "IOKit", "CoreFoundation", "mach",
             "pthread", "CommonCrypto"}


def room_of(path):
    return next((room for room, pattern in ROOMS if re.match(pattern, path)), None)


def main():
    root = pathlib.Path(sys.argv[1])
    tops = ["sdk", "macOS", "linux", "simulator", "tools", "examples"]
    files = sorted(str(f.relative_to(root)) for top in tops for f in (root / top).rglob("*") if f.suffix in
                   (".h", ".cpp", ".c"))
    by_name = {}
    for file in files:
        by_name.setdefault(pathlib.Path(file).name, []).append(file)
    complaints = []

    def target_of(file, written):
        """Room or library of an include, or None for the standard library and the system."""
        for candidate in by_name.get(pathlib.Path(written).name, []):
            if candidate.endswith("/" + written) and not candidate.startswith("linux/platform/include/"):
                return room_of(candidate)
        if written.startswith("kivplatform/"):
            return "driver process"
        if written.startswith("kiv/") or written == "IOKit/IOReturn.h":
            return written
        first = written.split("/")[0]
        return first if first in LIBRARIES else None

    for file in files:
        room = room_of(file)
        if room is None:
            complaints.append(f"{file}: is in no room")
            continue
        text = (root / file).read_text()
        if file.startswith(("sdk/", "macOS/")) and "__APPLE__" in text:
            complaints.append(f"{file}: the build picks the platform, not the code")
        allowed = ALLOWED[room] + EXCEPTIONS.get(file, [])
        for number, line in enumerate(text.splitlines(), 1):
            include = re.match(r'\s*#\s*include\s*[<"]([^>"]+)[>"]', line)
            if not include:
                continue
            target = target_of(file, include.group(1))
            if target in (None, room):
                continue
            if target not in allowed and target.split("/")[0] not in allowed:
                complaints.append(f"{file}:{number}: {room} may not include {include.group(1)} ({target})")
            elif include.group(1) == "nlohmann/json.hpp" and file.startswith(("sdk/", "macOS/")) and \
                    not file.endswith("/kiv_json.h"):
                complaints.append(f"{file}:{number}: the JSON library's types are one with the application's "
                                  "through kiv_json.h only")
            elif file not in ONLY_IN.get(target, {file}):
                complaints.append(f"{file}:{number}: {target} is for {', '.join(ONLY_IN[target])} only")
    print("\n".join(complaints) or f"{len(files)} files follow the plan")
    return 1 if complaints or not files else 0


sys.exit(main())

"""Who may include whom: arrows between the rooms of the tree point down, and an include line tells its room.

usage: include_rules.py ROOT              check the tree, and the picture in docs/architecture.md
       include_rules.py ROOT --picture    print the picture
"""
import pathlib
import re
import sys

import checking

# A room: the files that are in it (first match wins), and what it may include beside itself. Libraries stand in the
# same lists. The tests of a room may include whatever the room may, the room itself, and what tests share.
# fmt: off
ROOMS = {
    "base":              (r"sdk/library/src/base/",                                 ["nlohmann"]),
    "config":            (r"sdk/library/src/config/",                               ["base", "nlohmann"]),
    "log":               (r"sdk/library/src/log/",                                  ["base", "spdlog", "fmt", "os"]),
    "thread":            (r"sdk/library/src/device/thread/",                        ["base"]),
    "device interfaces": (r"sdk/library/src/device/(IDevice\w+|DeviceInfo|DeviceFactoryRegistry)\.h", ["base", "rest interface"]),
    "registers":         (r"sdk/library/src/device/(registers|statusRegister)\.h",  []),
    "device":            (r"sdk/library/src/device/",
                          ["base", "device interfaces", "registers", "thread", "log", "rest interface", "nlohmann", "fmt",
                           "CommonCrypto"]),
    "platform seam":     (r"sdk/library/src/platform\.h",                           ["base", "device interfaces"]),
    "api":               (r"sdk/library/src/", ["base", "device", "device interfaces", "thread", "config", "log", "platform seam"]),
    "thread manager":    (r"macOS/library/kivHpsClientKit/ThreadManager\.",         ["base"]),
    "rest interface":    (r"macOS/library/kivHpsClientKit/IRestApiClient\.h",       ["base", "rest"]),
    "rest":              (r"macOS/library/kivHpsClientKit/", ["base", "log", "thread manager", "rest interface", "nlohmann", "curl"]),
    "wire":              (r"macOS/library/driver/(wire|kivDriverService)\.h", []),
    "adapters":          (r"macOS/library/driver/(Device\w+MacOS|DriverClients|platformMacOS|kivDext)\.",
                          ["base", "driver client", "wire", "device interfaces", "platform seam", "rest interface", "rest"]),
    "driver client":     (r"macOS/library/driver/",
                          ["base", "wire", "registers", "thread manager", "IOKit", "CoreFoundation", "mach", "pthread",
                           "os"]),
    "systems":           (r"platform/os/",                                          []),
    "conversation":      (r"platform/conversation/",                                ["systems"]),
    "driver process":    (r"platform/driver_seam/include/kivplatform/",             []),
    "driver seam":       (r"platform/driver_seam/", ["systems", "conversation", "driver process", "IOKit", "CoreFoundation", "mach"]),
    "system names":      (r"platform/system_names/", ["systems", "CommonCrypto", "mach", "pthread", "os"]),
    "simulator common":  (r"simulator/common/",                                     ["systems", "conversation", "nlohmann"]),
    "simulator card":    (r"simulator/card/",                   ["base", "systems", "simulator common", "wire", "registers", "IOKit/IOReturn.h", "nlohmann"]),
    "simulator driver":  (r"simulator/driver/",
                          ["systems", "conversation", "simulator common", "simulator card", "wire", "IOKit/IOReturn.h", "nlohmann"]),
    "simulator server":  (r"simulator/server/",  ["base", "systems", "conversation", "simulator common", "simulator card", "nlohmann", "httplib.h"]),
    "settings":          (r"simulator/settings/",
                          ["base", "simulator common", "simulator card", "simulator driver", "simulator server", "wire",
                           "nlohmann"]),
    "scenario":          (r"simulator/scenario/", ["simulator common", "simulator card", "settings", "nlohmann"]),
    "simulator":         (r"simulator/",
                          ["simulator common", "simulator card", "simulator driver", "simulator server",
                           "settings", "scenario", "conversation", "driver process", "nlohmann", "CLI"]),
    "kivctl":            (r"tools/kivctl/",                    ["kiv/kiv_api.h", "kiv/kiv_types.h", "kiv/kivLog.h", "nlohmann", "fmt", "CLI"]),
    "examples":          (r"examples/",                        ["kiv/kiv_api.h", "kiv/kivLog.h"]),
    "python":            (r"python/",                          ["kiv/kiv_api.h", "pybind11"]),
    "test support":      (r"tests/support/",                   ["base", "log", "systems", "conversation", "mach", "simulator", "simulator card", "settings", "scenario", "wire", "nlohmann", "httplib.h"]),
    "benchmarks":        (r"benchmarks/",                      ["*"]),
    "fuzz":              (r"fuzz/",                            ["*"]),
    "tests":             (r"tests/",                           ["*"]),
}
# fmt: on

# The one arrow that runs back up: the interface inherits the client, as applications know it.
INHERITED = ("rest interface", "rest")

# The seams: what single files of kivctl, and examples, may include too.
EXCEPTIONS = {
    "systems": ["child.cpp", "driver_process_simulated.cpp", "host_simulated.cpp", "image_file.cpp"],
    "driver process": ["driver_process_simulated.cpp"],
    "registers": ["doctor_card.cpp", "functions.h", "samples.cpp", "watch_events.cpp"],
    "httplib.h": ["http_server.cpp"],
    "archive.h": ["support_archive.cpp"],
    "archive_entry.h": ["support_archive.cpp"],
    "kiv/CardConfig.h": ["configuration.cpp", "configuration_check.cpp"],
    "kiv/HpsHttpHelper.h": ["server.cpp"],
    "kiv/SystemMonitorData.h": ["records.cpp"],
    "kiv/hpsClient.h": ["examples/talk_to_card.cpp"],
    "kiv/kivClient.h": ["server.cpp"],
    "kiv/kivDriverClient.h": ["cards.h", "collector.h", "doctor.h", "functions.h", "samples.h", "examples/use_driver.cpp"],
    "kiv/kivDriverService.h": ["driver_process_extension.cpp"],
}
ONLY_IN = {"curl": {"macOS/library/kivHpsClientKit/kivClient.cpp"}}
# In the library the JSON library's header comes by this one, which makes its types those of the application.
JSON_HEADER = "sdk/library/src/base/kiv_json.h"

# What only one system has stands in these rooms and files.
ONE_SYSTEM = re.compile(
    r"\b(epoll\w*|eventfd\w*|signalfd\w*|timerfd\w*|inotify\w*|SOCK_(SEQPACKET|CLOEXEC|NONBLOCK)|accept4|pipe2|dup3|memfd_create|"
    r"F_(ADD|GET)_SEALS|MSG_(CMSG_CLOEXEC|NOSIGNAL|TRUNC)|POLLRDHUP|SO_(PEERCRED|NOSIGPIPE)|SEEK_DATA|prctl|gettid|ppoll|"
    r"program_invocation\w*|secure_getenv|getrandom|sendmmsg|recvmmsg|__linux__|__APPLE__)\b|/proc/")
OWN_SYSTEM = {"systems", "system names", "tests/support/ThisProcess.cpp", "tests/kivHpsClientKit/kivClient_test.cpp",
              "tests/torture/seams.cpp", "tests/torture/torture_test.cpp", "benchmarks/http_client.cpp",
              "benchmarks/support/machine.cpp"}

LIBRARIES = {"archive.h", "archive_entry.h", "nlohmann", "spdlog", "fmt", "curl", "CLI", "httplib.h", "os", "IOKit", "CoreFoundation", "mach",
             "pthread", "CommonCrypto", "pybind11"}
# Where private include lines start: an area's own files first.
AREAS = ["sdk/library/src", "macOS/library", "platform/driver_seam/src", "simulator", "tools/kivctl", "python", "tests", "benchmarks", "fuzz"]
CUSTOMERS = ("kivctl", "examples", "python")
TESTING = ("tests", "test support", "benchmarks", "fuzz")


def room_of(path):
    return next((room for room, (pattern, _) in ROOMS.items() if re.match(pattern, path)), None)


def floors():
    """Rooms by their height above the ground; complains of a cycle."""
    heights = {}

    def height(room, below):
        if room in below:
            raise SystemExit(f"the allowed arrows run in a circle: {' -> '.join([*below, room])}")
        if room not in heights:
            arrows = [to for to in ROOMS[room][1] if to in ROOMS and (room, to) != INHERITED]
            heights[room] = 1 + max((height(to, [*below, room]) for to in arrows), default=0)
        return heights[room]

    for room in ROOMS:
        height(room, [])
    heights.update({room: 1 + max(heights.values()) for room in CUSTOMERS})
    return heights


def picture():
    """The rooms, the highest first, each with the arrows to rooms below it."""
    heights = floors()
    lines = []
    for floor in range(max(heights.values()), 0, -1):
        for room in (room for room in ROOMS if heights[room] == floor and room not in TESTING):
            arrows = [to for to in ROOMS[room][1] if to in ROOMS]
            marked = [f"{to} (inherits)" if (room, to) == INHERITED else to for to in arrows]
            public = ["the public headers"] if room in CUSTOMERS else []
            lines.append(f"{floor}  {room:<18}-> {', '.join(public + marked) or 'nothing of ours'}")
    return "\n".join(lines)


class Tree:
    def __init__(self, root):
        self.root = root
        tops = ["sdk", "macOS", "platform", "simulator", "tools", "examples", "python", "tests", "benchmarks", "fuzz"]
        self.files = sorted(str(f.relative_to(root)) for top in tops for f in (root / top).rglob("*")
                            if f.suffix in (".h", ".cpp", ".c"))
        self.known = set(self.files)
        self.product = {pathlib.Path(f).name: f for f in self.files if f.startswith(("sdk/", "macOS/"))}

    def target_of(self, file, written, quoted):
        """Room or library of an include; None for the standard library and the system, "?" for what is nowhere."""
        if written.startswith("kiv/"):
            if room_of(file) in CUSTOMERS:
                return written
            header = self.product.get(written[4:])
            return room_of(header) if header else "?"
        if written.startswith(("kivos/", "kivplatform/")):
            return next((room_of(file) for file in self.files if file.endswith(f"/include/{written}")), "?")
        if quoted:
            own = [area for area in AREAS if file.startswith(area + "/")]
            for area in own + AREAS:
                if f"{area}/{written}" in self.known:
                    return room_of(f"{area}/{written}")
            return "?"
        first = written.split("/")[0]
        return written if written == "IOKit/IOReturn.h" else first if first in LIBRARIES else None

    def complaints_of(self, file):
        room = room_of(file)
        if room is None:
            yield f"{file}: is in no room"
            return
        text = (self.root / file).read_text()
        if file.startswith(("sdk/", "macOS/")) and "__APPLE__" in text:
            yield f"{file}: the build picks the platform, not the code"
        allowed = ROOMS[room][1] + [to for to, files in EXCEPTIONS.items() if file.removeprefix("tools/kivctl/") in files]
        for number, line in enumerate(text.splitlines(), 1):
            if not {room, file} & OWN_SYSTEM and (name := ONE_SYSTEM.search(line)):
                yield f"{file}:{number}: {name.group()} is not for every system: platform/os is the place for it"
            include = re.match(r'\s*#\s*include\s*([<"])([^>"]+)[>"]', line)
            if not include:
                continue
            target = self.target_of(file, include.group(2), include.group(1) == '"')
            if include.group(2) == "nlohmann/json.hpp" and file.startswith(("sdk/", "macOS/")) and file != JSON_HEADER:
                yield f"{file}:{number}: include <kiv/kiv_json.h> instead"
            if target == "?" or '"kiv/' in line:
                yield f"{file}:{number}: {include.group(2)} is neither <kiv/...> nor the path from its area's root"
            elif target in (None, room) or "*" in allowed:
                continue
            elif target not in allowed and target.split("/")[0] not in allowed:
                yield f"{file}:{number}: {room} may not include {include.group(2)} ({target})"
            elif file not in ONLY_IN.get(target, {file}):
                yield f"{file}:{number}: {target} is for {', '.join(ONLY_IN[target])} only"


root = pathlib.Path(sys.argv[1])
if "--picture" in sys.argv:
    checking.end([], picture())
tree = Tree(root)
complaints = [complaint for file in tree.files for complaint in tree.complaints_of(file)]
if picture() not in (root / "docs/architecture.md").read_text():
    complaints.append("docs/architecture.md does not show the picture that --picture prints")
assert tree.files
checking.end(complaints, f"{len(tree.files)} files follow the plan")

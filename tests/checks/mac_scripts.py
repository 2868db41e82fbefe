"""The scripts do on a Mac what they are to do there, with what a Mac has.

Here they find this system's tools through a door that lets in what BSD's tools take, find no others, and find stand-ins for
what a Mac has of its own and for what builds. /bin/sh runs them, and bash.

usage: mac_scripts.py ROOT
"""
import contextlib
import os
import pathlib
import re
import shutil
import sys
import tempfile

import checking

# What the scripts may use: the options of BSD's tool, which come before all else, and how many operands it needs.
TOOLS = {
    "cat": ("belnstuv", 0), "cp": ("HLPRafinpvXc", 2), "dirname": ("", 1), "env": ("iu:", 0), "id": ("FGPgnpru", 0),
    "grep": ("A:B:C:EFGHILOSUVabcde:f:hilm:nopqrsvwxyz", 0), "ls": ("1AFRSaldhrt", 0), "mkdir": ("m:pv", 1), "mktemp": ("dqt:u", 0),
    "paste": ("sd:", 1), "rm": ("dfiPRrvW", 1), "sed": ("Ealne:f:u", 0), "seq": ("f:s:w", 1), "sleep": ("", 1), "tr": ("Ccdsu", 1),
}
DOOR = """
while getopts {letters} option; do
    [ "$option" != "?" ] || note "refused: {name} $*"
done
[ $(($# - OPTIND + 1)) -ge {needed} ] || note "too few operands: {name} $*"
POSIXLY_CORRECT=1 exec {real} "$@"
"""
# What they do beside noting that they are called.
STAND_INS = {
    "brew": """case "$1 $2" in
    "$BREW_FAILS "*) echo brew fails >&2; exit 1 ;;
    "--prefix "*) echo "/opt/homebrew${2:+/opt/$2}" ;;
    "list --formula") cat "$MAC/installed" ;;
    "list --versions") grep -x -e "$3" "$MAC/installed" ;;
    esac""",
    "cmake": 'case $1 in --build) ;; *) note "prefix $CMAKE_PREFIX_PATH" ;; esac',
    "ctest": "",
    "doxygen": 'mkdir "$MAC/manual/html" && sed -n -e "s/^PROJECT_NUMBER=//p" -e "s/^INPUT=.*kiv_api.h.*/with headers/p" >>"$MAC/notes"',
    "uname": "echo Darwin",
    **dict.fromkeys(("ninja", "pkg-config", "python3", "xcode-select", "build/macos/bin/kivctl", "build/macos/lib/libkiv.dylib"), ""),
    "build/mac-release/bin/kivsim": 'note "pid $$"; echo 2 cards; exec sleep 10 2>/dev/null',
    "build/mac-release/bin/kivctl": 'echo "asked to $*"',
}


class Mac:
    """A copy of the scripts, and a PATH with what a Mac has."""

    def __init__(self, root, folder, shell):
        self.folder, self.path = folder, folder / "path"
        for part in ("docs", "sdk"):
            (folder / part).symlink_to(root / part)
        shutil.copytree(root / "scripts", folder / "scripts")
        for script in (folder / "scripts").iterdir():
            script.write_text(re.sub("^#!/bin/sh$", f"#!{shell}", script.read_text(), flags=re.M))
        rows = [line.split() for line in (root / "scripts/packages").read_text().splitlines() if not line.startswith("#")]
        self.packages = [homebrew for _, homebrew in rows if homebrew != "-"]
        for name, (letters, needed) in TOOLS.items():
            real = shutil.which(name) + (" --posix" if name == "sed" and sys.platform == "linux" else "")
            self.add(self.path / name, DOOR.format(letters=letters or "-", name=name, needed=needed, real=real))
        for name, body in STAND_INS.items():
            self.add(folder / name if "/" in name else self.path / name, f'note {pathlib.Path(name).name} "$@"\n{body}\n')
        (self.path / "bash").symlink_to("/bin/bash")

    @staticmethod
    def add(path, body):
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(f'#!/bin/sh\nPATH={os.defpath}\nnote() {{ printf "%s\\n" "$*" >>"$MAC/notes"; }}\n{body}')
        path.chmod(0o755)

    def run(self, command, lacks=(), fails="", brew="brew"):
        """The exit status, what is printed, and what doors and stand-ins have noted."""
        (self.folder / "notes").write_text("")
        (self.folder / "installed").write_text("".join(f"{name}\n" for name in self.packages if name not in lacks))
        (self.path / "brew").rename(self.path / brew)
        end = checking.run(f"{self.folder}/scripts/{command[0]}", *command[1:], timeout=60, env={
            "PATH": str(self.path), "TMPDIR": str(self.folder), "MAC": str(self.folder), "BREW_FAILS": fails})
        (self.path / brew).rename(self.path / "brew")
        return end.returncode, end.stdout + end.stderr, (self.folder / "notes").read_text()


def complaints_of(mac):
    everything = " ".join(mac.packages)
    listed = "uname -s\nbrew list --formula -1\n"
    built = "prefix /opt/homebrew/opt/libarchive:/opt/homebrew/opt/openssl@3\n"
    rows = [  # The command, the Mac, and then: the exit status, what is printed, what is noted.
        ("install-packages", {}, 0, "", listed),
        ("install-packages", {"lacks": ("fmt", "ninja")}, 0, "Installing: fmt ninja\n", ".*\nbrew install fmt ninja\n"),
        ("install-packages", {"lacks": mac.packages}, 0, f"Installing: {everything}\n", f".*\nbrew install {everything}\n"),
        ("install-packages --full", {}, 0, "Installing: doxygen .*", ".*\nbrew install doxygen .*"),
        ("install-packages", {"brew": "elsewhere"}, 1, "Homebrew is missing\\. .*", "uname -s\n"),
        ("install-packages", {"fails": "list"}, 1, "brew fails\n", listed),
        ("test", {"fails": "install", "lacks": ("fmt",)}, 1, ".*brew fails\n", ".*\nbrew install fmt\n"),
        ("test", {}, 0, "skipped: .*clang-tidy.*", f".*\ncmake --preset mac-everyday\n{built}cmake --build --preset mac-everyday\n"
                                                   "ctest --preset mac-everyday\n"),
        ("test asan", {}, 0, "", f".*\ncmake --preset mac-asan\n{built}.*\nctest --preset mac-asan\n"),
        ("test everyday quick", {}, 0, "", ".*\ncmake --preset mac-everyday\n.*\nctest --preset mac-quick\n"),
        ("demo", {}, 0, ".*\n2 cards\n.*asked to scan\n.*asked to info 1\n.*asked to info 2\n", f".*cmake --preset mac-release\n{built}.*"),
        ("benchmark --compare driver_call", {}, 0, "", ".*\npython3 benchmarks/run.py build/benchmarks --compare driver_call\n"),
        (f"manual {mac.folder}/manual", {}, 0, "the manual is .*", "doxygen -\n\\d+\\.\\d+\\.\\d+\nwith headers"),
        ("build-macos", {}, 0, ".*== Done\n.*", ".*\ncmake -B build/macos .*LibArchive_ROOT=/opt/homebrew/opt/libarchive\n.*kivctl --help\n"),
        ("build-macos", {"lacks": ("fmt",)}, 1, "Missing: fmt\n.*", ".*"),
        *((name, {}, 0, "skipped: .*Debian.*", "") for name in ("coverage", "lint", "fuzz", "test-packages", "test-packages-inside")),
    ]
    for command, state, *expected in rows:
        status, printed, notes = mac.run(command.split(), **state)
        as_expected = status == expected[0] and re.fullmatch(expected[1], printed, re.S) and re.fullmatch(expected[2], notes, re.S)
        if not as_expected or re.search("^refused|^too few", notes, re.M) or "not found" in printed:
            yield f"scripts/{command} with {state}: status {status}\n{printed}{notes}"
        for pid in re.findall(r"^pid (\d+)$", notes, re.M):
            with contextlib.suppress(ProcessLookupError):
                os.kill(int(pid), 0)
                yield f"scripts/{command} leaves the simulator"
    if left := sorted(mac.folder.glob("tmp.*")):
        yield f"left behind: {left}"


complaints = []
for shell in ("/bin/sh", "/bin/bash"):
    with tempfile.TemporaryDirectory() as folder:
        mac = Mac(pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(folder).resolve(), shell)
        complaints += [f"{shell}: {complaint}" for complaint in complaints_of(mac)]
checking.end(complaints, "the scripts run with what a Mac has")

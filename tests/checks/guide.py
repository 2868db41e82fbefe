"""What README and guide show is what happens, and their links lead somewhere.

In a page (README.md, docs/*.md) the fenced blocks are, in their order,

    ```console       run line by line ("$ command"); it must print what stands below, but for ports, sockets and times
    ```sh            run as it is; it must end well
    ```c NAME        a file, as are cpp, cmake, json and python. A program in C or C++ that no line of the page builds is
                     built here, as the guide's first page builds one; those in Python are tests/python's to run
    ```text          not looked at

There are no others, and none that stand without a fence. Each page has a folder of its own, in which build/release is this
build. A simulator that a page starts runs until its end. A page that shows commands and starts none has one, whose control
address is 127.0.0.1:9645 in the page; kivctl serve has another port than the page says.

usage: guide.py ROOT BUILD_DIRECTORY [PAGE...]
"""
import concurrent.futures
import contextlib
import json
import os
import pathlib
import re
import shlex
import signal
import subprocess
import sys
import tempfile

import checking

CONFIGURATION = pathlib.Path("/Library/Application Support/Velmora/config/hps_boot.json")
CONTROL = "127.0.0.1:9645"
FIRST = ["README.md", "docs/getting-started.md"]  # These work without a configuration; the second makes one.
CHANGES_THE_MACHINE = re.compile(r"\b(sudo|apt|apt-get|dpkg|brew|systemctl|systemd-run)\b")
FILES = ("c", "cpp", "cmake", "json", "python")
SIMULATOR = "kivsim >simulator 2>&1 & echo $! >simulator.pid; until [ -s simulator ]; do sleep 0.05; done; cat simulator"
BUILD = {"c": "cc -std=c11 -Wall -Wextra -Werror {} $(pkg-config --cflags --libs kiv)",
         "cpp": "c++ -std=c++20 -Wall -Wextra -Werror {} $(pkg-config --cflags --libs kiv-cpp)"}


def blocks(text):
    """(language, file name, content) of each fenced block."""
    return re.findall(r"^```(\w*)(?: *([\w./]+))?\n(.*?)^```", text, re.M | re.S)


def unfenced(text):
    return re.findall(r"^\n(?: {4}.*\n)+", re.sub(r"^```.*?^```", "", text, flags=re.M | re.S), re.M)


def masked(text):
    text = re.sub(r"127\.0\.0\.1:\d+", "127.0.0.1:PORT", text)
    text = re.sub(r"socket \S+", "socket PATH,", text)
    text = re.sub(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d(\.\d+)?", "TIME", text)
    return re.sub(r" +", " ", text)


def ready(command):
    """The command; one in the background until it is of use."""
    if command == "kivsim &":
        return SIMULATOR
    if serve := re.match(r"kivctl serve --listen (\S+) &", command):
        return f"{command}\nuntil curl -s http://{serve[1]}/metrics | grep -q ^kiv_card_up; do sleep 0.05; done"
    return command


def slug(heading):
    return re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-")


def headings(path):
    text = re.sub(r"^```.*?^```", "", path.read_text(), flags=re.M | re.S)
    return {slug(heading) for heading in re.findall(r"^#+ (.*)$", text, re.M)}


def dead_links(root, page):
    text = re.sub(r"^```.*?^```", "", (root / page).read_text(), flags=re.M | re.S)
    for target in re.findall(r"\]\(([^)\s]+)\)", text):
        name, _, anchor = target.partition("#")
        path = ((root / page).parent / name) if name else root / page
        if "://" in target:
            continue
        if not path.exists() or anchor and anchor not in headings(path):
            yield f"{page}: the link {target} leads nowhere"


class Page:
    def __init__(self, root, build, name, home):
        self.name, self.text = name, (root / name).read_text()
        self.folder = pathlib.Path(home, name.replace("/", "-"))
        (self.folder / "build").mkdir(parents=True)
        # A page stands at the root of the tree where it names files of it.
        for entry in ("CMakePresets.json", "examples", "macOS", "sdk", "scripts"):
            (self.folder / entry).symlink_to(root / entry)
        (self.folder / "build/release").symlink_to(build)
        self.environment = {**os.environ, "HOME": home, "KIVSIM_SOCKET": f"{self.folder}/driver.sock",
                            "PATH": f"{build}/bin:{os.environ['PATH']}"}
        if name not in FIRST:
            self.environment |= {"PKG_CONFIG_PATH": f"{home}/kiv/lib/pkgconfig", "LD_LIBRARY_PATH": f"{home}/kiv/lib"}

    def run(self, script):
        return checking.run("bash", "-euo", "pipefail", "-c", script, env=self.environment, cwd=self.folder,
                            stderr=subprocess.STDOUT)

    def console(self, content):
        commands = re.findall(r"^\$ (.*)$", content, re.M)
        script = "set +e\n" + "".join(
            f"printf '%s\\n' {shlex.quote('$ ' + command)}\n{ready(command)}\n"
            for command in commands) + "kill %?serve 2>/dev/null; true\n"
        actual = self.run(script).stdout
        if masked(actual) != masked(content):
            yield f"{self.name} shows\n{content}\nand the commands print\n{actual}"

    def commands(self, script):
        # This build stands for the release build, which the lines before the installation would make.
        script = re.sub(r"^cmake (--preset|--build --preset) .*\n", "", script, flags=re.M)
        ended = self.run(script)
        if ended.returncode != 0:
            yield f"{self.name}: the lines\n{script}\nend with {ended.returncode}:\n{ended.stdout}"

    def file(self, language, name, content, rest):
        path = self.folder / name
        path.parent.mkdir(exist_ok=True)
        path.write_text(content)
        if language in BUILD and not any(path.name in text for _, _, text in rest):
            made = f"-o {path.stem}" if " main(" in content else "-fsyntax-only -Isdk/library/src"
            yield from self.commands(f"{BUILD[language].format(name)} {made}\n")

    @contextlib.contextmanager
    def simulator(self):
        if "```console" not in self.text:
            yield
            return
        if "$ kivsim &" in self.text:
            try:
                yield
            finally:
                os.kill(int((self.folder / "simulator.pid").read_text()), signal.SIGTERM)
            return
        with subprocess.Popen(["kivsim", "--ready-json", "--with-stdin"], env=self.environment, cwd=self.folder,
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE) as process:
            ready = json.loads(process.stdout.readline())
            self.text = self.text.replace(CONTROL, ready["control"])
            yield
            process.stdin.close()

    def complaints(self):
        for content in unfenced(self.text):
            yield f"{self.name}: code without a fence:{content}"
        self.text = self.text.replace("$ kivctl serve &", f"$ kivctl serve --listen 127.0.0.1:{(port := checking.unused_port())} &")
        self.text = self.text.replace("127.0.0.1:9644", f"127.0.0.1:{port}")
        with self.simulator():
            found = blocks(self.text)
            for i, (language, name, content) in enumerate(found):
                if language in ("console", "sh") and CHANGES_THE_MACHINE.search(content):
                    yield f"{self.name}: these lines change the machine, and must be in a text block:\n{content}"
                elif language == "console":
                    yield from self.console(content)
                elif language == "sh":
                    yield from self.commands(content)
                elif language in FILES and name:
                    yield from self.file(language, name, content, found[i + 1:])
                elif language != "text":
                    yield f"{self.name}: a block of {language or 'no'} language that is not known, or without a name:\n{content}"


def all_complaints(root, build, pages, home):
    # The installation that the second page shows, for the pages behind it.
    subprocess.run(["cmake", "--install", build, "--prefix", f"{home}/kiv"], check=True, stdout=subprocess.DEVNULL)
    complaints = [link for page in pages for link in dead_links(root, page)]
    first = (root / "docs/README.md").read_text()
    complaints += [f"docs/README.md does not name {path.name}" for path in root.glob("docs/*.md")
                   if f"({path.name})" not in first and path.name != "README.md"]
    for page in filter(pages.__contains__, FIRST):
        complaints += Page(root, build, page, home).complaints()
    if not CONFIGURATION.exists():
        CONFIGURATION.write_bytes((root / "examples/hps_boot.json").read_bytes())
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        others = [page for page in pages if page not in FIRST]
        for of_page in pool.map(lambda page: list(Page(root, build, page, home).complaints()), others):
            complaints += of_page
    return complaints


root, build = pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(sys.argv[2]).resolve()
if not os.access(next(folder for folder in CONFIGURATION.parents if folder.exists()), os.W_OK):
    checking.skip(f"{CONFIGURATION} cannot be changed by this user")
pages = sys.argv[3:] or ["README.md"] + sorted(str(path.relative_to(root)) for path in root.glob("docs/*.md"))
CONFIGURATION.parent.mkdir(parents=True, exist_ok=True)
aside = CONFIGURATION.with_suffix(".aside-for-the-guide")
if CONFIGURATION.exists():
    CONFIGURATION.rename(aside)
try:
    with tempfile.TemporaryDirectory() as home:
        complaints = all_complaints(root, build, pages, home)
finally:
    CONFIGURATION.unlink(missing_ok=True)
    if aside.exists():
        aside.rename(CONFIGURATION)
checking.end(complaints, f"{len(pages)} pages are true")

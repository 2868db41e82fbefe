"""What the completion scripts of kivctl and kivsim offer in a real bash and a real zsh.

usage: completion.py ROOT KIVCTL
"""
import os
import pathlib
import pty
import re
import select
import shutil
import subprocess
import sys
import tempfile
import time

import checking

# The words on the line, of which the last is to be completed; what is offered, and what is not.
CASES = [
    (["kivctl", ""], {"scan", "flash", "config", "completion"}, {"write", "image.bin"}),
    (["kivctl", "--json", "f"], {"flash"}, {"scan"}),
    (["kivctl", "--ti"], {"--timeout"}, {"--json"}),
    (["kivctl", "--timeout", "5", "flash", "w"], {"write", "wait"}, {"select", "watch"}),
    (["kivctl", "ptp", ""], {"set"}, {"scan", "--save"}),
    (["kivctl", "ptp", "-"], {"--json", "--timeout"}, {"--save", "--version"}),
    (["kivctl", "ptp", "set", "1", "--"], {"--vlan0", "--dry-run", "--json"}, {"--no-wait"}),
    (["kivctl", "ptp", "set", "1", "--vlan0", "7", "--unicast-delay-req", "o"], {"on", "off"}, set()),
    (["kivctl", "ptp", "set", "--domain", "set", "--vl"], {"--vlan0", "--vlan1"}, set()),
    (["kivctl", "flash", "select", "1", ""], {"0", "1"}, {"image.bin"}),
    (["kivctl", "flash", "write", "1", ""], {"image.bin"}, {"write", "--select"}),
    (["kivctl", "flash", "write", "1", "--s"], {"--select"}, {"image.bin", "--save"}),
    (["kivctl", "explain", ""], set(), {"image.bin", "explain"}),
    (["kivctl", "completion", ""], {"bash", "zsh"}, {"image.bin"}),
    (["kivsim", "--speed", "2", "--s"], {"--scenario", "--socket"}, {"--trace", "image.bin"}),
]


def in_bash(words, folder):
    """Without the options where none is begun, as zsh does it."""
    line = ("source \"./$1\"; COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _$1 \"$1\" \"${!#}\"; "
            "printf '%s\\n' \"${COMPREPLY[@]}\"")
    result = checking.run("bash", "--norc", "-uc", line, "bash", *words, cwd=folder, stderr=subprocess.STDOUT)
    offered = set(result.stdout.split())
    return offered if words[-1] else {word for word in offered if not word.startswith("-")}


class Zsh:
    """An interactive zsh, in which a person types and asks for the list."""

    def __init__(self, folder):
        self.process, self.terminal = pty.fork()
        if self.process == 0:
            os.chdir(folder)
            os.execvpe("zsh", ["zsh", "-f", "-i"], {**os.environ, "TERM": "dumb", "PS1": "READY>", "COLUMNS": "200"})
        self.text = ""
        self.type("unsetopt zle_bracketed_paste prompt_cr prompt_sp; setopt no_beep; LISTMAX=0; fpath=($PWD $fpath)\n")
        self.type("autoload -Uz compinit && compinit -u -D && zstyle ':completion:*' list-colors '' && "
                  "bindkey '^I' list-choices && bindkey '^U' kill-whole-line && echo RE''ADY-ALL\n")
        self.wait("READY-ALL")

    def type(self, text):
        os.write(self.terminal, text.encode())

    def wait(self, phrase, limit=30):
        """The text that has come, up to the phrase or to the time limit."""
        end = time.monotonic() + limit
        while phrase not in self.text and time.monotonic() < end:
            if select.select([self.terminal], [], [], 0.2)[0]:
                self.text += os.read(self.terminal, 65536).decode(errors="replace")
        text, self.text = self.text, ""
        return text

    def offered(self, words):
        self.type(" ".join(words) + "\t")
        # Keys are taken one after the other: what the next line prints stands behind the list.
        self.type("\x15" + "echo LIST-E''ND\n")
        return set(re.sub(r"\x1b\[[0-9;?]*[A-Za-z]", " ", self.wait("LIST-END")).split())

    def end(self):
        os.close(self.terminal)
        os.waitpid(self.process, 0)


root, kivctl = map(pathlib.Path, sys.argv[1:])
os.environ["PATH"] = f"{kivctl.parent}:{os.environ['PATH']}"
complaints = []
with tempfile.TemporaryDirectory() as name:
    folder = pathlib.Path(name)
    (folder / "image.bin").write_text("image")
    shutil.copytree(root / "simulator/completions", folder, dirs_exist_ok=True)
    for shell, script in (("bash", "kivctl"), ("zsh", "_kivctl")):
        (folder / script).write_text(checking.run(kivctl, "completion", shell, check=True).stdout)
    shells = [shell for shell in ("bash", "zsh") if shutil.which(shell)]
    zsh = Zsh(folder) if "zsh" in shells else None
    for words, wanted, unwanted in CASES:
        for shell in shells:
            offered = in_bash(words, folder) if shell == "bash" else zsh.offered(words)
            # On the terminal stands what was typed, too.
            strange = unwanted & offered - (set(words) if shell == "zsh" else set())
            if not wanted <= offered or strange:
                complaints.append(f"{shell}: {words}: {sorted(wanted - offered)} missing, {sorted(strange)} too many; "
                                  f"offered are {sorted(offered)}")
    if zsh:
        zsh.end()
if not complaints:
    checking.need("bash", "zsh")
checking.end(complaints, f"{len(CASES)} lines in {', '.join(shells)}")

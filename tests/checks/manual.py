"""The manual page of kivctl has the commands, options and exit statuses of the program, and no others; groff finds nothing
wrong with any page.

usage: manual.py ROOT KIVCTL
"""
import json
import pathlib
import re
import shutil
import sys

import checking

OPTION = r"(?<![\w-])--?[a-z][a-z0-9-]*"


def sections(text, mark):
    """(title, content) of each part that the macro begins."""
    return re.findall(rf"^\.{mark} (.*)\n((?:(?!\.{mark} ).*\n)*)", text, re.M)


def plain(text):
    """Without fonts and escapes."""
    return re.sub(r"\\f.", "", text).replace("\\-", "-").replace('"', "")


def options_of_page(content):
    """Those that a paragraph is about: they stand in the line behind .TP."""
    return {option for tag in re.findall(r"^\.TP\n(.*)\n", content, re.M) for option in re.findall(OPTION, plain(tag))}


def page(root):
    """Options by command, "" for those of all; and the exit statuses with their texts."""
    parts = dict(sections((root / "man/kivctl.1").read_text(), "SH"))
    options = {"": options_of_page(parts["OPTIONS"])}
    for title, content in sections(parts["COMMANDS"], "SS"):
        options[re.match(r"[a-z ]+(?![A-Za-z])", plain(title)).group().strip()] = options_of_page(content)
    return options, dict(re.findall(r"^\.B (\d+)\n(.*)\n", parts["EXIT STATUS"], re.M))


def program(kivctl, command=""):
    """The same, as the help of the program and of its commands says."""
    text = checking.run(kivctl, *command.split(), "--help", check=True).stdout
    listed = text.partition("\nOptions:\n")[2].partition("\n\n")[0]
    own = {option for line in re.findall(r"^  (-.*?)(?:  |$)", listed, re.M) for option in re.findall(OPTION, line)}
    options = {command: own - ({"-h", "--help"} if command else set())}
    for name in re.findall(r"^  (\S+) ", text.partition("\nSubcommands:\n")[2].partition("\n\n")[0], re.M):
        options |= program(kivctl, f"{command} {name}".strip())
    return options


def statuses(kivctl):
    texts = {}
    for code in map(str, range(8)):
        explained = checking.run(kivctl, "explain", code, "--json").stdout
        for meaning in json.loads(explained).get("meanings", []):
            if meaning["kind"] == "exit status":
                texts[code] = meaning["text"]
    return texts


root, kivctl = pathlib.Path(sys.argv[1]), sys.argv[2]
described, described_statuses = page(root)
has = program(kivctl)
groups = {command for command in has if any(other.startswith(command + " ") for other in has)}
complaints = [f"the page lacks {command}" for command in sorted(set(has) - set(described) - groups)]
complaints += [f"the program lacks {command}" for command in sorted(set(described) - set(has))]
for command in sorted(set(has) & set(described)):
    if different := has[command] ^ described[command]:
        complaints.append(f"kivctl {command}: options {sorted(different)} are on one side only")
if statuses(kivctl) != described_statuses:
    complaints.append(f"exit statuses: the program has {statuses(kivctl)}, the page {described_statuses}")
pages = sorted((root / "man").iterdir())
if shutil.which("groff"):
    warnings = (checking.run("groff", "-man", "-ww", "-z", path).stderr for path in pages)
    complaints += [warning for warning in warnings if warning]
checking.end(complaints, f"{len(has)} commands are as the page says, {len(pages)} pages are sound")

"""docs/troubleshooting.md names every result code as the header does, every name of a failure of kivctl, and every message of the
library, in its log and on its standard streams; and no message that nothing writes. Each code of the header has a text.

usage: troubleshooting.py ROOT
"""
import pathlib
import re
import sys

import checking

root = pathlib.Path(sys.argv[1])
page = (root / "docs/troubleshooting.md").read_text()


def sources(*folders):
    return "\n".join(path.read_text() for folder in folders for path in sorted((root / folder).rglob("*.cpp")))


def stem(text):
    """The words of a message that are always the same: up to its first value, or behind it."""
    words = re.split(r"\{\}|%|=|\\n", re.sub(r"^\[\{\}\]", "", text))
    return words[0].rstrip()


library, tool = sources("sdk", "macOS"), sources("tools/kivctl")
header = (root / "sdk/library/src/base/kiv_types.h").read_text()
complaints = []

texts = dict(re.findall(r'ROW\((\w+), +"(.+)"\)', header))
codes = re.findall(r"^#define (KIV_OK|KIV_ERR_\w+) ", header, re.M)
if len(codes) < 9 or sorted(texts) != sorted(codes) or len(set(texts.values())) != len(codes):
    complaints.append(f"the codes {codes} lack rows with texts of their own: {texts}")
for code, text in texts.items():
    value = re.search(rf"#define {code} .*0x(\w+)u", header)[1]
    if f"| `{code}` | `0x{value}` | {text} |" not in page:
        complaints.append(f"{code} is not in the table of codes as in the header: 0x{value}, {text}")

names = re.findall(r'Layer::\w+,\s*"([A-Z_]+)"|name = "([A-Z_]+)"', tool)
for name in sorted({one or other for one, other in names} - {""}):
    if f"`{name}`" not in page:
        complaints.append(f"kivctl fails with {name}, which is not in the table of names")

LOGGED = (r'(?:(?:log_error|complain|driver_log|address_error|puts)\((?:__LINE__|\w+|\s|,)*|std::c(?:err|out) << )'
          r'"((?:[^"\\]|\\.)*)"')
for message in re.findall(LOGGED, library):
    if stem(message) and f"`{stem(message)}" not in page.replace("`[{}]", "`"):
        complaints.append(f"the library says {message!r}, which is not in the tables of messages")

by_message = page[page.index("\n## By message"):page.index("\n## What it looks like")]
for row in re.findall(r"^\| (`.*?) \|", by_message, re.M):
    for message in re.findall(r"`([^`]+)`", row):
        if stem(message) not in library:
            complaints.append(f"nothing in the library says {message!r}")

checking.end(complaints, "every code and message is explained")

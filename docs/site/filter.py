"""What Doxygen reads in place of a file: headers whose plain comments are documentation, and pages whose links lead within
the site.

A comment stands for every declaration below it up to the next blank line. Line numbers stay, so that warnings name the
right line.

usage: filter.py FILE
"""
import pathlib
import re
import sys

# A comment that stands alone, and what it is about: the lines below it, up to an empty one or another comment.
COMMENT = r"(?:^ *///(?!<).*\n)+|^ */\*\*(?!<)(?:(?!\*/)[\s\S])*\*/\n"
DECLARATIONS = r"(?: *(?!//|/\*|#|\})[^\s{][^{\n]*\n)+"
DECLARATION = re.compile(r"^( *)(\w[^;{}]*;[^\n]*\n)", re.M)


def header(text):
    # kiv_types.h says what the codes mean in its table of them.
    for name, meaning in re.findall(r'ROW\((\w+), +"(.*)"\)', text):
        text = re.sub(rf"^(#define {name} .*)$", rf"\1 /**< {meaning} */", text, flags=re.M)
    # The first comment is about the file. That may take a line more; the guard gives one.
    lines = text.count("\n")
    text = re.sub(r"^/\*\n", "/** @file\n", text)
    text = re.sub(r"^/\* ", "/** @file\n * ", text)
    text = re.sub(r"^///", "/// @file\n///", text)
    text = re.sub(r"^#define \w+_H\n", "\n" if text.count("\n") == lines else "", text, count=1, flags=re.M)
    text = re.sub(r"^( *)/\*(?=\s)(?! ----| clang-format)", r"\1/**", text, flags=re.M)
    text = re.sub(r"(?<=\S) +/\*(?=\s)", " /**<", text)
    return re.sub(rf"({COMMENT})({DECLARATIONS})", shared, text, flags=re.M)


def shared(match):
    """The comment again, in one line, before each further function that it is about."""
    comment, declarations = match.groups()
    words = " ".join(re.sub(r"^ *(///|/\*\*|\*/|\*)|\*/$", "", line).strip() for line in comment.splitlines())
    first, *others = DECLARATION.findall(declarations) or [("", "")]
    if not others or "(" not in first[1]:
        return match[0]
    again = DECLARATION.sub(lambda found: f"{found[1]}/** {words.strip()} */ {found[2]}", declarations)
    return comment + again.replace(f"/** {words.strip()} */ ", "", 1)


def slug(heading):
    return re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-")


def page(text, path, root):
    """Sections have names of their own on the site. Links to what is not on it show its path instead."""
    def link(match):
        words, (name, _, section) = match[1].replace("\n", " "), match[2].partition("#")
        target = (path.parent / name).resolve() if name else path
        if "://" in name:
            return match[0]
        if target.suffix == ".md" and target.parent == path.parent and target.exists():
            return f"[{words}](#{target.stem}{section and '-' + section})"
        if target.suffix == ".h":
            return target.name  # Doxygen makes a link of it.
        return f"{words} (`{target.relative_to(root)}`)" if target.exists() else words

    def prose(part):
        part = re.sub(r"^# .*$", rf"\g<0> {{#{path.stem}}}", part, flags=re.M)
        part = re.sub(r"^(##+) (.*)$", lambda found: f"{found[0]} {{#{path.stem}-{slug(found[2])}}}", part, flags=re.M)
        return re.sub(r"(?<!!)\[([^\]]+)\]\(([^)\s]+)\)", link, part)
    parts = re.split(r"(^```.*?^```$)", text, flags=re.M | re.S)
    return "".join(part if part.startswith("```") else prose(part) for part in parts)


path = pathlib.Path(sys.argv[1]).resolve()
content = path.read_text()
if path.suffix == ".md":
    sys.stdout.write(page(content, path, pathlib.Path(__file__).resolve().parents[2]))
else:
    sys.stdout.write(header(content))

"""Compiles files that make no program, and again only those that have changed, as the build does."""
import shlex

import checking

RULE = """rule compile
  command = $words -MD -MF $out.d -MT $out && touch $out
  depfile = $out.d
  deps = gcc
"""


def report(commands, folder, what):
    """Ends the check with what the commands, by the names of their files, complain of. The folder keeps what was compiled."""
    checking.need("ninja")
    folder.mkdir(exist_ok=True)
    builds = [f"build {name}.done: compile\n  words = {shlex.join(command).replace('$', '$$')}\n"
              for name, command in commands.items()]
    (folder / "build.ninja").write_text(RULE + "".join(builds))
    ended = checking.run("ninja", "-C", folder, "-k", "0", "-j", "2", "--quiet", timeout=None)
    complaints = [ended.stdout + ended.stderr] if ended.returncode != 0 or not commands else []
    checking.end(complaints, f"{len(commands)} {what}")

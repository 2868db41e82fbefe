"""Compiles files that make no program, and again only those that have changed, as the build does."""
import concurrent.futures
import json
import os
import pathlib
import subprocess
import tempfile


def _files_of(rule):
    """What a rule of make's depends on: "target: file file \\\n file"."""
    return rule.split(": ", 1)[1].replace("\\\n", " ").replace("\\ ", "\0").split()


def _times(files):
    return {file: os.stat(file.replace("\0", " ")).st_mtime_ns for file in files}


def _is_as_it_was(known, command):
    try:
        return known is not None and known["command"] == command and known["times"] == _times(known["times"])
    except OSError:
        return False


def failures(commands, record):
    """The messages of the commands (by name) that fail. `record` is the file that says what was compiled with success."""
    record = pathlib.Path(record)
    try:
        known = json.loads(record.read_text())
    except (OSError, ValueError):
        known = {}
    good = {name: known[name] for name, command in commands.items() if _is_as_it_was(known.get(name), command)}

    def compile_one(name):
        with tempfile.NamedTemporaryFile(mode="r", suffix=".d") as rule:
            result = subprocess.run([*commands[name], "-MD", "-MF", rule.name, "-MT", "it"], capture_output=True, text=True)
            if result.returncode != 0:
                return name, None, result.stderr
            return name, {"command": commands[name], "times": _times(_files_of(rule.read()))}, ""

    failed = {}
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        for name, compiled, messages in pool.map(compile_one, sorted(commands.keys() - good.keys())):
            if compiled is None:
                failed[name] = messages
            else:
                good[name] = compiled
    # Beside it first: a run that is stopped leaves no half of it.
    beside = record.with_suffix(f".{os.getpid()}")
    beside.write_text(json.dumps(good))
    beside.replace(record)
    return failed


def report(commands, record, what):
    """Prints the failures and how many there are; the exit status of a check."""
    failed = failures(commands, record)
    for name, messages in failed.items():
        print(f"{name}:\n{messages}")
    print(f"{len(commands) - len(failed)} of {len(commands)} {what}")
    return 1 if failed or not commands else 0

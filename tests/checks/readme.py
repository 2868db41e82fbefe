"""What the README shows is what happens.

Its ```console blocks are run line by line ("$ command") and must print what stands below, but for port numbers and
socket paths. Its ```sh blocks under "Using the library" are run as they are, with this build in place of the release
build; its ```c, ```cpp and ```cmake blocks are the files that those lines build.

usage: readme.py ROOT BUILD_DIRECTORY
"""
import os
import pathlib
import re
import subprocess
import sys
import tempfile

CONFIGURATION = pathlib.Path("/Library/Application Support/Velmora/config/hps_boot.json")


def blocks(text):
    """(language, first line, content) of each fenced block."""
    return re.findall(r"^```(\w+)(?: *([\w./]+))?\n(.*?)^```", text, re.M | re.S)


def masked(text):
    text = re.sub(r"127\.0\.0\.1:\d+", "127.0.0.1:PORT", text)
    text = re.sub(r"socket \S+", "socket PATH,", text)
    return re.sub(r" +", " ", text)


def bash(script, environment, folder):
    result = subprocess.run(["bash", "-euo", "pipefail", "-c", script], env=environment, cwd=folder, text=True,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=250)
    return result.returncode, result.stdout


def run_console(content, environment, folder):
    """Runs the block's commands in one shell; returns what the block should be."""
    commands = re.findall(r"^\$ (.*)$", content, re.M)
    script = "".join(
        f"printf '%s\\n' '$ {command}'\n" + (command + "\nsleep 1\n" if command.endswith("&") else command + "\n")
        for command in commands) + "kill %1 2>/dev/null; wait\n"
    return bash(script, environment, folder)[1]


def main():
    root, build = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])
    folder = next(folder for folder in CONFIGURATION.parents if folder.exists())
    if not os.access(folder, os.W_OK):
        print(f"skipped: {CONFIGURATION} cannot be changed by this user")
        return 77
    readme = (root / "README.md").read_text()
    complaints = []
    with tempfile.TemporaryDirectory() as home:
        made = not CONFIGURATION.exists()
        if made:
            CONFIGURATION.parent.mkdir(parents=True, exist_ok=True)
            CONFIGURATION.write_bytes((root / "examples/hps_boot.json").read_bytes())
        environment = {**os.environ, "HOME": home, "KIVSIM_SOCKET": f"{home}/driver.sock",
                       "PATH": f"{build}/bin:{os.environ['PATH']}"}
        try:
            shown = [content for language, _, content in blocks(readme) if language == "console"]
            # What is shown there works without a configuration.
            aside = CONFIGURATION.with_suffix(".aside-for-readme")
            CONFIGURATION.rename(aside)
            try:
                for content in shown:
                    actual = run_console(content, environment, root)
                    if masked(actual) != masked(content):
                        complaints.append(f"README shows\n{content}\nand the commands print\n{actual}")
            finally:
                aside.rename(CONFIGURATION)

            user = pathlib.Path(home, "lister")
            user.mkdir()
            using = readme[readme.index("## Using the library"):]
            files = {"c": 0, "cpp": 0, "cmake": 0, "sh": 0}
            for language, name, content in blocks(using):
                if language not in files:
                    continue
                files[language] += 1
                if language == "sh":
                    # This build stands for the release build, which the lines before the installation would make.
                    content = re.sub(r"^cmake (--preset|--build --preset) .*\n", "", content, flags=re.M)
                    content = content.replace("build/release", str(build))
                    status, output = bash(content, environment, user)
                    if status != 0:
                        complaints.append(f"README's lines\n{content}\nend with {status}:\n{output}")
                else:
                    (user / name).parent.mkdir(exist_ok=True)
                    (user / name).write_text(content)
            if 0 in files.values() or not shown:
                complaints.append(f"the README lacks a block: {files}, {len(shown)} console")
        finally:
            if made:
                CONFIGURATION.unlink()
    print("\n".join(complaints) or "the README is true")
    return 1 if complaints else 0


sys.exit(main())

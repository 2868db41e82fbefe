"""What the checks have in common: how they end, and the programs that they run."""
import json
import os
import shutil
import socket
import subprocess
import sys
import urllib.request


def skip(reason):
    print(f"skipped: {reason}")
    sys.exit(77)


def need(*programs):
    if missing := [program for program in programs if shutil.which(program) is None]:
        skip(f"{' and '.join(missing)} not installed")


def end(complaints, good):
    """Ends the check with its complaints, or with what it has found good."""
    print("\n".join(complaints) or good)
    sys.exit(1 if complaints else 0)


def run(*command, **options):
    return subprocess.run([str(word) for word in command], **{
        "stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "text": True, "timeout": 250, **options})


def start(command, stack, **options):
    """A program that runs until the stack ends."""
    process = stack.enter_context(subprocess.Popen(command, stdout=subprocess.PIPE, text=True, **options))
    stack.callback(process.terminate)
    return process


def serve(build, environment, stack, listen="127.0.0.1:0", words=()):
    """kivctl serve, and the line in which it says where."""
    process = start([build / "bin/kivctl", *words, "serve", "--listen", listen, "--json"], stack, env=environment)
    return process, process.stdout.readline()


def closed_port(stack):
    """A port that refuses every connection, and that nobody else gets until the stack ends."""
    bound = stack.enter_context(socket.socket())
    bound.bind(("127.0.0.1", 0))
    return bound.getsockname()[1]


def unused_port():
    """To listen on at once: it may be somebody else's soon."""
    with socket.create_server(("127.0.0.1", 0)) as server:
        return server.getsockname()[1]


class Simulator:
    """kivsim with some cards, until the stack ends."""

    def __init__(self, build, folder, cards, stack, name="cards"):
        (folder / f"{name}.json").write_text(json.dumps({"cards": cards}))
        self.environment = {**os.environ, "KIVSIM_SOCKET": f"{folder}/{name}.sock"}
        self.process = start([build / "bin/kivsim", "--config", folder / f"{name}.json", "--ready-json", "--with-stdin"],
                             stack, env=self.environment, stdin=subprocess.PIPE)
        self.control = json.loads(self.process.stdout.readline())["control"]

    def ask(self, method, path, members=None):
        body = None if members is None else json.dumps(members).encode()
        urllib.request.urlopen(urllib.request.Request(f"http://{self.control}{path}", body, method=method), timeout=30)

    def change(self, card, **members):
        self.ask("PATCH", f"/cards/{card}", members)

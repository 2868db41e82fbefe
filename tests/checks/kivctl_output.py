"""Every command's JSON is as its schema says, and every key of the schemas is described.

Commands run with good cards, with bad ones, without a driver and with wrong words. On a /Library of its own, where the
system allows that; else what needs the machine's card configuration is left out.

usage: kivctl_output.py ROOT BUILD_DIRECTORY
"""
import contextlib
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import urllib.request

import checking

try:
    import jsonschema
except ImportError:
    checking.skip("the Python module jsonschema is not installed")

OWN_LIBRARY = ["unshare", "-rm", "sh", "-c", 'mount -t tmpfs none /Library && exec "$@"', "sh"]
DONE, FAILED, USAGE, ATTENTION, TIME_IS_UP = range(5)
SETTINGS = ("--announce-receipt-timeout 3 --domain 127 --log-announce-interval -2 --log-delay-req-interval -3 --tos0 46 "
            "--tos1 46 --ttl0 64 --ttl1 64 --unicast-delay-req off --vlan0 off --vlan1 7").split()
HOT = [{"label": "QSFP1 Case Temperature", "input": 81, "max": 70, "critical": 80}]

# Set-up, command, its further words, exit status, schema of the answer ("error" when there is only a failure).
ROWS = [
    ("good", "scan", [], DONE, "scan"),
    ("bad", "scan", [], FAILED, "scan"),
    ("none", "scan", [], FAILED, "error"),
    ("good", "status", ["2"], ATTENTION, "status"),
    ("good", "status", [], USAGE, "error"),
    ("hangs", "info", ["--timeout", "1"], TIME_IS_UP, "error"),
    ("good", "ptp set", ["1", *SETTINGS, "--dry-run"], DONE, "ptp-set"),
    ("good", "ptp set", ["1", *SETTINGS], DONE, "ptp-set"),
    ("good", "ptp set", ["1"], USAGE, "error"),
    ("good", "flash write", ["1", "FOLDER/image"], DONE, "flash-write"),
    ("good", "flash write", ["1", "FOLDER/image"], FAILED, "error"),
    ("good", "flash write", ["2", "FOLDER/image", "--no-wait"], DONE, "flash-write"),
    ("good", "flash wait", ["2"], DONE, "flash-wait"),
    ("good", "flash write", ["1", "/nowhere"], USAGE, "error"),
    ("good", "flash select", ["1", "1"], DONE, "flash-select"),
    ("good", "flash select", ["1", "2"], USAGE, "error"),
    ("good", "watch", ["9"], FAILED, "error"),
    ("good", "registers", ["1"], DONE, "registers"),
    ("none", "registers", ["1"], FAILED, "error"),
    ("good", "serve", ["--listen", "localhost:1"], USAGE, "error"),
    ("none", "doctor", [], FAILED, "doctor"),
    ("none", "doctor", ["x"], USAGE, "error"),
    ("bad", "support", ["-o", "FOLDER/support/"], ATTENTION, "support"),
    ("good", "support", ["-o", "/nowhere/file"], FAILED, "error"),
    ("none", "explain", ["3"], DONE, "explain"),
    ("none", "explain", ["0xE00002D5"], DONE, "explain"),
    ("none", "explain", ["NOTHING"], FAILED, "error"),
    ("none", "completion", ["zsh"], DONE, "completion"),
    ("none", "completion", ["fish"], USAGE, "error"),
    ("good", "version", [], DONE, "version"),
    ("none", "version", [], DONE, "version"),
    ("none", "config", [], USAGE, "error"),
    ("none", "", [], USAGE, "error"),
    ("none", "stats", [], USAGE, "error"),
]
# In this order: they make the machine's configuration, and then break it.
CONFIGURED_ROWS = [
    ("none", "config check", [], FAILED, "error"),
    ("none", "config init", [], DONE, "config-init"),
    ("none", "config init", [], FAILED, "error"),
    ("none", "config check", [], DONE, "config-check"),
    ("none", "config show", [], DONE, "config-show"),
    ("good", "ptp", ["1"], DONE, "ptp"),  # Now with a configuration.
    ("good", "ptp set", ["1", "--vlan0", "off", "--vlan1", "off", "--save"], DONE, "ptp-set"),
    ("good", "doctor", ["1"], DONE, "doctor"),
    ("bad", "doctor", [], FAILED, "doctor"),
    ("good", "support", ["-o", "FOLDER/support.tar.gz"], DONE, "support"),
    ("unsaved", "ptp set", ["1", "--vlan0", "off", "--vlan1", "off", "--save"], FAILED, "ptp-set"),
    ("wrong", "config check", [], FAILED, "config-check"),
    ("wrong", "config show", [], FAILED, "error"),
]
# Of a card: what its driver alone can answer works without its server.
for command in ("info", "status", "net", "link", "ptp", "streams", "time", "driver", "flash"):
    alone = command in ("link", "streams", "time", "driver")
    ROWS += [("good", command, ["1"], DONE, command), ("none", command, ["1"], FAILED, "error"),
             ("bad", command, ["1"], DONE if alone else FAILED, command if alone else "error"),
             ("good", command, ["010"], USAGE, "error")]


class Schemas:
    def __init__(self, folder):
        common = json.loads((folder / "kivctl.common.1.json").read_text())
        self.problems = self.undescribed(common, "common")
        self.validators = {}
        self.used = set()
        for path in sorted(folder.glob("kivctl.*.1.json")):
            name = path.name.split(".")[1]
            schema = json.loads(path.read_text().replace('"kivctl.common.1.json#', '"#'))
            schema["$defs"] = common["$defs"]
            jsonschema.Draft202012Validator.check_schema(schema)
            self.problems += self.undescribed(json.loads(path.read_text()), name)
            self.validators[name] = jsonschema.Draft202012Validator(schema)
        del self.validators["common"]

    def undescribed(self, schema, where):
        """Keys without a description, and objects that may have any key."""
        problems = []
        if isinstance(schema, list):
            return [problem for i, item in enumerate(schema) for problem in self.undescribed(item, f"{where}[{i}]")]
        if not isinstance(schema, dict):
            return problems
        others = schema.get("additionalProperties")
        if "required" in schema and schema.get("type") and not (others is False or others and "description" in others):
            problems.append(f"schema {where}: may have any key")
        for key, value in [*schema.get("properties", {}).items(), *schema.get("$defs", {}).items()]:
            # What "if" asks for is described where it is allowed.
            if not where.endswith(".if") and "$ref" not in value and not value.get("description"):
                problems.append(f"schema {where}: {key} has no description")
            problems += self.undescribed(value, f"{where}.{key}")
        for key in ("items", "oneOf", "allOf", "if", "then"):
            problems += self.undescribed(schema.get(key), f"{where}.{key}")
        return problems

    def complaints(self, text, name):
        """Of one object, which must be of this schema."""
        self.used.add(name)
        try:
            return [f"{'.'.join(map(str, error.path))}: {error.message}"
                    for error in self.validators[name].iter_errors(json.loads(text))]
        except ValueError as error:
            return [f"no JSON object: {error}"]


class Setups:
    """Simulators, one for each set-up, and the machine's configuration as it is in that set-up."""

    def __init__(self, build, folder, stack):
        self.build, self.folder, self.stack, self.simulators = build, folder, stack, {}
        external = {"server": "external", "tunnel": {"address": "127.0.0.1", "port": checking.closed_port(stack)}}
        self.cards = {
            "good": [{"id": 1, "flash_ms": 300}, {"id": 2, "flash_ms": 2000, "hwmon": HOT}],
            "bad": [{"id": 1, **external}, {"id": 2}],
            "hangs": [{"id": 1, "driver_faults": [{"selector": 6, "delay_ms": 60000}]}],
        }

    def environment(self, name):
        """Variables of a program that uses the set-up, whose simulator runs from the first time on."""
        if name not in self.cards:
            return {**os.environ, "KIVSIM_SOCKET": f"{self.folder}/{name}"}
        if name not in self.simulators:
            self.simulators[name] = checking.Simulator(self.build, self.folder, self.cards[name], self.stack, name)
        return self.simulators[name].environment


def documented_commands(kivctl, group=()):
    """As the help lists them."""
    text = checking.run(kivctl, *group, "--help").stdout
    listed = re.findall(r"^  (\S+) ", text.partition("\nSubcommands:\n")[2].partition("\n\n")[0], re.M)
    return [path for name in listed for path in ([" ".join([*group, name])] + documented_commands(kivctl, [*group, name]))]


def check_row(row, kivctl, setups, schemas):
    name, command, words, status, schema = row
    configuration = pathlib.Path("/Library/Application Support/Velmora/config/hps_boot.json")
    if name == "unsaved":  # Where the former file is to go, there is a folder.
        (configuration.parent / (configuration.name + ".bak")).unlink()
        (configuration.parent / (configuration.name + ".bak") / "in the way").mkdir(parents=True)
        name = "good"
    if name == "wrong":
        configuration.write_text('{"version": 1, "ptp": {}}')
    words = [word.replace("FOLDER", str(setups.folder)) for word in words]
    ended = checking.run(kivctl, *command.split(), *words, "--json", env=setups.environment(name))
    complaints = schemas.complaints(ended.stdout, schema)
    if ended.returncode != status:
        complaints.append(f"ends with {ended.returncode}, not {status}: {ended.stderr}")
    return [f"{row}: {complaint}" for complaint in complaints]


def check_watch(kivctl, setups, schemas):
    """Each kind of event but the one that comes once a minute."""
    process = checking.start([kivctl, "watch", "2", "--json"], setups.stack, env=setups.environment("good"))
    complaints, events, simulator = [], [], setups.simulators["good"]
    changes = iter([lambda: simulator.change(2, links=[False, True]), lambda: simulator.change(2, ptp_state=3),
                    simulator.process.terminate, process.terminate])
    for line in process.stdout:
        complaints += schemas.complaints(line, "watch")
        events.append(json.loads(line)["event"])
        # A server may be lost before its driver; both are "lost".
        if events[-2:] != ["lost", "lost"]:
            next(changes, lambda: None)()
    process.wait(timeout=60)
    if events[:4] != ["state", "link", "ptp", "lost"] or process.returncode != DONE:
        complaints.append(f"watch ends with {process.returncode} after {events}")
    return complaints


def check_serve(setups, schemas):
    """With good cards, with bad ones, and without a driver."""
    complaints = []
    for name in ("good", "bad", "none"):
        process, line = checking.serve(setups.build, setups.environment(name), setups.stack)
        complaints += schemas.complaints(line, "serve")
        url = json.loads(line)["url"]
        urllib.request.urlopen(url + "metrics", timeout=30).read()  # Waits for the cards.
        for page in ["cards.json"] + ["history.json?card=1"] * (name != "none"):
            answer = urllib.request.urlopen(url + page, timeout=30).read()
            complaints += [f"{name}: {page}: {complaint}" for complaint in schemas.complaints(answer, page.partition(".")[0])]
        process.terminate()
        if process.wait(timeout=60) != DONE:
            complaints.append(f"serve ends with {process.returncode}")
    return complaints


if len(sys.argv) == 3 and shutil.which("unshare") and subprocess.run([*OWN_LIBRARY, "true"]).returncode == 0:
    os.execvp(OWN_LIBRARY[0], [*OWN_LIBRARY, sys.executable, "-B", *sys.argv, "own"])
root, build = map(pathlib.Path, sys.argv[1:3])
kivctl = build / "bin/kivctl"
schemas = Schemas(root / "tools/kivctl/schema")
left_out = CONFIGURED_ROWS if len(sys.argv) == 3 else []
rows = ROWS + [row for row in CONFIGURED_ROWS if row not in left_out]
complaints = schemas.problems
with contextlib.ExitStack() as stack:
    folder = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory()))
    (folder / "image").write_text("a firmware image")
    setups = Setups(build, folder, stack)
    for row in rows:
        complaints += check_row(row, kivctl, setups, schemas)
    complaints += check_serve(setups, schemas)
    complaints += check_watch(kivctl, setups, schemas)
    complaints += schemas.complaints((folder / "support/index.json").read_text(), "support-index")
covered = {row[1] for row in ROWS + CONFIGURED_ROWS} | {"watch", "serve"}
complaints += [f"{command}: no row tries it" for command in documented_commands(kivctl) if command not in covered]
unused = set(schemas.validators) - schemas.used - {row[4] for row in left_out}
complaints += [f"schema {name}: no answer has it" for name in sorted(unused)]
if left_out:
    print(f"left out: {len(left_out)} rows, as this system gives no /Library of one's own")
checking.end(complaints, f"{len(rows)} answers are as {len(schemas.used)} schemas say")

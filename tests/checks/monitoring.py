"""What "kivctl serve" gives to Prometheus is as promtool wants it, and so are the files that are installed for monitoring:
they, and the guide, name metrics that there are, and the alert rules fire when they should.

usage: monitoring.py ROOT BUILD_DIRECTORY
"""
import contextlib
import json
import os
import pathlib
import re
import shutil
import sys
import tempfile
import urllib.request

import checking


def metrics_of(build, folder, stack):
    """Of a card that is well and one whose server has gone, as they are scraped."""
    cards = folder / "cards.json"
    cards.write_text(json.dumps({"cards": [{"id": 1}, {"id": 2, "http_faults": [{"path": "/hps/", "cut": "before"}]}]}))
    environment = {**os.environ, "PATH": f"{build}/bin:{os.environ['PATH']}"}
    url = json.loads(checking.serve(build, environment, stack, words=("--sim", cards))[1])["url"]
    return urllib.request.urlopen(url + "metrics", timeout=30).read().decode()


def promtool(*words, **options):
    ended = checking.run("promtool", *words, **options)
    return [] if ended.returncode == 0 and "error" not in ended.stderr else [f"promtool {words}: {ended.stdout}{ended.stderr}"]


root, build = map(pathlib.Path, sys.argv[1:])
files = root / "tools/kivctl/monitoring"
json.loads((files / "grafana-dashboard.json").read_text())
with contextlib.ExitStack() as stack:
    folder = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory()))
    text = metrics_of(build, folder, stack)
    there = set(re.findall(r"^# TYPE (\S+)", text, re.M))
    guide = (root / "docs/monitoring.md").read_text()
    listed = set(re.findall(r"^\| `(kiv_\w+)", guide, re.M))
    complaints = [f"the guide's table and the program differ in {name}" for name in sorted(there ^ listed)]
    for path in [*files.iterdir(), root / "docs/monitoring.md"]:
        named = set(re.findall(r"\bkiv_[a-z_]+\b", path.read_text()))
        complaints += [f"{path.name}: there is no metric {name}" for name in sorted(named - there)]
    if complaints:
        checking.end(complaints, "")
    checking.need("promtool")
    shutil.copytree(files, folder / "monitoring")
    shutil.copy(root / "tests/checks/alerts_test.yml", folder / "monitoring")
    complaints = promtool("check", "metrics", input=text)
    complaints += promtool("check", "config", folder / "monitoring/prometheus.yml")
    complaints += promtool("check", "rules", folder / "monitoring/kiv-alerts.yml")
    complaints += promtool("test", "rules", folder / "monitoring/alerts_test.yml")
checking.end(complaints, f"{len(there)} metrics, the rules and the dashboard are sound")

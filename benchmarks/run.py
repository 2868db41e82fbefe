"""Runs the benchmarks, prints one table of their rows, and keeps it.

usage: run.py BUILD [--compare] [--keep] [NAME...]     see scripts/benchmark
"""
import json
import pathlib
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
REFERENCE = ROOT / "benchmarks/results.json"
PICTURE = ROOT / "docs/pictures/performance.svg"
PAGE = ROOT / "docs/performance.md"
MARKS = "<!-- The figures: written by scripts/benchmark --keep. -->\n", "<!-- The end of the figures. -->\n"
WORSE = 1.10  # From here on a figure is marked.


def run(program, scratch):
    """What one run of a program found; None when it failed."""
    scratch.unlink(missing_ok=True)
    started = time.monotonic()
    ended = subprocess.run([program, "--no-budget", "--json", scratch], stdout=subprocess.DEVNULL).returncode
    print(f"  {time.monotonic() - started:.0f} s", file=sys.stderr)
    return json.loads(scratch.read_text()) if ended == 0 else None


def middle(rows):
    """Of one row of several runs the one whose part of its budget is in the middle."""
    return sorted(rows, key=lambda row: row["ours"] / row["most"] if row.get("most") else 0)[len(rows) // 2]


def measure(programs, scratch):
    """Machine and rows of all programs; and the names of those that failed. A program that misses a budget runs twice more: of
    each of its rows the middle one counts."""
    machine, rows, failed = {}, [], []
    for program in programs:
        name = program.name.removesuffix("_benchmark")
        print(f"measuring {name}", file=sys.stderr)
        runs = [run(program, scratch)]
        if runs[0] and any(row.get("met") is False for row in runs[0]["rows"]):
            runs += [run(program, scratch), run(program, scratch)]
        if None in runs:
            failed.append(name)
            continue
        machine.update(runs[0]["machine"])
        rows += [{"program": name, **middle(each)} for each in zip(*(one["rows"] for one in runs))]
    scratch.unlink(missing_ok=True)
    return machine, rows, failed


def figure(value):
    return f"{value:.2f}" if abs(value) < 10 else f"{value:.1f}" if abs(value) < 1000 else f"{value:.0f}"


def ratio(row):
    """The third digit tells by how much a budget of two was met, or missed."""
    return (f'{row["ratio"]:.3f}' if row["ratio"] < 2 else figure(row["ratio"])) + "x" if "ratio" in row else ""


def change(row, former):
    """How a row differs from the former run: by its ratio to the floor where it has one, which the machine matters less to."""
    keys = ("group", "name", "what_the_floor_is")
    old = next((each for each in former if all(each.get(key) == row.get(key) for key in keys)), None)
    measure_of = "ratio" if "ratio" in row else "ours"
    if old is None or not old.get(measure_of):
        return "new"
    factor = row[measure_of] / old[measure_of]
    return f"{100 * (factor - 1):+.0f} %" + (" WORSE" if factor > WORSE else "")


def print_table(machine, rows, former):
    titles = ["", "ours", "", "floor", "what the floor is", "ratio", "budget", ""] + (["since"] if former is not None else [])
    lines = []
    group = None
    for row in rows:
        if row["group"] != group:
            group = row["group"]
            lines.append([group])
        if "skipped" in row:
            lines.append(["  " + row["name"], "skipped: " + row["skipped"]])
            continue
        line = ["  " + row["name"], figure(row["ours"]), row["unit"], figure(row["floor"]) if "floor" in row else "",
                row.get("what_the_floor_is", ""), ratio(row), row.get("budget", ""),
                {True: "met", False: "MISSED"}.get(row.get("met"), "")]
        lines.append(line + ([change(row, former)] if former is not None else []))
    full = [titles] + [line for line in lines if len(line) == len(titles)]
    widths = [max(len(line[i]) for line in full) for i in range(len(titles))]
    for line in [titles] + lines:
        cells = [cell.rjust(width) if i in (1, 3, 5) and len(line) == len(titles) else cell.ljust(width)
                 for i, (cell, width) in enumerate(zip(line, widths))]
        print("  ".join(cells).rstrip())
    print("\n" + "\n".join(f"{name}: {value}" for name, value in machine.items()))


def svg(rows):
    """Bars: how much of its budget each figure takes."""
    shown = [row for row in rows if row.get("most")]
    step, left, scale, top = 20, 420, 300, 34
    height = top + step * len(shown) + 12
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" width="860" height="{height}" font-family="sans-serif" font-size="12">',
           f'<rect width="860" height="{height}" fill="white"/>',
           '<text x="12" y="20" font-weight="bold">Figures as parts of their budgets (the line); shorter is better</text>']
    for i, row in enumerate(shown):
        y = top + step * i
        part = row["ours"] / row["most"]
        color = "#4878a8" if row["met"] else "#c0392b"
        label = f'{row["group"]}: {row["name"]}'.replace("&", "&amp;").replace("<", "&lt;")
        told = f'{figure(row["ours"])} {row["unit"]}' + (f', {figure(row["ratio"])} of the floor' if "ratio" in row else "")
        out += [f'<text x="{left - 8}" y="{y + 12}" text-anchor="end">{label}</text>',
                f'<rect x="{left}" y="{y + 2}" width="{scale * min(part, 1.4):.0f}" height="13" fill="{color}" fill-opacity="0.6"/>',
                f'<text x="{left + 6}" y="{y + 12}">{told}</text>']
    out += [f'<line x1="{left + scale}" y1="{top - 4}" x2="{left + scale}" y2="{height - 8}" stroke="black"/>', "</svg>"]
    return "\n".join(out) + "\n"


def page(text, machine, rows):
    """The page with these figures between its marks."""
    before, rest = text.split(MARKS[0])
    after = rest.split(MARKS[1])[1]
    lines = [" · ".join(f"{name} {value}" for name, value in machine.items()), "",
             "| | ours | floor | | | budget |", "|---|---:|---:|---|---:|---|"]
    group = None
    for row in rows:
        if row["group"] != group:
            group = row["group"]
            lines.append(f"| **{group}** | | | | | |")
        if "skipped" in row:
            lines.append(f'| {row["name"]} | skipped | | {row["skipped"]} | | |')
            continue
        floor = f'{figure(row["floor"])} {row["unit"]}' if "floor" in row else ""
        verdict = {True: "", False: ": **missed**", None: ""}[row.get("met")]
        lines.append(f'| {row["name"]} | {figure(row["ours"])} {row["unit"]} | {floor} | {row.get("what_the_floor_is", "")} | '
                     f'{ratio(row)} | {row.get("budget", "")}{verdict} |')
    return before + MARKS[0] + "\n".join(lines) + "\n" + MARKS[1] + after


def main():
    build = pathlib.Path(sys.argv[1])
    options = {argument for argument in sys.argv[2:] if argument.startswith("-")}
    names = [argument for argument in sys.argv[2:] if not argument.startswith("-")]
    programs = sorted((build / "bin").glob("*_benchmark"))
    known = {program.name.removesuffix("_benchmark"): program for program in programs}
    if options - {"--compare", "--keep"} or set(names) - set(known):
        sys.exit(f"usage: scripts/benchmark [--compare] [--keep] [NAME...]\nnames: {', '.join(known)}")
    if "--keep" in options and names:
        sys.exit("--keep is for a run of all")

    results = build / "results"
    results.mkdir(parents=True, exist_ok=True)
    former = None
    if "--compare" in options:
        # Of each row the last figure: a run may have been of some programs only.
        runs = [json.loads(file.read_text())["rows"] for file in [REFERENCE, *sorted(results.glob("*.json"))] if file.exists()]
        former = [row for rows in reversed(runs) for row in rows]
    machine, rows, failed = measure([known[name] for name in names or known], results / "scratch")
    text = json.dumps({"machine": machine, "rows": rows}, indent=1) + "\n"
    (results / time.strftime("%Y%m%dT%H%M%S.json")).write_text(text)
    print_table(machine, rows, former)
    missed = [row["name"] for row in rows if row.get("met") is False]
    if missed:
        print("\nmissed: " + ", ".join(missed))
    if failed:
        print("\nnot measured, see above: " + ", ".join(failed))
    if "--keep" in options and not failed:
        REFERENCE.write_text(text)
        PICTURE.write_text(svg(rows))
        PAGE.write_text(page(PAGE.read_text(), machine, rows))
    return 1 if missed or failed else 0


sys.exit(main())

#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Takes every figure that has a budget, in one run: prints them as a table, and writes them to build/bench.json.

Ends with 1 when one of them is over its budget. The lab's need root.
"""
import json
import os
import pathlib
import statistics
import subprocess
import sys

REPOSITORY = pathlib.Path(__file__).resolve().parent.parent
BUILD = REPOSITORY / "build"
SUPPORT = REPOSITORY / "tests" / "support"


def run(*command, **options):
    subprocess.run([str(word) for word in command], check=True, **options)


def text():
    """Google Benchmark's figures, by their names. Rates are of processor time."""
    out = BUILD / "bench" / "text.json"
    run(BUILD / "bench/text_figures", f"--benchmark_out={out}", stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    found = {each["name"]: each for each in json.loads(out.read_text())["benchmarks"]}
    failed = [name for name, each in found.items() if each.get("error_occurred")]
    if failed:
        sys.exit(f"without a figure: {', '.join(failed)}")
    return found


def state():
    """Milliseconds from a state line until the button shows it."""
    out = BUILD / "bench" / "state.json"
    # A network, a screen and a bus of its own.
    run(SUPPORT / "private_network.sh", "/usr/bin/xvfb-run", "-a", "dbus-run-session", "--",
        BUILD / "bench/Figures.app/Contents/MacOS/state_figures", out, stdout=subprocess.DEVNULL,
        stderr=subprocess.DEVNULL)
    return sorted(json.loads(out.read_text()))


def lab(scenario):
    run(REPOSITORY / "lab/demo.sh", scenario)
    return json.loads((BUILD / "demo/figures.json").read_text())


def rows(lines, states, window, click, network):
    """What, unit, budget, figure; a budget that is met from above has a minus."""
    rates = [lines[f"lines/{count}"]["items_per_second"] for count in (10_000, 100_000, 1_000_000)]
    rest = window["rest"]
    return [
        ("start until the window is on the screen, beside a bare Qt window", "x", 1.8, window["start"]),
        ("resident memory while connected, beside that bare window", "x", 1.5, window["memory"]),
        ("processor while connected and idle", "% of a core", 0.1, rest["percent"]),
        # Three in half a minute are what a desktop may say to any window.
        ("wake-ups while connected and idle", "a second", 10.1, rest["wakeups"]),
        ('click until "Desconectar", more than a plain script', "s", 0.4, click["more"]),
        ("network back until traffic passes the tunnel, the longest", "s", 3, max(network.values())),
        (f"state line until the button shows it, median of {len(states)}", "ms", 60, statistics.median(states)),
        ("the same, the longest", "ms", 110, states[-1]),
        ("lines through framing and dispatch", "million a second", -1.0, min(rates) / 1e6),
        ("time for a line, 1,000,000 of them beside 10,000", "x", 1.2, rates[0] / rates[-1]),
        ("memory that nine million lines add to the first million's", "KiB", 1024,
         lines["memoryOverLines/iterations:1"]["growth_kib"]),
    ]


def judge(what, unit, budget, figure):
    kept = figure >= -budget if budget < 0 else figure <= budget
    limit = f"at least {-budget:g}" if budget < 0 else f"at most {budget:g}"
    return {"what": what, "unit": unit, "budget": limit, "figure": float(f"{figure:.3g}"), "kept": kept}


def show(table):
    print("\n| what | budget | figure | |\n|---|---|---|---|")
    for row in table:
        kept = "kept" if row["kept"] else "**over**"
        print(f'| {row["what"]} | {row["budget"]} {row["unit"]} | {row["figure"]:g} | {kept} |')


def main():
    load = os.getloadavg()[0]
    lines, states = text(), state()
    window, click = lab("window-figures"), lab("click-figures")
    network = lab("network-figures")
    table = [judge(*row) for row in rows(lines, states, window, click, network)]
    show(table)
    print(f"\n{os.cpu_count()} cores; load before the first figure {load:.1f},"
          f" after the last {os.getloadavg()[0]:.1f}.")
    print("Without a budget:", ", ".join(
        f'{what} {lines[name]["bytes_per_second"] / 1e6:.0f} MB/s' for what, name in (
            ("configuration reader", "configuration"), ("sorting an answer of 8 KiB", "answer/8"),
            ("of 256 KiB", "answer/256"))))
    (BUILD / "bench.json").write_text(json.dumps(
        {"cores": os.cpu_count(), "load": load, "table": table, "window": window, "click": click, "network": network,
         "state": states, "text": lines}, indent=1) + "\n")
    sys.exit(0 if all(row["kept"] for row in table) else 1)


main()

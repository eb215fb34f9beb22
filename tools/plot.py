#!/usr/bin/env python3
"""Draws docs/cost-per-connection.svg from the JSON of ./bench.sh (needs python3-matplotlib):  tools/plot.py [BENCH.json]"""

import json
import pathlib
import sys

import matplotlib

matplotlib.use("svg")
matplotlib.rcParams["svg.hashsalt"] = "pfe-nat"  # the same picture of the same figures
from matplotlib import pyplot  # noqa: E402

ROOT = pathlib.Path(__file__).resolve().parent.parent
KINDS = {"static": "static", "twice": "twice", "napt": "dynamic NAPT", "address-only": "address-only"}


def figures(file):
    """By case and number of connections."""
    cases = {}
    for run in json.loads(pathlib.Path(file).read_text())["benchmarks"]:
        name, n = run["name"].split("/")[:2]
        cases.setdefault(name, {})[int(n)] = run
    return cases


def main():
    cases = figures(sys.argv[1] if len(sys.argv) > 1 else ROOT / "build" / "bench.json")
    drawing, plots = pyplot.subplots(1, 2, figsize=(10, 4), layout="constrained")
    for plot, operation in zip(plots, ("add", "delete")):
        for kind, label in KINDS.items():
            runs = cases[f"{kind}-{operation}"]
            plot.plot(list(runs), [run["ns"] / 1000 for run in runs.values()], marker="o", label=label)
        runs = cases[f"static-{operation}"]
        plot.plot(list(runs), [run["floor_ns"] / 1000 for run in runs.values()], marker="o", ls="--", c="grey", label="floor, static")
        plot.set(title=operation, xscale="log", xlabel="connections", ylabel="microseconds per connection", ylim=(0, None))
        plot.set_xticks(list(runs), [f"{n:,}" for n in runs])
        plot.minorticks_off()
        plot.grid(alpha=0.3)
    plots[0].legend()
    drawing.savefig(ROOT / "docs" / "cost-per-connection.svg", metadata={"Date": None})


main()

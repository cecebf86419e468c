"""Draws each growth series of bench.json as a PNG: our cost and the peer's, relative to the first point."""

import json
import os
import sys

try:
    import matplotlib
except ImportError:
    print("no plots: python3-matplotlib is not installed")
    sys.exit(0)
matplotlib.use("Agg")
from matplotlib import pyplot


def plot(name, part, directory):
    figure, axes = pyplot.subplots(figsize=(7, 4.2))
    for index, (subject, sides) in enumerate(part["series"].items()):
        for side, style in (("ours", "o-"), ("peer", "x--")):
            values = [value / sides[side][0] for value in sides[side]]
            label = subject if side == "ours" else f"{subject}, peer"
            axes.plot(part["parameters"], values, style, color=f"C{index}", label=label)
    axes.set_xlabel(part["axis"])
    axes.set_ylabel("cost, first point = 1")
    if max(max(sides["ours"]) / sides["ours"][0] for sides in part["series"].values()) > 10:
        axes.set_yscale("log")
    else:
        axes.set_ylim(bottom=0)
    axes.grid(alpha=0.3)
    axes.legend(fontsize="small")
    figure.tight_layout()
    # Without matplotlib's version, so that the same figures give the same file.
    figure.savefig(os.path.join(directory, f"{name}.png"), dpi=110, metadata={"Software": None})


def main():
    path, directory = sys.argv[1:]
    with open(path, encoding="utf-8") as file:
        growth = json.load(file)["growth"]
    os.makedirs(directory, exist_ok=True)
    for name, part in growth.items():
        plot(name, part, directory)


if __name__ == "__main__":
    main()

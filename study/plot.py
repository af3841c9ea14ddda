#!/usr/bin/env python3
"""Plots Dice over W5 for docs/accuracy.md (Debian: python3-matplotlib).

usage: plot.py ACCURACY.tsv OUT.png

ACCURACY.tsv has the columns head, mask, series, w5, dice and false-positive and false-negative mL.
Series are "not finished", "defaults" (the default radii) and "auto" (the command's choice of W5); the
others are other tools' figures, which have a Dice only. A head has one colour, its second mask a
broken line or hollow marks.
"""
import csv
import sys
from collections import defaultdict

import matplotlib

matplotlib.use("Agg")
from matplotlib import pyplot
from matplotlib.lines import Line2D

LOWEST = 0.895
MARKERS = {"surface model": "s", "second tool": "D", "network": "^"}
PLACES = {"surface model": 1.56, "second tool": 1.59, "network": 1.62}


def read(path):
    """Lists of (w5, dice) by head, mask and series; w5 is None for other tools."""
    series = defaultdict(list)
    with open(path, newline="") as file:
        for row in csv.DictReader(file, delimiter="\t"):
            point = (float(row["w5"]) if row["w5"] else None, float(row["dice"]))
            series[row["head"], row["mask"], row["series"]].append(point)
    return series


def draw(series, axes):
    heads = list(dict.fromkeys(head for head, _, _ in series))
    masks = {h: list(dict.fromkeys(m for head, m, _ in series if head == h)) for h in heads}
    for (head, mask, name), points in series.items():
        colour = f"C{heads.index(head)}"
        place = masks[head].index(mask)
        if name == "defaults":
            label = head if len(masks[head]) == 1 else f"{head}, {mask}"
            axes.plot(*zip(*points), color=colour, linestyle=["-", "--"][place], label=label)
        elif name == "auto":
            axes.plot(*points[0], marker="o", markersize=9, color=colour, markeredgecolor="black")
        elif name in MARKERS:
            axes.plot(PLACES[name], points[0][1], MARKERS[name], color=colour,
                      fillstyle=["full", "none"][place])


def main():
    source, target = sys.argv[1:]
    figure, axes = pyplot.subplots(figsize=(8, 5), layout="constrained")
    draw(read(source), axes)
    axes.axvline(1.53, color="0.8")
    axes.set(xlabel="W5", ylabel="Dice", xlim=(0.68, 1.65), ylim=(LOWEST, 0.985),
             xticks=[0.7 + 0.1 * i for i in range(9)])
    axes.grid(color="0.9")
    lines = axes.legend(loc="lower right", bbox_to_anchor=(0.86, 0), fontsize=9)
    axes.add_artist(lines)
    marks = [Line2D([], [], marker="o", markersize=9, color="white", markeredgecolor="black",
                    linestyle="", label="chosen by auto")]
    marks += [Line2D([], [], marker=marker, color="0.4", linestyle="", label=name)
              for name, marker in MARKERS.items()]
    axes.legend(handles=marks, loc="lower right", bbox_to_anchor=(0.86, 0.27), ncol=2, fontsize=9)
    figure.savefig(target, dpi=110)


if __name__ == "__main__":
    main()

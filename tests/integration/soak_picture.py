"""Draws the curves of a soak: soak_picture.py soak.csv soak.svg (needs python3-matplotlib)."""

import csv
import sys

#: column, what it is called, by what it is multiplied
CURVES = [
    ("resident_kib", "resident memory, MiB", 1 / 1024),
    ("descriptors", "open descriptors", 1),
    ("objects", "objects on the bus", 1),
    ("cpu_share", "processor, % of a core", 100),
    ("events", "events received, thousands", 1 / 1000),
]
INK = "#303030"
LINE = "#2a6f97"


def draw(csv_path, svg_path):
    import matplotlib

    matplotlib.use("svg")
    matplotlib.rcParams |= {"svg.fonttype": "none", "svg.hashsalt": "soak", "font.size": 9, "axes.edgecolor": "#a0a0a0"}
    import matplotlib.pyplot as plt

    with open(csv_path, encoding="ascii") as file:
        rows = list(csv.DictReader(file))
    minutes = [float(row["seconds"]) / 60 for row in rows]
    figure, axes = plt.subplots(len(CURVES), 1, figsize=(8, 1.5 * len(CURVES)), sharex=True)
    for axis, (column, name, factor) in zip(axes, CURVES):
        values = [float(row[column]) * factor for row in rows]
        axis.plot(minutes, values, color=LINE, linewidth=1.2)
        axis.set_ylim(0, max(values) * 1.2 or 1)
        axis.set_title(name, loc="left", fontsize=9, color=INK)
        axis.spines[["top", "right"]].set_visible(False)
        axis.tick_params(colors=INK)
    axes[-1].set_xlabel("minutes", color=INK)
    figure.tight_layout()
    figure.savefig(svg_path, metadata={"Date": None})


if __name__ == "__main__":
    draw(*sys.argv[1:3])

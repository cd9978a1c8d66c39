"""What the results say: the table, with a goal for each row, and the plots."""

import statistics

#: (row, what is compared with what, goal: at most)
GOALS = (
    ("streams", "32 sources with a plug-in that does nothing, against a bare capture client", 1.10),
    ("loudness", "32 sources with loudness, against a bare client with the same meter", 1.10),
    ("loudness-peer", "the same, against GStreamer with 32 level meters", 0.4),
    ("unchanged", "64 events that do not change, against building and dropping them", 1.5),
    ("linear", "an event among 256 that do not change, against one among 16", 1.3),
    ("changed", "64 events that change with each buffer, against building and dropping them", 5.0),
    ("signal-16", "a signal from an instance with 16 events, against a message built by hand", 1.3),
    ("signal-64", "the same with 64 events", 1.3),
    ("latency-p50", "from change to client at 1,000 a second, against by hand: median", 1.5),
    ("latency-p99", "the same: 99th percentile", 2.0),
    ("losses", "values lost or out of order, 20 told in each of 1,000 buffers a second", 0),
    ("poll", "a poll with 100 idle private buses, against one with 1", 5.0),
    ("rearming", "system calls that re-arm what has not changed, in a poll with 100 buses", 0),
    ("start", "start with 256 sources, against 16: each source", 1.3),
    ("arrival", "a node comes with 256 sources there, against 16", 1.3),
    ("removal", "a node goes with 256 sources there, against 16", 1.3),
    ("memory", "memory with 64 sources, against a bare client with 64 streams", 1.4),
    ("client-memory", "memory of a private client, against a bare server with the same tables", 1.3),
)

#: (file, title, axis, own, floor, series, log scale)
PLOTS = (
    ("streams", "Processor time by streams", "streams", "ms a stream and second of audio", (("streams", ""),), False),
    (
        "events",
        "What follows a buffer, by events",
        "events",
        "µs a buffer",
        (("unchanged_events", "unchanged"), ("changed_events", "all changed")),
        True,
    ),
    ("buses", "One value to private buses", "private buses", "µs", (("signal_buses", "signal"), ("poll", "idle poll")), True),
)


def _amount(value, unit):
    return f"{value:.3g} {unit}" if value < 1000 else f"{value:,.0f} {unit}"


def _verdict(goal, values):
    return statistics.median(values) <= goal


def table(data):
    """In Markdown."""
    lines = [
        "| What | Ratio: median (lowest to highest) | Goal | Met | Own | Compared with |",
        "| --- | --- | --- | --- | --- | --- |",
    ]
    for name, what, goal in GOALS:
        row = data["rows"].get(name)
        if row is None:
            continue
        values = row["values"]
        ratio = f"{statistics.median(values):.2f}"
        if len(values) > 1:
            ratio += f" ({min(values):.2f} to {max(values):.2f})"
        amounts = ["", ""]
        if "own" in row:
            amounts = [_amount(row[key], row["unit"]) for key in ("own", "floor")]
        note = f" ({row['note']})" if "note" in row else ""
        verdict = "yes" if _verdict(goal, values) else "**no**"
        lines.append(f"| {what}{note} | {ratio} | {goal:g} | {verdict} | {amounts[0]} | {amounts[1]} |")
    machine = data["machine"]
    lines += [
        "",
        f"{machine['date']}, {machine['processor']}, Linux {machine['kernel']}, PipeWire {machine['pipewire']}, "
        f"libsystemd {machine['libsystemd']}, load {machine['load']}; {data['pairs']} pairs.",
    ]
    return "\n".join(lines)


def is_within(data, tolerance):
    """Whether no ratio is past its goal times `tolerance`."""
    return all(
        statistics.median(data["rows"][name]["values"]) <= goal * tolerance
        for name, _, goal in GOALS
        if name in data["rows"]
    )


def draw(data, folder):
    """One SVG for each plot whose series were measured."""
    import matplotlib

    matplotlib.use("svg")
    # The same results draw the same file.
    matplotlib.rcParams["svg.hashsalt"] = "hear-sense"
    from matplotlib import pyplot

    folder.mkdir(parents=True, exist_ok=True)
    for name, title, axis, unit, series, is_log in PLOTS:
        if not all(key in data["series"] for key, _ in series):
            continue
        figure, axes = pyplot.subplots(figsize=(6, 3.6))
        scale = 0.001 if unit.startswith("µs") else 1
        for key, label in series:
            points = sorted(data["series"][key])
            numbers = [point[0] for point in points]
            own = axes.plot(numbers, [point[1] * scale for point in points], marker="o", label=f"hear-sense {label}".strip())
            axes.plot(
                numbers,
                [point[2] * scale for point in points],
                marker="o",
                linestyle="--",
                color=own[0].get_color(),
                alpha=0.6,
                label=f"{label}, compared with" if label else "compared with",
            )
        if is_log:
            axes.set_xscale("log")
            axes.set_yscale("log")
        else:
            axes.set_ylim(bottom=0)
        axes.set_title(title)
        axes.set_xlabel(axis)
        axes.set_ylabel(unit)
        axes.grid(alpha=0.3)
        axes.legend()
        figure.tight_layout()
        figure.savefig(folder / f"performance-{name}.svg", metadata={"Date": None})
        pyplot.close(figure)

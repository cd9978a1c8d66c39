"""Measures every row, prints the table, writes the results and, when asked to, the plots. See run.sh."""

import argparse
import json
import os
import pathlib
import statistics
import subprocess
import sys
import tempfile

import latency
import memory
import report
import rig
import start
import streams


class Results:
    """Rows of pairs, and series for the plots, under the names that report.py knows."""

    def __init__(self):
        self.rows = {}
        self.series = {}

    def add(self, name, values, **notes):
        """`values` are the ratios of the pairs; what is not measured in pairs has one."""
        self.rows[name] = {"values": list(values)} | notes

    def add_pairs(self, name, own, floor, **notes):
        notes |= {"own": statistics.median(own), "floor": statistics.median(floor)}
        self.add(name, [a / b for a, b in zip(own, floor)], **notes)

    def add_point(self, series, x, own, floor):
        self.series.setdefault(series, []).append([x, statistics.median(own), statistics.median(floor)])


def run_benchmark(build, program, pairs, seconds, pattern="."):
    """The repetitions of each benchmark of a program, by its name."""
    with tempfile.NamedTemporaryFile(prefix="hs-bench-", suffix=".json") as out:
        subprocess.run(
            [
                build / "bench" / program,
                f"--benchmark_filter={pattern}",
                f"--benchmark_repetitions={pairs}",
                f"--benchmark_min_time={seconds}",
                f"--benchmark_out={out.name}",
                "--benchmark_out_format=json",
            ],
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
            check=True,
        )
        found = {}
        for run in json.load(out)["benchmarks"]:
            if run.get("error_occurred"):
                raise RuntimeError(f"{run['name']}: {run['error_message']}")
            if run["run_type"] == "iteration":
                name = run["run_name"].replace("/manual_time", "").replace("/iterations:1", "")
                found.setdefault(name, []).append(run)
        return found


def column(runs, key):
    return [run[key] for run in runs]


def measure_events(build, results, options):
    pattern = "." if options.plots else "changed_events/64|linear"
    found = run_benchmark(build, "bench-events", options.pairs, options.min_time, pattern)
    for name, kind in (("unchanged", "unchanged_events/64"), ("changed", "changed_events/64")):
        results.add_pairs(name, column(found[kind], "own"), column(found[kind], "floor"), unit="ns a buffer")
    results.add("linear", column(found["linear_events/256"], "ratio"))
    for kind in ("unchanged_events", "changed_events"):
        for name, runs in found.items():
            if name.startswith(kind + "/"):
                results.add_point(kind, int(name.split("/")[1]), column(runs, "own"), column(runs, "floor"))


def measure_signals(build, results, options):
    pattern = "." if options.plots else "events:(16|64)/buses:1$"
    pattern = pattern.replace("$", "/")
    found = run_benchmark(build, "bench-signals", options.pairs, options.min_time, pattern)
    for events in (16, 64):
        runs = found[f"signal/events:{events}/buses:1"]
        results.add_pairs(f"signal-{events}", column(runs, "own"), column(runs, "floor"), unit="ns")
    for name, runs in found.items():
        events, buses = (int(part.split(":")[1]) for part in name.split("/")[1:])
        if buses == 1:
            results.add_point("signal_events", events, column(runs, "own"), column(runs, "floor"))
        if events == 16:
            results.add_point("signal_buses", buses, column(runs, "own"), column(runs, "floor"))


def measure_polls(build, results, options):
    pattern = "." if options.plots else "^poll_against_one/100|poll_calls/100"
    found = run_benchmark(build, "bench-poll", options.pairs, options.min_time, pattern)
    runs = found["poll_against_one/100"]
    results.add_pairs("poll", column(runs, "own"), column(runs, "floor"), unit="ns")
    if max(column(found["rearmed_poll_calls/100"], "rearming")) == 0:
        raise RuntimeError("re-arming system calls are not seen")
    results.add("rearming", [max(column(found["poll_calls/100"], "rearming"))])
    for name, runs in found.items():
        if name.startswith("poll_against_bare/"):
            results.add_point("poll", int(name.split("/")[1]), column(runs, "own"), column(runs, "floor"))


def per_stream(windows, n_streams):
    """Milliseconds for each stream and second of audio."""
    return [1000 * taken / n_streams for taken in windows]


def measure_streams(build, results, options):
    n = 32
    unit = "ms a stream and second"
    own, bare = (per_stream(windows, n) for windows in streams.idle(build, n, options.pairs))
    results.add_pairs("streams", own, bare, unit=unit)
    if options.plots:
        results.add_point("streams", n, own, bare)
        for few in (1, 4, 16):
            windows = streams.idle(build, few, max(5, options.pairs // 3))
            results.add_point("streams", few, *(per_stream(taken, few) for taken in windows))
    own, bare, peer = (per_stream(windows, n) for windows in streams.loudness(build, n, options.pairs))
    results.add_pairs("loudness", own, bare, unit=unit)
    results.add_pairs("loudness-peer", own, peer, unit=unit)


def measure_latency(build, results, options):
    own, bare = latency.ages(build, options.pairs)
    for key in ("p50", "p99"):
        results.add_pairs(f"latency-{key}", column(own, key), column(bare, key), unit="ns")
    rates = [statistics.median(column(windows, "n")) for windows in (own, bare)]
    results.rows["latency-p50"]["note"] = f"{rates[0]:.0f} a second, by hand {rates[1]:.0f}"
    windows = latency.losses(build, options.pairs)
    wrong = sum(window["missing"] + window["disordered"] for window in windows)
    rate = statistics.median(column(windows, "n"))
    results.add("losses", [wrong], note=f"{rate:.0f} values a second arrived")


def measure_starts(build, results, options):
    few, many = 16, 256
    starts = start.starts(build, options.slow_pairs)
    cost = [[(run["cpu"] - none["cpu"]) * 1000 / n for none, run in ((s[0], s[i]) for s in starts)]
            for i, n in ((1, few), (2, many))]
    full = [s[2] for s in starts]
    results.add_pairs("start", cost[1], cost[0], unit="ms a source",
                      note=f"{full[0]['fsyncs']} fsync take {statistics.median(column(full, 'fsync_seconds')):.1f} s "
                           f"of {statistics.median(column(full, 'seconds')):.1f} s")
    for name, pairs in zip(("arrival", "removal"), start.arrivals(build, options.slow_pairs)):
        in_ms = [[value * 1000 for value in values] for values in zip(*pairs)]
        results.add_pairs(name, in_ms[1], in_ms[0], unit="ms a node")


def measure_memory(build, results, options):
    found = [memory.once(build) for _ in range(options.rounds)]
    results.add_pairs("memory", column(found, "daemon"), column(found, "bare"), unit="kB")
    results.add_pairs("client-memory", column(found, "client"), column(found, "bare_client"), unit="kB a client",
                      note=f"{found[0]['members']} members")


PARTS = {
    "events": measure_events,
    "signals": measure_signals,
    "polls": measure_polls,
    "streams": measure_streams,
    "latency": measure_latency,
    "starts": measure_starts,
    "memory": measure_memory,
}


def measure(options):
    build = options.build.resolve()
    os.environ["HS_BUILD_DIR"] = str(build)
    results = Results()
    for name in options.only:
        print(f"==> {name}", flush=True)
        PARTS[name](build, results, options)
    return {
        "machine": rig.environment_of(),
        "pairs": options.pairs,
        "rows": results.rows,
        "series": results.series,
    }


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("--from", dest="source", type=pathlib.Path, help="shows these results, and measures nothing")
    parser.add_argument("--quick", action="store_true", help="few pairs")
    parser.add_argument("--only", nargs="+", choices=PARTS, default=list(PARTS), help="leaves out the other parts")
    parser.add_argument("--out", type=pathlib.Path, help="writes the results to this file")
    parser.add_argument("--tolerance", type=float, default=1.0,
                        help="fails only where a ratio is past its goal times this")
    parser.add_argument("--plots", type=pathlib.Path, help="draws the plots into this folder")
    options = parser.parse_args()
    options.pairs = 5 if options.quick else 15
    options.slow_pairs = 3 if options.quick else 15
    options.rounds = 1 if options.quick else 3
    options.min_time = 0.05 if options.quick else 0.2

    if options.source:
        data = json.loads(options.source.read_text())
    else:
        data = measure(options)
    if options.out:
        options.out.write_text(json.dumps(data, indent=1) + "\n")
    if options.plots:
        report.draw(data, options.plots)
    print(report.table(data))
    sys.exit(0 if report.is_within(data, options.tolerance) else 1)


if __name__ == "__main__":
    main()

"""Processor time of the daemon while it listens, against a bare client on the same nodes at the same time."""

import time

from rig import Rig, processor_time

_OF_A_SINK = "stream-properties=props,stream.capture.sink=true"


def _windows(processes, count, seconds):
    """The processor time of each process in each window, in seconds for a second of audio."""
    result = []
    for _ in range(count):
        start = time.monotonic()
        before = [processor_time(process.pid) for process in processes]
        time.sleep(seconds)
        after = [processor_time(process.pid) for process in processes]
        elapsed = time.monotonic() - start
        result.append([(b - a) / elapsed for a, b in zip(before, after)])
    return result


def _measure(rig, daemon, others, pairs, seconds):
    rig.wait_running(len(rig.names) * (1 + len(others)))
    time.sleep(2)
    return list(zip(*_windows([daemon, *others], pairs, seconds)))


def idle(build, streams, pairs, seconds=2.0):
    """(daemon, bare client), a list of windows each, with a plug-in that does nothing."""
    with Rig(build, streams, sinks=True) as rig:
        bare = rig.run("bare", "bare-capture", *rig.names)
        stage = rig.stage()
        rig.plugin(stage, "idle", public=True)
        daemon = rig.serving_daemon(stage, rig.bus())
        rig.wait_ready(bare)
        return _measure(rig, daemon, [bare], pairs, seconds)


def loudness(build, streams, pairs, seconds=2.0):
    """(daemon, bare client with the same meter, GStreamer with a level meter on each node)."""
    with Rig(build, streams, sinks=True) as rig:
        bare = rig.run("bare", "bare-capture", "--loudness", *rig.names)
        pipelines = []
        for name in rig.names:
            pipelines += ["pipewiresrc", f"target-object={name}", _OF_A_SINK, "!", "level", "!", "fakesink"]
        peer = rig.run("gstreamer", "gst-launch-1.0", "-q", *pipelines)
        stage = rig.stage()
        stage.install_library("loudness", rig.build / "plugins/loudness/libspa-hs-loudness.so")
        stage.conf("loudness", {"plugin.info": {"Enable.default": {"title": "Enable", "value": "true"}}})
        daemon = rig.serving_daemon(stage, rig.bus())
        rig.wait_ready(bare)
        result = _measure(rig, daemon, [bare, peer], pairs, seconds)
        assert peer.alive, "GStreamer has ended: " + peer.err()
        return result

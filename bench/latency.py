"""From a change in a plug-in to the client that reads it, against a message built by hand."""

import json

from bed.process import wait_until
from rig import PATIENCE, Rig, microphone_name

INTERFACE = "com.orvel.HearSense.Events.Bench_idle.Event00"
PROPERTY = "Event00"
RATE = 1000
BURST = 20


def _path():
    return "/com/orvel/HearSense/" + microphone_name(0).replace(".", "/") + "/Bench_idle"


def _fast_rig(build):
    """Buffers of 48 samples at 48 kHz: a thousand a second."""
    rig = Rig(build, 1, sinks=True)
    # The daemon by itself does not keep a sink running.
    rig.wait_ready(rig.run("runner", "bare-capture", *rig.names))
    rig.graph._ask("pw-metadata", "-n", "settings", "0", "clock.force-quantum", str(48000 // RATE))
    return rig


def _results(receiver, count):
    def done():
        assert receiver.alive or receiver.popen.returncode == 0, f"{receiver.name}: {receiver.err()}"
        return not receiver.alive

    wait_until(done, f"{receiver.name} to have read {count} windows", PATIENCE)
    windows = [json.loads(line) for line in receiver.out().splitlines()]
    assert all(window["n"] > 0 for window in windows), f"{receiver.name}: no values came: {windows}"
    return windows


def _receiver(rig, name, where, what, windows, milliseconds):
    return rig.run(name, "receiver", *where, what, windows, milliseconds, _path(), INTERFACE, PROPERTY)


def _daemon(rig, **config):
    stage = rig.stage()
    stage.grant_everything()
    rig.plugin(stage, "idle", public=False, **config)
    bus = rig.bus()
    rig.serving_daemon(stage, bus)
    return ["--bus", bus.address]


def ages(build, pairs, milliseconds=1000):
    """The windows of (daemon, message built by hand) at a thousand values a second."""
    with _fast_rig(build) as rig:
        socket = rig.folder / "sender"
        sender = rig.run("sender", "bare-sender", socket, RATE, _path(), INTERFACE, PROPERTY)
        rig.wait_ready(sender)
        own = _receiver(rig, "own", _daemon(rig, stamps=True), "stamps", pairs, milliseconds)
        bare = _receiver(rig, "bare", ["--socket", socket], "stamps", pairs, milliseconds)
        return _results(own, pairs), _results(bare, pairs)


def losses(build, windows, milliseconds=1000):
    """The daemon's windows at twenty thousand values a second."""
    with _fast_rig(build) as rig:
        own = _receiver(rig, "own", _daemon(rig, counts=BURST), "counts", windows, milliseconds)
        return _results(own, windows)

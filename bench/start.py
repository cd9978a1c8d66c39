"""What it costs to find nodes: at start, and when one more comes and goes."""

import mmap
import re
import struct
import time

from bed.client import BusClient
from bed.process import wait_until
from rig import PATIENCE, Rig, microphone_name, processor_time, wait_quiet

PLUGINS = [f"p{number:02}" for number in range(1, 17)]
NODES = 16
NEW = 99
FIRST_ONLY = f"AudioDevice(0|{NEW})Input0"
ALL = "AudioDevice[0-9]*Input0"
NONE = "nothing"
_INSTANCE = re.compile(r"/Bench_p\d\d$")


def _stage(rig, pattern):
    stage = rig.stage()
    for name in PLUGINS:
        rig.plugin(stage, name, pattern, enabled=False, events=4, public=True)
    return stage


class _Watcher:
    """Which instances a client has been told of."""

    def __init__(self, bus):
        self.client = BusClient(bus.address)

    def count(self, member, start=0):
        self.client.pump()
        return len(
            {
                signal.body[0]
                for signal in self.client.signals[start:]
                if signal.member == member and _INSTANCE.search(signal.body[0])
            }
        )

    def wait(self, member, count, start=0):
        wait_until(lambda: self.count(member, start) == count, f"{count} times {member}", PATIENCE, interval=0.05)


class _Fsync:
    """The calls of fsync of a process, counted by a library that it preloads."""

    def __init__(self, rig, name):
        path = rig.folder / f"fsync-{name}"
        path.write_bytes(bytes(16))
        self.env = {"LD_PRELOAD": str(rig.build / "bench/bench-fsync.so"), "HS_BENCH_FSYNC": str(path)}
        with open(path, "rb") as file:
            self.map = mmap.mmap(file.fileno(), 16, access=mmap.ACCESS_READ)

    def read(self):
        """Number and seconds."""
        calls, nanoseconds = struct.unpack("=QQ", self.map[:16])
        return calls, nanoseconds * 1e-9


def _start_once(rig, bus, pattern, sources):
    """Processor time and seconds until all is published, and the calls of fsync and seconds in them."""
    stage = _stage(rig, pattern)
    watcher = _Watcher(bus)
    fsync = _Fsync(rig, stage.folder.name)
    begin = time.monotonic()
    daemon = rig.daemon(stage, bus, env=fsync.env)
    daemon.wait_ready(watcher.client, PATIENCE)
    watcher.wait("InterfacesAdded", sources)
    elapsed = time.monotonic() - begin
    wait_quiet(daemon.pid)
    taken = processor_time(daemon.pid)
    calls, waited = fsync.read()
    watcher.client.close()
    daemon.stop(timeout=PATIENCE)
    rig.daemons.remove(daemon)
    return {"cpu": taken, "seconds": elapsed, "fsyncs": calls, "fsync_seconds": waited}


def starts(build, pairs):
    """For each pair a start without sources, one with 16 and one with 256."""
    with Rig(build, NODES) as rig:
        bus = rig.bus()
        kinds = ((NONE, 0), (FIRST_ONLY, len(PLUGINS)), (ALL, len(PLUGINS) * NODES))
        return [[_start_once(rig, bus, *kind) for kind in kinds] for _ in range(pairs)]


def arrivals(build, pairs):
    """(arrival, removal): for each the processor time of (16 sources, 256 sources) that one node more takes."""
    with Rig(build, NODES) as rig:
        buses = [rig.bus(), rig.bus()]
        watchers = [_Watcher(bus) for bus in buses]
        daemons = [rig.daemon(_stage(rig, pattern), bus) for pattern, bus in zip((FIRST_ONLY, ALL), buses)]
        for watcher, count in zip(watchers, (len(PLUGINS), len(PLUGINS) * NODES)):
            watcher.wait("InterfacesAdded", count)
        pids = [daemon.pid for daemon in daemons]

        def take(act, member):
            wait_quiet(*pids)
            marks = [len(watcher.client.signals) for watcher in watchers]
            before = [processor_time(pid) for pid in pids]
            act()
            for watcher, mark in zip(watchers, marks):
                watcher.wait(member, len(PLUGINS), mark)
            wait_quiet(*pids)
            return [processor_time(pid) - start for pid, start in zip(pids, before)]

        name = microphone_name(NEW)
        result = [], []
        for _ in range(pairs):
            result[0].append(take(lambda: rig.graph.microphone(name), "InterfacesAdded"))
            result[1].append(take(lambda: rig.graph.destroy(name), "InterfacesRemoved"))
        for watcher in watchers:
            watcher.client.close()
        return result

"""What is measured in: the servers and the daemon of the test bed, bare clients, their processor time and memory."""

import json
import os
import pathlib
import shutil
import tempfile
import time

from bed.client import BusClient
from bed.daemon import Daemon
from bed.process import Process, wait_until
from bed.servers import Bus, Graph
from bed.stage import make_stage

#: A busy machine takes its time, and only processor time is measured.
PATIENCE = 120.0


def processor_time(pid):
    """Seconds of processor time, user and system, that a process has taken."""
    per_process_clock = 2
    return time.clock_gettime((~pid << 3) | per_process_clock)


def resident_kb(pid):
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        return int(next(line.split()[1] for line in status if line.startswith("VmRSS")))


def microphone_name(number):
    return f"AudioDevice{number}Input0.Unprocessed"


class Rig:
    """A message bus and an audio graph with so many microphones, all private, in a folder that is removed.

    With `sinks` these are sinks that go by the names of microphones.
    """

    def __init__(self, build, microphones, sinks=False):
        self.build = pathlib.Path(build).resolve()
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="hs-bench-"))
        self.processes = []
        self.daemons = []
        self.buses = []
        self.graph = Graph(self.folder)
        self.names = [microphone_name(number) for number in range(microphones)]
        for name in self.names:
            (self.add_sink if sinks else self.graph.microphone)(name, wait=False)
        wait_until(lambda: set(self.names) <= set(self.graph.nodes()), "the microphones", PATIENCE)

    def add_sink(self, name, wait=True):
        """Heard by what it plays; one driver runs them all, where each microphone runs by itself."""
        self.graph.quiet_microphone(name, "Audio/Sink", wait, **{"node.group": "pipewire.dummy"})

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for daemon in self.daemons:
            daemon.process.kill()
        for process in self.processes:
            process.kill()
        self.graph.stop()
        for bus in self.buses:
            bus.stop()
        shutil.rmtree(self.folder)

    def bus(self):
        bus = Bus(self.folder, f"bus{len(self.buses)}")
        self.buses.append(bus)
        return bus

    def stage(self):
        return make_stage(self.folder / f"stage{time.monotonic_ns()}", self.build)

    def plugin(self, stage, name, pattern=None, enabled=True, **config):
        """One of the names that the library of the benchmarks goes by."""
        info = {"Enable.default": {"title": "Enable", "value": "true"}} if enabled else {}
        if pattern is not None:
            info["node.pattern"] = pattern
        stage.install_library(name, self.build / "bench/libspa-hs-bench.so")
        config = {key: str(value).lower() for key, value in config.items()}
        stage.conf(name, {"plugin.config": config, "plugin.info": info})

    def daemon(self, stage, bus, **kwargs):
        daemon = Daemon(stage, bus.address, self.graph, debug="2", **kwargs)
        self.daemons.append(daemon)
        return daemon

    def serving_daemon(self, stage, bus):
        daemon = self.daemon(stage, bus)
        client = BusClient(bus.address)
        daemon.wait_ready(client, PATIENCE)
        client.close()
        return daemon

    def run(self, name, *argv, stdin=None):
        """A client; programs of the build go by their names alone. It reads PipeWire's files as the daemon does."""
        program = self.build / "bench" / argv[0]
        argv = [str(program) if program.exists() else argv[0], *map(str, argv[1:])]
        env = {key: value for key, value in self.graph.env.items() if key != "PIPEWIRE_CONFIG_DIR"}
        if stdin is None:
            process = Process(argv, name, self.folder, env)
        else:
            with open(stdin, "rb") as file:
                process = Process(argv, name, self.folder, env, stdin=file)
        self.processes.append(process)
        return process

    def wait_ready(self, process):
        def ready():
            assert process.alive, f"{process.name} has ended: {process.err()}"
            return "ready" in process.out()

        wait_until(ready, lambda: f"{process.name} to be ready: {process.err()}", PATIENCE)

    def wait_running(self, streams):
        """Waits until so many streams capture."""
        def running():
            count = 0
            for entry in json.loads(self.graph._ask("pw-dump")):
                info = entry.get("info") or {}
                is_stream = (info.get("props") or {}).get("media.class") == "Stream/Input/Audio"
                count += is_stream and info.get("state") == "running"
            return count >= streams

        wait_until(running, f"{streams} streams to run", PATIENCE, interval=0.5)


def wait_quiet(*pids):
    """Waits until processes have nothing left to do."""
    quiet_since = time.monotonic()
    last = [processor_time(pid) for pid in pids]
    end = time.monotonic() + PATIENCE
    while time.monotonic() - quiet_since < 0.3:
        assert time.monotonic() < end, "a process does not come to rest"
        time.sleep(0.05)
        now = [processor_time(pid) for pid in pids]
        if any(after - before > 0.0005 for before, after in zip(last, now)):
            quiet_since = time.monotonic()
        last = now



def environment_of():
    """What the figures were taken with."""
    def first(command):
        return os.popen(command).read().strip().splitlines()

    model = next((line.split(":", 1)[1].strip() for line in first("cat /proc/cpuinfo") if "model name" in line), "?")
    return {
        "processor": f"{os.cpu_count()} x {model}",
        "kernel": os.uname().release,
        "load": " ".join(f"{value:.1f}" for value in os.getloadavg()),
        "pipewire": next(iter(first("pkg-config --modversion libpipewire-0.3")), "?"),
        "libsystemd": next(iter(first("pkg-config --modversion libsystemd")), "?"),
        "date": time.strftime("%Y-%m-%d"),
    }

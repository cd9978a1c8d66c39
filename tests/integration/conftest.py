"""Fixtures of the test bed. HS_BUILD_DIR names the build directory whose daemon is tested."""

import os
import pathlib
import shutil
import signal
import tempfile

import pytest

from bed.client import BusClient
from bed.daemon import Daemon
from bed.process import SCALE
from bed.servers import Bus, Graph
from bed.stage import SYSTEM_NODE, make_stage

TEST_SECONDS = 60


def pytest_addoption(parser):
    parser.addoption(
        "--daemon-wrapper", help='a command that the daemon is run under, such as "valgrind -q"', default=None
    )


def pytest_configure(config):
    wrapper = config.getoption("--daemon-wrapper")
    if wrapper is not None:
        os.environ["HS_TEST_WRAPPER"] = wrapper
    config.addinivalue_line("markers", "seconds(limit): how long the test may take")
    config.addinivalue_line("markers", "plain: takes away what a sanitizer or valgrind itself needs, so not with these")
    if "HS_BUILD_DIR" not in os.environ:
        raise pytest.UsageError("set HS_BUILD_DIR to the build directory")


def is_plain_daemon():
    program = pathlib.Path(os.environ["HS_BUILD_DIR"]) / "src/hear-sense"
    return "HS_TEST_WRAPPER" not in os.environ and b"__asan_init" not in program.read_bytes()


def pytest_collection_modifyitems(config, items):
    if is_plain_daemon():
        return
    left_out = [item for item in items if item.get_closest_marker("plain")]
    config.hook.pytest_deselected(items=left_out)
    items[:] = [item for item in items if item not in left_out]


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    """A failure tells what the bed saw. Where nobody looks at the output, a test that was skipped is missing."""
    outcome = yield
    report = outcome.get_result()
    bed = item.funcargs.get("bed") or item.funcargs.get("own_bed")
    if bed and report.when == "call" and report.failed:
        # Out of time here, the whole run would end.
        seconds_left = signal.alarm(0)
        report.sections += bed.evidence()
        signal.alarm(seconds_left)
    if report.skipped and not hasattr(report, "wasxfail") and os.environ.get("CI") == "true":
        report.outcome = "failed"
        report.longrepr = f"skipped in CI: {report.longrepr}"


def _too_long(number, frame):
    raise TimeoutError("the test took too long")


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_protocol(item, nextitem):
    signal.signal(signal.SIGALRM, _too_long)
    mark = item.get_closest_marker("seconds")
    signal.alarm(int((mark.args[0] if mark else TEST_SECONDS) * SCALE))
    yield
    signal.alarm(0)


@pytest.fixture(scope="session")
def build():
    path = pathlib.Path(os.environ["HS_BUILD_DIR"]).resolve()
    for needed in (
        "src/hear-sense",
        "tests/plugins/libspa-hs-scripted.so",
        "tests/plugins/libspa-hs-tone.so",
        "tests/plugins/hs-export-metadata",
        "tests/plugins/hs-write-file",
    ):
        assert (path / needed).exists(), f"{path / needed} has not been built"
    return path


def _folder():
    """Short, because sockets live in it."""
    return pathlib.Path(tempfile.mkdtemp(prefix="hs-"))


def _remove(folder):
    for path in [folder, *folder.rglob("*")]:
        if path.is_dir() and not path.is_symlink():
            path.chmod(0o700)
    shutil.rmtree(folder)


@pytest.fixture(scope="session")
def shared_bus():
    folder = _folder()
    bus = Bus(folder)
    yield bus
    bus.stop()
    _remove(folder)


@pytest.fixture(scope="session")
def shared_graph():
    folder = _folder()
    graph = Graph(folder)
    yield graph
    graph.stop()
    _remove(folder)


class Bed:
    """What a test works with: its stage, a bus, a graph, and any number of daemons one after the other."""

    def __init__(self, stage, bus, graph):
        self.stage = stage
        self.bus = bus
        self.graph = graph
        self.daemons = []
        self.clients = []
        self.nodes = []
        self.extra = []

    def plugin(self, file_name="motion", /, **kwargs):
        return self.stage.plugin(file_name, **kwargs)

    def client(self, address=None):
        client = BusClient(address or self.bus.address)
        self.clients.append(client)
        return client

    def spawn(self, args=(), **kwargs):
        """Starts the daemon and does not wait for anything."""
        bus_address = kwargs.pop("bus_address", self.bus.address)
        graph = kwargs.pop("graph", self.graph)
        daemon = Daemon(self.stage, bus_address, graph, args, **kwargs)
        self.daemons.append(daemon)
        return daemon

    def start(self, args=(), **kwargs):
        """The daemon, serving, and a client that has heard every signal since."""
        client = self.client()
        daemon = self.spawn(args, **kwargs)
        daemon.wait_ready(client)
        return daemon, client

    def microphone(self, name=SYSTEM_NODE, **kwargs):
        self.nodes.append(name)
        self.graph.microphone(name, **kwargs)
        return name

    def quiet_microphone(self, name=SYSTEM_NODE, **kwargs):
        self.nodes.append(name)
        self.graph.quiet_microphone(name, **kwargs)
        return name

    def unplug(self, name=SYSTEM_NODE):
        self.graph.destroy(name)

    def evidence(self):
        """What may tell why a test has failed, as sections of its report."""
        sections = [(f"daemon {daemon.pid}", daemon.tail()) for daemon in self.daemons]
        sections.append(("PipeWire", self.graph.server.err()[-4000:]))
        if self.graph.server.alive:
            some = list(dict.fromkeys(name for name in self.nodes if name))[:4]
            heard = (f"{name}: {self.graph.listen(name)} bytes in a second" for name in some)
            sections.append(("microphones", "\n".join(heard)))
        return sections

    def close(self):
        errors = []
        for daemon in self.daemons:
            try:
                daemon.finish()
            except AssertionError as error:
                errors.append(error)
        for client in self.clients:
            client.close()
        for helper in self.extra:
            helper()
        if self.graph.server.alive:
            self.graph.destroy(*dict.fromkeys(name for name in self.nodes if name is not None))
        if errors:
            raise errors[0]


def _make_bed(build, bus, graph):
    folder = _folder()
    bed = Bed(make_stage(folder, build), bus, graph)
    try:
        yield bed
    finally:
        try:
            bed.close()
        finally:
            _remove(folder)


@pytest.fixture
def bed(build, shared_bus, shared_graph):
    """The servers are shared by all tests of the run: leave them as they were."""
    yield from _make_bed(build, shared_bus, shared_graph)


@pytest.fixture
def own_bed(build):
    """With servers of its own, for tests that kill or replace them."""
    folder = _folder()
    bus = Bus(folder)
    graph = Graph(folder)
    try:
        yield from _make_bed(build, bus, graph)
    finally:
        graph.stop()
        bus.stop()
        _remove(folder)

"""Files that are replaced while the disk fails, fills up or the power goes: the old text or the new, whole."""

import collections
import json
import os
import pathlib
import signal
import subprocess
import tempfile

import pytest
from bed import strace
from bed.client import ROOT, CallFailed
from bed.process import SCALE, Process, wait_until
from bed.servers import base_environment
from bed.stage import event, setting

LINES = 1000
WRITES = int(os.environ.get("HS_FAULT_WRITES", "10000"))

#: The calls of one write, in their order; those between are the C library's.
ORDER = ["unlink", "openat", "write", "write", "write", "fsync", "close", "rename", "openat", "fsync", "close"]

#: call, which of them, fault, what the write answers, its warning, whether the new text is there
FAULTS = [
    ("unlink", 1, "error=EROFS", -1, "Failed to remove previous tmp file {}.tmp: Read-only file system", False),
    ("unlink", 1, "error=EIO", -1, "Failed to remove previous tmp file {}.tmp: Input/output error", False),
    ("openat", 1, "error=ENOSPC", -1, "Failed to open tmp file {}.tmp: No space left on device", False),
    ("openat", 1, "error=EROFS", -1, "Failed to open tmp file {}.tmp: Read-only file system", False),
    ("openat", 1, "error=EINTR", -1, "Failed to open tmp file {}.tmp: Interrupted system call", False),
    ("openat", 1, "error=EMFILE", -1, "Failed to open tmp file {}.tmp: Too many open files", False),
    ("write", 1, "error=ENOSPC", -1, "Failed to flush tmp file: ", False),
    ("write", 2, "error=EIO", -1, "Failed to flush tmp file: ", False),
    ("write", 3, "error=ENOSPC", -1, "Failed to flush tmp file: No space left on device", False),
    ("write", 3, "error=EINTR", -1, "Failed to flush tmp file: Interrupted system call", False),
    ("write", 1, "retval=0", 0, None, True),
    ("write", 3, "retval=0", 0, None, True),
    ("fsync", 1, "error=EIO", -1, "Failed to sync tmp file: Input/output error", False),
    ("fsync", 1, "error=ENOSPC", -1, "Failed to sync tmp file: No space left on device", False),
    ("fsync", 1, "error=EINTR", -1, "Failed to sync tmp file: Interrupted system call", False),
    ("close", 1, "error=EIO", -1, "Failed to close tmp file: Input/output error", False),
    ("close", 1, "error=ENOSPC", -1, "Failed to close tmp file: No space left on device", False),
    ("close", 1, "error=EINTR", -1, "Failed to close tmp file: Interrupted system call", False),
    ("rename", 1, "error=EROFS", -1, "Failed to rename tmp file: Read-only file system", False),
    ("rename", 1, "error=EIO", -1, "Failed to rename tmp file: Input/output error", False),
    ("rename", 1, "error=ENOSPC", -1, "Failed to rename tmp file: No space left on device", False),
    ("openat", 2, "error=EMFILE", -1, "Failed to open directory: Too many open files", True),
    ("fsync", 2, "error=EIO", -1, "Failed to sync directory: Input/output error", True),
    ("close", 2, "error=EIO", 0, "Failed to close file descriptor: Input/output error", True),
]


def text(number):
    return f"{number:08d}\n" * LINES


class Writer:
    """Replaces one file by the daemon's own writer, in a program of its own."""

    def __init__(self, build, folder):
        self.program = build / "tests/plugins/hs-write-file"
        self.path = folder / "file"
        self.log = folder / "calls"
        self.env = base_environment(folder) | strace.ENVIRONMENT | {"PIPEWIRE_DEBUG": "2,hear-sense:4"}

    def run(self, first, count=1, inject=None):
        """(exit status, what each write answered, warnings)"""
        self.log.unlink(missing_ok=True)
        paths = (self.path, f"{self.path}.tmp", self.path.parent)
        argv = [*strace.command(self.log, paths, inject or ()), str(self.program), str(self.path), str(first), str(count)]
        done = subprocess.run(argv, env=self.env, capture_output=True, text=True, timeout=30 * SCALE)
        warnings = [line.split("()] ", 1)[-1] for line in done.stderr.splitlines() if "hear-sense" in line]
        return done.returncode, [int(line) for line in done.stdout.split()], warnings

    def calls(self):
        return strace.calls(self.log)


@pytest.fixture
def writer(build, tmp_path):
    return Writer(build, tmp_path)


def test_write_syncs_and_closes_before_it_renames_and_syncs_the_folder_after(writer):
    assert writer.run(1) == (0, [0], [])
    assert [call for call in writer.calls() if call in ORDER] == ORDER
    assert writer.path.read_text() == text(1)


@pytest.mark.parametrize("call, number, fault, answer, warning, is_new", FAULTS)
def test_write_that_fails_tells_so_and_leaves_one_text_whole(writer, call, number, fault, answer, warning, is_new):
    writer.path.write_text(text(1))
    expected = [] if warning is None else [warning.format(writer.path)]
    status, answers, warnings = writer.run(2, inject=[f"{call}:{fault}:when={number}"])
    assert (status, answers) == (0, [answer])
    assert len(warnings) == len(expected) and all(w.startswith(e) for w, e in zip(warnings, expected)), warnings
    assert writer.path.read_text() == text(2 if is_new else 1)
    assert writer.run(3) == (0, [0], [])
    assert writer.path.read_text() == text(3)
    assert sorted(path.name for path in writer.path.parent.iterdir()) == ["calls", "file"]


def test_death_at_any_call_of_a_write_leaves_one_text_whole(writer):
    writer.run(1)
    names = writer.calls()
    seen = collections.Counter()
    for position, name in enumerate(names):
        seen[name] += 1
        writer.path.write_text(text(1))
        status, answers, _ = writer.run(2, inject=[f"{name}:signal=KILL:when={seen[name]}"])
        assert (status, answers) == (-signal.SIGKILL, []), f"not killed in {name}, call {position}"
        is_new = "rename" in names[:position]
        assert writer.path.read_text() == text(2 if is_new else 1), f"killed in {name}, call {position}"
        assert writer.run(3) == (0, [0], [])
        assert writer.path.read_text() == text(3)
        assert sorted(path.name for path in writer.path.parent.iterdir()) == ["calls", "file"]


@pytest.mark.seconds(60 + WRITES / 20)
def test_reader_never_sees_anything_but_a_whole_text(build):
    # On a disk, each write waits for it twice.
    folder = pathlib.Path(tempfile.mkdtemp(prefix="hs-", dir="/dev/shm" if os.access("/dev/shm", os.W_OK) else None))
    path = folder / "file"
    path.write_text(text(0))
    writer = Process(
        [str(build / "tests/plugins/hs-write-file"), str(path), "1", str(WRITES)],
        "writer",
        folder,
        base_environment(folder) | {"PIPEWIRE_DEBUG": "2"},
    )
    try:
        numbers = []
        is_alive = True
        while is_alive:
            is_alive = writer.alive
            seen = path.read_text()
            number = int(seen[:8])
            assert seen == text(number)
            numbers.append(number)
        assert writer.wait() == 0
        assert numbers == sorted(numbers)
        assert numbers[-1] == WRITES
        assert len(set(numbers)) > min(20, WRITES / 10)
        assert writer.out().split() == ["0"] * WRITES
    finally:
        writer.kill()
        for left in folder.iterdir():
            left.unlink()
        folder.rmdir()


class Traced:
    """Daemons, one after the other, whose calls about the settings file strace sees."""

    def __init__(self, bed):
        bed.stage.grant_everything()
        self.bed = bed
        self.plugin = bed.plugin(enabled=True, settings=[setting("Gain", "int32", 1)], events=[event("Speech")])
        self.file = bed.stage.settings_file(self.plugin)
        # Below this name the daemon knows it.
        self.seen = pathlib.Path("/etc/hear-sense/plugin-settings") / self.file.name
        self.log = bed.stage.logs / "calls"
        bed.quiet_microphone()
        self.start()
        #: What was called until the daemon served its bus, and then for one write.
        self.before = strace.calls(self.log)
        self.set(6)
        self.names = strace.calls(self.log)[len(self.before) :]
        assert self.daemon.stop() == 0

    def start(self, *inject):
        self.file.write_text(json.dumps({"gain": 5, "enable": True}))
        paths = (self.seen, f"{self.seen}.tmp", self.seen.parent)
        wrapper = strace.command(self.log, paths, inject)
        self.daemon, self.client = self.bed.start(wrapper=wrapper, env=strace.ENVIRONMENT)
        self.daemon.pid = strace.traced_pid(self.daemon.pid)
        self.client.wait_added(self.plugin.path())

    def when(self, name, number):
        """How strace counts that call of the next write after the start."""
        return f"when={self.before.count(name) + number}"

    def set(self, value):
        self.client.set(self.plugin.path(), self.plugin.settings_interface, "Gain", "i", value)

    def stored(self):
        return json.loads(self.file.read_text())["gain"]


@pytest.fixture
def traced(bed):
    return Traced(bed)


#: call, which of those of one write, fault, warning, whether the new value is in the file
DAEMON_FAULTS = [
    ("unlink", 1, "error=EROFS", "Failed to remove previous tmp file", False),
    ("openat", 1, "error=ENOSPC", "Failed to open tmp file", False),
    ("write", 1, "error=ENOSPC", "Failed to flush tmp file: No space left on device", False),
    ("write", 1, "retval=0", None, True),
    ("fsync", 1, "error=EIO", "Failed to sync tmp file: Input/output error", False),
    ("close", 1, "error=EIO", "Failed to close tmp file: Input/output error", False),
    ("rename", 1, "error=EROFS", "Failed to rename tmp file: Read-only file system", False),
    ("fsync", 2, "error=EIO", "Failed to sync directory: Input/output error", True),
]


@pytest.mark.parametrize("call, number, fault, warning, is_new", DAEMON_FAULTS)
def test_setting_that_cannot_be_stored_is_one_warning_and_holds_until_the_end(
    traced, call, number, fault, warning, is_new
):
    traced.start(f"{call}:{fault}:{traced.when(call, number)}")
    complaints = traced.daemon.log_count("[W]")
    traced.set(6)
    assert traced.daemon.log_count("[W]") == complaints + (warning is not None), traced.daemon.tail()
    assert warning is None or traced.daemon.log_count(warning) == 1
    assert traced.client.get(traced.plugin.path(), traced.plugin.settings_interface, "Gain") == 6
    assert traced.stored() == (6 if is_new else 5)
    traced.set(7)
    assert traced.stored() == 7
    assert traced.plugin.path() in traced.client.managed_objects()


def test_daemon_that_dies_in_a_write_finds_one_text_whole_when_it_starts_again(bed, traced):
    names = traced.names
    renamed = names.index("rename")
    for position in (*map(names.index, ("write", "fsync", "close", "rename")), renamed + 1):
        name = names[position]
        number = names[: position + 1].count(name)
        traced.start(f"{name}:signal=KILL:{traced.when(name, number)}")
        with pytest.raises((ConnectionError, CallFailed)):
            traced.set(6)
        assert traced.daemon.status() == -signal.SIGKILL
        assert traced.stored() == (6 if position > renamed else 5), f"killed in {name}"
        wait_until(lambda: not traced.client.has_owner(), "the bus to forget the dead")
    _, client = bed.start()
    client.wait_added(traced.plugin.path())
    assert client.get(traced.plugin.path(), traced.plugin.settings_interface, "Gain") == 6
    assert not traced.file.with_suffix(".conf.tmp").exists()


def test_metrics_that_cannot_be_stored_are_two_warnings_and_the_old_counts(bed):
    plugin = bed.plugin(events=[event("Speech")])
    bed.stage.grant_everything()
    bed.quiet_microphone()
    seen = pathlib.Path("/etc/hear-sense/metrics") / bed.stage.metrics_file(plugin).name
    calls = bed.stage.logs / "calls"
    wrapper = strace.command(calls, (f"{seen}.tmp",), ["fsync:error=ENOSPC:when=2"])
    daemon, client = bed.start(wrapper=wrapper, env=strace.ENVIRONMENT)
    daemon.pid = strace.traced_pid(daemon.pid)
    client.wait_added(plugin.path())
    before = bed.stage.metrics_file(plugin).read_text()
    client.set(plugin.path(), plugin.settings_interface, "Enable", "b", True)
    assert bed.stage.metrics_file(plugin).read_text() == before
    assert daemon.log_count("Failed to sync tmp file: No space left on device") == 1
    assert daemon.log_count("Failed to write metrics file at path: /etc/hear-sense/metrics/") == 1
    client.set(plugin.path(), plugin.settings_interface, "Enable", "b", False)
    counts = json.loads(bed.stage.metrics_file(plugin).read_text())
    assert (counts["enabled_count"], counts["disabled_count"]) == (0, 1)
    assert f"{ROOT}/AudioDevice0Input0" in client.managed_objects()

"""A device that has run out: of descriptors, of memory, of room on the disk."""

import json
import os
import pathlib
import resource
import signal

import pytest
from bed.client import ERROR, CallFailed
from bed.private import PrivateClient, descriptor_client, take_descriptor
from bed.process import wait_until
from bed.stage import event, setting

DESCRIPTORS = 32

DISK_PAGES = 16
PAGE = os.sysconf("SC_PAGE_SIZE")


def limited(*limits):
    return ["prlimit", *limits, "--"]


@pytest.fixture
def cramped(bed):
    """A daemon that has 32 descriptors, of which private buses take all that they can get."""
    bed.stage.grant_everything()
    plugin = bed.plugin(enabled=True, settings=[setting("Gain", "int32", 1)], events=[event("Speech", "int32", 0)])
    bed.microphone()
    daemon, client = bed.start(wrapper=limited(f"--nofile={DESCRIPTORS}:{DESCRIPTORS}"))
    client.wait_added(plugin.path())
    plugin.wait_call("process")
    main = descriptor_client(bed.bus)
    bed.clients.append(main)
    sockets = []
    with pytest.raises(CallFailed) as failure:
        for _ in range(DESCRIPTORS):
            sockets.append(take_descriptor(main))
    assert (failure.value.name, failure.value.text) == (ERROR, "Cannot create private bus.")
    yield plugin, daemon, client, main, sockets
    for sock in sockets:
        sock.close()


def test_with_32_descriptors_a_bus_too_many_is_refused_and_the_rest_goes_on(bed, cramped):
    plugin, daemon, client, main, sockets = cramped
    refusals = daemon.log_lines("Refused a private bus to user ")
    assert len(refusals) == 1 and f"no descriptor is left, the limit is {DESCRIPTORS}" in refusals[0]
    client.set(plugin.path(), plugin.settings_interface, "Gain", "i", 7)
    assert json.loads(bed.stage.settings_file(plugin).read_text())["gain"] == 7
    plugin.set("Speech", 5)
    client.wait_change(plugin.event_interface("Speech"), "Speech", 5)
    for sock in sockets:
        sock.close()
    wait_until(lambda: daemon.log_count("Destroy bus event data: ") == len(sockets), "the private buses to go")
    private = PrivateClient(main)
    bed.clients.append(private)
    assert plugin.path() in private.managed_objects()


def test_without_a_descriptor_for_a_new_microphone_the_daemon_ends_with_one_error_and_0(bed, cramped):
    """PipeWire's connection does not outlive a descriptor that it could not take."""
    plugin, daemon, _, _, sockets = cramped
    held = []
    while daemon.alive and daemon.descriptors() < DESCRIPTORS and len(held) < 4:
        held.append(f"AudioDevice{len(held) + 2}Input0.Unprocessed")
        bed.microphone(held[-1], wait=False)
        number = len(held)
        wait_until(
            lambda: not daemon.alive or daemon.log_count("Object added - ") > number,
            "the microphone to be seen",
        )
    assert daemon.status() == 0
    assert [line[:3] for line in daemon.log_lines("PipeWire connection lost: ")] == ["[E]"]
    assert daemon.log_count("Exiting.") == 1
    assert json.loads(bed.stage.settings_file(plugin).read_text())["gain"] == 1
    assert sockets


@pytest.mark.plain
def test_with_too_few_descriptors_to_start_with_it_ends_with_an_error(bed):
    """Too few for the bus, for PipeWire or for the loop, whichever comes first."""
    bed.plugin(enabled=True, events=[event("Speech")])
    for limit in (4, 6, 8, 10, 12):
        daemon = bed.spawn(wrapper=limited(f"--nofile={limit}:{limit}"))
        status = daemon.status()
        assert status == 1, f"{limit} descriptors: {daemon.tail()}"
        assert daemon.log_count("[E]") >= 1


@pytest.mark.plain
@pytest.mark.seconds(120)
def test_with_too_little_memory_it_serves_or_says_so_and_its_files_are_whole(bed):
    bed.stage.grant_everything()
    plugin = bed.plugin(enabled=True, settings=[setting("Gain", "int32", 1)], events=[event("Speech")])
    bed.quiet_microphone()
    file = bed.stage.settings_file(plugin)
    file.write_text(json.dumps({"gain": 5, "enable": True}))
    daemon, client = bed.start()
    client.wait_added(plugin.path())
    needed = daemon._status_kb("VmPeak") * 1024
    assert daemon.stop() == 0

    seen = {"served": 0, "said": 0}
    for share in (0.3, 0.6, 0.8, 0.9, 0.95, 1.0, 1.1):
        daemon = bed.spawn(wrapper=limited(f"--as={int(needed * share)}"))
        client = bed.client()
        wait_until(lambda: not daemon.alive or client.has_owner(), "the daemon to serve or to end", 20)
        try:
            client.wait_added(plugin.path(), timeout=3)
            client.set(plugin.path(), plugin.settings_interface, "Gain", "i", 6)
            seen["served"] += 1
        except (AssertionError, CallFailed):
            seen["said"] += 1
            assert daemon.log().strip(), f"no word with {share:.0%} of the memory"
        if daemon.alive:
            daemon.terminate()
        status = daemon.process.wait()
        daemon.ended = True
        assert status in (0, 1, 127, -signal.SIGABRT, 128 + signal.SIGABRT), daemon.tail()
        assert json.loads(file.read_text())["gain"] in (5, 6)
        wait_until(lambda: not client.has_owner(), "the name to be free")
    print(f"{needed // 1024} KiB of address space are used; of 7 limits {seen}")
    assert seen["served"] >= 1 and seen["said"] >= 1


def fill(folder):
    """A file that takes all that is left."""
    path = folder / "ballast"
    with open(path, "wb", buffering=0) as ballast:
        try:
            while ballast.write(bytes(PAGE)):
                pass
        except OSError:
            pass
    return path


def test_full_disk_costs_what_is_written_and_nothing_else(bed):
    bed.stage.grant_everything()
    plugin = bed.plugin(enabled=True, settings=[setting("Gain", "int32", 1)], events=[event("Speech", "int32", 0)])
    bed.microphone()
    daemon, client = bed.start(disk=DISK_PAGES * PAGE)
    client.wait_added(plugin.path())
    plugin.wait_call("process")
    client.set(plugin.path(), plugin.settings_interface, "Gain", "i", 6)
    # The daemon's own disk, seen through its process.
    folder = pathlib.Path(f"/proc/{daemon.pid}/root/etc/hear-sense")
    file = folder / "plugin-settings" / bed.stage.settings_file(plugin).name
    old = file.read_text()
    ballast = fill(folder)
    for value in range(7, 12):
        client.set(plugin.path(), plugin.settings_interface, "Gain", "i", value)
        assert client.get(plugin.path(), plugin.settings_interface, "Gain") == value
        assert file.read_text() == old
    assert daemon.log_count("No space left on device") == 5
    plugin.set("Speech", 3)
    client.wait_change(plugin.event_interface("Speech"), "Speech", 3)
    ballast.unlink()
    client.set(plugin.path(), plugin.settings_interface, "Gain", "i", 12)
    assert json.loads(file.read_text())["gain"] == 12
    assert [path.name for path in file.parent.iterdir()] == [file.name]
    assert daemon.log_count("No space left on device") == 5


def test_file_that_may_not_grow_costs_what_is_written_and_nothing_else(bed):
    """The kernel takes a part of the text, then no more, and sends a signal that would end the daemon."""
    bed.stage.grant_everything()
    names = [f"Setting{number}" for number in range(40)]
    rooms = [setting(name, "string", "x" * 100) for name in names]
    plugin = bed.plugin(enabled=True, settings=rooms, events=[event("Speech")])
    bed.quiet_microphone()
    daemon, client = bed.start()
    client.wait_added(plugin.path())
    file = bed.stage.settings_file(plugin)
    old = file.read_text()
    _, hard = resource.prlimit(daemon.pid, resource.RLIMIT_FSIZE)
    resource.prlimit(daemon.pid, resource.RLIMIT_FSIZE, (2000, hard))
    client.set(plugin.path(), plugin.settings_interface, "Setting1", "s", "new")
    assert client.get(plugin.path(), plugin.settings_interface, "Setting1") == "new"
    assert file.read_text() == old
    resource.prlimit(daemon.pid, resource.RLIMIT_FSIZE, (hard, hard))
    client.set(plugin.path(), plugin.settings_interface, "Setting2", "s", "newer")
    stored = json.loads(file.read_text())
    assert (stored["setting1"], stored["setting2"]) == ("new", "newer")

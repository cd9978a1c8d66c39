"""Private buses, as real peer-to-peer clients use them."""

import os
import re
import struct

import pytest
from bed.client import ROOT, SERVICE, CallFailed
from bed.private import PrivateClient, descriptor_client, take_descriptor
from bed.process import wait_until
from bed.stage import event, setting, struct_event

CHAIN = f"{ROOT}/AudioDevice0Input0"
SOURCE = f"{CHAIN}/Unprocessed"
OTHER = "AudioDevice1Input0.Unprocessed"
EVENT_TABLE = {
    "Source", "EventName", "NiceName", "isDeprecated", "isApplicationData", "isPropertyState",
    "Topic0Name", "Topic0Namespace", "Topic0NiceName", "Topic1Name", "Topic1Namespace", "Topic1NiceName",
    "Topic2Name", "Topic2Namespace", "Topic2NiceName", "EnableEvent", "DataTypes",
}  # fmt: skip


@pytest.fixture
def main(bed):
    client = descriptor_client(bed.bus)
    bed.clients.append(client)
    return client


@pytest.fixture
def connect(bed, main):
    """A new private client at each call."""

    def make():
        client = PrivateClient(main)
        bed.clients.append(client)
        return client

    return make


@pytest.fixture
def hearing(bed):
    """A plug-in that hears, with public and non-public events."""
    plugin = bed.plugin(
        enabled=True,
        settings=[setting("Gain", "int32", 1)],
        events=[
            event("Speech"),
            event("Whisper", public=False),
            event("Rustle", "int32", 0, public=False),
            struct_event("Alarm", {"Detected": ("boolean", False), "Report": ("boolean", False)}, public=False),
        ],
    )
    bed.microphone()
    daemon, client = bed.start()
    client.wait_added(plugin.path())
    plugin.wait_call("process")
    return plugin, daemon, client


def descriptors(daemon):
    return len(os.listdir(f"/proc/{daemon.pid}/fd"))


def records(daemon):
    """How many private buses the daemon has opened and not yet let go."""
    return daemon.log_count("Add io: ") - daemon.log_count("Destroy bus event data: ")


def test_without_sources_only_the_object_manager_is_there(bed, connect):
    bed.start()
    private = connect()
    assert private.managed_objects() == {}
    assert "org.freedesktop.DBus.ObjectManager" in private.introspect("/")


def test_call_without_its_argument_fails(bed, main):
    bed.start()
    with pytest.raises(CallFailed):
        main.call("/", SERVICE, "GetPrivateBus")


def test_tree_has_chains_sources_instances_and_non_public_events(hearing, connect):
    plugin, _, _ = hearing
    private = connect()
    objects = private.managed_objects()
    assert set(objects) == {CHAIN, SOURCE, plugin.path()}
    assert set(objects[CHAIN]) == {f"{SERVICE}.AudioChain"}
    assert objects[SOURCE] == {f"{SERVICE}.Source": {"Id": "AudioDevice0Input0.Unprocessed", "AudioChain": CHAIN}}
    assert set(objects[plugin.path()]) == {
        f"{SERVICE}.PluginInstance",
        plugin.event_interface("Whisper"),
        plugin.event_interface("Rustle"),
        plugin.event_interface("Alarm"),
    }
    for title in ("Whisper", "Rustle", "Alarm"):
        assert set(objects[plugin.path()][plugin.event_interface(title)]) == EVENT_TABLE | {title}


def test_settings_and_triggers_are_not_on_it(hearing, connect):
    plugin, _, client = hearing
    private = connect()
    xml = private.introspect(plugin.path())
    assert plugin.settings_interface not in xml
    assert "TriggerEvent" not in xml
    assert plugin.event_interface("Alarm") + ".Methods" in client.introspect(plugin.path())
    with pytest.raises(CallFailed):
        private.set(plugin.path(), plugin.settings_interface, "Gain", "i", 3)


def test_chains_and_sources_are_announced_on_the_new_bus(hearing, connect):
    private = connect()
    private.wait_added(SOURCE)
    assert private.added(CHAIN) == [{f"{SERVICE}.AudioChain"}]
    assert private.added(SOURCE) == [{f"{SERVICE}.Source"}]


def test_signals_go_to_those_who_asked_and_to_nobody_else(hearing, connect):
    plugin, _, client = hearing
    listener, other = connect(), connect()
    whisper, rustle = plugin.event_interface("Whisper"), plugin.event_interface("Rustle")
    listener.enable(plugin, "Whisper")
    other.enable(plugin, "Rustle")
    assert listener.get(plugin.path(), whisper, "EnableEvent") is True
    assert other.get(plugin.path(), whisper, "EnableEvent") is False
    plugin.set("Whisper", True)
    plugin.set("Rustle", 1)
    listener.wait_change(whisper, "Whisper", True)
    other.wait_change(rustle, "Rustle", 1)
    assert listener.changes(rustle, "Rustle") == []
    assert other.changes(whisper, "Whisper") == []
    assert client.changes(whisper, "Whisper") == []


def test_disabled_event_falls_silent_again(hearing, connect):
    plugin, _, _ = hearing
    private = connect()
    rustle = plugin.event_interface("Rustle")
    private.enable(plugin, "Rustle")
    private.enable(plugin, "Whisper")
    plugin.set("Rustle", 1)
    private.wait_change(rustle, "Rustle", 1)
    private.enable(plugin, "Rustle", False)
    plugin.set("Rustle", 2)
    plugin.set("Whisper", True)
    private.wait_change(plugin.event_interface("Whisper"), "Whisper", True)
    assert private.changes(rustle, "Rustle") == [1]


def test_change_of_a_report_goes_to_every_private_client(hearing, connect):
    plugin, _, _ = hearing
    private = connect()
    plugin.set("Alarm", [True, True])
    private.wait_change(plugin.event_interface("Alarm"), "Alarm", {"Detected": True, "Report": True})


def test_triggered_private_event_is_sent_to_who_enabled_it(hearing, connect):
    plugin, _, client = hearing
    private = connect()
    private.enable(plugin, "Alarm")
    client.call(plugin.path(), plugin.event_interface("Alarm") + ".Methods", "TriggerEvent")
    private.wait_change(plugin.event_interface("Alarm"), "Alarm", {"Detected": True, "Report": True})


def test_first_private_listener_starts_the_stream_and_the_last_stops_it(bed, connect):
    plugin = bed.plugin(enabled=True, events=[event("Whisper", public=False), event("Rustle", public=False)])
    bed.microphone()
    _, client = bed.start()
    client.wait_added(plugin.path())
    assert plugin.calls("activate") == []
    private = connect()
    private.enable(plugin, "Whisper")
    plugin.wait_call("process")
    private.enable(plugin, "Whisper", False)
    plugin.wait_call("deactivate")


def test_stream_stops_when_the_only_client_goes_away(bed, connect):
    plugin = bed.plugin(enabled=True, events=[event("Whisper", public=False)])
    bed.microphone()
    _, client = bed.start()
    client.wait_added(plugin.path())
    private = connect()
    private.enable(plugin, "Whisper")
    plugin.wait_call("process")
    private.close()
    plugin.wait_call("deactivate")


def test_nodes_come_and_go_while_it_is_open(bed, hearing, connect):
    plugin, _, _ = hearing
    private = connect()
    bed.microphone(OTHER)
    private.wait_added(plugin.path(OTHER))
    assert private.added(f"{ROOT}/AudioDevice1Input0") == [{f"{SERVICE}.AudioChain"}]
    assert private.added(f"{ROOT}/AudioDevice1Input0/Unprocessed") == [{f"{SERVICE}.Source"}]
    plugin.wait_call("process", instance="motion-1")
    private.enable(plugin, "Whisper", node=OTHER)
    plugin.set("Whisper", True, "motion-1")
    private.wait_change(plugin.event_interface("Whisper"), "Whisper", True)
    bed.unplug(OTHER)
    private.wait_removed(f"{ROOT}/AudioDevice1Input0/Unprocessed")
    assert len(private.removed(plugin.path(OTHER))) == 1
    assert set(private.managed_objects()) == {CHAIN, SOURCE, plugin.path()}


def test_client_that_closes_is_forgotten_and_the_others_go_on(hearing, connect):
    plugin, daemon, _ = hearing
    leaving, staying = connect(), connect()
    staying.enable(plugin, "Rustle")
    leaving.enable(plugin, "Rustle")
    with_both = descriptors(daemon)
    leaving.close()
    wait_until(lambda: records(daemon) == 1, "the bus of the client that closed to go")
    assert descriptors(daemon) < with_both
    plugin.set("Rustle", 5)
    staying.wait_change(plugin.event_interface("Rustle"), "Rustle", 5)


def test_descriptors_are_back_when_the_clients_have_gone(hearing, connect):
    _, daemon, client = hearing
    connect().close()
    wait_until(lambda: records(daemon) == 0, "the first bus to go")
    client.managed_objects()
    before = descriptors(daemon)
    for peer in [connect() for _ in range(20)]:
        peer.managed_objects()
        peer.close()
    wait_until(lambda: records(daemon) == 0, "all buses to go")
    wait_until(lambda: descriptors(daemon) == before, lambda: f"{before} descriptors, not {descriptors(daemon)}")


def test_client_that_half_closes_is_dropped(hearing, connect):
    _, daemon, client = hearing
    private = connect()
    private.managed_objects()
    private.socket.shutdown(1)
    wait_until(lambda: records(daemon) == 0, "the bus to go")
    assert client.managed_objects()


def test_sigterm_drops_private_buses_and_ends_with_0(hearing, connect):
    _, daemon, _ = hearing
    private = connect()
    private.managed_objects()
    assert daemon.stop() == 0
    assert records(daemon) == 0
    with pytest.raises((ConnectionError, OSError)):
        private.managed_objects()


def test_each_bus_has_an_id_of_its_own(bed, main):
    bed.start()
    ids = set()
    for _ in range(3):
        sock = take_descriptor(main)
        sock.sendall(b"\0AUTH ANONYMOUS\r\nDATA\r\n")
        text = b""
        while b"OK " not in text or not text.endswith(b"\r\n"):
            text += sock.recv(256)
        ids.add(re.search(rb"OK ([0-9a-f]{32})", text).group(1))
        sock.close()
    assert len(ids) == 3


def test_first_message_behind_the_begin_is_answered(hearing, main):
    """A client may send all it has in one go."""
    sock = take_descriptor(main)

    def field(code, signature, text):
        data = bytes([code, len(signature)]) + signature + b"\0" + struct.pack("<I", len(text)) + text + b"\0"
        return data + b"\0" * (-len(data) % 8)

    fields = field(1, b"o", b"/") + field(3, b"s", b"Ping") + field(2, b"s", b"org.freedesktop.DBus.Peer")
    length = len(fields.rstrip(b"\0")) + 1
    header = struct.pack("<cBBBIII", b"l", 1, 0, 1, 0, 1, length) + fields
    sock.sendall(b"\0AUTH ANONYMOUS\r\nDATA\r\nNEGOTIATE_UNIX_FD\r\nBEGIN\r\n" + header)
    received = b""
    while not re.search(rb"AGREE_UNIX_FD\r\n.*l\x02", received, re.S):
        part = sock.recv(4096)
        assert part, received
        received += part
    sock.close()

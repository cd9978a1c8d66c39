"""What a client cannot do to the device."""

import array
import contextlib
import fcntl
import os
import resource
import socket
import struct
import termios

import pytest
from bed.client import ERROR, SERVICE, CallFailed
from bed.private import PrivateClient, authenticate, descriptor_client, take_descriptor
from bed.process import wait_until
from bed.stage import event, setting
from jeepney import DBusAddress, new_method_call

PER_USER = 64
MAX_QUEUED = 1024


@pytest.fixture
def main(bed):
    client = descriptor_client(bed.bus)
    bed.clients.append(client)
    return client


@pytest.fixture
def hearing(bed):
    bed.stage.grant_everything()
    plugin = bed.plugin(
        enabled=True,
        settings=[setting("Room", "string", "hall")],
        events=[event("Rustle", "int32", 0, public=False), event("Speech")],
    )
    bed.microphone()
    daemon, client = bed.start()
    client.wait_added(plugin.path())
    plugin.wait_call("process")
    return plugin, daemon, client


def connect(bed, main):
    private = PrivateClient(main)
    bed.clients.append(private)
    return private


def fire(plugin, first, count):
    """Has the plug-in give an event `count` new values within one buffer, each announced."""
    done = len(plugin.calls("command"))
    lines = "".join(f"set Rustle {first + i}\nnotify 0\n" for i in range(count))
    with open(plugin.folder / f"{plugin.name}-0.ctl", "a", encoding="utf-8") as control:
        control.write(lines)
    wait_until(lambda: len(plugin.calls("command")) >= done + 2 * count, f"{count} events to be fired")


def refused(main):
    with pytest.raises(CallFailed) as failure:
        main.call("/", SERVICE, "GetPrivateBus", "s", ("",))
    assert (failure.value.name, failure.value.text) == (ERROR, "Cannot create private bus.")


def assert_hears(bed, plugin, client, value):
    """Audio still flows, and its events still reach the main bus."""
    plugin.set("Speech", value)
    client.wait_change(plugin.event_interface("Speech"), "Speech", value)


def test_client_that_stops_reading_is_dropped_with_one_warning(bed, hearing, main):
    plugin, daemon, client = hearing
    stalled, reading = connect(bed, main), connect(bed, main)
    for private in (stalled, reading):
        private.enable(plugin, "Rustle")
    interface = plugin.event_interface("Rustle")
    fired = 0
    while daemon.log_count("messages unread") == 0:
        assert fired < 20 * MAX_QUEUED, "the client that does not read was never dropped"
        fire(plugin, fired + 1, 200)
        fired += 200
        reading.wait_change(interface, "Rustle", fired)
    wait_until(lambda: daemon.log_count("Destroy bus event data: ") == 1, "the bus to go")
    fire(plugin, fired + 1, 50)
    reading.wait_change(interface, "Rustle", fired + 50)
    assert reading.changes(interface, "Rustle") == list(range(1, fired + 51))
    assert daemon.log_count("messages unread") == 1
    assert daemon.log_count("Destroy bus event data: ") == 1
    assert_hears(bed, plugin, client, True)


def test_one_user_gets_so_many_buses_and_no_more(bed, main):
    daemon, client = bed.start()
    sockets = [take_descriptor(main) for _ in range(PER_USER)]
    for count in range(1, 3):
        refused(main)
        lines = daemon.log_lines("Refused a private bus")
        assert len(lines) == count
        assert f"user {os.getuid()}" in lines[-1] and str(PER_USER) in lines[-1]
    for sock in sockets:
        authenticate(sock)
    sockets.pop().close()
    wait_until(lambda: daemon.log_count("Destroy bus event data: ") == 1, "one bus to go")
    sockets.append(take_descriptor(main))
    refused(main)
    assert client.managed_objects() == {}
    for sock in sockets:
        sock.close()


def test_without_a_descriptor_left_the_call_is_refused_and_open_buses_stay(bed, hearing, main):
    plugin, daemon, client = hearing
    private = connect(bed, main)
    private.enable(plugin, "Rustle")
    client.managed_objects()  # The daemon lowers its own limit while it reads a private bus; now it is through.
    open_now = max(int(name) for name in os.listdir(f"/proc/{daemon.pid}/fd")) + 1
    soft, hard = resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE)
    resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE, (open_now + 2, hard))
    taken = []
    with pytest.raises(CallFailed) as failure:
        for _ in range(4):
            taken.append(take_descriptor(main))
    assert (failure.value.name, failure.value.text) == (ERROR, "Cannot create private bus.")
    lines = daemon.log_lines("Refused a private bus")
    assert len(lines) == 1
    assert f"user {os.getuid()}" in lines[0] and str(open_now + 2) in lines[0]
    resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE, (soft, hard))
    fire(plugin, 1, 1)
    private.wait_change(plugin.event_interface("Rustle"), "Rustle", 1)
    connect(bed, main).managed_objects()
    assert_hears(bed, plugin, client, True)
    for sock in taken:
        sock.close()


@pytest.mark.seconds(150)
def test_peer_that_never_authenticates_is_dropped_by_the_bus_library(bed, main):
    daemon, client = bed.start()
    sock = take_descriptor(main)
    wait_until(lambda: daemon.log_count("Destroy bus event data: ") == 1, "the silent peer to go", 120)
    assert sock.recv(16) == b""
    assert client.managed_objects() == {}


def test_clients_with_half_a_message_each_stop_nobody(bed, hearing, main):
    plugin, daemon, client = hearing
    before = daemon.memory()
    halves = []
    for _ in range(60):
        sock = take_descriptor(main)
        authenticate(sock)
        # A header that promises 4 MiB of body, a little of that, and then nothing.
        sock.sendall(struct.pack("<cBBBIII", b"l", 1, 0, 1, 4 * 1024 * 1024, 1, 0) + b"x" * 4096)
        halves.append(sock)
    assert_hears(bed, plugin, client, True)
    private = connect(bed, main)
    private.enable(plugin, "Rustle")
    fire(plugin, 1, 1)
    private.wait_change(plugin.event_interface("Rustle"), "Rustle", 1)
    daemon.assert_grown_by_less(before, 32 * 1024)
    for sock in halves:
        sock.close()


def begin_message(main, size):
    """A client that has sent the header of a message with so large a body, and nothing of the body."""
    sock = take_descriptor(main)
    authenticate(sock)
    sock.sendall(struct.pack("<cBBBIII", b"l", 1, 0, 1, size, 1, 0))
    return sock


def wait_read(sock):
    """Until the daemon has read all that was written."""
    left = array.array("i", [0])

    def is_read():
        fcntl.ioctl(sock, termios.TIOCOUTQ, left)
        return left[0] == 0

    wait_until(is_read, "what was written to be read", interval=0.001)


def test_clients_whose_messages_never_end_are_dropped_before_they_cost_much(bed, hearing, main):
    plugin, daemon, client = hearing
    before = daemon.memory()
    part = b"x" * 131072
    endless = [begin_message(main, 8 * 1024 * 1024) for _ in range(40)]
    sent = 0
    # In turn, so that all have sent much when the first is dropped.
    while True:
        try:
            for sock in endless:
                wait_read(sock)
                sock.sendall(part)
        except (BrokenPipeError, ConnectionResetError):
            break
        sent += len(part)
        assert sent <= 2 * 1024 * 1024
    daemon.assert_grown_by_less(before, 2 * len(endless) * 1024)
    for sock in endless:
        # One that writes as fast as the daemon reads is not looked at in between, but when it stops.
        with contextlib.suppress(BrokenPipeError, ConnectionResetError):
            for _ in range(50):
                wait_read(sock)
                sock.sendall(part)
    wait_until(lambda: daemon.log_count("Destroy bus event data: ") == len(endless), "all to be dropped", 30)
    for sock in endless:
        sock.close()
    # On a slow machine the ten seconds that a message may take are over before.
    lines = daemon.log_lines(", and no valid message")
    assert len(lines) == len(endless)
    assert any(f"of user {os.getuid()}: its client has sent more than a megabyte" in line for line in lines)
    assert_hears(bed, plugin, client, True)
    daemon.assert_grown_by_less(before, 32 * 1024)


@pytest.mark.seconds(90)
def test_client_whose_message_never_comes_whole_is_dropped(bed, hearing, main):
    plugin, daemon, client = hearing
    patient = connect(bed, main)
    patient.enable(plugin, "Rustle")
    header = struct.pack("<cBBBIII", b"l", 1, 0, 1, 64, 1, 0)
    halves = [connect(bed, main) for _ in range(2)]
    for half, size in zip(halves, (len(header), 1)):
        half.managed_objects()
        half.socket.sendall(header[:size])
    wait_until(lambda: daemon.log_count("its client has sent a beginning ten seconds ago, and no valid message") == 2, "the half messages to be given up", 30)
    wait_until(lambda: daemon.log_count("Destroy bus event data: ") == 2, "their buses to go")
    assert [half.socket.recv(16) for half in halves] == [b"", b""]
    fire(plugin, 1, 1)
    patient.wait_change(plugin.event_interface("Rustle"), "Rustle", 1)


def read_to_the_end(sock):
    try:
        while sock.recv(65536):
            pass
    except ConnectionResetError:
        pass


@pytest.mark.parametrize("rest", [0, 1])
def test_client_that_sends_descriptors_is_dropped_and_none_of_them_stays(bed, hearing, main, rest):
    plugin, daemon, client = hearing
    private = connect(bed, main)
    private.enable(plugin, "Rustle")
    before = daemon.descriptors()
    address = DBusAddress("/", bus_name=SERVICE, interface="org.freedesktop.DBus.Peer")
    ping = new_method_call(address, "Ping").serialise(serial=1)
    with open(os.devnull, "rb") as null:
        for _ in range(5):
            hoarder = take_descriptor(main)
            authenticate(hoarder)
            # A whole message that does not tell of its descriptors, and one of which the end is missing.
            socket.send_fds(hoarder, [ping[: len(ping) - rest]], [null.fileno()] * 200)
            read_to_the_end(hoarder)
            hoarder.close()
    wait_until(lambda: daemon.log_count("Destroy bus event data: ") == 5, "the hoarders to be dropped")
    wait_until(lambda: daemon.descriptors() == before, lambda: f"{before} descriptors, not {daemon.descriptors()}")
    fire(plugin, 1, 1)
    private.wait_change(plugin.event_interface("Rustle"), "Rustle", 1)


def test_client_gets_in_where_there_are_many_nodes(bed, main):
    """Each node is told of on the bus before its client can have said a word."""
    bed.stage.grant_everything()
    plugin = bed.plugin(events=[event("Rustle", "int32", 0, public=False)])
    names = [f"AudioDevice{number}Input0.Unprocessed" for number in range(40)]
    for name in names:
        bed.quiet_microphone(name, wait=False)
    _, client = bed.start()
    for name in names:
        client.wait_added(plugin.path(name))
    private = connect(bed, main)
    assert all(plugin.path(name) in private.managed_objects() for name in names)


def test_client_that_asks_and_shuts_its_end_is_dropped(bed, hearing, main):
    plugin, daemon, client = hearing
    private = connect(bed, main)
    private.socket.settimeout(1)
    with pytest.raises(TimeoutError):
        for _ in range(3000):
            private.send("/", "org.freedesktop.DBus.ObjectManager", "GetManagedObjects")
    private.socket.shutdown(socket.SHUT_RD)
    read_to_the_end(private.socket)
    wait_until(lambda: daemon.log_count("Destroy bus event data: ") == 1, "the bus to go")
    assert_hears(bed, plugin, client, True)


@pytest.mark.parametrize(
    "data", [b"\0", b"\xff" * 4096, b"\0AUTH ANONYMOUS\r\nDATA\r\nBEGIN\r\n" + b"l" + b"\xff" * 200, b"GET / HTTP/1.0\r\n\r\n"]
)
def test_garbage_on_a_private_bus_costs_that_bus_only(bed, hearing, main, data):
    plugin, daemon, client = hearing
    sock = take_descriptor(main)
    try:
        sock.sendall(data)
        sock.shutdown(socket.SHUT_WR)
    except OSError:
        pass
    wait_until(lambda: daemon.log_count("Destroy bus event data: ") == 1, "the bus to go")
    sock.close()
    assert_hears(bed, plugin, client, True)


def test_huge_strings_and_arrays_are_answered_and_forgotten(bed, hearing):
    plugin, daemon, client = hearing
    before = daemon.memory()
    for _ in range(4):
        with pytest.raises(CallFailed):
            client.call("/", SERVICE, "NoSuchMethod", "s", ("x" * (16 * 1024 * 1024),))
        with pytest.raises(CallFailed):
            client.call("/", SERVICE, "GetPrivateBus", "as", (["y" * 1000] * 10000,))
    client.set(plugin.path(), plugin.settings_interface, "Room", "s", "z" * (8 * 1024 * 1024))
    assert client.get(plugin.path(), plugin.settings_interface, "Room") == "z" * 127
    assert_hears(bed, plugin, client, True)
    daemon.assert_grown_by_less(before, 64 * 1024)


def test_flood_of_calls_is_answered_and_audio_goes_on(bed, hearing):
    plugin, daemon, client = hearing
    before = daemon.memory()
    flood = [bed.client() for _ in range(10)]
    value = False
    for _ in range(5):
        # A bus has a limit of its own on calls that nobody has answered yet.
        serials = [(peer, peer.send("/", "org.freedesktop.DBus.Peer", "Ping")) for _ in range(60) for peer in flood]
        value = not value
        assert_hears(bed, plugin, client, value)
        for peer, serial in serials[-len(flood) :]:
            peer.wait_reply(serial)
    daemon.assert_grown_by_less(before, 32 * 1024)


def test_private_client_that_floods_is_answered(bed, hearing, main):
    plugin, daemon, client = hearing
    private = connect(bed, main)
    for _ in range(5):
        serials = [private.send("/", "org.freedesktop.DBus.Peer", "Ping") for _ in range(200)]
        private.wait_reply(serials[-1])
    assert_hears(bed, plugin, client, True)
    assert daemon.log_count("messages unread") == 0


def test_client_that_asks_and_never_reads_gets_no_more_answers(bed, hearing, main):
    plugin, daemon, client = hearing
    private = connect(bed, main)
    before = daemon.memory()
    private.socket.settimeout(1)
    try:
        for _ in range(3000):
            private.send("/", "org.freedesktop.DBus.ObjectManager", "GetManagedObjects")
    except OSError:
        pass
    assert_hears(bed, plugin, client, True)
    daemon.assert_grown_by_less(before, 16 * 1024)
    assert daemon.log_count("messages unread") == 0


def test_device_without_a_machine_id_stays_up_when_asked_for_it(bed, hearing, main):
    plugin, daemon, client = hearing
    private = connect(bed, main)
    for peer in (client, private):
        with pytest.raises(CallFailed, match="This device has no machine id"):
            peer.call("/com", "org.freedesktop.DBus.Peer", "GetMachineId")
    assert_hears(bed, plugin, client, True)
    assert private.managed_objects()

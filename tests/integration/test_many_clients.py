"""Many private clients at once, a few of them stalled, under a steady stream of events.

HS_MANY_CLIENTS and HS_MANY_SECONDS ask for more than the suite has time for; more clients than a user may have
need a build whose limits were raised.
"""

import os
import resource
import selectors
import struct
import time

import pytest
from bed.client import SERVICE
from bed.private import PrivateClient, descriptor_client
from bed.process import SCALE, wait_until
from bed.stage import event
from jeepney import Message
from jeepney.low_level import calc_msg_size

CLIENTS = int(os.environ.get("HS_MANY_CLIENTS", "40"))
SECONDS = float(os.environ.get("HS_MANY_SECONDS", "5"))
STALLED = max(1, CLIENTS // 20)
RATE = 500
TICK = 0.02
#: More at once would be a burst and no rate.
MOST_AT_ONCE = 50
CATCH_UP = 30
ALLOWED_KB = 32 * 1024
DESCRIPTORS_OF_A_BUS = 5

#: The first value can be found in a message by its bytes; the following values count up from it.
FIRST = 0x4D617231


class Layout:
    """How the signal of one event lies in a stream: only its serial number and its value ever change."""

    def __init__(self, message):
        value = message.index(struct.pack("=i", FIRST))
        self.size = len(message)
        self.record = struct.Struct(f"=8sI{value - 12}si{self.size - value - 4}s")
        self.head, self.serial, self.middle, _, self.tail = self.record.unpack(message)


class Listener:
    """Takes the signals of one client as bytes, and checks each of them."""

    def __init__(self, private):
        self.socket = private.socket
        self.rest = b""
        self.value = FIRST
        self.closed = False
        self.layout = None

    def learn(self, interface, title):
        """Takes the signal of the first value; it has to be the first that comes."""
        data = self.socket.recv(16)
        while len(data) < 16 or len(data) < calc_msg_size(data):
            data += self.socket.recv((calc_msg_size(data) if len(data) >= 16 else 16) - len(data))
        message = Message.from_buffer(data)
        assert message.body == (interface, {title: ("i", FIRST)}, [])
        self.layout = Layout(data)
        self.serial = self.layout.serial
        self.socket.setblocking(False)

    def take(self):
        """Takes what has arrived; every message has to be the very next."""
        layout = self.layout
        while not self.closed:
            try:
                data = self.socket.recv(1 << 18)
            except BlockingIOError:
                break
            except ConnectionResetError:
                data = b""
            self.closed = not data
            data = self.rest + data
            whole = len(data) - len(data) % layout.size
            for found in layout.record.iter_unpack(memoryview(data)[:whole]):
                self.serial += 1
                self.value += 1
                assert found == (layout.head, self.serial, layout.middle, self.value, layout.tail)
            self.rest = data[whole:]


def allow_descriptors(daemon):
    """What a service manager would raise for so many clients."""
    for pid, needed in ((daemon.pid, 100 + DESCRIPTORS_OF_A_BUS * CLIENTS), (os.getpid(), 100 + 3 * CLIENTS)):
        soft, hard = resource.prlimit(pid, resource.RLIMIT_NOFILE)
        if soft < needed:
            resource.prlimit(pid, resource.RLIMIT_NOFILE, (needed, max(needed, hard)))


def drain(private):
    """Reads all that is left, up to the end of the stream."""
    try:
        while private.socket.recv(1 << 20):
            pass
    except ConnectionResetError:
        pass


class Feed:
    """Has the plug-in fire an event at a steady rate."""

    def __init__(self, plugin, title):
        self.path = plugin.folder / f"{plugin.name}-0.ctl"
        self.title = title
        self.value = FIRST - 1

    def fire(self, count):
        lines = []
        for _ in range(count):
            self.value += 1
            lines.append(f"set {self.title} {self.value}\nnotify 0\n")
        with open(self.path, "a", encoding="utf-8") as control:
            control.write("".join(lines))


@pytest.mark.seconds(60 + 2 * SECONDS + 2 * CATCH_UP)
def test_stalled_clients_are_dropped_and_the_others_hear_every_event_in_order(bed):
    bed.stage.grant_everything()
    plugin = bed.plugin(
        enabled=True,
        events=[
            event("Rustle", "int32", 0, public=False),
            event("Speech"),
        ],
    )
    bed.microphone()
    daemon, client = bed.start()
    client.wait_added(plugin.path())
    plugin.wait_call("process")
    allow_descriptors(daemon)
    main = descriptor_client(bed.bus)
    bed.clients.append(main)
    interface = plugin.event_interface("Rustle")

    clients = [PrivateClient(main) for _ in range(CLIENTS)]
    bed.clients.extend(clients)
    for private in clients:
        private.enable(plugin, "Rustle")
    idle = daemon.memory()

    feed = Feed(plugin, "Rustle")
    feed.fire(1)
    stalled, reading = clients[:STALLED], [Listener(private) for private in clients[STALLED:]]
    for listener in reading:
        listener.learn(interface, "Rustle")
    selector = selectors.DefaultSelector()
    for listener in reading:
        selector.register(listener.socket, selectors.EVENT_READ, listener)

    most = idle
    begin = time.monotonic()
    fired = 0
    while (passed := time.monotonic() - begin) < SECONDS:
        count = min(int(passed * RATE) - fired, MOST_AT_ONCE)
        if count > 0:
            feed.fire(count)
            fired += count
        for key, _ in selector.select(0):
            key.data.take()
        if fired % RATE < MOST_AT_ONCE:
            most = max(most, daemon.memory())
        time.sleep(max(0.0, TICK - (time.monotonic() - begin - passed)))
    rate = fired / (time.monotonic() - begin)

    def all_heard():
        for listener in reading:
            listener.take()
        return all(listener.value == feed.value for listener in reading)

    end = time.monotonic()
    wait_until(all_heard, lambda: f"{feed.value} everywhere, not {sorted({each.value for each in reading})}", CATCH_UP)
    late = time.monotonic() - end
    most = max(most, daemon.memory())
    print(f"{CLIENTS} clients, {STALLED} stalled, {fired} events, {rate:.0f} a second, the last {late:.2f} s late")
    print(f"resident {idle} KiB when idle, {most} KiB at most, {daemon.memory()} KiB at the end")
    assert not [listener for listener in reading if listener.closed]
    assert rate > 0.8 * RATE / SCALE

    wait_until(lambda: daemon.log_count("Destroy bus event data: ") == STALLED, "the stalled to be dropped")
    assert daemon.log_count("messages unread") == STALLED
    for private in stalled:
        drain(private)
    daemon.assert_grown_by_less(idle, ALLOWED_KB, most)

    plugin.set("Speech", True)
    client.wait_change(plugin.event_interface("Speech"), "Speech", True)
    assert f"{SERVICE}.PluginInstance" in client.managed_objects()[plugin.path()]
    assert daemon.log_count("Destroy bus event data: ") == STALLED

"""D-Bus clients that keep every signal they receive.

Peer speaks over any connected and authenticated socket, which is all that a peer-to-peer connection is;
BusClient is a Peer that has said Hello to a message bus.
"""

import dataclasses
import re
import time

from jeepney import DBusAddress, HeaderFields, MessageType, message_bus, new_method_call
from jeepney.io.blocking import DBusConnectionBase, prep_socket
from jeepney.bus import get_bus

from .process import SCALE, Deadline

SERVICE = "com.orvel.HearSense"
ROOT = "/com/orvel/HearSense"
ERROR = "com.orvel.HearSense.Error"
DENIED = "org.freedesktop.DBus.Error.AccessDenied"
PROPERTIES = "org.freedesktop.DBus.Properties"
OBJECTS = "org.freedesktop.DBus.ObjectManager"
#: Flags of a request for a name.
ALLOW_REPLACEMENT = 1
REPLACE_EXISTING = 2
DO_NOT_QUEUE = 4


class CallFailed(Exception):
    """An error reply."""

    def __init__(self, name, text):
        super().__init__(f"{name}: {text}")
        self.name = name
        self.text = text


@dataclasses.dataclass
class Signal:
    path: str
    interface: str
    member: str
    body: tuple
    time: float


class _Connection(DBusConnectionBase):
    def send(self, message, serial):
        data, fds = self._serialise(message, serial)
        if fds:
            self._send_with_fds(data, fds)
        else:
            self.sock.sendall(data)

    def receive(self, timeout):
        return self._receive(time.monotonic() + timeout)


def plain(value):
    """`value` with every (signature, value) pair of a variant replaced by the value."""
    if isinstance(value, dict):
        return {key: plain(member) for key, member in value.items()}
    if isinstance(value, tuple) and len(value) == 2 and isinstance(value[0], str):
        return plain(value[1])
    if isinstance(value, (list, tuple)):
        return [plain(member) for member in value]
    return value


class Peer:
    destination = None

    def __init__(self, sock, enable_fds=False):
        self._connection = _Connection(sock, enable_fds)
        self.signals = []

    def close(self):
        self._connection.close()

    def _take(self, message):
        fields = message.header.fields
        if message.header.message_type is MessageType.signal:
            self.signals.append(
                Signal(
                    fields.get(HeaderFields.path),
                    fields.get(HeaderFields.interface),
                    fields.get(HeaderFields.member),
                    message.body,
                    time.monotonic(),
                )
            )

    def send(self, path, interface, member, signature=None, body=()):
        """Sends a call and returns its serial number."""
        address = DBusAddress(path, bus_name=self.destination, interface=interface)
        serial = next(self._connection.outgoing_serial)
        self._connection.send(new_method_call(address, member, signature, tuple(body)), serial)
        return serial

    def wait_reply(self, serial, timeout=10.0):
        end = time.monotonic() + timeout * SCALE
        while True:
            message = self._connection.receive(end - time.monotonic())
            fields = message.header.fields
            if fields.get(HeaderFields.reply_serial) != serial:
                self._take(message)
            elif message.header.message_type is MessageType.error:
                raise CallFailed(fields[HeaderFields.error_name], message.body[0] if message.body else "")
            else:
                return message.body

    def call(self, path, interface, member, signature=None, body=(), timeout=10.0):
        """The reply's body; raises CallFailed for an error."""
        return self.wait_reply(self.send(path, interface, member, signature, body), timeout)

    def get(self, path, interface, name):
        return plain(self.get_variant(path, interface, name)[1])

    def get_variant(self, path, interface, name):
        """The property as (signature, value)."""
        return self.call(path, PROPERTIES, "Get", "ss", (interface, name))[0]

    def get_all(self, path, interface):
        values = self.call(path, PROPERTIES, "GetAll", "s", (interface,))[0]
        return {name: plain(value[1]) for name, value in values.items()}

    def set(self, path, interface, name, signature, value):
        self.call(path, PROPERTIES, "Set", "ssv", (interface, name, (signature, value)))

    def introspect(self, path):
        return self.call(path, "org.freedesktop.DBus.Introspectable", "Introspect")[0]

    def managed_objects(self):
        """{path: {interface: {property: value}}}, the interfaces of the D-Bus library left out."""
        objects = self.call("/", OBJECTS, "GetManagedObjects")[0]
        return {
            path: {
                interface: {name: plain(value[1]) for name, value in properties.items()}
                for interface, properties in interfaces.items()
                if not interface.startswith("org.freedesktop.DBus.")
            }
            for path, interfaces in objects.items()
        }

    def pump(self):
        """Takes what has arrived."""
        while True:
            try:
                self._take(self._connection.receive(0))
            except TimeoutError:
                return

    def wait_signal(self, matches, what, timeout=10.0, start=0):
        """The first signal at or after index `start` for which `matches` is true."""
        end = time.monotonic() + timeout * SCALE
        while True:
            for signal in self.signals[start:]:
                if matches(signal):
                    return signal
            start = len(self.signals)
            try:
                self._take(self._connection.receive(max(0.0, end - time.monotonic())))
            except TimeoutError as error:
                seen = [(signal.path, signal.member, signal.body) for signal in self.signals[-8:]]
                raise Deadline(f"no signal: {what}; the last ones: {seen}") from error

    def changes(self, interface, name):
        """The values that PropertiesChanged has carried for a property so far, oldest first."""
        self.pump()
        return [
            plain(signal.body[1][name][1])
            for signal in self.signals
            if signal.member == "PropertiesChanged" and signal.body[0] == interface and name in signal.body[1]
        ]

    def wait_change(self, interface, name, value, count=1, timeout=10.0):
        """Waits until PropertiesChanged has carried that value that many times."""
        def seen(_):
            return self.changes(interface, name).count(value) >= count

        if not seen(None):
            self.wait_signal(seen, f"{interface} {name} = {value!r}, {count} times", timeout, len(self.signals))

    def added(self, path):
        """The interface sets of the InterfacesAdded signals for a path so far."""
        self.pump()
        return [
            {name for name in signal.body[1] if not name.startswith("org.freedesktop.DBus.")}
            for signal in self.signals
            if signal.member == "InterfacesAdded" and signal.body[0] == path
        ]

    def removed(self, path):
        """The interface sets of the InterfacesRemoved signals for a path so far."""
        self.pump()
        return [
            {name for name in signal.body[1] if not name.startswith("org.freedesktop.DBus.")}
            for signal in self.signals
            if signal.member == "InterfacesRemoved" and signal.body[0] == path
        ]

    def wait_added(self, path, count=1, timeout=10.0):
        if len(self.added(path)) < count:
            self.wait_signal(lambda _: len(self.added(path)) >= count, f"InterfacesAdded {path}", timeout)

    def wait_removed(self, path, count=1, timeout=10.0):
        if len(self.removed(path)) < count:
            self.wait_signal(lambda _: len(self.removed(path)) >= count, f"InterfacesRemoved {path}", timeout)


class BusClient(Peer):
    destination = SERVICE

    def __init__(self, address, enable_fds=False):
        super().__init__(prep_socket(get_bus(address), enable_fds, timeout=5 * SCALE), enable_fds)
        self._bus("Hello")
        self._bus("AddMatch", "s", (f"type='signal',sender='{SERVICE}'",))

    def _bus(self, member, signature=None, body=()):
        serial = next(self._connection.outgoing_serial)
        self._connection.send(new_method_call(message_bus, member, signature, tuple(body)), serial)
        return self.wait_reply(serial)

    def has_owner(self, name=SERVICE):
        return self._bus("NameHasOwner", "s", (name,))[0]

    def own(self, name, flags=0):
        """Takes a well-known name, without waiting for it; 1 when this connection has it now."""
        return self._bus("RequestName", "su", (name, flags | DO_NOT_QUEUE))[0]

    def release(self, name):
        self._bus("ReleaseName", "s", (name,))


def interface_members(xml, interface):
    """The members of an interface in introspection data: {name: (kind, signature, access)}."""
    block = re.search(rf'<interface name="{re.escape(interface)}">(.*?)</interface>', xml, re.S)
    if block is None:
        return None
    members = {}
    for kind, name in re.findall(r'<(property|method|signal) name="([^"]*)"', block.group(1)):
        members[name] = kind
    return members

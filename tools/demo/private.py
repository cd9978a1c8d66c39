# SPDX-License-Identifier: MIT
"""A client of a private bus: D-Bus with nobody between, over a descriptor that the daemon hands out."""

import socket

from jeepney import DBusAddress, HeaderFields, MessageType, new_method_call
from jeepney.io.blocking import DBusConnectionBase, open_dbus_connection

SERVICE = "com.orvel.HearSense"
OBJECTS = "org.freedesktop.DBus.ObjectManager"
PROPERTIES = "org.freedesktop.DBus.Properties"


def take_socket():
    """Asks on the system bus for a private one; the client's end of it."""
    with open_dbus_connection("SYSTEM", enable_fds=True) as connection:
        root = DBusAddress("/", SERVICE, SERVICE)
        reply = connection.send_and_get_reply(new_method_call(root, "GetPrivateBus", "s", ("demo",)), timeout=5)
        if reply.header.message_type is MessageType.error:
            raise RuntimeError(reply.body[0])
        return socket.socket(fileno=reply.body[0].to_raw_fd())


def authenticate(sock):
    sock.setblocking(True)
    sock.settimeout(5)
    for line, answer in ((b"\0AUTH ANONYMOUS\r\n", b"DATA"), (b"DATA\r\n", b"OK")):
        sock.sendall(line)
        received = b""
        while not received.endswith(b"\r\n"):
            received += sock.recv(256)
        if not received.startswith(answer):
            raise RuntimeError(f"the daemon answered {received!r}")
    sock.sendall(b"BEGIN\r\n")


class PrivateClient(DBusConnectionBase):
    """Listens to one kind of event on every microphone."""

    def __init__(self, title):
        sock = take_socket()
        authenticate(sock)
        super().__init__(sock)
        self.suffix = "." + title
        self.title = title
        self.n_enabled = 0
        self.kept = []
        for path, interfaces in self._call("/", OBJECTS, "GetManagedObjects")[0].items():
            for interface in interfaces:
                if interface.endswith(self.suffix):
                    self._call(path, PROPERTIES, "Set", "ssv", (interface, "EnableEvent", ("b", True)))
                    self.n_enabled += 1

    def _call(self, path, interface, member, signature=None, body=()):
        serial = next(self.outgoing_serial)
        message = new_method_call(DBusAddress(path, SERVICE, interface), member, signature, body)
        data, _ = self._serialise(message, serial)
        self.sock.sendall(data)
        while True:
            reply = self._receive(None)
            if reply.header.fields.get(HeaderFields.reply_serial) != serial:
                self.kept.append(reply)
            elif reply.header.message_type is MessageType.error:
                raise RuntimeError(reply.body[0])
            else:
                return reply.body

    def values(self):
        """The values that have come since the last call; does not wait."""
        values = []
        messages, self.kept = self.kept, []
        while True:
            for message in messages:
                if message.header.fields.get(HeaderFields.member) == "PropertiesChanged" and self.title in message.body[1]:
                    values.append(message.body[1][self.title][1])
            try:
                messages = [self._receive(0)]
            except TimeoutError:
                return values

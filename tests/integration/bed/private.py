"""Clients of a private bus: peer-to-peer D-Bus over the descriptor that GetPrivateBus hands out."""

import socket

from .client import SERVICE, BusClient, Peer
from .process import SCALE


def take_descriptor(client, text="events, please"):
    """The client's end of a new private bus, as a socket that has not spoken yet."""
    descriptor = client.call("/", SERVICE, "GetPrivateBus", "s", (text,))[0]
    sock = socket.socket(fileno=descriptor.to_raw_fd())
    sock.setblocking(True)
    sock.settimeout(10 * SCALE)
    return sock


def _say(sock, line, answer):
    sock.sendall(line)
    received = b""
    while not received.endswith(b"\r\n"):
        part = sock.recv(256)
        assert part, f"the daemon hung up after {line!r}"
        received += part
    assert received.startswith(answer), received


def authenticate(sock):
    _say(sock, b"\0AUTH ANONYMOUS\r\n", b"DATA")
    _say(sock, b"DATA\r\n", b"OK ")
    _say(sock, b"NEGOTIATE_UNIX_FD\r\n", b"AGREE_UNIX_FD")
    sock.sendall(b"BEGIN\r\n")


class PrivateClient(Peer):
    """Speaks as soon as it is made; `main` is a BusClient that may pass descriptors."""

    #: A peer needs no destination, but the library that writes the messages asks for one.
    destination = SERVICE

    def __init__(self, main):
        sock = take_descriptor(main)
        authenticate(sock)
        super().__init__(sock)
        self.socket = sock

    def enable(self, plugin, title, enabled=True, node=None):
        path = plugin.path(node) if node else plugin.path()
        self.set(path, plugin.event_interface(title), "EnableEvent", "b", enabled)


def descriptor_client(bus):
    """A BusClient that can be handed descriptors."""
    return BusClient(bus.address, enable_fds=True)

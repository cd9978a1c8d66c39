#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""A client of hear-sense with jeepney: lists what there is, and follows a public event on the system bus and
one that is not public on a private bus. With a number, changes a setting first.

Usage: listen.py [THRESHOLD]
When the daemon goes, or does not run yet, waits for the next one. Ends at Ctrl-C; status 1 without a bus.
"""

import collections
import itertools
import os
import select
import signal
import socket
import sys

from jeepney import DBusAddress, DBusErrorResponse, HeaderFields, MatchRule, MessageType, Parser, Properties
from jeepney import message_bus, new_method_call
from jeepney.auth import BEGIN, make_auth_anonymous
from jeepney.io.blocking import open_dbus_connection

SERVICE = "com.orvel.HearSense"
ROOT = "/com/orvel/HearSense/"
SETTINGS = SERVICE + ".Settings.Loudness"
PRIVATE_EVENT = SERVICE + ".Events.Loudness.Level"
EVENTS = ("Loudness", "Level")
MANAGER = DBusAddress("/", SERVICE, "org.freedesktop.DBus.ObjectManager")
SECONDS = 10


class PrivateBus:
    """A connection to the daemon itself, over a descriptor: D-Bus without a message bus, so without Hello."""

    def __init__(self, sock):
        self.sock = sock
        self.parser = Parser()
        self.serials = itertools.count(1)
        self.signals = collections.deque()
        sock.setblocking(True)
        sock.sendall(b"\0" + make_auth_anonymous())
        answer = b""
        while not answer.endswith(b"\r\n"):
            answer += self.read(SECONDS)
        if not answer.startswith(b"OK "):
            raise ConnectionError(f"no authentication: {answer!r}")
        sock.sendall(BEGIN)

    def read(self, timeout):
        if not select.select([self.sock], [], [], timeout)[0]:
            raise TimeoutError
        data = self.sock.recv(65536)
        if not data:
            raise ConnectionResetError
        return data

    def receive(self, *, timeout):
        while True:
            message = self.parser.get_next_message()
            if message is not None:
                return message
            self.parser.add_data(self.read(timeout))

    def send_and_get_reply(self, message, *, timeout):
        serial = next(self.serials)
        self.sock.sendall(message.serialise(serial))
        while True:
            answer = self.receive(timeout=timeout)
            if answer.header.fields.get(HeaderFields.reply_serial) == serial:
                return answer
            self.signals.append(answer)


def call(connection, message):
    """The body of the answer; raises DBusErrorResponse for an error."""
    answer = connection.send_and_get_reply(message, timeout=SECONDS)
    if answer.header.message_type is MessageType.error:
        raise DBusErrorResponse(answer)
    return answer.body


def take_private_bus(system):
    [descriptor] = call(system, new_method_call(DBusAddress("/", SERVICE, SERVICE), "GetPrivateBus", "s", ("listen",)))
    return PrivateBus(socket.socket(fileno=descriptor.to_raw_fd()))


def plain(variant):
    """A variant, which is (signature, value), and the variants in it, as values."""
    signature, value = variant
    return {name: plain(member) for name, member in value.items()} if signature == "a{sv}" else value


def say(text):
    try:
        print(text, flush=True)
    except BrokenPipeError:
        # Nobody reads any more.
        os._exit(0)


def say_events(path, properties):
    for name in set(EVENTS) & set(properties):
        say(f"{path.removeprefix(ROOT)}: {name} {plain(properties[name])}")


def set_threshold(system, path, threshold):
    """A refusal is for the user to read, and no reason to end."""
    name = path.removeprefix(ROOT)
    try:
        call(system, Properties(DBusAddress(path, SERVICE, SETTINGS)).set("Threshold", "d", threshold))
        say(f"{name}: Threshold is set to {threshold}")
    except DBusErrorResponse as error:
        say(f"{name}: Threshold stays as it was: {error.data[0]} ({error.name})")


def take_object(connection, path, interfaces, threshold):
    """What there is at a path, as GetManagedObjects and InterfacesAdded tell it."""
    is_private = isinstance(connection, PrivateBus)
    if SERVICE + ".Source" in interfaces and not is_private:
        say(f"source {path.removeprefix(ROOT)}")
    if SERVICE + ".PluginInstance" in interfaces and not is_private:
        say(f"plug-in {path.removeprefix(ROOT)}")
    for properties in interfaces.values():
        say_events(path, properties)
    if threshold is not None and SETTINGS in interfaces:
        set_threshold(connection, path, threshold)
    if PRIVATE_EVENT in interfaces:
        # Nothing is told on a private bus before it is asked for.
        call(connection, Properties(DBusAddress(path, SERVICE, PRIVATE_EVENT)).set("EnableEvent", "b", True))


def take_signal(connection, message, threshold):
    fields = message.header.fields
    if fields.get(HeaderFields.member) == "PropertiesChanged":
        say_events(fields[HeaderFields.path], message.body[1])
    elif fields.get(HeaderFields.member) == "InterfacesAdded":
        take_object(connection, *message.body, threshold)


def take_signals(connection, signals, threshold):
    """All that has come, without waiting: what lies in the parser already would wake no select."""
    while True:
        while signals:
            take_signal(connection, signals.popleft(), threshold)
        try:
            signals.append(connection.receive(timeout=0))
        except TimeoutError:
            return


def listen(system, signals, threshold):
    """Follows one daemon. With it goes its private bus, which is a ConnectionError."""
    signals.clear()
    private = take_private_bus(system)
    with private.sock:
        for connection in (system, private):
            for path, interfaces in call(connection, new_method_call(MANAGER, "GetManagedObjects"))[0].items():
                take_object(connection, path, interfaces, threshold)
        while True:
            take_signals(system, signals, threshold)
            take_signals(private, private.signals, threshold)
            select.select([system.sock, private.sock], [], [])


def has_daemon(system):
    return call(system, message_bus.NameHasOwner(SERVICE))[0]


def listen_for_ever(system, threshold):
    signals = collections.deque()
    system.filter(MatchRule(type="signal"), queue=signals)
    # Subscribes before it looks, so that nothing falls between.
    call(system, message_bus.AddMatch(f"type='signal',sender='{SERVICE}'"))
    call(system, message_bus.AddMatch(f"type='signal',member='NameOwnerChanged',arg0='{SERVICE}'"))
    while True:
        try:
            listen(system, signals, threshold)
        except DBusErrorResponse as error:
            if has_daemon(system):
                sys.exit(f"hear-sense refused: {error.data[0]}")
        except (ConnectionError, TimeoutError):
            pass
        if not has_daemon(system):
            say("waiting for hear-sense")
            while not has_daemon(system):
                system.receive()


def main():
    # An exception could come just before a wait that nothing ends.
    signal.signal(signal.SIGINT, signal.SIG_DFL)
    threshold = float(sys.argv[1]) if len(sys.argv) > 1 else None
    try:
        with open_dbus_connection("SYSTEM", enable_fds=True) as system:
            listen_for_ever(system, threshold)
    except OSError as error:
        sys.exit(f"The system bus is not there: {error}")


main()

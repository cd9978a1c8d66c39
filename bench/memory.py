"""Resident memory of the daemon, against bare programs that hold the same streams and tables."""

import socket

from bed.private import PrivateClient, authenticate, descriptor_client
from bed.process import SCALE
from rig import Rig, resident_kb, wait_quiet

NODES = 16
PLUGINS = ("p01", "p02", "p03", "p04")
CLIENTS = 40


def _members(private):
    """What a private client is shown, a line for each property."""
    objects = private.call("/", "org.freedesktop.DBus.ObjectManager", "GetManagedObjects")[0]
    lines = []
    for path, interfaces in objects.items():
        for interface, properties in interfaces.items():
            if not interface.startswith("org.freedesktop.DBus."):
                lines += [f"{path} {interface} {name} {value[0]}" for name, value in properties.items()]
    return lines


def _growth(pid, connect):
    """Kilobytes for each client, after the first one."""
    clients = [connect()]
    wait_quiet(pid)
    before = resident_kb(pid)
    clients += [connect() for _ in range(CLIENTS)]
    wait_quiet(pid)
    grown = (resident_kb(pid) - before) / CLIENTS
    for client in clients:
        client.close()
    return grown


def _connect_to(path):
    sock = socket.socket(socket.AF_UNIX)
    sock.settimeout(10 * SCALE)
    sock.connect(str(path))
    authenticate(sock)
    return sock


def once(build):
    """Kilobytes: of the daemon with 64 sources and the bare client with 64 streams, and for each private client."""
    with Rig(build, NODES) as rig:
        bare = rig.run("bare", "bare-capture", "--idle", *rig.names * len(PLUGINS))
        stage = rig.stage()
        for name in PLUGINS:
            rig.plugin(stage, name, enabled=False, events=4, public=False)
        bus = rig.bus()
        daemon = rig.serving_daemon(stage, bus)
        rig.wait_ready(bare)
        wait_quiet(daemon.pid, bare.pid)
        result = {"daemon": resident_kb(daemon.pid), "bare": resident_kb(bare.pid)}

        main = descriptor_client(bus)
        private = PrivateClient(main)
        members = rig.folder / "members"
        members.write_text("".join(line + "\n" for line in _members(private)))
        private.close()
        result["members"] = len(members.read_text().splitlines())
        result["client"] = _growth(daemon.pid, lambda: PrivateClient(main))
        main.close()

        server = rig.run("server", "bare-server", rig.folder / "server.sock", stdin=members)
        rig.wait_ready(server)
        result["bare_client"] = _growth(server.pid, lambda: _connect_to(rig.folder / "server.sock"))
        return result

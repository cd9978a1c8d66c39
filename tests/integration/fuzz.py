"""A client that asks the service for everything it offers, and for much that it does not.

A walk visits every member of every object that the introspection data names, at least once. Each visit
draws from a generator of its own, made of the seed, the walk and what is visited: the same seed asks the
same again, however far a run has come.
"""

import math
import random
import struct
import xml.etree.ElementTree
from dataclasses import dataclass

from bed.client import PROPERTIES, CallFailed
from bed.private import PrivateClient
from jeepney import DBusAddress, new_method_call
from jeepney.fds import FileDescriptor

BASIC = "ybnqiuxtdsog"
KEYS = "ynqiuxtsog"
LIMITS = {"y": (0, 8), "n": (-15, 15), "q": (0, 16), "i": (-31, 31), "u": (0, 32), "x": (-63, 63), "t": (0, 64)}
DEEPEST = 60
LONGEST_TEXT = 4 << 20
LONGEST_SIGNATURE = 255

TEXTS = (
    "",
    " ",
    "true",
    "0x10",
    "-1",
    "nan",
    "1e999",
    "%s%n%d",
    '{"Detected": "true"',
    "]}",
    '\\"',
    "a\nb\r\tc",
    "\x01\x1b[2J",
    "\u00fcmlaut \u65e5\u672c \U0001f399",
    "\ufeff\u202e",
    "../../../etc/passwd",
    "com.orvel.HearSense",
    "com.orvel.HearSense.Settings.",
    "com.orvel.HearSense.Events.",
    "...",
)

PATHS = (
    "/",
    "/a",
    "/_",
    "/com",
    "/com/orvel",
    "/com/orvel/HearSense",
    "/com/orvel/HearSense/" + "x" * 5000,
    "/a" * 2000,
)
INTERFACES = (
    None,
    "a.b",
    "com.orvel.HearSense.Nothing",
    "com.orvel.HearSense.Events",
    "com.orvel.HearSense.Settings.If",
    "org.freedesktop.DBus",
    "x." + "y" * 253,
)
MEMBERS = ("Get", "Set", "GetAll", "GetPrivateBus", "TriggerEvent", "x", "_", "Enable", "M" * 255)


#: What the message bus answers in place of a service that has gone.
GONE = {f"org.freedesktop.DBus.Error.{name}" for name in ("NoReply", "ServiceUnknown", "NameHasNoOwner")}


class Unserved(AssertionError):
    """A call that should have been answered was not."""


@dataclass(frozen=True)
class Member:
    path: str
    interface: str
    kind: str
    name: str
    signature: str


def members_of(peer):
    """All methods and properties that the introspection data name, from the root down."""
    result = []
    unseen = ["/"]
    while unseen:
        path = unseen.pop()
        root = xml.etree.ElementTree.fromstring(peer.introspect(path))
        unseen += [f"{path.rstrip('/')}/{child.get('name')}" for child in root.findall("node")]
        for interface in root.findall("interface"):
            for method in interface.findall("method"):
                arguments = [arg.get("type") for arg in method.findall("arg") if arg.get("direction", "in") == "in"]
                result.append(Member(path, interface.get("name"), "method", method.get("name"), "".join(arguments)))
            for entry in interface.findall("property"):
                result.append(Member(path, interface.get("name"), "property", entry.get("name"), entry.get("type")))
    return sorted(result, key=lambda member: (member.path, member.interface, member.kind, member.name))


def split(signature):
    """The single complete types of a signature."""
    result = []
    start = depth = 0
    for index, letter in enumerate(signature):
        depth += (letter in "({") - (letter in ")}")
        if depth == 0 and letter != "a":
            result.append(signature[start : index + 1])
            start = index + 1
    return result


class Garbage:
    """Values of any type: each is what a message may carry, and hardly what anybody expects."""

    def __init__(self, rng, descriptor=None, longest=LONGEST_TEXT):
        """`descriptor` is what stands for type "h", where descriptors can be sent."""
        self.rng = rng
        self.descriptor = descriptor
        self.longest = longest

    def signature(self, depth=0):
        """One single complete type."""
        kinds = ["basic"] * 4 + (["array", "dict", "struct", "variant"] if depth < 4 else [])
        kind = self.rng.choice(kinds)
        if kind == "array":
            return "a" + self.signature(depth + 1)
        if kind == "dict":
            return f"a{{{self.rng.choice(KEYS)}{self.signature(depth + 1)}}}"
        if kind == "struct":
            return f"({''.join(self.signature(depth + 1) for _ in range(self.rng.randint(1, 3)))})"
        if kind == "variant":
            return "v"
        return self.rng.choice(BASIC + ("h" if self.descriptor is not None and depth < 2 else ""))

    def other_than(self, signature):
        while True:
            other = "".join(self.signature() for _ in range(self.rng.randint(0, 3)))
            if other != signature and len(other) <= LONGEST_SIGNATURE:
                return other

    def integer(self, letter):
        low, high = LIMITS[letter]
        least, most = -(2**-low) if low else 0, 2**high - 1
        return self.rng.choice((0, 1, least, most, most - 1, self.rng.randint(least, most)))

    def text(self):
        kind = self.rng.random()
        if kind < 0.01:
            return "h" * self.rng.choice((65536, self.longest // 4, self.longest))
        if kind < 0.2:
            return self.rng.randbytes(300).decode("latin-1").replace("\0", "\u65e5")
        return self.rng.choice(TEXTS)

    def array(self, element, depth):
        kind = self.rng.random()
        if kind < 0.3:
            return []
        if kind < 0.35 and element in BASIC and element not in "soh":
            return [self.value(element, depth)] * 5000
        return [self.value(element, depth) for _ in range(self.rng.randint(1, 4))]

    def variant(self, depth):
        if depth == 0 and self.rng.random() < 0.1:
            value = ("i", 7)
            for _ in range(self.rng.randint(8, DEEPEST)):
                value = ("v", value)
            return value
        signature = self.signature(max(depth, 2))
        return (signature, self.value(signature, depth + 1))

    def value(self, signature, depth=0):
        letter = signature[0]
        if letter in LIMITS:
            return self.integer(letter)
        if letter == "b":
            return self.rng.random() < 0.5
        if letter == "d":
            return self.rng.choice((0.0, -0.0, 1.5, math.inf, -math.inf, math.nan, 1.8e308, 5e-324, -3.5e38, 0.1))
        if letter == "s":
            return self.text()
        if letter == "o":
            return self.rng.choice(PATHS)
        if letter == "g":
            return "".join(self.signature(2) for _ in range(self.rng.randint(0, 5))).replace("h", "u")
        if letter == "h":
            return self.descriptor
        if letter == "v":
            return self.variant(depth)
        if letter == "(":
            return tuple(self.value(each, depth + 1) for each in split(signature[1:-1]))
        if signature.startswith("a{"):
            return {self.value(signature[2], depth + 1): self.value(signature[3:-1], depth + 1) for _ in range(3)}
        return self.array(signature[1:], depth + 1)

    def body(self, signature):
        return tuple(self.value(each) for each in split(signature))


def _close_descriptors(value):
    if isinstance(value, FileDescriptor):
        value.close()
    elif isinstance(value, (list, tuple)):
        for member in value:
            _close_descriptors(member)


class Fuzzer:
    """Fuzzes one bus over `peer`."""

    def __init__(self, peer, seed, descriptor=None, longest=LONGEST_TEXT):
        self.peer = peer
        self.seed = seed
        self.descriptor = descriptor
        self.longest = longest
        self.walks = 0
        self.calls = 0
        self.answers = 0
        self.refusals = 0
        self.visited = set()
        self.members = set()

    def _garbage(self, what):
        return Garbage(random.Random(f"{self.seed} {self.walks} {what}"), self.descriptor, self.longest)

    def call(self, path, interface, member, signature, body):
        """Any answer will do, but there has to be one."""
        self.calls += 1
        try:
            _close_descriptors(self.peer.call(path, interface, member, signature or None, body))
            self.answers += 1
        except (OSError, EOFError, CallFailed) as error:
            if isinstance(error, CallFailed) and error.name not in GONE:
                self.refusals += 1
            else:
                what = f"{path[:200]} {interface} {member} {signature!r} {str(body)[:500]}"
                raise Unserved(f"seed {self.seed}, walk {self.walks}: {what}: {error!r}") from error
        self.peer.signals.clear()

    def _visit_method(self, member, garbage):
        for signature in (member.signature, garbage.other_than(member.signature), ""):
            self.call(member.path, member.interface, member.name, signature, garbage.body(signature))

    def _visit_property(self, member, garbage):
        name = (member.interface, member.name)
        self.call(member.path, PROPERTIES, "Get", "ss", name)
        for signature in (member.signature, garbage.signature(), "v"):
            self.call(member.path, PROPERTIES, "Set", "ssv", (*name, (signature, garbage.value(signature))))
        self.call(member.path, PROPERTIES, "Set", "ss" + member.signature, (*name, *garbage.body(member.signature)))
        self.call(member.path, PROPERTIES, "Get", "ss", name)

    def visit(self, member):
        garbage = self._garbage(member)
        if member.kind == "method":
            self._visit_method(member, garbage)
        else:
            self._visit_property(member, garbage)
        self.visited.add(member)

    def stray(self, member):
        """Calls beside the member: its object without it, its name elsewhere, and names that nobody has."""
        garbage = self._garbage(("stray", member))
        rng = garbage.rng
        odd_path = rng.choice((*PATHS, member.path.rstrip("/") + "/x", member.path + "x"))
        odd_interface = rng.choice(INTERFACES)
        odd_member = rng.choice(MEMBERS)
        for path, interface, name in (
            (odd_path, member.interface, member.name),
            (member.path, odd_interface, member.name),
            (member.path, member.interface, odd_member),
            (odd_path, odd_interface, odd_member),
        ):
            signature = rng.choice((member.signature, garbage.other_than(member.signature)))
            self.call(path, interface, name, signature, garbage.body(signature))
        interface, name = rng.choice((member.interface, garbage.text())), rng.choice((member.name, garbage.text()))
        self.call(member.path, PROPERTIES, "Get", "ss", (interface, name))
        self.call(member.path, PROPERTIES, "GetAll", "s", (interface,))
        self.call(odd_path, PROPERTIES, "Set", "ssv", (interface, name, garbage.variant(0)))

    def walk(self, meanwhile=lambda: None):
        """Visits every member once, in an order of the seed's; `meanwhile` is called between the visits."""
        members = members_of(self.peer)
        self.members.update(members)
        order = random.Random(f"{self.seed} {self.walks}").sample(members, len(members))
        for member in order:
            self.visit(member)
            self.stray(member)
            meanwhile()
        self.walks += 1


def mangled_call(seed, number):
    """The bytes of a call that was damaged on its way."""
    rng = random.Random(f"{seed} mangled {number}")
    garbage = Garbage(rng)
    signature = rng.choice(("", "s", "ssv", garbage.signature()))
    address = DBusAddress(rng.choice(PATHS[:6]), interface=rng.choice(INTERFACES), bus_name="com.orvel.HearSense")
    message = new_method_call(address, rng.choice(MEMBERS), signature or None, garbage.body(signature))
    data = bytearray(message.serialise(serial=1))
    for _ in range(rng.randint(1, 8)):
        kind = rng.random()
        at = rng.randrange(min(len(data), 256))
        if kind < 0.5:
            data[at] = rng.randrange(256)
        elif kind < 0.7:
            del data[at : at + rng.randint(1, 16)]
        elif kind < 0.85:
            data[at:at] = rng.randbytes(rng.randint(1, 16))
        else:
            at -= at % 4
            data[at : at + 4] = struct.pack("<I", rng.choice((0, 1, 0x7FFFFFFF, 0xFFFFFFFF, 0x4000000)))
        data = data or bytearray(b"l")
    return bytes(data)


def send_mangled(main, seed, number):
    """A private bus of its own for each: the daemon may close it, and need not answer."""
    private = PrivateClient(main)
    try:
        private.socket.sendall(mangled_call(seed, number))
        private.send("/", "org.freedesktop.DBus.Peer", "Ping")
    except (BrokenPipeError, ConnectionResetError):
        pass
    private.close()

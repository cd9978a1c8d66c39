"""What is installed for client authors, the descriptions and the manual pages, against the service itself."""

import os
import pathlib
import re
import subprocess
import xml.etree.ElementTree as ElementTree

import pytest
from bed.client import SERVICE
from bed.private import PrivateClient, descriptor_client
from bed.stage import event, setting, struct_event

SOURCE_TREE = pathlib.Path(__file__).resolve().parents[2]

#: Placeholder of a template, and the type that stands where the plug-in decides.
ANY_TYPE = "v"

PLUGINS = {"loudness": "Loudness", "voice": "Voice", "alarm": "Alarm"}


def members(interface):
    """{(kind, name): all that introspection tells of it}, names of arguments and comments left out."""
    result = {}
    for member in interface:
        annotations = {note.get("name"): note.get("value") for note in member.findall("annotation")}
        arguments = [(argument.get("direction"), argument.get("type")) for argument in member.findall("arg")]
        key = (member.tag, member.get("name"))
        assert key not in result
        result[key] = (member.get("type"), member.get("access"), arguments, annotations)
    return result


def interfaces(xml):
    """{name: members} of the interfaces that are the service's own."""
    return {
        interface.get("name"): members(interface)
        for interface in ElementTree.fromstring(xml).findall("interface")
        if interface.get("name").startswith(SERVICE)
    }


def described(build):
    """All descriptions of the build; each is a file of its interface's name."""
    result = {}
    for folder in (SOURCE_TREE / "data/interfaces", build / "data/interfaces"):
        for path in folder.glob("*.xml"):
            found = interfaces(path.read_text(encoding="utf-8"))
            assert list(found) == [path.stem]
            result |= found
    return result


CHANGES = {"constant": "const", "announced": None, "announced, writable": None}


def page_member(line):
    """The member that a line of a manual page introduces, as members() has it; None where it introduces none."""
    found = re.fullmatch(r"(\w+) ([\w{}]+), (constant|announced|announced, writable)", line)
    if found:
        name, signature, changes = found.groups()
        emits = CHANGES[changes]
        notes = {} if emits is None else {"org.freedesktop.DBus.Property.EmitsChangedSignal": emits}
        signature = ANY_TYPE if signature == "TYPE" else signature
        return ("property", name), (signature, "readwrite" if "writable" in changes else "read", [], notes)
    found = re.fullmatch(r"(\w+)\((?:(\w+) \w+)?\)(?: → \((\w+) \w+\))?(, no reply needed)?", line)
    if found:
        name, taken, given, no_reply = found.groups()
        arguments = [(way, signature) for way, signature in (("in", taken), ("out", given)) if signature]
        notes = {"org.freedesktop.DBus.Method.NoReply": "true"} if no_reply else {}
        return ("method", name), (None, None, arguments, notes)
    return None


def page_interfaces(page):
    """{name: members} of the interfaces that a manual page tells of, as a reader sees it."""
    shown = subprocess.run(
        ["man", "--local-file", str(page)],
        env=dict(os.environ, MANWIDTH="200", LC_ALL="C.UTF-8"),
        capture_output=True,
        text=True,
        check=True,
    ).stdout
    name = page.name.removesuffix(".5")
    result = {name: {}}
    for line in re.sub(".\x08", "", shown).splitlines():
        heading = re.fullmatch(r" {7}Interface (\S+):", line)
        if heading:
            name = heading.group(1)
            result[name] = {}
        member = page_member(line[7:]) if line.startswith(" " * 7) else None
        if member:
            assert member[0] not in result[name], (page, member)
            result[name] |= [member]
    return result


def paged(build):
    """What all manual pages of interfaces say."""
    result = {}
    for page in (build / "man").glob(f"{SERVICE}*.5"):
        if page.name.endswith(".Methods.5"):
            continue
        found = page_interfaces(page)
        assert not result.keys() & found.keys()
        result |= found
    return result


DESCRIPTIONS = {"descriptions": described, "pages": paged}


def served(*clients):
    """What all objects have, and "/", by interface; an interface is the same wherever it is."""
    result = {}
    for client in clients:
        for path in ("/", *client.managed_objects()):
            for name, found in interfaces(client.introspect(path)).items():
                assert result.setdefault(name, found) == found, (path, name)
    return result


def filled_in(template, names, types):
    """A template's members, with those of the plug-in in the place of the one that is a placeholder."""
    result = {}
    for (kind, name), (signature, access, arguments, annotations) in template.items():
        if signature == ANY_TYPE:
            result |= {(kind, own): (types[own], access, arguments, annotations) for own in names}
        else:
            result[kind, name] = (signature, access, arguments, annotations)
    return result


@pytest.fixture
def connected(bed):
    """Starts the daemon; a client of the main bus and one of a private bus."""

    def connect():
        bed.quiet_microphone()
        _, client = bed.start()
        main = descriptor_client(bed.bus)
        bed.clients.append(main)
        private = PrivateClient(main)
        bed.clients.append(private)
        return client, private

    return connect


@pytest.mark.parametrize("kind", DESCRIPTIONS)
def test_fixed_and_generic_interfaces_are_those_of_the_service(bed, build, connected, kind):
    settings = {
        "Flag": ("boolean", True, "b"),
        "Word": ("uint32", 1, "u"),
        "Number": ("int32", 1, "i"),
        "Large": ("int64", 1, "x"),
        "Gain": ("double", 1.5, "d"),
        "Label": ("string", "a", "s"),
    }
    plugin = bed.plugin(
        settings=[setting(title, kind, value) for title, (kind, value, _) in settings.items()],
        events=[
            event("Speech"),
            event("Whisper", "double", 0.5, public=False),
            struct_event("Siren", {"Detected": ("boolean", False), "Report": ("boolean", False)}),
        ],
    )
    client, private = connected()
    client.wait_added(plugin.path())
    files = DESCRIPTIONS[kind](build)
    live = served(client, private)

    expected = {
        interface: found
        for interface, found in files.items()
        if not interface.startswith((f"{SERVICE}.Settings.", f"{SERVICE}.Events."))
    }
    assert len(expected) == 4
    expected[plugin.settings_interface] = filled_in(
        files[f"{SERVICE}.Settings.PLUGIN"],
        settings,
        {title: signature for title, (_, _, signature) in settings.items()},
    )
    for title, signature in (("Speech", "b"), ("Whisper", "d"), ("Siren", "a{sv}")):
        expected[plugin.event_interface(title)] = filled_in(
            files[f"{SERVICE}.Events.PLUGIN.EVENT"], [title], {title: signature}
        )
    expected[plugin.event_interface("Siren") + ".Methods"] = files[f"{SERVICE}.Events.PLUGIN.EVENT.Methods"]
    assert live == expected


@pytest.mark.parametrize("kind", DESCRIPTIONS)
@pytest.mark.parametrize("plugin", PLUGINS)
def test_interfaces_of_a_plug_in_are_those_of_the_service(bed, build, connected, plugin, kind):
    name = PLUGINS[plugin]
    prefixes = (f"{SERVICE}.Settings.{name}", f"{SERVICE}.Events.{name}.")
    told = DESCRIPTIONS[kind](build)
    files = {interface: found for interface, found in told.items() if interface.startswith(prefixes)}
    library = build / f"plugins/{plugin}/libspa-hs-{plugin}.so"
    assert bool(files) == library.exists(), "what is built is described, and nothing else is"
    if not files:
        return
    bed.stage.install_library(plugin, library)
    bed.stage.conf(plugin, (SOURCE_TREE / f"plugins/{plugin}/{plugin}.conf").read_text(encoding="utf-8"))
    client, private = connected()
    client.wait_added(f"/com/orvel/HearSense/AudioDevice0Input0/Unprocessed/{name}")
    live = {
        interface: found for interface, found in served(client, private).items() if interface.startswith(prefixes)
    }
    assert live == files

"""What no client would ever send, in a number that no person would ever write down."""

import os
import random
import time

import pytest
from bed.client import SERVICE
from bed.private import PrivateClient, descriptor_client
from bed.process import SCALE, wait_until
from bed.stage import array_event, event, setting, struct_event
from fuzz import Fuzzer, Garbage, members_of, send_mangled, split
from jeepney.low_level import Endianness, parse_signature

SECONDS = float(os.environ.get("HS_FUZZ_SECONDS", "5"))
SEED = os.environ.get("HS_FUZZ_SEED") or str(random.SystemRandom().randrange(1 << 32))
#: A walk is finished even when the time is over.
ONE_WALK = 60
MANGLED_IN_A_WALK = 50
#: The daemon drops a private client that sends a megabyte.
LONGEST_PRIVATE = 1 << 17

SCALARS = {
    "Flag": ("boolean", True),
    "Word": ("uint32", 7),
    "Number": ("int32", -7),
    "Large": ("int64", -70000000000),
    "Gain": ("float", 1.5),
    "Precise": ("double", 2.25),
    "Label": ("string", "kitchen"),
}


def events(prefix, public):
    return [
        *(event(f"{prefix}{title}", kind, value, public=public) for title, (kind, value) in SCALARS.items()),
        array_event(f"{prefix}Bands", "int64", [1, 2], public=public),
        struct_event(
            f"{prefix}Alarm", {"Detected": ("boolean", False), "Report": ("boolean", False)}, public=public
        ),
    ]


@pytest.fixture
def hearing(bed):
    bed.stage.grant_everything()
    plugin = bed.plugin(
        enabled=True,
        settings=[
            *(setting(title, kind, value) for title, (kind, value) in SCALARS.items()),
            setting("IndicateTransientAudioDisturbance", "int64", 5),
        ],
        events=[*events("Open", True), *events("Closed", False)],
    )
    bed.microphone()
    daemon, client = bed.start()
    client.wait_added(plugin.path())
    plugin.wait_call("process")
    return plugin, daemon, client


def descriptor_client_of(bed):
    client = descriptor_client(bed.bus)
    bed.clients.append(client)
    return client


def offered(peer):
    """What a bus offers, values aside."""
    return {
        path: {name: set(values) for name, values in interfaces.items()}
        for path, interfaces in peer.managed_objects().items()
    }


def set_going(plugin, client):
    """Undoes what was switched off."""
    client.set(plugin.path(), plugin.settings_interface, "Enable", "b", True)
    for title in SCALARS:
        client.set(plugin.path(), plugin.event_interface(f"Open{title}"), "EnableEvent", "b", True)


def tell(plugin, *commands):
    """Leaves the plug-in commands; its record is not waited for, since garbage has no place in JSON."""
    with open(plugin.folder / f"{plugin.name}-0.ctl", "a", encoding="utf-8") as control:
        control.write("".join(f"{command}\n" for command in commands))


def assert_serves(bed, plugin, main, value):
    """A good client, on both buses, gets what it asks for."""
    client = bed.client()
    set_going(plugin, client)
    client.set(plugin.path(), plugin.settings_interface, "Label", "s", "parlour")
    assert client.get(plugin.path(), plugin.settings_interface, "Label") == "parlour"
    private = PrivateClient(main)
    bed.clients.append(private)
    private.enable(plugin, "ClosedNumber")
    tell(plugin, f"set ClosedNumber {value}", f"set OpenNumber {value}")
    private.wait_change(plugin.event_interface("ClosedNumber"), "ClosedNumber", value)
    client.wait_change(plugin.event_interface("OpenNumber"), "OpenNumber", value)
    private.close()


def test_signatures_are_split_as_the_library_reads_them():
    for count in range(300):
        garbage = Garbage(random.Random(count), descriptor=0)
        signature = garbage.other_than("")
        assert len(split(signature)) == len(parse_signature(list(f"({signature})")).fields)
        assert "".join(split(signature)) == signature


def test_values_of_every_signature_can_be_sent():
    for count in range(300):
        garbage = Garbage(random.Random(count))
        signature = garbage.other_than("")
        parse_signature(list(f"({signature})")).serialise(garbage.body(signature), 0, Endianness.little)


@pytest.mark.seconds(2 * SECONDS + 4 * ONE_WALK)
def test_garbage_is_answered_and_the_service_goes_on(bed, hearing):
    plugin, daemon, client = hearing
    main, sender = descriptor_client_of(bed), descriptor_client_of(bed)
    assert_serves(bed, plugin, main, -1)
    wait_until(lambda: daemon.log_count("Destroy bus event data: ") == 1, "the bus of the good client to go")
    before = daemon.descriptors()
    offered_on_main = offered(client)
    print(f"HS_FUZZ_SEED={SEED}")

    with open(os.devnull, "rb") as null:
        private = PrivateClient(main)
        bed.clients.append(private)
        offered_on_private = offered(private)
        fuzzers = [Fuzzer(sender, SEED, null.fileno()), Fuzzer(private, SEED, longest=LONGEST_PRIVATE)]
        for fuzzer in fuzzers:
            assert f"{SERVICE}.PluginInstance" in {member.interface for member in members_of(fuzzer.peer)}
        value = 0

        def fire():
            nonlocal value
            value += 1
            tell(plugin, f"set OpenNumber {value}", f"set ClosedNumber {value}")

        end = time.monotonic() + SECONDS * SCALE
        mangled = 0
        while mangled == 0 or time.monotonic() < end:
            for fuzzer in fuzzers:
                fuzzer.walk(fire)
                assert daemon.alive
                assert fuzzer.visited == fuzzer.members
            for _ in range(MANGLED_IN_A_WALK):
                send_mangled(main, SEED, mangled)
                mangled += 1
            client.signals.clear()
            client.pump()
        private.close()
    for fuzzer in fuzzers:
        print(f"{fuzzer.walks} walks, {fuzzer.calls} calls: {fuzzer.answers} answered, {fuzzer.refusals} refused")
        assert fuzzer.answers > len(fuzzer.members) and fuzzer.refusals > len(fuzzer.members)
    print(f"{mangled} damaged messages")

    assert_serves(bed, plugin, main, -2)
    assert offered(client) == offered_on_main
    fresh = PrivateClient(main)
    assert offered(fresh) == offered_on_private
    fresh.close()
    wait_until(lambda: daemon.descriptors() == before, lambda: f"{before} descriptors, not {daemon.descriptors()}")

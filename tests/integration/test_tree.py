"""The object tree: interfaces, members, what may be written and what the methods do."""

import re

import pytest
from bed.client import DENIED, ROOT, SERVICE, CallFailed, interface_members
from bed.stage import array_event, event, setting, struct_event

CHAIN = f"{ROOT}/AudioDevice0Input0"
SOURCE = f"{ROOT}/AudioDevice0Input0/Unprocessed"
CHAIN_INTERFACE = f"{SERVICE}.AudioChain"
SOURCE_INTERFACE = f"{SERVICE}.Source"

EVENT_MEMBERS = {
    "Source": "o",
    "EventName": "s",
    "NiceName": "s",
    "isDeprecated": "b",
    "isApplicationData": "b",
    "isPropertyState": "b",
    "Topic0Name": "s",
    "Topic0Namespace": "s",
    "Topic0NiceName": "s",
    "Topic1Name": "s",
    "Topic1Namespace": "s",
    "Topic1NiceName": "s",
    "Topic2Name": "s",
    "Topic2Namespace": "s",
    "Topic2NiceName": "s",
    "EnableEvent": "b",
    "DataTypes": "a{sv}",
}

SCALARS = {
    "Flag": ("boolean", True, "b", True),
    "Word": ("uint32", 7, "u", 7),
    "Number": ("int32", -7, "i", -7),
    "Large": ("int64", -70000000000, "x", -70000000000),
    "Gain": ("float", 1.5, "d", 1.5),
    "Precise": ("double", 2.25, "d", 2.25),
    "Label": ("string", "kitchen", "s", "kitchen"),
}


def properties(xml, interface):
    """{name: (signature, access, the EmitsChangedSignal annotation)} of introspection data."""
    block = re.search(rf'<interface name="{re.escape(interface)}">(.*?)</interface>', xml, re.S).group(1)
    result = {}
    for name, signature, access, rest in re.findall(
        r'<property name="([^"]*)" type="([^"]*)" access="([^"]*)">(.*?)</property>', block, re.S
    ):
        emits = re.search(r'EmitsChangedSignal" value="([^"]*)"', rest)
        result[name] = (signature, access, emits.group(1) if emits else "true")
    return result


@pytest.fixture
def scalars(bed):
    """A plug-in with a setting and a public event of every scalar type, published."""
    plugin = bed.plugin(
        settings=[setting(title, kind, value) for title, (kind, value, _, _) in SCALARS.items()],
        events=[event(f"{title}Event", kind, value) for title, (kind, value, _, _) in SCALARS.items()],
    )
    bed.quiet_microphone()
    daemon, client = bed.start()
    client.wait_added(plugin.path())
    return plugin, daemon, client


def test_source_object_has_its_members(bed, scalars):
    _, _, client = scalars
    xml = client.introspect(SOURCE)
    assert properties(xml, SOURCE_INTERFACE) == {"Id": ("s", "read", "const"), "AudioChain": ("o", "read", "const")}


def test_chain_object_has_its_members(bed, scalars):
    _, _, client = scalars
    xml = client.introspect(CHAIN)
    assert properties(xml, CHAIN_INTERFACE) == {
        "Id": ("s", "read", "const"),
        "NiceName": ("s", "read", "const"),
        "Direction": ("s", "read", "const"),
    }
    members = interface_members(xml, CHAIN_INTERFACE)
    assert [name for name, kind in members.items() if kind == "method"] == [
        "IndicateInternalSpeakerActive",
        "IndicateContinuousAudioDisturbance",
        "IndicateTransientAudioDisturbance",
    ]
    for name, argument in (
        ("IndicateInternalSpeakerActive", r'\s*<arg type="b" direction="in"/>'),
        ("IndicateContinuousAudioDisturbance", r'\s*<arg type="b" direction="in"/>'),
        ("IndicateTransientAudioDisturbance", ""),
    ):
        assert re.search(
            rf'<method name="{name}">{argument}\s*<annotation name="org.freedesktop.DBus.Method.NoReply" value="true"/>'
            r"\s*</method>",
            xml,
        ), xml


def test_instance_object_has_its_interfaces(bed, scalars):
    plugin, _, client = scalars
    xml = client.introspect(plugin.path())
    assert properties(xml, f"{SERVICE}.PluginInstance") == {"Source": ("o", "read", "const")}
    assert properties(xml, plugin.settings_interface) == {"Schema": ("s", "read", "const")} | {
        title: (signature, "readwrite", "true") for title, (_, _, signature, _) in SCALARS.items()
    } | {"Enable": ("b", "readwrite", "true")}


def test_event_interface_has_the_event_and_its_description(bed, scalars):
    plugin, _, client = scalars
    xml = client.introspect(plugin.path())
    for title, (_, _, signature, _) in SCALARS.items():
        expected = {name: (kind, "read", "const") for name, kind in EVENT_MEMBERS.items()}
        expected["EnableEvent"] = ("b", "readwrite", "true")
        expected[f"{title}Event"] = (signature, "read", "true")
        assert properties(xml, plugin.event_interface(f"{title}Event")) == expected


def test_members_stand_in_their_order(bed, scalars):
    plugin, _, client = scalars
    xml = client.introspect(plugin.path())
    assert list(interface_members(xml, plugin.settings_interface)) == ["Schema", "Enable", *SCALARS]
    assert list(interface_members(xml, plugin.event_interface("FlagEvent"))) == ["FlagEvent", *EVENT_MEMBERS]


def test_private_event_is_not_on_the_main_bus(bed):
    plugin = bed.plugin(events=[event("Public"), event("Private", public=False)])
    bed.quiet_microphone()
    _, client = bed.start()
    client.wait_added(plugin.path())
    interfaces = client.managed_objects()[plugin.path()]
    assert plugin.event_interface("Public") in interfaces
    assert not [name for name in interfaces if "Private" in name]


@pytest.mark.parametrize("title", SCALARS)
def test_writing_a_setting_is_refused_and_changes_nothing(bed, scalars, title):
    plugin, daemon, client = scalars
    _, value, signature, expected = SCALARS[title]
    before = bed.stage.settings_file(plugin).read_bytes()
    new = {"b": False, "s": "attic"}.get(signature, 3)
    with pytest.raises(CallFailed) as failure:
        client.set(plugin.path(), plugin.settings_interface, title, signature, new)
    assert failure.value.name == DENIED
    assert client.get(plugin.path(), plugin.settings_interface, title) == expected
    assert client.changes(plugin.settings_interface, title) == []
    assert bed.stage.settings_file(plugin).read_bytes() == before
    assert plugin.calls("set_settings") == []
    assert daemon.alive


@pytest.mark.parametrize("interface, name", [("settings", "Enable"), ("event", "EnableEvent")])
def test_enabling_is_refused(bed, scalars, interface, name):
    plugin, _, client = scalars
    interface = plugin.settings_interface if interface == "settings" else plugin.event_interface("FlagEvent")
    before = client.get(plugin.path(), interface, name)
    for value in (True, False):
        with pytest.raises(CallFailed) as failure:
            client.set(plugin.path(), interface, name, "b", value)
        assert failure.value.name == DENIED
    assert client.get(plugin.path(), interface, name) == before


def test_refused_write_is_answered_once(bed, scalars):
    """A second answer, or a daemon that lost its place in the message, would show in the next call."""
    plugin, _, client = scalars
    serials = [
        client.send(
            plugin.path(),
            "org.freedesktop.DBus.Properties",
            "Set",
            "ssv",
            (plugin.settings_interface, "Flag", ("b", False)),
        )
        for _ in range(20)
    ]
    for serial in serials:
        with pytest.raises(CallFailed, match="AccessDenied"):
            client.wait_reply(serial)
    assert client.get(plugin.path(), plugin.settings_interface, "Flag") is True


def test_constant_property_cannot_be_written(bed, scalars):
    plugin, _, client = scalars
    with pytest.raises(CallFailed, match="PropertyReadOnly"):
        client.set(plugin.path(), plugin.settings_interface, "Schema", "s", "x")
    with pytest.raises(CallFailed, match="PropertyReadOnly"):
        client.set(plugin.path(), plugin.event_interface("FlagEvent"), "FlagEvent", "b", False)


def test_private_bus_without_its_argument_is_invalid(bed, scalars):
    _, _, client = scalars
    with pytest.raises(CallFailed, match="InvalidArgs"):
        client.call("/", SERVICE, "GetPrivateBus")


def test_array_and_structure_settings_are_logged_and_left_out(bed):
    plugin = bed.plugin(
        settings=[
            setting("Bands", "array", [1, 2], element="int32"),
            setting("Pair", "struct", [True, 1], members=[["A", "boolean"], ["B", "int32"]]),
            setting("Gain", "float", 1.5),
        ]
    )
    bed.quiet_microphone()
    daemon, client = bed.start()
    client.wait_added(plugin.path())
    for title in ("Bands", "Pair"):
        assert (
            daemon.log_count(
                f"Failed to setup dbus setting {plugin.path()}, {plugin.settings_interface}, {title} with error: "
            )
            == 1
        )
    assert set(client.get_all(plugin.path(), plugin.settings_interface)) == {"Schema", "Enable", "Gain"}


def test_only_events_with_detected_can_be_triggered(bed):
    members = {"Detected": ("boolean", False), "Report": ("boolean", False)}
    plugin = bed.plugin(
        events=[
            struct_event("Alarm", members),
            struct_event("Hidden", members, public=False),
            struct_event("Pair", {"Left": ("int32", 1), "Right": ("int32", 2)}),
            event("Speech"),
        ]
    )
    bed.quiet_microphone()
    _, client = bed.start()
    client.wait_added(plugin.path())
    xml = client.introspect(plugin.path())
    triggers = sorted(re.findall(r'interface name="([^"]*\.Methods)"', xml))
    assert triggers == [plugin.event_interface("Alarm") + ".Methods", plugin.event_interface("Hidden") + ".Methods"]
    for interface in triggers:
        assert interface_members(xml, interface) == {"TriggerEvent": "method"}


def test_trigger_event_raises_the_event_and_signals_it(bed):
    plugin = bed.plugin(
        events=[struct_event("Alarm", {"Detected": ("boolean", False), "Report": ("boolean", False)})]
    )
    bed.quiet_microphone()
    _, client = bed.start()
    client.wait_added(plugin.path())
    interface = plugin.event_interface("Alarm")
    assert client.get(plugin.path(), interface, "Alarm") == {"Detected": False, "Report": False}
    assert client.call(plugin.path(), f"{interface}.Methods", "TriggerEvent") == ()
    client.wait_change(interface, "Alarm", {"Detected": True, "Report": True})
    assert client.get(plugin.path(), interface, "Alarm") == {"Detected": True, "Report": True}


def test_triggering_a_private_event_signals_nothing_on_the_main_bus(bed):
    plugin = bed.plugin(
        events=[struct_event("Hidden", {"Detected": ("boolean", False), "Report": ("boolean", False)}, public=False)]
    )
    bed.quiet_microphone()
    daemon, client = bed.start()
    client.wait_added(plugin.path())
    client.call(plugin.path(), plugin.event_interface("Hidden") + ".Methods", "TriggerEvent")
    client.managed_objects()
    assert client.changes(plugin.event_interface("Hidden"), "Hidden") == []
    assert daemon.alive


@pytest.mark.parametrize("method", ["IndicateContinuousAudioDisturbance", "IndicateInternalSpeakerActive"])
def test_indication_reaches_every_instance_of_the_device_and_no_other(bed, method):
    first, second = bed.plugin("first"), bed.plugin("second")
    bed.quiet_microphone()
    bed.quiet_microphone("AudioDevice1Input0.Unprocessed")
    _, client = bed.start()
    for plugin in (first, second):
        client.wait_added(plugin.path())
        client.wait_added(plugin.path("AudioDevice1Input0.Unprocessed"))
    for value in (True, False):
        assert client.call(CHAIN, CHAIN_INTERFACE, method, "b", (value,)) == ()
        for plugin in (first, second):
            # The answer comes first, the work after it.
            pod = ["Struct", [["String", method], ["Bool", value]]]
            plugin.wait_call("set_settings", pod=pod)
            assert len(plugin.calls("set_settings", pod=pod)) == 1
    assert len({call["instance"] for call in first.calls("set_settings")}) == 1


def test_indication_that_a_plug_in_refuses_is_answered_all_the_same(bed):
    bed.plugin(returns={"set_settings": -22})
    bed.quiet_microphone()
    daemon, client = bed.start()
    client.wait_added(CHAIN)
    assert client.call(CHAIN, CHAIN_INTERFACE, "IndicateInternalSpeakerActive", "b", (True,)) == ()
    assert client.get(CHAIN, CHAIN_INTERFACE, "Direction") == "Input"
    assert daemon.alive


def test_transient_disturbance_counts_in_the_plug_in(bed):
    counter = "IndicateTransientAudioDisturbance"
    plugin = bed.plugin(settings=[setting("Gain", "float", 1.5), setting(counter, "int64", 5)])
    bed.quiet_microphone()
    daemon, client = bed.start()
    client.wait_added(plugin.path())
    for expected in (6, 7):
        assert client.call(CHAIN, CHAIN_INTERFACE, counter) == ()
        plugin.wait_call("set_settings", pod=["Struct", [["String", counter], ["Long", expected]]])
        daemon.wait_log(f"{counter} counter is now {expected}")


@pytest.mark.parametrize("script", [{}, {"absent": ["get_settings"]}], ids=["no counter", "no get_settings"])
def test_transient_disturbance_without_a_counter_is_only_logged(bed, script):
    plugin = bed.plugin(settings=[setting("Gain", "float", 1.5)], **script)
    bed.quiet_microphone()
    daemon, client = bed.start()
    client.wait_added(plugin.path())
    assert client.call(CHAIN, CHAIN_INTERFACE, "IndicateTransientAudioDisturbance") == ()
    daemon.wait_log("No IndicateTransientAudioDisturbance counter to update")
    assert plugin.calls("set_settings") == []


def test_indication_with_a_wrong_argument_is_refused_and_reaches_nobody(bed):
    plugin = bed.plugin()
    bed.quiet_microphone()
    _, client = bed.start()
    client.wait_added(plugin.path())
    with pytest.raises(CallFailed, match="InvalidArgs"):
        client.call(CHAIN, CHAIN_INTERFACE, "IndicateInternalSpeakerActive", "s", ("yes",))
    assert plugin.calls("set_settings") == []


def test_event_with_an_impossible_title_spares_the_others(bed):
    plugin = bed.plugin(events=[event("9lives"), event("no-hyphens"), event("Fine")])
    bed.quiet_microphone()
    daemon, client = bed.start()
    client.wait_added(plugin.path())
    assert client.get(plugin.path(), plugin.event_interface("Fine"), "Fine") is False
    assert daemon.log_count("Failed to setup dbus event ") == 2
    bed.unplug()
    client.wait_removed(SOURCE)
    assert client.managed_objects() == {}


def test_array_events_are_published_with_their_own_signature(bed):
    plugin = bed.plugin(events=[array_event("Bands", "int64", [1, 2])])
    bed.quiet_microphone()
    _, client = bed.start()
    client.wait_added(plugin.path())
    xml = client.introspect(plugin.path())
    assert properties(xml, plugin.event_interface("Bands"))["Bands"] == ("ax", "read", "true")

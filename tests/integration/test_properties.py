"""What the property getters answer."""

import pytest
from bed.client import ERROR, ROOT, SERVICE, CallFailed
from bed.stage import array_event, event, setting, struct_event

CHAIN = f"{ROOT}/AudioDevice0Input0"
SOURCE = f"{ROOT}/AudioDevice0Input0/Unprocessed"

SCALARS = [
    ("boolean", True, ("b", True)),
    ("boolean", False, ("b", False)),
    ("uint32", 0, ("u", 0)),
    ("uint32", 2147483647, ("u", 2147483647)),
    ("int32", -2147483648, ("i", -2147483648)),
    ("int64", 9223372036854775807, ("x", 9223372036854775807)),
    ("float", 0.5, ("d", 0.5)),
    ("float", 0.1, ("d", 0.10000000149011612)),
    ("double", -1234.5678, ("d", -1234.5678)),
    ("double", 0.0000001, ("d", 0.0)),
    ("string", "", ("s", "")),
    ("string", "Küche, oben", ("s", "Küche, oben")),
]


@pytest.fixture
def published(bed):
    """Publishes a plug-in and gives it with a client."""

    def publish(name="AudioDevice0Input0.Unprocessed", **script):
        plugin = bed.plugin(**script)
        bed.quiet_microphone(name)
        daemon, client = bed.start()
        client.wait_added(plugin.path(name))
        return plugin, daemon, client

    return publish


def test_scalar_settings_and_events_have_their_type_and_value(published):
    plugin, _, client = published(
        settings=[setting(f"S{i}", kind, value) for i, (kind, value, _) in enumerate(SCALARS)],
        events=[event(f"E{i}", kind, value) for i, (kind, value, _) in enumerate(SCALARS)],
    )
    for i, (_, _, expected) in enumerate(SCALARS):
        assert client.get_variant(plugin.path(), plugin.settings_interface, f"S{i}") == expected
        assert client.get_variant(plugin.path(), plugin.event_interface(f"E{i}"), f"E{i}") == expected


@pytest.mark.parametrize(
    "element, values, signature, expected",
    [
        ("uint32", [1, 2, 3], "au", [1, 2, 3]),
        ("int32", [-1, 0, 1], "ai", [-1, 0, 1]),
        ("int64", [5000000000], "ax", [5000000000]),
        ("float", [0.5, 1.5], "ad", [0.5, 1.5]),
        ("double", [0.25, -1.0], "ad", [0.25, -1.0]),
        ("boolean", [True, False, True], "ab", [True, False, True]),
        ("string", ["hall", "attic"], "as", ["hall", "attic"]),
    ],
)
def test_array_event_has_its_elements(published, element, values, signature, expected):
    plugin, _, client = published(events=[array_event("Bands", element, values)])
    assert client.get_variant(plugin.path(), plugin.event_interface("Bands"), "Bands") == (signature, expected)
    assert client.managed_objects()[plugin.path()][plugin.event_interface("Bands")]["Bands"] == expected


def test_empty_array_event_is_an_empty_array(published):
    plugin, _, client = published(events=[array_event("Bands", "int32", [])])
    assert client.get_variant(plugin.path(), plugin.event_interface("Bands"), "Bands") == ("ai", [])


def test_structure_event_is_a_dictionary_of_typed_values(published):
    members = {
        "Flag": ("boolean", True),
        "Word": ("uint32", 7),
        "Number": ("int32", -7),
        "Large": ("int64", -70000000000),
        "Gain": ("float", 1.5),
        "Precise": ("double", 2.25),
        "Label": ("string", "kitchen"),
    }
    plugin, _, client = published(events=[struct_event("State", members)])
    signature, value = client.get_variant(plugin.path(), plugin.event_interface("State"), "State")
    assert signature == "a{sv}"
    assert value == {
        "Flag": ("b", True),
        "Word": ("u", 7),
        "Number": ("i", -7),
        "Large": ("x", -70000000000),
        "Gain": ("d", 1.5),
        "Precise": ("d", 2.25),
        "Label": ("s", "kitchen"),
    }
    assert list(value) == list(members)


@pytest.mark.parametrize(
    "data_types, stats, happening", [(0, False, False), (1, True, False), (2, False, True), (3, True, True)]
)
def test_data_types_tell_the_bits(published, data_types, stats, happening):
    plugin, _, client = published(events=[event("Speech", info={"data_types": data_types})])
    assert client.get(plugin.path(), plugin.event_interface("Speech"), "DataTypes") == {
        "Stats": stats,
        "Event": happening,
    }


def test_event_description_tells_texts_flags_and_topics(published):
    plugin, _, client = published(
        events=[
            event(
                "Speech",
                info={
                    "nice_name": "Someone speaks",
                    "isDeprecated": True,
                    "isApplicationData": False,
                    "isPropertyState": True,
                    "topics": [["people", "People", "org.example"], ["voice", "Voice", "org.example.sub"]],
                },
            )
        ]
    )
    values = client.get_all(plugin.path(), plugin.event_interface("Speech"))
    assert values == {
        "Speech": False,
        "Source": SOURCE,
        "EventName": "Speech",
        "NiceName": "Someone speaks",
        "isDeprecated": True,
        "isApplicationData": False,
        "isPropertyState": True,
        "Topic0Name": "people",
        "Topic0Namespace": "org.example",
        "Topic0NiceName": "People",
        "Topic1Name": "voice",
        "Topic1Namespace": "org.example.sub",
        "Topic1NiceName": "Voice",
        "Topic2Name": "",
        "Topic2Namespace": "",
        "Topic2NiceName": "",
        "EnableEvent": True,
        "DataTypes": {"Stats": False, "Event": False},
    }


def test_null_topics_and_null_texts_are_empty(published):
    topics = [None, ["voice", None, None], ["a", "b", "c"], ["never", "seen", "4th"]]
    plugin, _, client = published(events=[event("Speech", info={"topics": topics})])
    values = client.get_all(plugin.path(), plugin.event_interface("Speech"))
    assert [values[f"Topic{i}Name"] for i in range(3)] == ["", "voice", "a"]
    assert values["Topic1NiceName"] == values["Topic1Namespace"] == ""
    assert values["Topic2NiceName"] == "b"
    assert values["Topic2Namespace"] == "c"


def test_each_event_tells_its_own_description(published):
    plugin, _, client = published(
        events=[event(name, info={"nice_name": f"The {name}", "isDeprecated": name == "B"}) for name in ("A", "B", "C")]
    )
    for name in ("A", "B", "C"):
        interface = plugin.event_interface(name)
        assert client.get(plugin.path(), interface, "EventName") == name
        assert client.get(plugin.path(), interface, "NiceName") == f"The {name}"
        assert client.get(plugin.path(), interface, "isDeprecated") is (name == "B")


def test_source_tells_its_node_and_its_chain(published):
    _, _, client = published()
    assert client.get_all(SOURCE, f"{SERVICE}.Source") == {"Id": "AudioDevice0Input0.Unprocessed", "AudioChain": CHAIN}


@pytest.mark.parametrize(
    "node, device, nice, direction",
    [
        ("AudioDevice0Input0.Unprocessed", "AudioDevice0Input0", "Audio Device 0 Input 0", "Input"),
        ("AudioDevice12Output3.Raw", "AudioDevice12Output3", "Audio Device 12 Output 3", "Output"),
        ("HallMic12A3.Raw", "HallMic12A3", "Hall Mic 12 A3", ""),
        ("Output.Input", "Output", "Output", "Input"),
    ],
)
def test_chain_tells_its_name_and_direction(published, node, device, nice, direction):
    _, _, client = published(node, info={"node.pattern": "."})
    assert client.get_all(f"{ROOT}/{device}", f"{SERVICE}.AudioChain") == {
        "Id": device,
        "NiceName": nice,
        "Direction": direction,
    }


def test_instance_tells_its_source(published):
    plugin, _, client = published()
    assert client.get(plugin.path(), f"{SERVICE}.PluginInstance", "Source") == SOURCE


@pytest.mark.parametrize(
    "schema, expected", [("a.json", "/usr/share/hear-sense/plugin-schemas/a.json"), (None, "")], ids=["told", "null"]
)
def test_schema_is_the_plug_ins_schema_and_not_that_of_its_settings(published, schema, expected):
    plugin, _, client = published(schema=schema, settings_schema="b.json")
    assert client.get(plugin.path(), plugin.settings_interface, "Schema") == expected


def test_large_unsigned_event_cannot_be_read_and_spares_its_neighbours(bed):
    plugin = bed.plugin(events=[event("Big", "uint32", 3000000000), event("Small", "uint32", 3)])
    bed.quiet_microphone()
    _, client = bed.start()
    plugin.wait_call("get_setting")
    with pytest.raises(CallFailed) as failure:
        client.get(plugin.path(), plugin.event_interface("Big"), "Big")
    assert failure.value.name == ERROR
    assert (
        failure.value.text
        == f"Unable to get/set property Big in interface {plugin.event_interface('Big')} at path {plugin.path()}"
    )
    assert client.get(plugin.path(), plugin.event_interface("Small"), "Small") == 3


def test_structure_with_an_empty_text_cannot_be_read(bed):
    plugin = bed.plugin(events=[struct_event("State", {"Label": ("string", "")}), event("Fine")])
    bed.quiet_microphone()
    daemon, client = bed.start()
    plugin.wait_call("get_setting")
    with pytest.raises(CallFailed) as failure:
        client.get(plugin.path(), plugin.event_interface("State"), "State")
    assert failure.value.name == ERROR
    assert daemon.log_count("Failed to parse '' as s") >= 1
    assert daemon.log_count("Unable to close dictionary container: ") >= 1
    assert client.get(plugin.path(), plugin.event_interface("Fine"), "Fine") is False


def test_structure_with_more_members_than_its_signature_cannot_be_read(published):
    """Triggering an event of one member leaves a text of two."""
    plugin, daemon, client = published(events=[struct_event("Alarm", {"Detected": ("boolean", False)})])
    interface = plugin.event_interface("Alarm")
    client.call(plugin.path(), f"{interface}.Methods", "TriggerEvent")
    with pytest.raises(CallFailed) as failure:
        client.get(plugin.path(), interface, "Alarm")
    assert failure.value.name == ERROR
    assert daemon.log_count("Unkown type in struct )") >= 1


def test_report_reads_false_where_the_plug_in_has_none(published):
    plugin, _, client = published(
        events=[struct_event("Alarm", {"Detected": ("boolean", False), "Other": ("boolean", False)})]
    )
    interface = plugin.event_interface("Alarm")
    client.call(plugin.path(), f"{interface}.Methods", "TriggerEvent")
    assert client.get(plugin.path(), interface, "Alarm") == {"Detected": True, "Report": False}


def test_unknown_property_is_unknown(published):
    plugin, _, client = published(events=[event("Speech")])
    with pytest.raises(CallFailed, match="UnknownProperty"):
        client.get(plugin.path(), plugin.event_interface("Speech"), "Nothing")

"""Events: what the plug-in reports and what clients hear of it."""

import pytest
from bed.stage import SYSTEM_NODE, array_event, event, setting, struct_event


@pytest.fixture
def run(bed):
    """An enabled plug-in that hears sound, settled: its first values have been announced."""

    def start(*events, **script):
        plugin = bed.plugin(enabled=True, events=list(events), **script)
        bed.microphone()
        daemon, client = bed.start()
        plugin.wait_call("process", 3)
        return plugin, daemon, client

    return start


def settled(plugin, client, title, instance=None):
    """The changes of an event so far, once no forced announcement can be under way."""
    plugin.command("returns nothing 0", instance)
    plugin.command("returns nothing 0", instance)
    client.managed_objects()
    return client.changes(plugin.event_interface(title), title)


@pytest.mark.parametrize(
    "kind, first, second, expected",
    [
        ("boolean", False, True, True),
        ("uint32", 1, 2147483647, 2147483647),
        ("int32", 1, -2147483648, -2147483648),
        ("int64", 1, -9223372036854775808, -9223372036854775808),
        ("float", 1, 0.5, 0.5),
        ("double", 1, 1e10, 1e10),
        ("string", "", "someone speaks", "someone speaks"),
        ("string", "someone", "", ""),
    ],
)
def test_change_of_a_scalar_is_signalled_with_its_value(run, kind, first, second, expected):
    plugin, _, client = run(event("Speech", kind, first))
    before = settled(plugin, client, "Speech")
    plugin.set("Speech", second)
    client.wait_change(plugin.event_interface("Speech"), "Speech", expected)
    assert settled(plugin, client, "Speech") == [*before, expected]
    assert client.get(plugin.path(), plugin.event_interface("Speech"), "Speech") == expected


@pytest.mark.parametrize(
    "element, first, second",
    [
        ("boolean", [False], [True, False]),
        ("uint32", [1, 2], [3, 4, 5]),
        ("int32", [1, 2], [-3]),
        ("int64", [1], [5000000000, -1]),
        ("float", [1], [0.5, 0.25]),
        ("double", [1], [0.5, -0.25]),
        ("string", ["hall"], ["attic", "kitchen"]),
    ],
)
def test_change_of_an_array_is_signalled_with_its_elements(run, element, first, second):
    plugin, _, client = run(array_event("Bands", element, first))
    before = settled(plugin, client, "Bands")
    plugin.set("Bands", second)
    client.wait_change(plugin.event_interface("Bands"), "Bands", second)
    assert settled(plugin, client, "Bands") == [*before, second]


def test_change_of_a_structure_is_signalled_whole(run):
    plugin, _, client = run(
        struct_event("Alarm", {"Detected": ("boolean", False), "Level": ("int32", 1), "Report": ("boolean", False)})
    )
    before = settled(plugin, client, "Alarm")
    for value in ([False, 2, False], [True, 2, True]):
        plugin.set("Alarm", value)
        expected = dict(zip(("Detected", "Level", "Report"), value))
        client.wait_change(plugin.event_interface("Alarm"), "Alarm", expected)
        before.append(expected)
    assert settled(plugin, client, "Alarm") == before


def test_signal_comes_from_the_instance_and_carries_one_property(run):
    plugin, _, client = run(event("Speech"), event("Noise"))
    settled(plugin, client, "Speech")
    start = len(client.signals)
    plugin.set("Speech", True)
    signal = client.wait_signal(lambda signal: signal.member == "PropertiesChanged", "a change", start=start)
    assert signal.path == plugin.path()
    assert signal.body == (plugin.event_interface("Speech"), {"Speech": ("b", True)}, [])


def test_same_value_again_is_not_signalled(run):
    plugin, _, client = run(event("Speech"), event("Count", "int32", 0))
    before = settled(plugin, client, "Speech")
    for count in range(1, 6):
        plugin.set("Speech", False)
        plugin.set("Count", count)
    client.wait_change(plugin.event_interface("Count"), "Count", 5)
    assert settled(plugin, client, "Speech") == before


def test_activation_announces_values_that_did_not_change(run):
    plugin, _, client = run(event("Speech"), event("Label", "string", "quiet"))
    client.wait_change(plugin.event_interface("Speech"), "Speech", False)
    client.wait_change(plugin.event_interface("Label"), "Label", "quiet")


def test_deactivation_announces_the_last_values_before_the_objects_go(bed, run):
    plugin, _, client = run(event("Speech"))
    before = settled(plugin, client, "Speech")
    bed.unplug()
    client.wait_removed(plugin.path())
    assert client.changes(plugin.event_interface("Speech"), "Speech")[len(before) :] == [False]
    members = [signal.member for signal in client.signals]
    last_change = len(members) - 1 - members[::-1].index("PropertiesChanged")
    assert last_change < members.index("InterfacesRemoved")


def test_notification_signals_the_change_once(run):
    plugin, _, client = run(event("Speech"), event("Count", "int32", 0), settings=[setting("Gain")])
    before = settled(plugin, client, "Count")
    with open(plugin.folder / "motion-0.ctl", "a", encoding="utf-8") as control:
        control.write("set Count 7\nnotify 1\nset Count 8\nnotify 1\n")
    client.wait_change(plugin.event_interface("Count"), "Count", 8)
    assert settled(plugin, client, "Count") == [*before, 7, 8]


def test_notification_of_an_unknown_event_is_one_error(run):
    plugin, daemon, client = run(event("Speech"))
    plugin.command("notify 9")
    daemon.wait_log("Event index 9 out of range")
    plugin.set("Speech", True)
    client.wait_change(plugin.event_interface("Speech"), "Speech", True)


def test_notification_of_an_unparsable_event_is_one_error(run):
    plugin, daemon, _ = run(event("Speech"))
    plugin.command("pod Speech struct-names")
    plugin.command("notify 0")
    daemon.wait_log("Could not parse pod for event index 0")


def test_private_event_is_not_signalled_on_the_main_bus(run):
    plugin, _, client = run(event("Public"), event("Private", public=False))
    plugin.set("Private", True)
    plugin.set("Public", True)
    client.wait_change(plugin.event_interface("Public"), "Public", True)
    assert settled(plugin, client, "Private") == []


def test_instances_signal_on_their_own_paths(bed):
    other = "AudioDevice1Input0.Unprocessed"
    plugin = bed.plugin(enabled=True, events=[event("Count", "int32", 0)])
    bed.microphone()
    bed.microphone(other)
    _, client = bed.start()
    for node in (SYSTEM_NODE, other):
        plugin.wait_call("process", instance=plugin.instance_on(node))
    plugin.set("Count", 1, plugin.instance_on(SYSTEM_NODE))
    plugin.set("Count", 2, plugin.instance_on(other))
    for node, value in ((SYSTEM_NODE, 1), (other, 2)):
        client.wait_signal(
            lambda signal, node=node, value=value: signal.member == "PropertiesChanged"
            and signal.path == plugin.path(node)
            and signal.body[1].get("Count") == ("i", value),
            f"{value} on {node}",
        )
        assert client.get(plugin.path(node), plugin.event_interface("Count"), "Count") == value


@pytest.mark.parametrize(
    "text",
    ['say "hello"', "C:\\dir\\", "two\nlines", "tab\there", '"', "\\", "[ half", "null", "true", "1e5", "Ünïcödé"],
)
def test_text_with_special_characters_is_signalled_once_and_unchanged(run, text):
    plugin, _, client = run(event("Label", "string", "plain"), event("Count", "int32", 0))
    before = settled(plugin, client, "Label")
    plugin.set("Label", text)
    plugin.set("Count", 1)
    client.wait_change(plugin.event_interface("Count"), "Count", 1)
    assert settled(plugin, client, "Label") == [*before, text]
    assert client.get(plugin.path(), plugin.event_interface("Label"), "Label") == text


@pytest.mark.parametrize("text", ["{ half", "{", '{ "value": "x" }', "{}{}{}", "{ a = [ }"])
def test_text_that_looks_like_an_object_spares_the_other_events(run, text):
    plugin, daemon, client = run(event("Label", "string", "plain"), event("Count", "int32", 0))
    plugin.set("Label", text)
    for count in (1, 2):
        plugin.set("Count", count)
        client.wait_change(plugin.event_interface("Count"), "Count", count)
    plugin.set("Label", "plain")
    plugin.set("Count", 3)
    client.wait_change(plugin.event_interface("Count"), "Count", 3)
    assert daemon.alive


def test_unsigned_value_above_the_signed_range_is_rejected_and_the_old_one_stays(run):
    plugin, daemon, client = run(event("Big", "uint32", 3))
    plugin.set("Big", 3000000000)
    daemon.wait_log('Failed to parse "Big"="-1294967296" as uint32')
    assert client.get(plugin.path(), plugin.event_interface("Big"), "Big") == 3
    plugin.set("Big", 4)
    client.wait_change(plugin.event_interface("Big"), "Big", 4)


def test_event_without_a_value_is_warned_of_and_the_others_go_on(run):
    plugin, daemon, client = run(event("Speech"), event("Noise"))
    plugin.command("pod Speech null")
    daemon.wait_log("Could not fetch event with index 0")
    plugin.set("Noise", True)
    client.wait_change(plugin.event_interface("Noise"), "Noise", True)
    assert client.get(plugin.path(), plugin.event_interface("Speech"), "Speech") is False


def test_no_events_means_no_calls_with_an_index(bed):
    plugin = bed.plugin(enabled=True, settings=[setting("Gain", "float", 1.5)])
    bed.microphone()
    _, client = bed.start()
    client.wait_added(plugin.path())
    bed.unplug()
    plugin.wait_call("clear")
    assert all(call["count"] for call in plugin.calls("get_event"))
    assert plugin.calls("get_event") != []


@pytest.mark.parametrize("count", [0, -5])
def test_count_below_1_means_no_events(bed, count):
    plugin = bed.plugin(enabled=True, events=[event("Speech")], returns={"get_event_count": count})
    bed.microphone()
    _, client = bed.start()
    client.wait_added(plugin.path())
    assert not [name for name in client.managed_objects()[plugin.path()] if ".Events." in name]
    assert all(call["count"] for call in plugin.calls("get_event"))


def test_event_that_the_plug_in_does_not_describe_is_no_public_one(bed):
    plugin = bed.plugin(events=[event("Speech") | {"info": None}, event("Noise")])
    bed.quiet_microphone()
    _, client = bed.start()
    client.wait_added(plugin.path())
    interfaces = client.managed_objects()[plugin.path()]
    assert plugin.event_interface("Speech") not in interfaces
    assert plugin.event_interface("Noise") in interfaces

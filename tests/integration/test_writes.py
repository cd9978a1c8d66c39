"""Writing settings: from the bus to the plug-in, into the settings file and back out as a signal."""

import json
import os
import signal

import pytest
from bed.client import ERROR, CallFailed
from bed.process import wait_until
from bed.stage import event, setting, struct_event

INVALID_ARGUMENTS = "org.freedesktop.DBus.Error.InvalidArgs"

#: type, D-Bus signature, initial value, written value, what the plug-in is handed, what the file holds
SCALARS = [
    ("boolean", "b", False, True, ["Bool", True], '"gain": true'),
    ("uint32", "u", 1, 4000000000, ["Id", 4000000000], '"gain": 4000000000'),
    ("int32", "i", 1, -7, ["Int", -7], '"gain": -7'),
    ("int64", "x", 1, -5000000000, ["Long", -5000000000], '"gain": -5000000000'),
    ("float", "d", 1.0, 0.5, ["Float", 0.5], '"gain": 0.500000'),
    ("double", "d", 1.0, -20.25, ["Double", -20.25], '"gain": -20.250000'),
    ("string", "s", "hall", "attic, left", ["String", "attic, left"], '"gain": "attic, left"'),
]
KINDS = [row[0] for row in SCALARS]


@pytest.fixture
def published(bed):
    def publish(**script):
        bed.stage.grant_everything()
        plugin = bed.plugin(**script)
        bed.quiet_microphone()
        daemon, client = bed.start()
        client.wait_added(plugin.path())
        return plugin, daemon, client

    return publish


def handed_over(plugin):
    """What set_settings was called with: [name, [type, value]] pairs."""
    pods = [call["pod"][1] for call in plugin.calls("set_settings")]
    return [[name[1], value] for name, value in pods]


def refusal(plugin, name):
    return (
        f"Unable to get/set property {name} in interface {plugin.settings_interface} at path {plugin.path()}"
    )


@pytest.mark.parametrize("kind, signature, first, written, handed, stored", SCALARS, ids=KINDS)
def test_written_value_reaches_plug_in_file_and_signal(published, bed, kind, signature, first, written, handed, stored):
    plugin, _, client = published(settings=[setting("Gain", kind, first)])
    client.set(plugin.path(), plugin.settings_interface, "Gain", signature, written)

    assert stored in bed.stage.settings_file(plugin).read_text()
    assert handed_over(plugin) == [["Gain", handed]]
    assert client.get_variant(plugin.path(), plugin.settings_interface, "Gain") == (signature, written)
    client.wait_change(plugin.settings_interface, "Gain", written)
    assert client.changes(plugin.settings_interface, "Gain") == [written]


@pytest.mark.parametrize("kind, signature, first, written, handed, stored", SCALARS, ids=KINDS)
def test_value_that_the_plug_in_refuses_changes_and_signals_nothing(
    published, bed, kind, signature, first, written, handed, stored
):
    plugin, daemon, client = published(settings=[setting("Gain", kind, first)], returns={"set_settings": -22})
    before = bed.stage.settings_file(plugin).read_bytes()
    with pytest.raises(CallFailed) as failure:
        client.set(plugin.path(), plugin.settings_interface, "Gain", signature, written)
    assert failure.value.name == ERROR
    assert failure.value.text == refusal(plugin, "Gain")
    assert daemon.log_count("Failed to set property Gain") == 1
    assert client.get(plugin.path(), plugin.settings_interface, "Gain") == first
    assert client.changes(plugin.settings_interface, "Gain") == []
    assert bed.stage.settings_file(plugin).read_bytes() == before


def test_plug_in_without_set_settings_refuses_every_write(published):
    plugin, _, client = published(settings=[setting("Gain", "int32", 1)], absent=["set_settings"])
    with pytest.raises(CallFailed, match="Unable to get/set property Gain"):
        client.set(plugin.path(), plugin.settings_interface, "Gain", "i", 2)
    assert client.get(plugin.path(), plugin.settings_interface, "Gain") == 1


def test_file_is_whole_before_the_answer(published, bed):
    plugin, daemon, client = published(settings=[setting("Gain", "int32", 1)])
    client.set(plugin.path(), plugin.settings_interface, "Gain", "i", 77)
    os.kill(daemon.pid, signal.SIGKILL)
    daemon.process.wait()
    daemon.ended = True
    assert json.loads(bed.stage.settings_file(plugin).read_text())["gain"] == 77
    assert not bed.stage.settings_file(plugin).with_suffix(".conf.tmp").exists()

    _, client = bed.start()
    client.wait_added(plugin.path())
    assert client.get(plugin.path(), plugin.settings_interface, "Gain") == 77
    assert handed_over(plugin)[-1] == ["Gain", ["Int", 77]]


def test_float_is_stored_in_single_precision_with_six_decimals(published, bed):
    plugin, _, client = published(settings=[setting("Gain", "float", 0.0)])
    client.set(plugin.path(), plugin.settings_interface, "Gain", "d", 16777217.0)
    assert '"gain": 16777216.000000' in bed.stage.settings_file(plugin).read_text()


def test_double_of_many_digits_is_cut_at_127_characters(published):
    plugin, _, client = published(settings=[setting("Gain", "double", 0.0)])
    client.set(plugin.path(), plugin.settings_interface, "Gain", "d", 1e200)
    cut = float(f"{1e200:f}"[:127])
    assert client.get(plugin.path(), plugin.settings_interface, "Gain") == cut


def test_string_is_cut_at_127_bytes_between_characters(published):
    plugin, _, client = published(settings=[setting("Room", "string", "")])
    client.set(plugin.path(), plugin.settings_interface, "Room", "s", "x" * 300)
    assert client.get(plugin.path(), plugin.settings_interface, "Room") == "x" * 127
    client.set(plugin.path(), plugin.settings_interface, "Room", "s", "ü" * 100)
    assert client.get(plugin.path(), plugin.settings_interface, "Room") == "ü" * 63


@pytest.mark.parametrize(
    "text", ["plain", "", "with \"quotes\"", "back\\slash", "two\nlines", "tab\t", "5", "true", "1.50", "käse", "a, b : c = d # e"]
)
def test_string_comes_back_as_written_also_after_a_restart(published, bed, text):
    plugin, daemon, client = published(settings=[setting("Room", "string", "hall"), setting("Gain", "int32", 3)])
    client.set(plugin.path(), plugin.settings_interface, "Room", "s", text)
    assert client.get(plugin.path(), plugin.settings_interface, "Room") == text
    daemon.stop()
    _, client = bed.start()
    client.wait_added(plugin.path())
    assert client.get_all(plugin.path(), plugin.settings_interface) == {
        "Schema": client.get(plugin.path(), plugin.settings_interface, "Schema"),
        "Enable": False,
        "Room": text,
        "Gain": 3,
    }


@pytest.mark.parametrize("text", ["{", "{ a = b", "[", "[ 1, 2", "null"])
def test_string_that_the_file_could_not_hold_is_refused(published, bed, text):
    plugin, daemon, client = published(settings=[setting("Room", "string", "hall"), setting("Gain", "int32", 3)])
    before = bed.stage.settings_file(plugin).read_bytes()
    with pytest.raises(CallFailed) as failure:
        client.set(plugin.path(), plugin.settings_interface, "Room", "s", text)
    assert (failure.value.name, failure.value.text) == (ERROR, refusal(plugin, "Room"))
    assert len([line for line in daemon.log_lines("Room") if line.startswith("[W]")]) == 1
    assert plugin.calls("set_settings") == []
    assert client.changes(plugin.settings_interface, "Room") == []
    assert bed.stage.settings_file(plugin).read_bytes() == before


def test_value_of_another_type_is_refused_by_the_bus(published):
    plugin, daemon, client = published(settings=[setting("Gain", "int32", 1)])
    with pytest.raises(CallFailed) as failure:
        client.set(plugin.path(), plugin.settings_interface, "Gain", "s", "7")
    assert failure.value.name == INVALID_ARGUMENTS
    assert client.get(plugin.path(), plugin.settings_interface, "Gain") == 1
    assert daemon.alive


def test_enable_starts_and_stops_the_plug_in_and_counts(bed):
    bed.stage.grant_everything()
    plugin = bed.plugin(name="Motion Sense", events=[event("Speech")])
    node = bed.microphone()
    daemon, client = bed.start()
    client.wait_added(plugin.path())

    def counts():
        metrics = json.loads(bed.stage.metrics_file(plugin).read_text())
        return metrics["enabled_count"], metrics["disabled_count"]

    def stored():
        return json.loads(bed.stage.settings_file(plugin).read_text())["enable"]

    for value, message, call, expected in (
        (True, "Enable", "process", (1, 0)),
        (False, "Disable", "deactivate", (1, 1)),
    ):
        for _ in range(2):
            client.set(plugin.path(), plugin.settings_interface, "Enable", "b", value)
        plugin.wait_call(call)
        assert daemon.log_count(f"{message} plugin Motion Sense on {node}") == 1
        assert counts() == expected
        assert stored() is value


def test_enabling_forces_the_report_events_out(published):
    members = {"Detected": ("boolean", False), "Report": ("boolean", False)}
    plugin, _, client = published(
        events=[struct_event("Alarm", members), event("Speech")],
    )
    client.set(plugin.path(), plugin.settings_interface, "Enable", "b", True)
    client.wait_change(plugin.event_interface("Alarm"), "Alarm", {"Detected": False, "Report": False})
    assert client.changes(plugin.event_interface("Speech"), "Speech") == []


def test_enable_event_on_the_main_bus_silences_one_event(bed):
    bed.stage.grant_everything()
    plugin = bed.plugin(enabled=True, events=[event("Speech"), event("Noise")])
    bed.microphone()
    _, client = bed.start()
    client.wait_added(plugin.path())
    before = bed.stage.settings_file(plugin).read_bytes()
    speech = plugin.event_interface("Speech")
    client.set(plugin.path(), speech, "EnableEvent", "b", False)
    assert client.get(plugin.path(), speech, "EnableEvent") is False
    assert client.changes(speech, "EnableEvent") == [False]
    plugin.set("Speech", True)
    plugin.set("Noise", True)
    client.wait_change(plugin.event_interface("Noise"), "Noise", True)
    assert True not in client.changes(speech, "Speech")
    assert client.get(plugin.path(), speech, "Speech") is True
    assert plugin.calls("set_settings") == []
    assert bed.stage.settings_file(plugin).read_bytes() == before


def test_two_writes_at_once_are_both_kept(published, bed):
    plugin, _, client = published(settings=[setting("Gain", "int32", 0), setting("Hold", "int32", 0)])
    other = bed.client()
    properties = "org.freedesktop.DBus.Properties"
    interface = plugin.settings_interface
    serials = [
        (peer, peer.send(plugin.path(), properties, "Set", "ssv", (interface, name, ("i", number))))
        for number in range(1, 30)
        for peer, name in ((client, "Gain"), (other, "Hold"))
    ]
    for peer, serial in serials:
        peer.wait_reply(serial)
    values = json.loads(bed.stage.settings_file(plugin).read_text())
    assert (values["gain"], values["hold"]) == (29, 29)
    wait_until(lambda: len(client.changes(interface, "Gain")) == 29, "every change signalled once, in order")
    assert client.changes(interface, "Gain") == list(range(1, 30))

"""Stored settings: what is read, what the plug-in is told and what is written, to the byte."""

import os
import stat

import pytest
from bed.stage import event, setting

SCHEMA = "/usr/share/hear-sense/plugin-schemas/motion.settings.json"

EVERY_TYPE = [
    setting("Flag", "boolean", True),
    setting("Word", "uint32", 7),
    setting("Number", "int32", -7),
    setting("Large", "int64", -70000000000),
    setting("Gain", "float", 1.5),
    setting("Precise", "double", 2.25),
    setting("Label", "string", "kitchen sink"),
]


@pytest.fixture
def run(bed):
    """Publishes a plug-in on a microphone that hears nothing; gives it with the daemon and a client."""

    def start(stored=None, **script):
        plugin = bed.plugin(**script)
        if stored is not None:
            bed.stage.settings_file(plugin).write_text(stored)
        bed.quiet_microphone()
        daemon, client = bed.start()
        client.wait_added(plugin.path())
        return plugin, daemon, client

    return start


def file_text(*members, schema=SCHEMA):
    lines = [f'"$schema": "{schema}"', *members]
    return "{" + ",".join(f"\n {line}" for line in lines) + "\n}"


def test_file_without_any_settings_holds_schema_and_enable(bed, run):
    plugin, _, client = run()
    path = bed.stage.settings_file(plugin)
    assert path.read_text() == file_text('"enable": false')
    assert client.get(plugin.path(), plugin.settings_interface, "Enable") is False


def test_file_holds_every_setting_under_its_lower_case_name(bed, run):
    plugin, _, _ = run(settings=EVERY_TYPE)
    assert bed.stage.settings_file(plugin).read_text() == file_text(
        '"enable": false',
        '"flag": true',
        '"word": 7',
        '"number": -7',
        '"large": -70000000000',
        '"gain": 1.500000',
        '"precise": 2.250000',
        '"label": "kitchen sink"',
    )


def test_file_is_readable_by_all_and_nothing_else_is_left(bed, run):
    plugin, _, _ = run()
    path = bed.stage.settings_file(plugin)
    umask = os.umask(0)
    os.umask(umask)
    assert stat.S_IMODE(path.stat().st_mode) == 0o644 & ~umask
    assert list(bed.stage.settings.iterdir()) == [path]


def test_plug_in_without_a_settings_schema_leaves_it_empty(bed, run):
    plugin, _, _ = run(settings_schema=None)
    assert bed.stage.settings_file(plugin).read_text() == file_text('"enable": false', schema="")


def test_defaults_are_not_sent_to_the_plug_in(run):
    plugin, _, client = run(settings=EVERY_TYPE)
    client.managed_objects()
    assert plugin.calls("set_settings") == []


def test_stored_values_are_sent_with_their_type_and_published(bed, run):
    stored = (
        '{ "flag": false, "word": 9, "number": -9, "large": -90000000000, "gain": 2.5, "precise": 4.125,'
        ' "label": "attic" }'
    )
    plugin, _, client = run(stored, settings=EVERY_TYPE)
    assert [call["pod"] for call in plugin.calls("set_settings")] == [
        ["Struct", [["String", "Flag"], ["Bool", False]]],
        ["Struct", [["String", "Word"], ["Id", 9]]],
        ["Struct", [["String", "Number"], ["Int", -9]]],
        ["Struct", [["String", "Large"], ["Long", -90000000000]]],
        ["Struct", [["String", "Gain"], ["Float", 2.5]]],
        ["Struct", [["String", "Precise"], ["Double", 4.125]]],
        ["Struct", [["String", "Label"], ["String", "attic"]]],
    ]
    assert client.get_all(plugin.path(), plugin.settings_interface) == {
        "Schema": "/usr/share/hear-sense/plugin-schemas/motion.schema.json",
        "Enable": False,
        "Flag": False,
        "Word": 9,
        "Number": -9,
        "Large": -90000000000,
        "Gain": 2.5,
        "Precise": 4.125,
        "Label": "attic",
    }
    assert bed.stage.settings_file(plugin).read_text() == file_text(
        '"enable": false',
        '"flag": false',
        '"word": 9',
        '"number": -9',
        '"large": -90000000000',
        '"gain": 2.5',
        '"precise": 4.125',
        '"label": "attic"',
    )


def test_stored_values_arrive_before_the_plug_in_is_initialised(bed):
    plugin = bed.plugin(enabled=True, settings=[setting("Gain", "float", 1.5)], events=[event("Speech")])
    bed.stage.settings_file(plugin).write_text('{ "gain": 2.5 }')
    bed.microphone()
    bed.start()
    plugin.wait_call("init")
    assert plugin.methods("set_settings", "init") == ["set_settings", "init"]


def test_stored_value_that_does_not_fit_its_type_sends_the_name_alone(bed):
    plugin = bed.plugin(settings=[setting("Word", "uint32", 7)])
    bed.stage.settings_file(plugin).write_text('{ "word": 4294967296 }')
    bed.quiet_microphone()
    daemon, _ = bed.start()
    plugin.wait_call("set_settings")
    assert daemon.log_count('Failed to parse "Word"="4294967296" as uint32') == 1
    assert [call["pod"] for call in plugin.calls("set_settings")] == [["Struct", [["String", "Word"]]]]


def test_defaults_of_the_configuration_count_like_stored_values(bed, run):
    plugin, _, client = run(
        info={"gain.default": {"title": "Gain", "value": "3.5"}}, settings=[setting("Gain", "float", 1.5)]
    )
    assert client.get(plugin.path(), plugin.settings_interface, "Gain") == 3.5
    assert plugin.calls("set_settings")[0]["pod"] == ["Struct", [["String", "Gain"], ["Float", 3.5]]]
    assert '"gain": 3.5' in bed.stage.settings_file(plugin).read_text()


def test_stored_value_wins_over_a_default_whose_title_differs_in_case(run):
    plugin, _, client = run(
        '{ "gain": 2.5 }',
        info={"x.default": {"title": "GAIN", "value": "3.5"}},
        settings=[setting("Gain", "float", 1.5)],
    )
    assert client.get(plugin.path(), plugin.settings_interface, "Gain") == 2.5


def test_definition_of_a_node_brings_its_own_defaults(run):
    plugin, _, client = run(
        conf={
            "source.0": {
                "node.name": "AudioDevice0Input0.Unprocessed",
                "gain.default": {"title": "Gain", "value": "4.5"},
            }
        },
        info={"gain.default": {"title": "Gain", "value": "3.5"}},
        settings=[setting("Gain", "float", 1.5)],
    )
    assert client.get(plugin.path(), plugin.settings_interface, "Gain") == 4.5


def test_stored_enable_enables_without_saying_so_or_counting(bed):
    plugin = bed.plugin(events=[event("Speech")])
    bed.stage.settings_file(plugin).write_text('{ "enable": true }')
    bed.microphone()
    daemon, client = bed.start()
    plugin.wait_call("activate")
    assert client.get(plugin.path(), plugin.settings_interface, "Enable") is True
    assert daemon.log_count("Enable plugin ") == 0
    assert '"enabled_count": 0,' in bed.stage.metrics_file(plugin).read_text()
    assert bed.stage.settings_file(plugin).read_text() == file_text('"enable": true')


@pytest.mark.parametrize("value", ["false", '"yes"', "1", "null", '"TRUE"'])
def test_any_other_stored_enable_does_not_enable(bed, value):
    plugin = bed.plugin(events=[event("Speech")])
    marker = bed.plugin("marker", enabled=True, events=[event("Noise")])
    bed.stage.settings_file(plugin).write_text(f'{{ "enable": {value} }}')
    bed.microphone()
    bed.start()
    marker.wait_call("process")
    assert plugin.calls("init") == []


def test_unknown_stored_names_are_dropped(bed, run):
    plugin, _, _ = run('{ "gone": 1, "gain": 2.5 }', settings=[setting("Gain", "float", 1.5)])
    assert bed.stage.settings_file(plugin).read_text() == file_text('"enable": false', '"gain": 2.5')


def test_values_survive_a_restart(bed):
    plugin = bed.plugin(settings=EVERY_TYPE)
    bed.stage.settings_file(plugin).write_text('{ "label": "a \\"quoted\\" \\\\ text", "gain": 2.5 }')
    bed.quiet_microphone()
    texts = []
    for _ in range(2):
        daemon, client = bed.start()
        client.wait_added(plugin.path())
        assert client.get(plugin.path(), plugin.settings_interface, "Gain") == 2.5
        texts.append(bed.stage.settings_file(plugin).read_text())
        assert daemon.stop() == 0
    assert texts[0] == texts[1]


def test_stored_value_of_an_array_or_structure_is_refused_with_a_warning(run):
    plugin, daemon, _ = run(
        '{ "bands": [ 3, 4 ], "pair": { "A": "true" } }',
        settings=[
            setting("Bands", "array", [1, 2], element="int32"),
            setting("Pair", "struct", [True], members=[["A", "boolean"]]),
        ],
    )
    assert daemon.log_count("Tried to handle complex type settings which are not supported.") == 2
    assert plugin.calls("set_settings") == []


@pytest.mark.parametrize("script", [{"returns": {"set_settings": -22}}, {"absent": ["set_settings"]}])
def test_plug_in_that_takes_no_settings_still_shows_the_stored_ones(run, script):
    plugin, _, client = run('{ "gain": 2.5 }', settings=[setting("Gain", "float", 1.5)], **script)
    assert client.get(plugin.path(), plugin.settings_interface, "Gain") == 2.5


def test_each_node_has_its_own_file(bed):
    plugin = bed.plugin(settings=[setting("Gain", "float", 1.5)])
    bed.stage.settings_file(plugin, "AudioDevice1Input0").write_text('{ "gain": 2.5 }')
    bed.quiet_microphone()
    bed.quiet_microphone("AudioDevice1Input0.Unprocessed")
    _, client = bed.start()
    for node, gain in (("AudioDevice0Input0", 1.5), ("AudioDevice1Input0", 2.5)):
        client.wait_added(plugin.path(f"{node}.Unprocessed"))
        assert client.get(plugin.path(f"{node}.Unprocessed"), plugin.settings_interface, "Gain") == gain
        assert f'"gain": {gain}' in bed.stage.settings_file(plugin, node).read_text()


def test_missing_settings_directory_costs_only_the_file(bed, run):
    bed.stage.settings.rmdir()
    plugin, _, client = run(settings=[setting("Gain", "float", 1.5)])
    assert client.get(plugin.path(), plugin.settings_interface, "Gain") == 1.5

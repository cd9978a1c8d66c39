"""Audio nodes that come and go: which plug-ins run on them, and under which names."""

import pytest
from bed.client import ROOT
from bed.stage import event

OTHER = "AudioDevice1Input0.Unprocessed"


def nodes_with(client, plugin, *names):
    """Those of the nodes on which the plug-in runs."""
    objects = client.managed_objects()
    return [name for name in names if plugin.path(name) in objects]


@pytest.mark.parametrize("media_class", ["Audio/Source", "Audio/Sink"])
def test_sources_and_sinks_are_taken(bed, media_class):
    plugin = bed.plugin()
    bed.quiet_microphone(media_class=media_class)
    _, client = bed.start()
    client.wait_added(plugin.path())


@pytest.mark.parametrize("media_class", ["Audio/Source/Virtual", "Audio/Duplex", "Stream/Output/Audio", "audio/source"])
def test_nodes_of_other_classes_are_ignored(bed, media_class):
    plugin = bed.plugin()
    bed.quiet_microphone("AudioDevice7Input0.Unprocessed", media_class=media_class)
    _, client = bed.start()
    bed.quiet_microphone()
    client.wait_added(plugin.path())
    assert nodes_with(client, plugin, "AudioDevice7Input0.Unprocessed") == []


def test_node_that_comes_later_is_announced_with_its_objects(bed):
    plugin = bed.plugin(events=[event("Speech")])
    _, client = bed.start()
    assert client.managed_objects() == {}
    bed.quiet_microphone()
    client.wait_added(plugin.path())
    device = f"{ROOT}/AudioDevice0Input0"
    assert client.added(device) == [{"com.orvel.HearSense.AudioChain"}]
    assert client.added(f"{device}/Unprocessed") == [{"com.orvel.HearSense.Source"}]
    assert client.added(plugin.path()) == [
        {"com.orvel.HearSense.PluginInstance", plugin.settings_interface, plugin.event_interface("Speech")}
    ]
    added = [signal.body[0] for signal in client.signals if signal.member == "InterfacesAdded"]
    assert added == [device, f"{device}/Unprocessed", plugin.path()]


def test_node_that_goes_takes_its_objects_away(bed):
    plugin = bed.plugin(events=[event("Speech")])
    bed.quiet_microphone()
    _, client = bed.start()
    client.wait_added(plugin.path())
    bed.unplug()
    device = f"{ROOT}/AudioDevice0Input0"
    client.wait_removed(f"{device}/Unprocessed")
    removed = [signal.body[0] for signal in client.signals if signal.member == "InterfacesRemoved"]
    assert removed == [plugin.path(), device, f"{device}/Unprocessed"]
    assert client.removed(plugin.path()) == [
        {"com.orvel.HearSense.PluginInstance", plugin.settings_interface, plugin.event_interface("Speech")}
    ]
    assert client.removed(device) == [{"com.orvel.HearSense.AudioChain"}]
    assert client.removed(f"{device}/Unprocessed") == [{"com.orvel.HearSense.Source"}]
    assert client.managed_objects() == {}


def test_node_that_comes_back_is_published_again(bed):
    plugin = bed.plugin(enabled=True, events=[event("Speech")])
    _, client = bed.start()
    for round_number in range(1, 4):
        bed.microphone()
        client.wait_added(plugin.path(), round_number)
        plugin.wait_call("process", instance=f"motion-{round_number - 1}")
        bed.unplug()
        client.wait_removed(plugin.path(), round_number)
        client.wait_removed(f"{ROOT}/AudioDevice0Input0", round_number)
        # Objects go before the plug-in that they are of.
        plugin.wait_call("clear", round_number)
    assert plugin.methods("init", "clear") == ["init", "clear"] * 3
    assert client.managed_objects() == {}


def test_default_pattern_selects_raw_inputs_only(bed):
    plugin = bed.plugin()
    yes = ["AudioDevice12Input34.Unprocessed", "xAudioDevice0Input1.Unprocessed_y"]
    no = [
        "AudioDevice0Input0",
        "AudioDevice0Input1.Processed",
        "AudioDeviceInput0.Unprocessed",
        "AudioDevice0Input.Unprocessed",
        "AudioDevice0Input2xUnprocessed",
    ]
    for name in yes + no:
        bed.quiet_microphone(name)
    _, client = bed.start()
    for name in yes:
        client.wait_added(plugin.path(name))
    assert nodes_with(client, plugin, *yes, *no) == yes


def test_pattern_of_the_configuration_replaces_the_default(bed):
    plugin = bed.plugin(info={"node.pattern": "^Hall.*[0-9]$"})
    for name in ("Hall.Mic1", "Hall.Mic", "xHall.Mic1", "AudioDevice0Input0.Unprocessed"):
        bed.quiet_microphone(name)
    _, client = bed.start()
    client.wait_added(plugin.path("Hall.Mic1"))
    assert nodes_with(client, plugin, "Hall.Mic", "xHall.Mic1", "AudioDevice0Input0.Unprocessed") == []


def test_pattern_outside_an_object_is_no_pattern(bed):
    plugin = bed.plugin(conf={"node.pattern": "Hall"})
    bed.quiet_microphone("Hall.Mic1")
    bed.quiet_microphone()
    _, client = bed.start()
    client.wait_added(plugin.path())
    assert nodes_with(client, plugin, "Hall.Mic1") == []


def test_pattern_that_does_not_compile_is_warned_of_for_each_node(bed):
    broken = bed.plugin("broken", info={"node.pattern": "Audio(["})
    sound = bed.plugin("sound")
    bed.quiet_microphone()
    bed.quiet_microphone(OTHER)
    daemon, client = bed.start()
    client.wait_added(sound.path())
    client.wait_added(sound.path(OTHER))
    assert daemon.log_count("Could not compile pattern") == 2
    assert nodes_with(client, broken, "AudioDevice0Input0.Unprocessed", OTHER) == []


def test_source_definition_binds_a_plug_in_to_its_node(bed):
    bound = bed.plugin("bound", conf={"source.0": {"node.name": OTHER}})
    free = bed.plugin("free")
    bed.quiet_microphone()
    bed.quiet_microphone(OTHER)
    _, client = bed.start()
    client.wait_added(bound.path(OTHER))
    client.wait_added(free.path())
    assert nodes_with(client, bound, "AudioDevice0Input0.Unprocessed", OTHER) == [OTHER]


def test_source_definition_may_name_a_node_that_no_pattern_matches(bed):
    plugin = bed.plugin(conf={"source.a": {"node.name": "Hall.Left"}, "source.b": {"node.name": "Hall.Right"}})
    for name in ("Hall.Left", "Hall.Right", "Hall.Middle"):
        bed.quiet_microphone(name)
    _, client = bed.start()
    client.wait_added(plugin.path("Hall.Left"))
    client.wait_added(plugin.path("Hall.Right"))
    assert nodes_with(client, plugin, "Hall.Middle") == []


def test_source_definition_without_a_name_neither_selects_nor_suppresses(bed):
    plugin = bed.plugin(conf={"source.0": {"audio.rate": "16000"}})
    bed.quiet_microphone()
    bed.quiet_microphone("Hall.Mic1")
    _, client = bed.start()
    client.wait_added(plugin.path())
    assert nodes_with(client, plugin, "Hall.Mic1") == []


def test_two_plug_ins_on_two_nodes_are_four_instances(bed):
    first, second = bed.plugin("first", events=[event("Speech")]), bed.plugin("second", events=[event("Noise")])
    bed.quiet_microphone()
    bed.quiet_microphone(OTHER)
    _, client = bed.start()
    instances = [plugin.path(node) for plugin in (first, second) for node in ("AudioDevice0Input0.Unprocessed", OTHER)]
    for path in instances:
        client.wait_added(path)
    shared = [f"{ROOT}/AudioDevice{n}Input0{rest}" for n in (0, 1) for rest in ("", "/Unprocessed")]
    assert sorted(client.managed_objects()) == sorted(instances + shared)

    bed.unplug(OTHER)
    client.wait_removed(f"{ROOT}/AudioDevice1Input0/Unprocessed")
    assert sorted(client.managed_objects()) == sorted(
        [first.path(), second.path(), f"{ROOT}/AudioDevice0Input0", f"{ROOT}/AudioDevice0Input0/Unprocessed"]
    )


def test_shared_objects_are_announced_once_and_removed_by_the_last_instance(bed):
    first, second = bed.plugin("first"), bed.plugin("second")
    bed.quiet_microphone()
    daemon, client = bed.start()
    client.wait_added(second.path())
    device, source = f"{ROOT}/AudioDevice0Input0", f"{ROOT}/AudioDevice0Input0/Unprocessed"
    assert len(client.added(device)) <= 1
    assert len(client.added(source)) <= 1
    assert daemon.log_count("Failed to setup dbus source interface") == 0
    bed.unplug()
    client.wait_removed(source)
    removed = [signal.body[0] for signal in client.signals if signal.member == "InterfacesRemoved"]
    assert removed == [first.path(), second.path(), device, source]
    assert client.removed(device) == [{"com.orvel.HearSense.AudioChain"}]
    assert client.removed(source) == [{"com.orvel.HearSense.Source"}]


def test_shared_objects_outlive_the_instance_that_registered_them(bed):
    """Two nodes of one device share its chain object; the first of them goes."""
    plugin = bed.plugin(info={"node.pattern": "^AudioDevice0Input0"})
    left, right = "AudioDevice0Input0.Left", "AudioDevice0Input0.Right"
    _, client = bed.start()
    for name in (left, right):
        bed.quiet_microphone(name)
        client.wait_added(plugin.path(name))
    device = f"{ROOT}/AudioDevice0Input0"
    bed.unplug(left)
    client.wait_removed(f"{device}/Left")
    assert client.removed(device) == []
    assert client.get(device, "com.orvel.HearSense.AudioChain", "Id") == "AudioDevice0Input0"
    client.call(device, "com.orvel.HearSense.AudioChain", "IndicateContinuousAudioDisturbance", "b", (True,))
    bed.unplug(right)
    client.wait_removed(f"{device}/Right")
    assert client.removed(device) == [{"com.orvel.HearSense.AudioChain"}]


@pytest.mark.parametrize("first_to_go", [0, 1])
def test_two_nodes_of_one_name_are_both_survived(bed, first_to_go):
    plugin = bed.plugin(enabled=True, events=[event("Speech")])
    bed.microphone()
    daemon, client = bed.start()
    client.wait_added(plugin.path())
    name = "AudioDevice0Input0.Unprocessed"
    first = bed.graph.nodes()[name]
    bed.graph.microphone(name, wait=False)
    bed.graph.wait_node(name, 2)
    plugin.wait_call("load", 2)
    numbers = first + [number for number in bed.graph.nodes()[name] if number not in first]
    bed.graph.command(f"destroy {numbers[first_to_go]}")
    bed.graph.wait_node(name, 1)
    plugin.wait_call("clear")
    if first_to_go == 1:
        assert client.get(plugin.path(), plugin.event_interface("Speech"), "Speech") is False
    bed.graph.command(f"destroy {numbers[1 - first_to_go]}")
    bed.graph.wait_node(name, 0)
    plugin.wait_call("clear", 2)
    assert client.managed_objects() == {}
    assert daemon.alive


def test_name_without_a_point_is_published_as_processed(bed):
    plugin = bed.plugin(info={"node.pattern": "^HallMic$"})
    bed.quiet_microphone("HallMic")
    _, client = bed.start()
    client.wait_added(f"{ROOT}/HallMic/Processed/If_motion")
    assert client.get(f"{ROOT}/HallMic/Processed", "com.orvel.HearSense.Source", "Id") == "HallMic"
    assert client.get(f"{ROOT}/HallMic", "com.orvel.HearSense.AudioChain", "Id") == "HallMic"


def test_points_of_a_name_become_path_elements(bed):
    plugin = bed.plugin(info={"node.pattern": "^Hall"})
    bed.quiet_microphone("Hall.Left.Raw")
    _, client = bed.start()
    client.wait_added(f"{ROOT}/Hall/Left/Raw/If_motion")
    assert client.get(f"{ROOT}/Hall", "com.orvel.HearSense.AudioChain", "Id") == "Hall"
    assert plugin.path("Hall.Left.Raw") in client.managed_objects()


def test_hyphens_become_underscores_in_the_instance_path(bed):
    plugin = bed.plugin(info={"node.pattern": "^Mic-1"}, events=[event("Speech")])
    bed.quiet_microphone("Mic-1")
    daemon, client = bed.start()
    path = f"{ROOT}/Mic_1/Processed/If_motion"
    client.wait_added(path)
    assert client.get(path, plugin.event_interface("Speech"), "Speech") is False
    assert client.get(f"{ROOT}/Mic_1/Processed", "com.orvel.HearSense.Source", "Id") == "Mic-1"
    assert daemon.log_count(f"Failed to setup dbus source interface {ROOT}/Mic-1, ") == 1
    assert bed.stage.settings_file(plugin, "Mic-1").exists()


def test_settings_file_keeps_the_points_of_other_names(bed):
    plugin = bed.plugin(info={"node.pattern": "."})
    names = ["Hall.Left.Raw", "xAudioDevice0Input0.Raw", "AudioDevice0Input0.Raw.More"]
    for name in names:
        bed.quiet_microphone(name)
    _, client = bed.start()
    for name in names:
        client.wait_added(plugin.path(name))
    for short in ("Hall.Left.Raw", "xAudioDevice0Input0.Raw", "AudioDevice0Input0"):
        assert bed.stage.settings_file(plugin, short).exists(), bed.stage.files()


def test_many_nodes_at_once_are_all_published_and_removed(bed):
    plugin = bed.plugin(events=[event("Speech")])
    _, client = bed.start()
    names = [f"AudioDevice{n}Input0.Unprocessed" for n in range(16)]
    for name in names:
        bed.quiet_microphone(name, wait=False)
    for name in names:
        client.wait_added(plugin.path(name))
    bed.graph.destroy(*names)
    for name in names:
        client.wait_removed(plugin.path(name))
    assert client.managed_objects() == {}

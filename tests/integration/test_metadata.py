"""The devices' connection descriptions in the "virtual-nodes" metadata."""

from bed.stage import SYSTEM_NODE, event

OTHER = "AudioDevice1Input0.Unprocessed"
LIFE = ("init", "deinit", "activate", "deactivate")


def start(bed, *nodes):
    plugin = bed.plugin(enabled=True, events=[event("Speech")])
    for node in nodes or (SYSTEM_NODE,):
        bed.microphone(node)
    daemon, client = bed.start()
    for node in nodes or (SYSTEM_NODE,):
        plugin.wait_call("process", instance=plugin.instance_on(node))
    return plugin, daemon, client


def connection(call):
    return call["connection_type"], call["acoustic_id"]


def test_description_that_is_there_first_reaches_init(own_bed):
    own_bed.graph.connect("AudioDevice0Input0", "internal", "a1")
    plugin, _, _ = start(own_bed)
    assert connection(plugin.calls("init")[-1]) == ("internal", "a1")


def test_change_restarts_the_plug_in_with_the_new_description(own_bed):
    plugin, daemon, _ = start(own_bed)
    before = len(plugin.methods(*LIFE))
    own_bed.graph.connect("AudioDevice0Input0", "external", "b2")
    plugin.wait_call("init", connection_type="external", acoustic_id="b2")
    plugin.wait_call("process")
    assert plugin.methods(*LIFE)[before : before + 4] == ["deactivate", "deinit", "init", "activate"]
    assert daemon.log_count("Got metadata - id: 0, key: virtual_node_connection.AudioDevice0Input0") == 1


def test_audio_flows_on_after_the_restart(own_bed):
    plugin, _, client = start(own_bed)
    own_bed.graph.connect("AudioDevice0Input0", "external", "b2")
    plugin.wait_call("init", connection_type="external")
    plugin.set("Speech", True)
    client.wait_change(plugin.event_interface("Speech"), "Speech", True)


def test_change_restarts_the_plug_ins_of_that_device_only(own_bed):
    plugin, _, _ = start(own_bed, SYSTEM_NODE, OTHER)
    bystander = plugin.instance_on(SYSTEM_NODE)
    before = plugin.methods(*LIFE, instance=bystander)
    own_bed.graph.connect("AudioDevice1Input0", "external", "b2")
    plugin.wait_call("init", source=OTHER, connection_type="external")
    plugin.set("Speech", True, plugin.instance_on(OTHER))
    assert plugin.methods(*LIFE, instance=bystander) == before


def test_missing_acoustic_id_is_empty(own_bed):
    own_bed.graph.connect("AudioDevice0Input0", "internal", "a1")
    plugin, _, _ = start(own_bed)
    own_bed.graph.connect("AudioDevice0Input0", "usb")
    assert connection(plugin.wait_call("init", connection_type="usb")) == ("usb", "")


def test_deleted_key_makes_the_description_empty(own_bed):
    own_bed.graph.connect("AudioDevice0Input0", "internal", "a1")
    plugin, _, _ = start(own_bed)
    own_bed.graph.set_metadata("virtual_node_connection.AudioDevice0Input0")
    assert connection(plugin.wait_call("init", connection_type="")) == ("", "")


def test_device_key_matches_every_node_that_begins_with_it(own_bed):
    own_bed.graph.connect("AudioDevice0Input1", "internal", "a1")
    plugin, _, _ = start(own_bed, "AudioDevice0Input10.Unprocessed")
    assert connection(plugin.calls("init")[-1]) == ("internal", "a1")
    own_bed.graph.connect("AudioDevice0Input1", "external", "b2")
    plugin.wait_call("init", source="AudioDevice0Input10.Unprocessed", connection_type="external")


def test_first_of_two_keys_that_match_counts(own_bed):
    own_bed.graph.connect("AudioDevice0Input1", "first")
    plugin, _, _ = start(own_bed, "AudioDevice0Input10.Unprocessed")
    own_bed.graph.connect("AudioDevice0Input10", "second")
    plugin.wait_call("deinit")
    assert connection(plugin.wait_call("init", 2)) == ("first", "")


def test_keys_of_other_families_are_ignored(own_bed):
    plugin, daemon, _ = start(own_bed)
    before = plugin.methods(*LIFE)
    for key in ("virtual_node_connection.Other0", "virtual_node.AudioDevice0Input0", "AudioDevice0Input0"):
        own_bed.graph.set_metadata(key, '{ "connection_type": "external" }')
        daemon.wait_log(f"Got metadata - id: 0, key: {key}")
    plugin.set("Speech", True)
    assert plugin.methods(*LIFE) == before


def test_values_are_cut_to_127_characters(own_bed):
    own_bed.graph.connect("AudioDevice0Input0", "c" * 200, "a" * 200)
    plugin, _, _ = start(own_bed)
    assert connection(plugin.calls("init")[-1]) == ("c" * 127, "a" * 127)
    own_bed.graph.connect("AudioDevice0Input0", "d" * 200, "b" * 200)
    assert connection(plugin.wait_call("init", connection_type="d" * 127)) == ("d" * 127, "b" * 127)


def test_value_that_is_no_json_counts_as_empty(own_bed):
    own_bed.graph.connect("AudioDevice0Input0", "internal", "a1")
    plugin, daemon, _ = start(own_bed)
    own_bed.graph.set_metadata("virtual_node_connection.AudioDevice0Input0", "{ broken")
    assert connection(plugin.wait_call("init", connection_type="")) == ("", "")
    assert daemon.alive


def test_metadata_of_another_name_is_not_watched(own_bed):
    plugin, daemon, _ = start(own_bed)
    own_bed.graph.export_metadata("other-nodes")
    before = plugin.methods(*LIFE)
    own_bed.graph.set_metadata(
        "virtual_node_connection.AudioDevice0Input0", '{ "connection_type": "external" }', name="other-nodes"
    )
    plugin.set("Speech", True)
    assert plugin.methods(*LIFE) == before
    assert daemon.log_count("Got metadata") == 0


def test_failing_restart_stops_the_stream(own_bed):
    plugin, daemon, _ = start(own_bed)
    plugin.command("returns init -5")
    own_bed.graph.connect("AudioDevice0Input0", "external", "b2")
    daemon.wait_log(f"Plugin motion on {SYSTEM_NODE} could not be initialized, code: -5")
    assert plugin.methods(*LIFE)[-3:] == ["deactivate", "deinit", "init"]


def test_descriptions_outlive_the_node(own_bed):
    own_bed.graph.connect("AudioDevice0Input0", "internal", "a1")
    plugin, _, _ = start(own_bed)
    own_bed.unplug()
    plugin.wait_call("clear")
    own_bed.microphone()
    call = plugin.wait_call("init", instance="motion-1")
    assert connection(call) == ("internal", "a1")


def test_metadata_that_comes_back_is_watched_again(own_bed):
    own_bed.graph.connect("AudioDevice0Input0", "internal", "a1")
    plugin, daemon, _ = start(own_bed)
    (number,) = own_bed.graph.metadata()["virtual-nodes"]
    own_bed.graph.command(f"destroy {number}")
    daemon.wait_log(f"Object removed - object: id:{number}")
    own_bed.graph.export_metadata("virtual-nodes")
    assert plugin.methods("deinit") == []
    own_bed.graph.connect("AudioDevice0Input0", "external", "b2")
    assert connection(plugin.wait_call("init", connection_type="external")) == ("external", "b2")


def test_second_metadata_of_the_name_is_ignored_while_one_is_bound(own_bed):
    plugin, daemon, _ = start(own_bed)
    (first,) = own_bed.graph.metadata()["virtual-nodes"]
    own_bed.graph.export_metadata("virtual-nodes")
    own_bed.graph.command(f"destroy {first}")
    daemon.wait_log(f"Object removed - object: id:{first}")
    before = plugin.methods(*LIFE)
    own_bed.graph.connect("AudioDevice0Input0", "external", "b2")
    plugin.set("Speech", True)
    assert plugin.methods(*LIFE) == before
    assert daemon.log_count("Got metadata - ") == 0

"""Loading of plug-in libraries, interface versions, names and what reaches the plug-in."""

import pytest
from bed.servers import system_spa_dir
from bed.stage import event, setting

TYPE = "Spa:Pointer:Interface:HearSense:"


def assert_other_works(client, other):
    """A plug-in beside the failing one is published all the same."""
    client.wait_added(other.path())
    assert client.get(other.path(), other.event_interface("Noise"), "Noise") is False


@pytest.fixture
def other(bed):
    return bed.plugin("other", events=[event("Noise")])


def test_plug_in_is_asked_for_its_factory_and_interface_type(bed):
    plugin = bed.plugin("motion")
    bed.quiet_microphone()
    bed.start()
    call = plugin.wait_call("get_interface")
    assert call["type"] == TYPE + "MOTION"
    assert call["instance"] == "motion-0"


def test_version_1_is_refused_and_its_handle_unloaded(bed, other):
    plugin = bed.plugin(version=1, events=[event("Speech")])
    bed.quiet_microphone()
    daemon, client = bed.start()
    assert_other_works(client, other)
    plugin.wait_call("clear")
    assert (
        daemon.log_count(
            "Can not load plugin 'The motion plug-in': Plugin interface version '1' not supported. "
            "Minimum required version: 2"
        )
        == 1
    )
    assert plugin.methods() == ["load", "get_interface", "clear"]
    assert plugin.path() not in client.managed_objects()
    assert not bed.stage.settings_file(plugin).exists()


def test_version_2_publishes_state_events_and_ignores_is_public(bed):
    plugin = bed.plugin(
        version=2,
        events=[
            event("State", public=False, info={"isPropertyState": True}),
            event("Moment", public=True, info={"isPropertyState": False}),
        ],
    )
    bed.quiet_microphone()
    _, client = bed.start()
    client.wait_added(plugin.path())
    interfaces = client.managed_objects()[plugin.path()]
    assert plugin.event_interface("State") in interfaces
    assert plugin.event_interface("Moment") not in interfaces


def test_version_3_publishes_public_events_whether_they_are_states_or_not(bed):
    plugin = bed.plugin(
        version=3,
        events=[
            event("Public", public=True),
            event("Private", public=False, info={"isPropertyState": True}),
        ],
    )
    bed.quiet_microphone()
    _, client = bed.start()
    client.wait_added(plugin.path())
    interfaces = client.managed_objects()[plugin.path()]
    assert plugin.event_interface("Public") in interfaces
    assert plugin.event_interface("Private") not in interfaces


def test_missing_library_is_one_error_per_node(bed, other):
    plugin = bed.plugin(library=False)
    bed.quiet_microphone()
    daemon, client = bed.start()
    assert_other_works(client, other)
    assert daemon.log_count("Could not load spa handle for 'hear-sense.motion': ") == 1
    assert plugin.path() not in client.managed_objects()


def test_library_with_another_factory_is_one_error_per_node(bed, other):
    plugin = bed.plugin(library=False)
    bed.stage.install_library("motion", f"{system_spa_dir()}/support/libspa-support.so")
    bed.quiet_microphone()
    daemon, client = bed.start()
    assert_other_works(client, other)
    assert daemon.log_count("Could not load spa handle for 'hear-sense.motion': ") == 1
    assert plugin.path() not in client.managed_objects()


def test_library_that_is_no_library_is_one_error_per_node(bed, other):
    bed.plugin(library=False)
    (bed.stage.spa / "hear-sense/libspa-hs-motion.so").write_text("not a library")
    bed.quiet_microphone()
    daemon, client = bed.start()
    assert_other_works(client, other)
    assert daemon.log_count("Could not load spa handle for 'hear-sense.motion': ") == 1


def test_handle_that_does_not_initialise_is_one_error_per_node(bed, other):
    plugin = bed.plugin(init_handle=-5)
    bed.quiet_microphone()
    daemon, client = bed.start()
    assert_other_works(client, other)
    assert daemon.log_count("Could not load spa handle for 'hear-sense.motion': ") == 1
    assert plugin.methods() == ["load"]


def test_handle_without_the_interface_is_unloaded_with_one_error(bed, other):
    plugin = bed.plugin(interface_type="Spa:Pointer:Interface:Else")
    bed.quiet_microphone()
    daemon, client = bed.start()
    assert_other_works(client, other)
    plugin.wait_call("clear")
    assert daemon.log_count(f"Plugin interface '{TYPE}MOTION' not found: ") == 1


@pytest.mark.parametrize("script", [{"no_funcs": True}, {"absent": "all"}], ids=["no table", "null methods"])
def test_plug_in_without_methods_is_published_and_never_called(bed, other, script):
    if script.get("absent") == "all":
        script = {
            "absent": [
                "init",
                "deinit",
                "activate",
                "deactivate",
                "get_setting",
                "get_event",
                "get_settings",
                "set_settings",
                "process",
            ]
        }
    plugin = bed.plugin(enabled=True, events=[event("Speech")], settings=[setting("Quiet")], **script)
    bed.microphone()
    daemon, client = bed.start()
    assert_other_works(client, other)
    client.wait_added(plugin.path())
    assert set(client.managed_objects()[plugin.path()]) == {
        "com.orvel.HearSense.PluginInstance",
        plugin.settings_interface,
    }
    assert daemon.stop() == 0
    assert plugin.methods() == ["load", "get_interface", "clear"]


def test_each_of_the_three_names_has_its_own_uses(bed):
    plugin = bed.plugin("motion", name="Logged Name", interface_name="Bus_Name", enabled=True, events=[event("Speech")])
    bed.microphone()
    daemon, client = bed.start()
    plugin.wait_call("activate")
    client.wait_added("/com/orvel/HearSense/AudioDevice0Input0/Unprocessed/Bus_Name")
    assert plugin.event_interface("Speech") == "com.orvel.HearSense.Events.Bus_Name.Speech"
    assert set(client.managed_objects()[plugin.path()]) == {
        "com.orvel.HearSense.PluginInstance",
        "com.orvel.HearSense.Settings.Bus_Name",
        "com.orvel.HearSense.Events.Bus_Name.Speech",
    }
    assert bed.stage.files() == [
        "metrics/motion_AudioDevice0Input0_Unprocessed_source_metrics.json",
        "plugin-settings/motion-AudioDevice0Input0.conf",
    ]
    assert '"name": "Logged Name"' in bed.stage.metrics_file("motion").read_text()
    assert daemon.log_count("Initialize motion on AudioDevice0Input0.Unprocessed") >= 1
    assert "hs-motion-AudioDevice0Input0.Unprocessed" in bed.graph.nodes()


def test_configuration_reaches_the_plug_in_at_load_and_at_init(bed):
    plugin = bed.plugin(enabled=True, events=[event("Speech")], config={"model": "small", "preview": "perhaps"})
    bed.microphone()
    bed.start()
    expected = {"script": str(plugin.script_path), "model": "small", "preview": "false"}
    assert plugin.wait_call("load")["config"] == expected
    assert plugin.wait_call("init")["config"] == expected


def test_configuration_without_a_plug_in_part_holds_only_preview(bed):
    bed.stage.conf("bare", {"plugin.info": {}})
    bed.stage.install_library("bare")
    bed.quiet_microphone()
    _, client = bed.start()
    client.wait_added("/com/orvel/HearSense/AudioDevice0Input0/Unprocessed/If_bare")


def test_one_library_serves_several_plug_ins_with_a_handle_per_node(bed):
    first, second = bed.plugin("first"), bed.plugin("second")
    bed.quiet_microphone()
    bed.quiet_microphone("AudioDevice1Input0.Unprocessed")
    _, client = bed.start()
    for plugin in (first, second):
        client.wait_added(plugin.path())
        client.wait_added(plugin.path("AudioDevice1Input0.Unprocessed"))
        assert [call["instance"] for call in plugin.calls("load")] == [f"{plugin.name}-0", f"{plugin.name}-1"]


def test_name_that_begins_with_anothers_is_warned_of_once_with_both_files(bed):
    bed.plugin("motion")
    bed.plugin("motion2")
    bed.quiet_microphone()
    daemon, client = bed.start()
    client.wait_added("/com/orvel/HearSense/AudioDevice0Input0/Unprocessed/If_motion")
    warnings = [line for line in daemon.log_lines("motion2.conf") if "[W]" in line and "motion.conf" in line]
    assert len(warnings) == 1, daemon.tail()


def test_plug_in_that_notifies_while_it_is_torn_down_does_no_harm(bed):
    plugin = bed.plugin(
        enabled=True,
        events=[event("Speech")],
        notify_in={"deactivate": 0, "deinit": 0, "clear": 0, "init": 0, "activate": 0},
    )
    bed.microphone()
    daemon, client = bed.start()
    plugin.wait_call("process")
    bed.unplug()
    plugin.wait_call("clear")
    client.wait_removed(plugin.path())
    assert client.managed_objects() == {}
    assert daemon.alive

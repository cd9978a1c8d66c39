"""The capture stream and the plug-in's life along it."""

import math
import struct
import wave

import pytest
from bed.process import wait_until
from bed.stage import SYSTEM_NODE, event

#: Numbers of SPA audio formats and channel positions.
S16, F32, F32P = 0x103, 0x11B, 0x206
UNKNOWN, MONO, FL, FR = 0, 2, 3, 4


@pytest.fixture
def run(bed):
    """A plug-in that is enabled on a microphone that sounds."""

    def start(microphone=None, **script):
        script.setdefault("events", [event("Speech")])
        plugin = bed.plugin(enabled=True, **script)
        bed.microphone(**(microphone or {}))
        daemon, client = bed.start()
        return plugin, daemon, client

    return start


def test_plug_in_lives_through_its_calls_in_order(bed, run):
    plugin, daemon, _ = run()
    plugin.wait_call("process", 3)
    bed.unplug()
    plugin.wait_call("clear")
    life = [call for call in plugin.methods() if call not in ("get_event", "get_setting", "process")]
    # Until it settles the stream may fall back to paused for an instant.
    while life[3:5] == ["activate", "deactivate"] and life[5] == "activate":
        del life[3:5]
    assert life == ["load", "get_interface", "init", "activate", "deactivate", "deinit", "clear"]
    for text in ("Initialize", "Activate", "Deactivate", "Deinitialize"):
        assert daemon.log_count(f"{text} motion on {SYSTEM_NODE}") >= 1


def test_sigterm_tears_the_plug_in_down_in_order(run):
    plugin, daemon, _ = run()
    plugin.wait_call("process", 3)
    assert daemon.stop() == 0
    assert plugin.methods("deactivate", "deinit", "clear")[-3:] == ["deactivate", "deinit", "clear"]


def test_plug_in_hears_the_buffers(run):
    plugin, _, _ = run(microphone={"position": ["FL", "FR"]})
    call = plugin.wait_call("process", 3)
    assert call["n_datas"] == 2
    assert call["size"] > 0 and call["size"] % 4 == 0
    wait_until(lambda: plugin.calls("process")[-1]["peak"] > 0.01, "sound")


def test_plug_in_hears_the_file_that_is_played(bed):
    path = bed.stage.folder / "tone.wav"
    with wave.open(str(path), "wb") as sound:
        sound.setparams((1, 2, 48000, 0, "NONE", ""))
        samples = (int(16384 * math.sin(2 * math.pi * 1000 * i / 48000)) for i in range(2 * 48000))
        sound.writeframes(b"".join(struct.pack("<h", sample) for sample in samples))
    plugin = bed.plugin(enabled=True, events=[event("Speech")], record_process=100000)
    bed.start()
    loop = bed.graph.loop_microphone(SYSTEM_NODE, "mic0.feed")
    bed.extra.append(loop.stop)
    plugin.wait_call("process")
    player = bed.graph.play(path, "mic0.feed")
    bed.extra.append(player.kill)
    wait_until(lambda: any(call["peak"] > 0.45 for call in plugin.calls("process")), "the tone")
    assert max(call["peak"] for call in plugin.calls("process")) < 0.55
    assert player.wait() == 0
    wait_until(lambda: plugin.calls("process")[-1]["peak"] < 0.001, "silence after the tone")


def test_init_is_told_the_negotiated_format(run):
    plugin, _, _ = run(microphone={"position": ["FL", "FR"]})
    call = plugin.wait_call("init")
    assert (call["format"], call["rate"], call["channels"], call["position"], call["flags"]) == (
        F32P,
        48000,
        2,
        [FL, FR],
        0,
    )
    assert (call["source"], call["connection_type"], call["acoustic_id"]) == (SYSTEM_NODE, "", "")


@pytest.mark.parametrize(
    "info, expected",
    [
        ({"audio.rate": "16000"}, {"rate": 16000}),
        ({"audio.rate": "16000x"}, {"rate": 48000}),
        ({"audio.rate": "0x3e80"}, {"rate": 48000}),
        ({"audio.format": "S16LE"}, {"format": S16}),
        ({"audio.format": "F32LE", "audio.channels": "1"}, {"format": F32, "channels": 1}),
        (
            {"audio.channels": "2", "audio.position": "[ FL FR ]"},
            {"channels": 2, "position": [FL, FR]},
        ),
        ({"audio.channels": "2", "audio.position": "FL,FR"}, {"channels": 2, "position": [FL, FR]}),
        ({"audio.channels": "1", "audio.position": "MONO"}, {"channels": 1, "position": [MONO]}),
    ],
    ids=lambda value: ",".join(f"{key}={text}" for key, text in value.items()).replace("audio.", ""),
)
def test_configuration_chooses_the_format(run, info, expected):
    plugin, _, _ = run(info=info)
    call = plugin.wait_call("init")
    assert {key: call[key] for key in expected} == expected
    plugin.wait_call("process")


def test_unknown_format_offers_none_and_works(run):
    plugin, _, _ = run(info={"audio.format": "F99"})
    assert plugin.wait_call("init")["rate"] == 48000
    plugin.wait_call("process")


def test_definition_of_a_node_goes_before_the_plug_ins_own_format(run):
    plugin, _, _ = run(
        info={"audio.rate": "8000", "audio.channels": "1"},
        conf={"source.0": {"node.name": SYSTEM_NODE, "audio.rate": "16000", "audio.channels": "2"}},
    )
    call = plugin.wait_call("init")
    assert (call["rate"], call["channels"]) == (16000, 2)


def test_positions_that_do_not_match_the_channels_are_warned_of(run):
    plugin, daemon, _ = run(info={"audio.channels": "2", "audio.position": "FL"})
    assert plugin.wait_call("init")["channels"] == 2
    assert daemon.log_count("Number of audio positions do not match number of channels.") == 1


@pytest.mark.parametrize("position", ["[ ]", ""])
def test_positions_without_an_element_are_warned_of(run, position):
    _, daemon, _ = run(info={"audio.channels": "2", "audio.position": position})
    daemon.wait_log("Can not parse audio.position.")


def test_matching_positions_forbid_remixing(bed, run):
    plugin, _, _ = run(info={"audio.channels": "2", "audio.position": "[ FL FR ]"})
    plugin.wait_call("init")
    properties = bed.graph.node_properties(f"hs-motion-{SYSTEM_NODE}")
    assert properties["stream.dont-remix"] in (True, "true")


def test_stream_of_a_source_has_its_properties(bed, run):
    plugin, _, _ = run()
    plugin.wait_call("init")
    properties = bed.graph.node_properties(f"hs-motion-{SYSTEM_NODE}")
    assert properties["media.type"] == "Audio"
    assert properties["media.category"] == "Capture"
    assert properties["audio.format"] == "F32P"
    assert properties["target.object"] == SYSTEM_NODE
    for key in ("stream.capture.sink", "stream.dont-remix", "audio.rate", "audio.channels", "audio.position"):
        assert key not in properties


def test_stream_of_a_sink_listens_to_its_monitor_without_keeping_it_awake(bed):
    plugin = bed.plugin(enabled=True, events=[event("Speech")])
    bed.quiet_microphone(media_class="Audio/Sink")
    bed.start()
    plugin.wait_call("init")
    properties = bed.graph.node_properties(f"hs-motion-{SYSTEM_NODE}")
    assert properties["stream.capture.sink"] in (True, "true")
    assert properties["node.passive"] == "follow"


def test_disabled_plug_in_hears_nothing(bed):
    plugin = bed.plugin("quiet", events=[event("Speech")])
    marker = bed.plugin("marker", enabled=True, events=[event("Noise")])
    bed.microphone()
    bed.start()
    marker.wait_call("process", 3)
    assert plugin.methods("init", "activate", "process") == []


def test_enabled_plug_in_without_public_events_hears_nothing(bed):
    plugin = bed.plugin("quiet", enabled=True, events=[event("Speech", public=False)])
    marker = bed.plugin("marker", enabled=True, events=[event("Noise")])
    bed.microphone()
    bed.start()
    marker.wait_call("process", 3)
    assert plugin.methods("init", "activate", "process") == []


@pytest.mark.parametrize("code", [-95, -22, -1])
def test_init_that_fails_stops_the_stream(run, code):
    plugin, daemon, _ = run(returns={"init": code})
    daemon.wait_log(f"Plugin motion on {SYSTEM_NODE} could not be initialized, code: {code}")
    daemon.wait_log("deactivate stream")
    assert plugin.methods("activate", "deinit", "process") == []


def test_missing_init_counts_as_not_supported(run):
    plugin, daemon, _ = run(absent=["init"])
    daemon.wait_log(f"Plugin motion on {SYSTEM_NODE} could not be initialized, code: -95")
    assert plugin.methods("activate", "deinit", "process") == []


@pytest.mark.parametrize("script", [{"returns": {"activate": -95}}, {"absent": ["activate"]}])
def test_activate_that_is_not_supported_activates(run, script):
    plugin, daemon, _ = run(**script)
    plugin.wait_call("process")
    assert daemon.log_count("could not be activated") == 0


def test_activate_that_fails_stops_the_stream_and_leaves_the_plug_in_initialised(bed, run):
    plugin, daemon, _ = run(returns={"activate": -22})
    daemon.wait_log(f"Plugin motion on {SYSTEM_NODE} could not be activated, code: -22")
    daemon.wait_log("deactivate stream")
    bed.unplug()
    plugin.wait_call("clear")
    assert plugin.methods("process", "deactivate") == []
    assert plugin.methods("init", "deinit") == ["init", "deinit"]


def test_positive_results_count_as_success(run):
    plugin, _, _ = run(returns={"init": 1, "activate": 7})
    plugin.wait_call("process")


@pytest.mark.parametrize("absent", [["process"], ["deactivate", "deinit"], ["get_setting"], ["get_settings"]])
def test_absent_methods_are_not_missed(bed, run, absent):
    plugin, daemon, client = run(absent=absent)
    plugin.wait_call("activate")
    client.wait_change(plugin.event_interface("Speech"), "Speech", False)
    bed.unplug()
    plugin.wait_call("clear")
    assert daemon.alive


def test_failing_plug_in_spares_the_other_on_the_same_node(bed):
    failing = bed.plugin("failing", enabled=True, events=[event("Speech")], returns={"init": -5})
    sound = bed.plugin("sound", enabled=True, events=[event("Noise")])
    bed.microphone()
    daemon, _ = bed.start()
    sound.wait_call("process", 3)
    daemon.wait_log("Plugin failing on AudioDevice0Input0.Unprocessed could not be initialized, code: -5")
    assert failing.methods("process") == []


def test_two_plug_ins_on_two_nodes_all_hear_their_own(bed):
    first = bed.plugin("first", enabled=True, events=[event("Speech")])
    second = bed.plugin("second", enabled=True, events=[event("Noise")])
    other = "AudioDevice1Input0.Unprocessed"
    bed.microphone()
    bed.microphone(other)
    bed.start()
    for plugin in (first, second):
        for node in (SYSTEM_NODE, other):
            plugin.wait_call("process", instance=plugin.instance_on(node))
    bed.unplug()
    for plugin in (first, second):
        plugin.wait_call("clear", instance=plugin.instance_on(SYSTEM_NODE))
        assert plugin.calls("clear", instance=plugin.instance_on(other)) == []


def test_node_that_goes_while_its_stream_negotiates_does_no_harm(bed):
    plugin = bed.plugin(enabled=True, events=[event("Speech")])
    daemon, client = bed.start()
    for round_number in range(1, 11):
        bed.graph.microphone(SYSTEM_NODE, wait=False)
        plugin.wait_call("load", round_number)
        bed.graph.destroy(SYSTEM_NODE)
        plugin.wait_call("clear", round_number)
    client.wait_removed(plugin.path(), 10)
    assert client.managed_objects() == {}
    assert daemon.alive


@pytest.mark.parametrize("channels", ["65", "2000", "4294967295"])
def test_more_channels_than_there_are_positions_do_no_harm(own_bed, channels):
    """The session manager may not get over such a stream, hence a graph of its own."""
    loud = own_bed.plugin(enabled=True, events=[event("Speech")], info={"audio.channels": channels})
    own_bed.microphone()
    daemon, client = own_bed.start()
    client.wait_added(loud.path())
    daemon.wait_log("State changed: 0 -> 1 for motion")
    own_bed.unplug()
    client.wait_removed(loud.path())
    assert client.managed_objects() == {}
    assert daemon.alive

"""The plug-ins that detect something, live: what they tell of a scene is what they tell of its file."""

import json
import pathlib
import shutil
import subprocess

import pytest
from bed.servers import base_environment
from bed.stage import SYSTEM_NODE

ROOT = pathlib.Path(__file__).parents[2]
EVENTS = {"voice": "Speech", "alarm": "SmokeAlarm"}
#: Seconds.
TOLERANCE = 0.2


@pytest.fixture(scope="module")
def scene(tmp_path_factory):
    """A quiet room, somebody who speaks, a smoke alarm, the room again."""
    folder = tmp_path_factory.mktemp("scene")
    speech, path = folder / "speech.wav", folder / "scene.wav"
    text = "Good morning. Is there anybody who can hear me in this house today?"
    subprocess.run(["espeak-ng", "-v", "en-us", "-s", "150", "-w", str(speech), text], check=True)
    subprocess.run(["/usr/bin/python3", str(ROOT / "tools/demo/make-sound.py"), str(path), str(speech)], check=True)
    return path


def library_of(build, plugin):
    path = build / f"plugins/{plugin}/libspa-hs-{plugin}.so"
    if not path.exists():
        pytest.skip(f"the plug-in {plugin} is not built")
    return path


def changes(series):
    """(time, detected) of the changes alone: what is told at the start may be told again."""
    result = []
    for time, value in series:
        if value["Detected"] != (result[-1][1] if result else False):
            result.append((time, value["Detected"]))
    return result


def heard_offline(build, plugin, scene):
    tool = build / "tools/hs-plugin/hs-plugin"
    if not tool.exists():
        pytest.skip("hs-plugin is not built")
    output = subprocess.run(
        [tool, "run", library_of(build, plugin), "--conf", ROOT / f"plugins/{plugin}", scene],
        env=base_environment(scene.parent),
        capture_output=True,
        text=True,
        check=True,
    ).stdout
    told = [json.loads(line) for line in output.splitlines()]
    return changes([(each["time"], each["value"]) for each in told if each["event"] == EVENTS[plugin]])


def heard_live(client, plugin):
    title = EVENTS[plugin]
    interface = f"com.orvel.HearSense.Events.{plugin.capitalize()}.{title}"
    return changes(
        [
            (signal.time, {key: value[1] for key, value in signal.body[1][title][1].items()})
            for signal in client.signals
            if signal.member == "PropertiesChanged" and signal.body[0] == interface and title in signal.body[1]
        ]
    )


@pytest.mark.seconds(120)
def test_scene_is_heard_live_as_its_file_is(bed, build, scene):
    expected = {plugin: heard_offline(build, plugin, scene) for plugin in EVENTS}
    for told in expected.values():
        assert [state for _, state in told[:2]] == [True, False][: len(told)]
    for plugin in EVENTS:
        bed.stage.install_library(plugin, library_of(build, plugin))
        shutil.copy(ROOT / f"plugins/{plugin}/{plugin}.conf", bed.stage.share / "plugin-confs")
    _, client = bed.start()
    loop = bed.graph.loop_microphone(SYSTEM_NODE, "mic0.feed")
    bed.extra.append(loop.stop)
    for plugin in EVENTS:
        client.wait_added(f"/com/orvel/HearSense/AudioDevice0Input0/Unprocessed/{plugin.capitalize()}")
    player = bed.graph.play(scene, "mic0.feed")
    bed.extra.append(player.kill)

    def has_heard_all(_):
        return all(len(heard_live(client, plugin)) >= len(told) for plugin, told in expected.items())

    client.wait_signal(has_heard_all, "what the file holds", timeout=60)
    begin = None
    for plugin, told in expected.items():
        live = heard_live(client, plugin)
        assert [state for _, state in live[: len(told)]] == [state for _, state in told]
        for (time, _), (expected_time, _) in zip(live, told):
            begin = begin or time - expected_time
            assert abs(time - begin - expected_time) <= TOLERANCE

"""hs-plugin, the tool of plug-in makers."""

import array
import json
import math
import os
import pathlib
import re
import shutil
import struct
import subprocess
import wave

import pytest
from bed.process import SCALE
from bed.servers import base_environment, system_spa_dir
from bed.stage import SYSTEM_NODE

RATE = 48000

#: For each mistake of tests/plugins/broken: the checks that catch it, and with what.
MISTAKES = {
    "array_text": ("events", "error", "do not read back"),
    "bad_utf8": ("events", "error", "no UTF-8"),
    "bus_name": ("names", "error", "does not fit into paths"),
    "chatty": ("speed", "warning", "a new value"),
    "denormals": ("sounds", "warning", "as long for denormals"),
    "dirty_refusal": ("formats", "error", "any more"),
    "double_init": ("order", "error", "the calls init, init"),
    "early_process": ("order", "error", "the calls process"),
    "eight_channels": ("formats", "error", "8 channels"),
    "empty_buffer": ("buffers", "error", "a buffer of 0 frames"),
    "empty_member": ("events", "warning", "empty text as a member"),
    "event_pod": ("events", "error", "is not described as the daemon reads it"),
    "event_reserved": ("events", "error", "of the daemon's own"),
    "event_title": ("events", "error", "no name that the bus takes"),
    "event_twice": ("events", "error", "another has already"),
    "event_unlisted": ("events", "error", "not in the interface's list"),
    "extreme": ("refusals", "error", 'the setting Depth at "2147483647"'),
    "factory_name": ("factory", "error", "no factory hear-sense.factory_name"),
    "full_scale": ("sounds", "error", "a square wave of full scale"),
    "half_refused": ("refusals", "error", "yet the settings are changed"),
    "hangs": ("formats", "error", "did not end within"),
    "interface_name": ("names", "error", "only the case may differ"),
    "interface_type": ("interface", "error", "of type"),
    "large_buffer": ("buffers", "error", "a buffer of 500000 frames"),
    "leak_descriptor": ("leaks", "error", "file descriptors"),
    "leak_memory": ("leaks", "error", "bytes of memory"),
    "logs_error": ("sounds", "error", "a square wave of full scale it logs an error: the meter is broken"),
    "low_rate": ("formats", "error", "8000 Hz"),
    "name_alone": ("refusals", "error", "at this: giving settings without a name"),
    "newer_version": ("interface", "warning", "of version 4"),
    "no_entry": ("load", "error", "spa_handle_factory_enum"),
    "no_format": ("formats", "error", "takes no usual format"),
    "no_interface": ("interface", "error", "does not answer the interface"),
    "no_restart": ("order", "error", "does not start any more"),
    "noise": ("sounds", "error", "From noise"),
    "odd_buffer": ("buffers", "error", "a buffer of 1 frames"),
    "own_thread": ("notifications", "error", "a thread of its own"),
    "passes_nan": ("sounds", "warning", "when it hears NaN"),
    "remembers": ("repeat", "error", "A second instance"),
    "setting_default": ("settings", "error", "cannot be given its own default"),
    "setting_huge": ("settings", "error", "keep below 2147483648"),
    "setting_pod": ("settings", "error", "is not described as the daemon reads it"),
    "setting_title": ("settings", "error", "no name that the bus takes"),
    "setting_twice": ("settings", "error", "another has already"),
    "shared_interface": ("interface", "error", "share one interface record"),
    "shared_state": ("instances", "error", "Beside another instance"),
    "silence": ("sounds", "error", "From silence"),
    "single_frame": ("buffers", "error", "a buffer of 1 frames"),
    "slow": ("speed", "warning", "more than a tenth of a processor core"),
    "spaced": ("interface", "error", "makes no instance"),
    "sticky_nan": ("sounds", "error", "does not get over NaN"),
    "takes_nan": ("refusals", "error", "takes nan"),
    "throws": ("sounds", "error", "it logs an error: process: an unknown exception"),
    "too_long": ("events", "error", "left out by the daemon"),
    "type_changes": ("notifications", "error", "changes its type"),
    "unknown_index": ("notifications", "error", "does not have"),
    "unknown_name": ("refusals", "error", "a setting that it has not"),
    "unresolved": ("load", "error", "nobody_has_this_function"),
    "version": ("interface", "error", "version 1"),
    "waits": ("speed", "warning", "waits for something"),
    "writes_buffer": ("buffers", "warning", "writes into the buffer"),
    "wrong_type": ("refusals", "error", "a text in place of a value"),
}

STATUS = {"ok": 0, "warning": 1, "error": 2}


class Tool:
    def __init__(self, build, folder):
        self.program = build / "tools/hs-plugin/hs-plugin"
        self.broken = build / "tests/plugins/broken"
        self.folder = folder
        self.env = base_environment(folder) | {"SPA_PLUGIN_DIR": f"{folder}:{system_spa_dir()}"}
        for name in ("ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"):
            if name in os.environ:
                self.env[name] = os.environ[name]

    def __call__(self, *args, status=0):
        """Standard output and error; fails for another exit status."""
        done = subprocess.run(
            [self.program, *args],
            env=self.env,
            capture_output=True,
            text=True,
            cwd=self.folder,
            timeout=50 * SCALE,
            check=False,
        )
        assert done.returncode == status, f"status {done.returncode}\n{done.stdout}\n{done.stderr}"
        return done.stdout, done.stderr

    def plugin_file(self, mistake="good"):
        return self.broken / f"libspa-hs-{mistake}.so"

    def run(self, *args, plugin="good", status=0):
        """What is told, and what is complained of."""
        library = plugin if isinstance(plugin, pathlib.Path) else self.plugin_file(plugin)
        out, err = self("run", library, *args, status=status)
        assert out == "" or out.endswith("\n")
        return [json.loads(line) for line in out.splitlines()], err

    def check(self, *args, status=0):
        """The whole report, and the checks by name."""
        report = json.loads(self("check", "--json", *args, status=status)[0])
        assert STATUS[report["result"]] == status
        return report, {check["name"]: check for check in report["checks"]}


@pytest.fixture
def tool(build, tmp_path):
    if not (build / "tools/hs-plugin/hs-plugin").exists():
        pytest.skip("hs-plugin is not built: its libraries are missing")
    return Tool(build, tmp_path)


def write_wave(path, parts, rate=RATE, channels=1):
    """A 1 kHz sine; each part is (seconds, dBFS), None for silence."""
    samples = array.array("h")
    for seconds, level in parts:
        peak = 0 if level is None else 32767 * 10 ** (level / 20)
        for _ in range(int(seconds * rate)):
            value = round(peak * math.sin(2 * math.pi * 1000 * (len(samples) // channels) / rate))
            samples.extend([value] * channels)
    with wave.open(str(path), "wb") as sound:
        sound.setparams((channels, 2, rate, 0, "NONE", ""))
        sound.writeframes(samples.tobytes())
    return path


@pytest.fixture
def sound(tmp_path):
    """Quiet, loud, quiet: a second each."""
    return write_wave(tmp_path / "sound.wav", [(1, -40), (1, -3), (1, -40)])


def of_event(lines, event):
    return [(line["time"], line["value"]) for line in lines if line["event"] == event]


# info


def test_info_tells_what_the_plug_in_says(tool):
    info = json.loads(tool("info", "--json", tool.plugin_file())[0])
    assert (info["plugin"], info["version"], info["interfaceName"]) == ("good", 3, "good")
    assert info["factory"] == "hear-sense.good"
    assert info["interface"] == "Spa:Pointer:Interface:HearSense:GOOD"
    assert [(s["title"], s["type"], s["default"]) for s in info["settings"]] == [
        ("Gain", "double", 1.0),
        ("Depth", "uint32", 5),
        ("Mode", "string", "auto"),
        ("LoudOnly", "boolean", False),
    ]
    assert [(e["title"], e["type"], e["value"], e["public"]) for e in info["events"]] == [
        ("Level", "double", -120.0, False),
        ("Alarm", "struct", {"Detected": False, "Report": False}, True),
        ("State", "struct", {"Word": "quiet", "Depth": 5}, True),
        ("Words", "array", ["one", "two"], True),
    ]


def test_info_as_text_has_settings_and_events(tool):
    text = tool("info", tool.plugin_file())[0]
    for word in ("good", "version 3", "Gain", "LoudOnly", "Alarm", "(bb)", "public"):
        assert word in text


def test_info_tells_the_ranges_of_the_schemas(tool, build):
    library = build / "plugins/loudness/libspa-hs-loudness.so"
    if not library.exists():
        pytest.skip("the loudness plug-in is not built")
    sources = pathlib.Path(__file__).parents[2] / "plugins/loudness"
    info = json.loads(tool("info", "--json", "--schemas", sources, library)[0])
    assert {s["title"]: (s["minimum"], s["maximum"]) for s in info["settings"]} == {
        "Threshold": (-70, 0),
        "HoldTime": (0, 3600),
    }
    text = tool("info", "--schemas", sources, library)[0]
    assert "(from -70.0 to 0.0)" in text
    assert "(from" not in tool("info", "--schemas", tool.folder, library)[0]


def test_library_without_the_entry_point_is_told_as_such(tool):
    _, err = tool("info", tool.plugin_file("no_entry"), status=2)
    assert "no function spa_handle_factory_enum" in err and "HS_EXPORT_PLUGIN" in err


def test_name_is_looked_for_as_the_daemon_does(tool, sound):
    (tool.folder / "hear-sense").mkdir()
    shutil.copy(tool.plugin_file(), tool.folder / "hear-sense")
    assert json.loads(tool("info", "--json", "good")[0])["plugin"] == "good"
    assert tool("run", "good", sound)[0] == tool("run", tool.plugin_file(), sound)[0]


def test_name_that_is_not_installed_is_told_with_the_folders(tool):
    _, err = tool("info", "nothing", status=2)
    assert "libspa-hs-nothing.so" in err and f"{tool.folder}/hear-sense" in err


# run


def test_run_prints_what_changes_with_the_time_of_the_audio(tool, sound):
    lines, _ = tool.run(sound)
    assert all(list(line) == ["time", "source", "plugin", "event", "value"] for line in lines)
    assert {(line["source"], line["plugin"]) for line in lines} == {("sound.wav", "good")}
    assert [line["event"] for line in lines[:4]] == ["Level", "Alarm", "State", "Words"]
    assert {line["time"] for line in lines[:4]} == {0}
    assert of_event(lines, "Alarm") == [
        (0, {"Detected": False, "Report": False}),
        (1.1, {"Detected": True, "Report": True}),
        (2.1, {"Detected": False, "Report": False}),
    ]
    assert of_event(lines, "Level") == [(0, -120.0), (0.1, -43.0), (1.1, -6.0), (2.1, -43.0)]
    assert len(of_event(lines, "Words")) == 1


def test_lines_have_the_promised_form(tool, sound):
    out, _ = tool("run", tool.plugin_file(), sound)
    assert (
        '{"time": 1.1, "source": "sound.wav", "plugin": "good", "event": "Alarm", '
        '"value": {"Detected": true, "Report": true}}\n' in out
    )


def test_two_runs_are_the_same_to_the_byte(tool, tmp_path):
    path = write_wave(tmp_path / "other.wav", [(1, -40), (1, -3), (2, -20)], rate=44100, channels=2)
    conf = tmp_path / "good.conf"
    conf.write_text("plugin.info = { audio.rate = 16000 audio.channels = 1 }")
    args = ("run", tool.plugin_file(), "--conf", conf, path)
    assert tool(*args) == tool(*args)


@pytest.mark.parametrize("rate, channels", [(8000, 1), (16000, 2), (44100, 1), (48000, 6), (96000, 2)])
def test_audio_is_converted_to_the_format_of_the_configuration(tool, tmp_path, rate, channels):
    path = write_wave(tmp_path / "s.wav", [(1, -40), (1, -3), (1, -40)], rate, channels)
    conf = tmp_path / "good.conf"
    conf.write_text("plugin.info = { audio.rate = 32000 audio.channels = 1 }")
    lines, _ = tool.run("--conf", conf, path)
    detected = [(time, value["Detected"]) for time, value in of_event(lines, "Alarm")]
    assert detected == [(0, False), (1.1, True), (2.1, False)]
    assert {round(value) for time, value in of_event(lines, "Level") if 1.1 <= time < 2} == {-6}


def test_files_of_other_kinds_are_heard_too(tool, sound):
    with wave.open(str(sound)) as source:
        samples = array.array("h", source.readframes(source.getnframes()))
    samples.byteswap()
    path = sound.with_suffix(".au")
    header = struct.pack(">4sIIIII", b".snd", 24, len(samples) * 2, 3, RATE, 1)
    path.write_bytes(header + samples.tobytes())
    expected = [(line["time"], line["event"], line["value"]) for line in tool.run(sound)[0]]
    assert [(line["time"], line["event"], line["value"]) for line in tool.run(path)[0]] == expected


def test_settings_are_given_to_the_plug_in(tool, sound):
    lines, _ = tool.run("--set", "Gain=0.01", "--set", "Depth=7", sound)
    assert [value["Detected"] for _, value in of_event(lines, "Alarm")] == [False]
    assert of_event(lines, "State") == [(0, {"Word": "quiet", "Depth": 7})]


def test_defaults_of_the_configuration_are_given_first(tool, sound, tmp_path):
    conf = tmp_path / "good.conf"
    conf.write_text("plugin.info = { a.default = { title = depth value = 8 } b.default = { title = Gain value = 0 } }")
    lines, _ = tool.run("--conf", tmp_path, "--set", "Gain=1", sound)
    assert of_event(lines, "State")[0] == (0, {"Word": "quiet", "Depth": 8})
    assert len(of_event(lines, "Alarm")) == 3


@pytest.mark.parametrize(
    "setting, complaint",
    [
        ("Nothing=1", "no setting Nothing"),
        ("Gain=loud", "of type double"),
        ("Gain=1000", "refuses"),
        ("LoudOnly=yes", "true or false"),
        ("Gain", "Setting=Value"),
        ("Enable=true", "setting of the daemon"),
    ],
)
def test_bad_settings_are_refused(tool, sound, setting, complaint):
    lines, err = tool.run("--set", setting, sound, status=2)
    assert lines == [] and complaint in err


def test_several_files_are_heard_one_after_the_other(tool, sound, tmp_path):
    quiet = write_wave(tmp_path / "quiet.wav", [(1, None)])
    lines, _ = tool.run(sound, quiet)
    assert [line["source"] for line in lines if line["time"] == 0] == ["sound.wav"] * 4 + ["quiet.wav"] * 4
    lines, _ = tool.run("--source", "kitchen", quiet)
    assert {line["source"] for line in lines} == {"kitchen"}


def test_block_gives_the_plug_in_other_buffers_and_the_same_events(tool, sound):
    whole, _ = tool.run("--block", "4800", sound)
    small, _ = tool.run("--block", "1", sound)
    assert small == whole


@pytest.mark.parametrize(
    "name, complaint",
    [
        ("empty", "is empty"),
        ("text", "no audio file"),
        ("head", "no audio file"),
        ("cut", "truncated"),
        ("no_frames", "no audio"),
        ("missing", "No such file"),
        ("folder", "is a folder"),
    ],
)
def test_bad_files_are_complained_of_without_a_line(tool, sound, tmp_path, name, complaint):
    data = sound.read_bytes()
    path = tmp_path / f"{name}.wav"
    if name == "folder":
        path.mkdir()
    elif name == "no_frames":
        write_wave(path, [])
    elif name != "missing":
        path.write_bytes({"empty": b"", "text": b"Hello, hear me.\n" * 9, "head": data[:30], "cut": data[:-1000]}[name])
    lines, err = tool.run(path, status=2)
    assert lines == [] and complaint in err and path.name in err


def test_bad_file_does_not_keep_the_others_from_being_heard(tool, sound, tmp_path):
    bad = tmp_path / "bad.wav"
    bad.write_bytes(b"")
    lines, err = tool.run(bad, sound, status=2)
    assert "bad.wav is empty" in err and len(of_event(lines, "Alarm")) == 3


def test_format_that_the_plug_in_refuses_is_told(tool, sound, tmp_path):
    conf = tmp_path / "good.conf"
    conf.write_text("plugin.info = { audio.format = S16 }")
    lines, err = tool.run("--conf", conf, sound, status=2)
    assert lines == [] and "cannot be initialised" in err and "S16" in err


def test_format_that_nobody_makes_is_told(tool, sound, tmp_path):
    conf = tmp_path / "good.conf"
    conf.write_text("plugin.info = { audio.format = ALAW }")
    lines, err = tool.run("--conf", conf, sound, status=2)
    assert lines == [] and "ALAW" in err


def test_event_that_the_daemon_could_not_publish_is_not_printed(tool, sound):
    lines, err = tool.run(sound, plugin="empty_member")
    assert [value["Word"] for _, value in of_event(lines, "State")] == ["loud"]
    assert err.count("could not publish the event State") == 1


@pytest.mark.parametrize("plugin, error", [("throws", "an unknown exception"), ("logs_error", "the meter is broken")])
def test_error_that_is_logged_while_it_hears_is_an_error(tool, sound, tmp_path, plugin, error):
    quiet = write_wave(tmp_path / "quiet.wav", [(1, -40)])
    tool.run(quiet, plugin=plugin)
    lines, err = tool.run(sound, quiet, plugin=plugin, status=2)
    assert f"{plugin} logged an error while it heard {sound}, at 1." in err
    assert error in err and f"{plugin} logged an error while it heard {quiet}" not in err
    assert {line["source"] for line in lines} == {"sound.wav", "quiet.wav"}


def test_nan_is_null(tool, tmp_path):
    lines, _ = tool.run(write_wave(tmp_path / "s.wav", [(1, None)]), plugin="silence")
    assert of_event(lines, "Level")[-1][1] is None


@pytest.mark.parametrize("args", [(), ("run",), ("run", "x"), ("info",), ("dance",), ("info", "--nothing", "x")])
def test_wrong_usage_is_an_error(tool, args):
    out, err = tool(*args, status=2)
    assert out == "" and err != ""


@pytest.mark.parametrize("args", [("--help",), ("run", "--help"), ("check", "--help"), ("info", "--help")])
def test_help_is_given(tool, args):
    out, err = tool(*args)
    assert "Usage: hs-plugin" in out and "Exit status" in out and err == ""


# check


@pytest.mark.seconds(120)
def test_good_plug_in_passes_every_check(tool):
    report, checks = tool.check(tool.plugin_file())
    assert report["result"] == "ok" and len(checks) == 19
    assert {check["result"] for check in checks.values()} == {"ok"}


@pytest.mark.parametrize("mistake", MISTAKES)
def test_mistake_is_caught(tool, mistake):
    name, result, text = MISTAKES[mistake]
    limit = ("--time-limit", "2") if mistake == "hangs" else ()
    report, checks = tool.check("--only", name, *limit, tool.plugin_file(mistake), status=STATUS[result])
    assert report["plugin"] == mistake
    messages = [message for message in checks[name]["messages"] if message["level"] == result]
    assert any(text in message["text"] for message in messages), checks[name]


def test_every_mistake_is_in_the_list(tool):
    built = {path.name.removeprefix("libspa-hs-").removesuffix(".so") for path in tool.broken.glob("*.so")}
    assert built == set(MISTAKES) | {"good"}


def test_check_tells_text_for_people(tool):
    out, _ = tool("check", "--only", "events", tool.plugin_file("event_title"), status=2)
    assert out.startswith("error    events") and "1Level" in out and out.rstrip().endswith(": error")


def test_check_stops_where_there_is_no_instance(tool):
    _, checks = tool.check(tool.plugin_file("unresolved"), status=2)
    assert list(checks) == ["load"]


@pytest.mark.parametrize("other", ["goo", "goodness"])
def test_name_that_begins_with_anothers_is_caught(tool, tmp_path, other):
    for name in ("good", other):
        shutil.copy(tool.plugin_file(), tmp_path / f"libspa-hs-{name}.so")
    _, checks = tool.check("--only", "neighbours", tmp_path / "libspa-hs-good.so", status=2)
    assert other in checks["neighbours"]["messages"][0]["text"]


def test_library_of_another_name_is_caught(tool, tmp_path):
    shutil.copy(tool.plugin_file(), tmp_path / "meter.so")
    _, checks = tool.check("--only", "factory", tmp_path / "meter.so", status=1)
    assert "libspa-hs-NAME.so" in checks["factory"]["messages"][0]["text"]


@pytest.mark.parametrize(
    "name, content, result, text",
    [
        ("good", "plugin.info = { a.default = { title = Gain value = 3 } }", "ok", ""),
        ("good", "plugin.info = { a.default = { title = Nothing value = 3 } }", "warning", "which there is not"),
        ("good", "plugin.info = { a.default = { title = Gain value = 3000 } }", "error", "refuses"),
        ("good", "plugin.info = { a.default = { title = Enable value = yes } }", "error", "neither true nor false"),
        ("good", "plugin.info = { a.default = { title = Gain } }", "warning", "lacks"),
        ("good", 'plugin.info = { node.pattern = "Audio[" }', "error", "selects no node: Invalid regular expression."),
        ("good", 'plugin.info = { node.pattern = "(x?){99}" }', "error", "selects no node: it is too long, or its repetitions are."),
        ("good", "plugin.info = { audio.format = S16 }", "error", "takes no usual format"),
        ("good", "plugin.info = { audio.format = ALAW }", "error", "ALAW"),
        ("better", "plugin.info = { audio.rate = 16000 }", "warning", "not called good.conf"),
        ("good", "nothing here", "warning", 'no "plugin.info"'),
        ("good", "plugin.info = { audio.rate = 8k }", "warning", "audio.rate = 8k is no number"),
        ("good", "plugin.info = { audio.channels = [ 1 ] }", "warning", "is no number"),
        ("good", "plugin.info = { audio.format = F99 }", "warning", "no sample format"),
        ("good", "plugin.info = { audio.position = [ FL, here ] }", "warning", "no list of channels"),
        ("good", "plugin.info = { audio.chanels = 1 }", "warning", "The key audio.chanels is read by nobody"),
        ("good", "plugin.info = { audio.rate = 8000 } audio.rate = 8000", "warning", "The key audio.rate is read"),
        ("good", "plugin.info = { audio.rate = 8000 } source.0 = { rate = 9 }", "warning", "source.0: rate is read by"),
        ("good", "plugin.info = {} source.0 = { node.name = x audio.rate = x }", "warning", "source.0: audio.rate = x"),
        ("good", "plugin.info = {\nx.default = { title = Gain value = 2 }\nplugin.config = {}", "error", "{ in line 1"),
        ("good", "plugin.info = {\n audio.channels = { 1\n}\nplugin.config = { a = 1 }", "error", "not closed"),
        ("good", "plugin.info = {\n audio.rate = 8000 }\n}\n", "error", "in line 3 closes nothing"),
        ("good", "plugin.info = { node.pattern = [ a } ]", "error", "is to close the ["),
        ("good", 'plugin.info = { node.pattern = "Audio }', "error", "quote in line 1"),
        (
            "good",
            '# } {\nplugin.info = { node.pattern = "[}\\"{]" audio.channels = 2 audio.position = [ FL FR ] } # {\n'
            "plugin.config = { any = 1 }\n"
            "source.0 = { node.name = x audio.rate = 16000 a.default = { title = Gain value = 2 } }",
            "ok",
            "",
        ),
    ],
)
def test_configuration_is_checked(tool, tmp_path, name, content, result, text):
    conf = tmp_path / f"{name}.conf"
    conf.write_text(content)
    _, checks = tool.check("--only", "configuration", "--conf", conf, tool.plugin_file(), status=STATUS[result])
    assert any(text in message["text"] for message in checks["configuration"]["messages"])


def test_loudness_passes_with_its_configuration_and_schemas(tool, build):
    library = build / "plugins/loudness/libspa-hs-loudness.so"
    if not library.exists():
        pytest.skip("the loudness plug-in is not built")
    sources = pathlib.Path(__file__).parents[2] / "plugins/loudness"
    report, _ = tool.check("--conf", sources, "--schemas", sources, library)
    assert report["result"] == "ok"


def test_schema_that_does_not_fit_is_caught(tool, build, tmp_path):
    library = build / "plugins/loudness/libspa-hs-loudness.so"
    if not library.exists():
        pytest.skip("the loudness plug-in is not built")
    args = ("--only", "schemas", "--schemas", tmp_path, library)
    sources = pathlib.Path(__file__).parents[2] / "plugins/loudness"
    for name in ("loudness.json", "loudness-settings.json"):
        shutil.copy(sources / name, tmp_path)

    def texts(status):
        return [message["text"] for message in tool.check(*args, status=status)[1]["schemas"]["messages"]]

    path = tmp_path / "loudness.json"
    schema = json.loads(path.read_text())
    schema["properties"]["Threshold"] |= {"type": "string", "default": 4}
    schema["properties"]["Colour"] = schema["properties"].pop("HoldTime")
    path.write_text(json.dumps(schema))
    found = texts(1)
    for text in ('Threshold = -20.0 is not of the type "string"', "the default 4", "lacks HoldTime", "Colour"):
        assert any(text in line for line in found), found
    path.write_text("{ not JSON")
    assert any("no JSON object" in line for line in texts(2))
    path.unlink()
    assert any("is not there" in line for line in texts(1))


@pytest.mark.parametrize(
    "name, change, status, text",
    [
        ("loudness-settings", {"required": ["$schema", "Enable"]}, 2, "requires Enable, which is never there"),
        ("loudness-settings", {"$schema": None}, 2, "lacks $schema"),
        ("loudness-settings", {"enable": None, "Enable": {"type": "boolean"}}, 2, "lacks enable"),
        ("loudness-settings", {"threshold": {"type": "number", "minimum": 100}}, 2, "below its minimum of 100"),
        ("loudness-settings", {"threshold": {"type": "number", "exclusiveMaximum": -20}}, 2, "is not below -20"),
        ("loudness-settings", {"enable": {"enum": ["yes", "no"]}}, 2, 'none of ["yes", "no"]'),
        ("loudness-settings", {"holdtime": None}, 2, "lacks holdtime"),
        ("loudness-settings", {"holdtime": {"type": ["integer", "number"]}}, 0, ""),
        ("loudness", {"Threshold": {"type": "number", "maximum": -21}}, 1, "above its maximum of -21"),
        ("loudness", {"Enable": None}, 1, "lacks Enable"),
        ("loudness", {"Threshold": {"type": "number", "maximum": -20, "minimum": -20}}, 0, ""),
    ],
)
def test_schema_that_refuses_what_there_is_is_caught(tool, build, tmp_path, name, change, status, text):
    library = build / "plugins/loudness/libspa-hs-loudness.so"
    if not library.exists():
        pytest.skip("the loudness plug-in is not built")
    for path in (pathlib.Path(__file__).parents[2] / "plugins/loudness").glob("*.json"):
        shutil.copy(path, tmp_path)
    path = tmp_path / f"{name}.json"
    schema = json.loads(path.read_text())
    for key, value in change.items():
        if key == "required":
            schema[key] = value
        elif value is None:
            del schema["properties"][key]
        else:
            schema["properties"][key] = value
    path.write_text(json.dumps(schema))
    _, checks = tool.check("--only", "schemas", "--schemas", tmp_path, library, status=status)
    assert not text or any(text in message["text"] for message in checks["schemas"]["messages"])


def test_default_of_the_configuration_that_the_schema_refuses_is_caught(tool, build, tmp_path):
    library = build / "plugins/loudness/libspa-hs-loudness.so"
    if not library.exists():
        pytest.skip("the loudness plug-in is not built")
    sources = pathlib.Path(__file__).parents[2] / "plugins/loudness"
    for path in sources.glob("*.json"):
        text = path.read_text()
        (tmp_path / path.name).write_text(text.replace("3600.0", "60.0"))
    conf = tmp_path / "loudness.conf"
    conf.write_text("plugin.info = { h.default = { title = HoldTime value = 61 } }")
    args = ("--only", "schemas", "--conf", conf, "--schemas", tmp_path, library)
    _, checks = tool.check(*args, status=2)
    assert any("holdtime = 61.0 is above" in message["text"] for message in checks["schemas"]["messages"])


def test_log_is_told_under_a_check_that_failed(tool, tmp_path):
    out, _ = tool("check", "--only", "interface", tool.plugin_file("spaced"), status=2)
    assert re.search(r"^ +log: error: hear-sense\.spaced: .*Too loud.* no title", out, re.MULTILINE), out
    out, _ = tool("check", "--only", "interface", tool.plugin_file("throws"))
    assert "log:" not in out


def test_equal_lines_of_the_log_are_told_once(tool, tmp_path):
    conf = tmp_path / "throws.conf"
    conf.write_text("plugin.info = { audio.rate = 2000 audio.channels = 1 }")
    out, _ = tool("check", "--only", "buffers", "--conf", conf, tool.plugin_file("throws"), status=2)
    assert out.count("log: error:") == 1 and "2000 Hz): set audio.rate to 8000 or more" in out
    out, _ = tool("check", "-v", "--only", "buffers", "--conf", conf, tool.plugin_file("throws"), status=2)
    assert "log: error:" not in out and out.count("set audio.rate to 8000 or more") > 1


def test_unknown_check_is_told(tool):
    _, err = tool("check", "--only", "beauty", tool.plugin_file(), status=2)
    assert "no check beauty" in err and "events" in err


# The same file, live.


def momentary_at(series, time):
    """What was last told by then."""
    return [value["Momentary"] for told, value in series if told <= time][-1]


@pytest.mark.seconds(120)
def test_live_run_tells_the_same(tool, bed, build, tmp_path):
    library = build / "plugins/loudness/libspa-hs-loudness.so"
    if not library.exists():
        pytest.skip("the loudness plug-in is not built")
    conf = {
        "plugin.info": {
            "enable.default": {"title": "Enable", "value": "true"},
            "hold.default": {"title": "HoldTime", "value": "1"},
        }
    }
    path = write_wave(tmp_path / "scene.wav", [(3, -40), (4, -10), (4, -40), (4, -12), (4, -45)])
    offline, _ = tool.run("--conf", bed.stage.conf("loudness", conf), path, plugin=library)

    bed.stage.install_library("loudness", library)
    _, client = bed.start()
    loop = bed.graph.loop_microphone(SYSTEM_NODE, "mic0.feed")
    bed.extra.append(loop.stop)
    event = "com.orvel.HearSense.Events.Loudness."
    client.wait_change(event + "LoudnessAlarm", "LoudnessAlarm", {"Detected": False, "Report": False})
    player = bed.graph.play(path, "mic0.feed")
    bed.extra.append(player.kill)

    def live(name):
        return [
            (signal.time, {key: value[1] for key, value in signal.body[1][name][1].items()})
            for signal in client.signals
            if signal.member == "PropertiesChanged" and signal.body[0] == event + name and name in signal.body[1]
        ]

    def detected(series):
        """Changes alone: what is told at the start may be told again."""
        changes = []
        for time, value in series:
            if value["Detected"] != (changes[-1][1] if changes else False):
                changes.append((time, value["Detected"]))
        return changes

    def has_ended(_):
        """The last part was heard to its end."""
        return len(detected(live("LoudnessAlarm"))) >= 4 and live("Loudness")[-1][1]["Momentary"] < -60

    client.wait_signal(has_ended, "the end of the file", timeout=60)
    expected = detected(of_event(offline, "LoudnessAlarm"))
    heard = detected(live("LoudnessAlarm"))
    assert [state for _, state in heard] == [state for _, state in expected] == [True, False, True, False]
    offset = heard[0][0] - expected[0][0]
    for (time, _), (expected_time, _) in zip(heard, expected):
        assert abs(time - offset - expected_time) <= 0.2

    # Before the end of each part the loudness has settled.
    for end in (3, 7, 11, 15, 19):
        expected_value = momentary_at(of_event(offline, "Loudness"), end - 0.3)
        assert abs(momentary_at(live("Loudness"), end - 0.3 + offset) - expected_value) <= 0.5

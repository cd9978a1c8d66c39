"""The plug-in vamp: what it tells is what vamp-simple-host prints, whatever it is called and however configured."""

import array
import json
import math
import os
import pathlib
import random
import re
import subprocess
import wave

import pytest
from bed.client import ROOT, SERVICE
from bed.process import SCALE, wait_until
from bed.servers import base_environment, system_spa_dir
from bed.stage import SYSTEM_NODE, event

SOURCE = pathlib.Path(__file__).resolve().parents[2]
RATE = 44100
EXAMPLES = "vamp-example-plugins"

#: Outputs with a value for each step, with their frames in a block and from block to block.
STEADY = [
    ("amplitudefollower", "amplitude", 1024, 1024),
    ("percussiononsets", "detectionfunction", 1024, 512),
    ("spectralcentroid", "linearcentroid", 1024, 512),
    ("spectralcentroid", "logcentroid", 1024, 512),
    ("zerocrossing", "counts", 1024, 1024),
]
#: Outputs of things that happen.
SPARSE = [("fixedtempo", "tempo"), ("percussiononsets", "onsets"), ("zerocrossing", "zerocrossings")]
#: Outputs that come all at once, when ten seconds were heard.
AT_ONCE = [("fixedtempo", "acf"), ("fixedtempo", "detectionfunction"), ("fixedtempo", "filtered_acf")]


class Vamp:
    """A folder with the library, linked to under any name, and hs-plugin to run it."""

    def __init__(self, build, folder):
        self.build = build
        self.folder = folder
        self.env = base_environment(folder) | {"SPA_PLUGIN_DIR": f"{folder}:{system_spa_dir()}"}
        for name in ("ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"):
            if name in os.environ:
                self.env[name] = os.environ[name]

    def install(self, name, config, info=""):
        (self.folder / f"{name}.conf").write_text(f"plugin.info = {{ {info} }}\nplugin.config = {{ {config} }}\n")
        return self.link(name)

    def link(self, name):
        library = self.folder / f"libspa-hs-{name}.so"
        library.symlink_to(self.build / "plugins/vamp/libhs-vamp.so")
        return library

    def run(self, library, sound, *args, status=0):
        """The published values as (seconds, value), and what was complained of."""
        done = subprocess.run(
            [self.build / "tools/hs-plugin/hs-plugin", "run", library, *args, sound],
            env=self.env,
            capture_output=True,
            text=True,
            timeout=50 * SCALE,
            check=False,
        )
        assert done.returncode == status, done.stdout + done.stderr
        lines = [json.loads(line) for line in done.stdout.splitlines()]
        return [(line["time"], line["value"]) for line in lines], done.stderr


@pytest.fixture
def vamp(build, tmp_path):
    for needed in ("tools/hs-plugin/hs-plugin", "plugins/vamp/libhs-vamp.so"):
        if not (build / needed).exists():
            pytest.skip(f"{needed} is not built: its libraries are missing")
    return Vamp(build, tmp_path)


def example_folder():
    done = subprocess.run(
        ["pkg-config", "--variable=libdir", "vamp-hostsdk"], capture_output=True, text=True, check=True
    )
    return done.stdout.strip() + "/vamp"


def simple_host(plugin, output, sound):
    """What vamp-simple-host prints: each feature as (seconds, duration, values and label)."""
    done = subprocess.run(
        ["vamp-simple-host", f"{EXAMPLES}:{plugin}:{output}", str(sound)],
        env=os.environ | {"VAMP_PATH": example_folder()},
        capture_output=True,
        text=True,
        timeout=50 * SCALE,
        check=True,
    )
    features = []
    for line in done.stdout.splitlines():
        time, duration, rest = re.fullmatch(r"\s*([\d.]+)(?:, ([\d.]+))?:(.*)", line).groups()
        features.append((float(time), float(duration or 0), rest.split()))
    assert features
    return features


def is_same(published, printed):
    """To six digits, as vamp-simple-host prints, or to six decimals, as values are published."""
    if printed == 0:
        return abs(published) <= 1e-6
    digit = 10.0 ** (math.floor(math.log10(abs(printed))) - 5)
    return abs(published - printed) <= 1.01 * max(0.5 * digit, 0.5e-6) + 0.5e-6


@pytest.fixture(scope="module")
def sound(tmp_path_factory):
    return write_sound(tmp_path_factory.mktemp("vamp") / "sound.wav", 12.0)


def write_sound(path, seconds, channels=1):
    """A tone that swells, with a burst of noise twice a second; the second channel is its half."""
    noise = random.Random(1)
    samples = array.array("h")
    for i in range(int(seconds * RATE)):
        time = i / RATE
        value = (0.1 + 0.02 * time) * math.sin(2 * math.pi * 440 * time) + 0.002 * noise.uniform(-1, 1)
        if time % 0.5 < 0.02:
            value += 0.4 * noise.uniform(-1, 1)
        samples.extend(round(value * 32767 / (1 + c)) for c in range(channels))
    with wave.open(str(path), "wb") as file:
        file.setparams((channels, 2, RATE, 0, "NONE", ""))
        file.writeframes(samples.tobytes())
    return path


def assert_steady(published, printed, block, step):
    """Compares what holds after each block with what was printed for it."""
    frames = int(12.0 * RATE)
    compared = 0
    next_one = 0
    held = None
    for k, (_, _, values) in enumerate(printed):
        end = k * step + block
        if end > frames:
            break
        # The run was cut into buffers of a step each, so a value comes with the buffer that ends its block.
        while next_one < len(published) and published[next_one][0] <= end / RATE + 0.0006:
            held = published[next_one][1]
            next_one += 1
        value = float(values[0])
        if math.isfinite(value):
            assert is_same(held, value), f"block {k}: {held} and {value}"
            compared += 1
    assert compared > 500
    assert len(published) > 100


@pytest.mark.parametrize(("plugin", "output", "block", "step"), STEADY)
def test_steady_values_are_those_of_vamp_simple_host(vamp, sound, plugin, output, block, step):
    library = vamp.install("steady", f'plugin = "{EXAMPLES}:{plugin}" output = {output}')
    published, _ = vamp.run(library, sound, "--block", str(step))
    assert_steady(published, simple_host(plugin, output, sound), block, step)


@pytest.mark.parametrize(("plugin", "output"), SPARSE)
def test_things_that_happen_are_those_of_vamp_simple_host(vamp, sound, plugin, output):
    library = vamp.install("sparse", f'plugin = "{EXAMPLES}:{plugin}" output = {output}')
    published, _ = vamp.run(library, sound)
    told = [value for _, value in published[1:]]
    printed = simple_host(plugin, output, sound)
    assert [value["Count"] for value in told] == list(range(1, len(told) + 1))
    # The last block is not full, and vamp-simple-host fills it up.
    due = [feature for feature in printed if feature[0] < 12.0 - 2 * 1024 / RATE]
    assert due and len(due) <= len(told) <= len(printed)
    for value, (time, duration, rest) in zip(told, printed):
        assert value["Time"] == pytest.approx(time, abs=1e-6)
        assert value["Duration"] == pytest.approx(duration, abs=1e-6)
        if "Value" in value:
            assert is_same(value["Value"], float(rest.pop(0)))
        assert value["Label"] == (" ".join(rest) or "-")


@pytest.mark.parametrize(("plugin", "output"), AT_ONCE)
def test_values_that_come_at_once_are_each_published(vamp, sound, plugin, output):
    library = vamp.install("atonce", f'plugin = "{EXAMPLES}:{plugin}" output = {output}')
    published, _ = vamp.run(library, sound)
    told = [value for _, value in published]
    printed = [float(values[0]) for _, _, values in simple_host(plugin, output, sound)]
    assert len({time for time, _ in published[1:]}) == 1
    # What rounds to the value before it is no change; the first value, 0, stands before all of them.
    expected = [0.0]
    for value in printed:
        if value != expected[-1]:
            expected.append(value)
    assert len(told) == len(expected)
    assert all(is_same(*pair) for pair in zip(told, expected))


def test_two_channels_are_mixed_as_vamp_simple_host_does(vamp, tmp_path):
    stereo = write_sound(tmp_path / "stereo.wav", 12.0, channels=2)
    library = vamp.install("stereo", f'plugin = "{EXAMPLES}:amplitudefollower" output = amplitude')
    published, _ = vamp.run(library, stereo, "--block", "1024")
    assert_steady(published, simple_host("amplitudefollower", "amplitude", stereo), 1024, 1024)


def test_size_of_buffers_makes_no_difference(vamp, sound):
    library = vamp.install("steady", f'plugin = "{EXAMPLES}:spectralcentroid" output = logcentroid')
    runs = [[value for _, value in vamp.run(library, sound, "--block", size)[0]] for size in ("100", "1024", "5000")]
    # Buffers that end several blocks tell each of them.
    assert runs[0] == runs[1] == runs[2]


def test_one_library_serves_several_configurations(vamp, sound):
    onset = vamp.install("onset", f'plugin = "{EXAMPLES}:percussiononsets" output = onsets')
    level = vamp.install("level", f'plugin = "{EXAMPLES}:amplitudefollower" output = amplitude')
    assert vamp.run(onset, sound)[0][0][1] == {"Count": 0, "Time": 0.0, "Duration": 0.0, "Label": "-"}
    assert vamp.run(level, sound)[0][0][1] == 0.0


def test_example_configuration_runs(vamp, sound):
    example = SOURCE / "plugins/vamp/onset.conf.example"
    (vamp.folder / "onset.conf").write_text(example.read_text())
    published, errors = vamp.run(vamp.link("onset"), sound)
    assert errors == ""
    assert len(published) > 20


def test_parameters_are_settings_with_the_ranges_of_vamp(vamp, sound):
    def count(config="", info="", *args, **more):
        for path in vamp.folder.glob("*onset*"):
            path.unlink()
        library = vamp.install("onset", f'plugin = "{EXAMPLES}:percussiononsets" output = onsets {config}', info)
        return vamp.run(library, sound, *args, **more)

    usual = len(count()[0])
    deaf = len(count("parameter.threshold = 20 parameter.sensitivity = 1")[0])
    assert deaf < usual
    by_default = "Threshold.default = { title = Threshold value = 20 } "
    by_default += "Sensitivity.default = { title = Sensitivity value = 1 }"
    assert len(count("", by_default)[0]) == deaf
    assert len(count("", "", "--set", "Threshold=20", "--set", "Sensitivity=1")[0]) == deaf
    assert "Threshold" in count("", "", "--set", "Threshold=20.5", status=2)[1]


@pytest.mark.parametrize(
    ("config", "advice"),
    [
        ("", 'set "plugin"'),
        ("plugin = nowhere", 'set "plugin"'),
        ('plugin = "nowhere:tempo" output = tempo', 'set "plugin"'),
        (f'plugin = "{EXAMPLES}:nothing" output = tempo', 'set "plugin"'),
        (f'plugin = "{EXAMPLES}:fixedtempo"', 'set "output"'),
        (f'plugin = "{EXAMPLES}:fixedtempo" output = candidates', 'set "output"'),
        (f'plugin = "{EXAMPLES}:powerspectrum" output = powerspectrum', 'set "output"'),
        (f'plugin = "{EXAMPLES}:fixedtempo" output = tempo parameter.minbpm = 9', 'set "parameter.minbpm"'),
        (f'plugin = "{EXAMPLES}:fixedtempo" output = tempo parameter.bpm = 90', 'take out "parameter.bpm"'),
        (f'plugin = "{EXAMPLES}:fixedtempo" output = tempo block = 0', 'set "block"'),
    ],
)
def test_wrong_configuration_is_refused_with_advice(vamp, sound, config, advice):
    published, errors = vamp.run(vamp.install("wrong", config), sound, status=2)
    assert published == []
    assert len([line for line in errors.splitlines() if f"wrong.conf: {advice}" in line]) == 1, errors


@pytest.fixture
def staged(bed, build):
    """Installs names of the library where the daemon looks."""
    library = build / "plugins/vamp/libhs-vamp.so"
    if not library.exists():
        pytest.skip("libhs-vamp.so is not built: its libraries are missing")

    def install(name, **config):
        enable = {"Enable.default": {"title": "Enable", "value": "true"}}
        bed.stage.conf(name, {"plugin.info": enable, "plugin.config": config})
        bed.stage.install_library(name, library)
        interface = name.capitalize()
        return f"{ROOT}/{SYSTEM_NODE.replace('.', '/')}/{interface}", f"{SERVICE}.Events.{interface}"

    return install


def test_daemon_runs_several_names_beside_one_that_is_wrong(bed, staged):
    zero_path, zero = staged("zero", plugin=f"{EXAMPLES}:zerocrossing", output="counts", public="true")
    centre_path, centre = staged("centre", plugin=f"{EXAMPLES}:spectralcentroid", output="linearcentroid", public="true")
    staged("wrong", plugin=f"{EXAMPLES}:nothing", output="counts")
    other = bed.plugin("other", enabled=True, events=[event("Noise")])
    bed.microphone()
    daemon, client = bed.start()
    for path in (zero_path, centre_path, other.path()):
        client.wait_added(path)
    wait_until(lambda: client.get(zero_path, f"{zero}.Counts", "Counts") > 0, "zero crossings")
    wait_until(lambda: client.get(centre_path, f"{centre}.Linearcentroid", "Linearcentroid") > 0, "a centroid")
    other.wait_call("process", 3)
    assert daemon.log_count('hear-sense.wrong: wrong.conf: set "plugin" to one of') == 1
    assert daemon.log_count("Could not load spa handle for 'hear-sense.wrong'") == 1
    assert client.get(zero_path, f"{SERVICE}.Settings.Zero", "Enable") is True


def test_daemon_writes_a_parameter_while_it_listens(bed, staged):
    bed.stage.grant_everything()
    path, events = staged("loud", plugin=f"{EXAMPLES}:amplitudefollower", output="amplitude", public="true")
    bed.microphone()
    daemon, client = bed.start()
    client.wait_added(path)
    settings = f"{SERVICE}.Settings.Loud"
    assert client.get(path, settings, "Attack") == pytest.approx(0.01)
    wait_until(lambda: client.get(path, f"{events}.Amplitude", "Amplitude") > 0, "an amplitude")
    client.set(path, settings, "Attack", "d", 0.5)
    assert client.get(path, settings, "Attack") == 0.5
    before = len(client.changes(f"{events}.Amplitude", "Amplitude"))
    wait_until(lambda: len(client.changes(f"{events}.Amplitude", "Amplitude")) > before + 3, "more amplitudes")
    assert daemon.alive

"""What a plug-in author has: the installed headers, the examples built against them, and the build folder itself."""

import json
import math
import os
import pathlib
import random
import re
import shutil
import struct
import subprocess
import tempfile
import wave

import pytest
from bed.client import ROOT, SERVICE
from bed.process import SCALE
from bed.stage import SYSTEM_NODE

SOURCE = pathlib.Path(__file__).resolve().parents[2]
RATE = 48000

pytestmark = pytest.mark.seconds(180)


def run(argv, **environment):
    done = subprocess.run(
        [str(part) for part in argv],
        env=os.environ | {key: str(value) for key, value in environment.items()},
        capture_output=True,
        text=True,
        timeout=120 * SCALE,
        check=False,
    )
    assert done.returncode == 0, f"{argv}: {done.stdout}{done.stderr}"
    return done.stdout


def pkg_config(variable, **environment):
    return pathlib.Path(run(["pkg-config", f"--variable={variable}", "hear-sense-plugin"], **environment).strip())


@pytest.fixture(scope="module")
def installed(build):
    """The folder of pkg-config files of an installation that stands elsewhere than it was made for."""
    stage = pathlib.Path(tempfile.mkdtemp(prefix="hs-"))
    run(["meson", "install", "-C", build, "--no-rebuild", "--destdir", stage])
    found = list(stage.rglob("hear-sense-plugin.pc"))
    assert len(found) == 1
    text = found[0].read_text()
    prefix = re.search(r"^prefix=(.*)$", text, re.M).group(1)
    found[0].write_text(text.replace(f"prefix={prefix}", f"prefix={stage}{prefix}"))
    yield found[0].parent
    shutil.rmtree(stage)


@pytest.fixture
def author(bed, installed):
    """Builds and installs a plug-in as its author would, and puts it where the daemon of the test looks."""

    def make(name, source):
        folder = bed.stage.folder / f"build-{name}"
        run(["meson", "setup", folder, source], PKG_CONFIG_PATH=installed)
        run(["meson", "compile", "-C", folder])
        run(["meson", "install", "-C", folder])
        library = pkg_config("plugindir", PKG_CONFIG_PATH=installed) / f"libspa-hs-{name}.so"
        assert library.is_file()
        bed.stage.install_library(name, library)
        shutil.copy(pkg_config("confdir", PKG_CONFIG_PATH=installed) / f"{name}.conf", bed.stage.confs)
        for schema in pkg_config("schemadir", PKG_CONFIG_PATH=installed).glob(f"{name}*.json"):
            shutil.copy(schema, bed.stage.schemas)
        bed.stage.grant_everything()

    return make


def path_of(name):
    return f"{ROOT}/{SYSTEM_NODE.replace('.', '/')}/{name}"


def knocks(path):
    """Three knocks in quiet noise."""
    generator = random.Random(1)
    samples = [generator.gauss(0, 30) for _ in range(4 * RATE)]
    for second in (1, 2, 3):
        for i in range(RATE // 50):
            samples[second * RATE + i] += 16000 * math.exp(-i / 200) * math.sin(i / 10)
    with wave.open(str(path), "wb") as sound:
        sound.setparams((1, 2, RATE, 0, "NONE", ""))
        sound.writeframes(b"".join(struct.pack("<h", int(sample)) for sample in samples))


def test_cpp_example_is_heard_on_the_bus(bed, author):
    author("knock", SOURCE / "examples/knock")
    bed.extra.append(bed.graph.loop_microphone(SYSTEM_NODE, "mic0.feed").stop)
    _, client = bed.start()
    client.wait_added(path_of("Knock"))

    settings = f"{SERVICE}.Settings.Knock"
    assert client.get_variant(path_of("Knock"), settings, "Rise") == ("d", 20.0)
    client.set(path_of("Knock"), settings, "HoldTime", "d", 0.2)
    client.wait_change(settings, "HoldTime", 0.2)
    stored = json.loads(bed.stage.settings_file("knock").read_text())
    assert stored["holdtime"] == 0.2 and stored["rise"] == 20.0
    assert stored["$schema"].endswith("/knock-settings.json")

    knock = f"{SERVICE}.Events.Knock.Knock"
    assert client.get(path_of("Knock"), knock, "Knock") == {"Detected": False, "Report": False}
    knocks(bed.stage.folder / "knocks.wav")
    bed.extra.append(bed.graph.play(bed.stage.folder / "knocks.wav", "mic0.feed").kill)
    client.wait_change(knock, "Knock", {"Detected": True, "Report": True}, 3)
    client.wait_change(knock, "Knock", {"Detected": False, "Report": False}, 3)
    level = f"{SERVICE}.Events.Knock.KnockLevel"
    client.wait_signal(
        lambda _: any(-20.0 < value < 0.0 for value in client.changes(level, "KnockLevel")), "how loud a knock is"
    )


def test_c_example_is_heard_on_the_bus(bed, author):
    author("peak", SOURCE / "examples/peak")
    bed.microphone()
    _, client = bed.start()
    client.wait_added(path_of("Peak"))
    client.set(path_of("Peak"), f"{SERVICE}.Settings.Peak", "Interval", "d", 0.1)
    peak = f"{SERVICE}.Events.Peak.Peak"
    client.wait_signal(
        lambda _: any(-60.0 < value <= 0.0 for value in client.changes(peak, "Peak")), "a peak of the test tone"
    )


def test_plug_in_of_the_guide_is_heard_on_the_bus(bed, author):
    guide = (SOURCE / "docs/write-a-plugin.md").read_text()
    files = dict(re.findall(r"^`(clap[\w.]*|meson.build)`:\n\n```\w*\n(.*?)^```$", guide, re.M | re.S))
    assert set(files) == {"clap.cpp", "clap.conf", "meson.build"}
    folder = bed.stage.folder / "clap"
    folder.mkdir()
    for name, text in files.items():
        (folder / name).write_text(text)
    author("clap", folder)
    bed.microphone()
    _, client = bed.start()
    client.wait_added(path_of("Clap"))
    client.set(path_of("Clap"), f"{SERVICE}.Settings.Clap", "Threshold", "d", -60.0)
    clap = f"{SERVICE}.Events.Clap.Clap"
    client.wait_change(clap, "Clap", {"Detected": True, "Report": True})
    claps = f"{SERVICE}.Events.Clap.Claps"
    client.wait_signal(lambda _: client.changes(claps, "Claps"), "how many claps there were")


def test_build_folder_is_tried_without_installing(build, bed):
    def variable(name):
        return pathlib.Path(
            run(["meson", "devenv", "-C", build, "pkg-config", f"--variable={name}", "hear-sense-plugin"]).strip()
        )

    libraries = run(["meson", "devenv", "-C", build, "sh", "-c", 'echo "$SPA_PLUGIN_DIR"']).strip()
    flags = run(["meson", "devenv", "-C", build, "pkg-config", "--cflags", "hear-sense-plugin"])
    assert f"-I{SOURCE}/include" in flags.split()
    assert str(variable("interface_version")) == "3"
    assert pathlib.Path(libraries.split(":")[0]) / "hear-sense" == variable("plugindir")
    assert (variable("schemadir") / "loudness.json").is_file()

    bed.microphone()
    _, client = bed.start(["-c", str(variable("confdir"))], env={"SPA_PLUGIN_DIR": libraries})
    client.wait_added(path_of("Loudness"))
    client.wait_signal(
        lambda _: client.changes(f"{SERVICE}.Events.Loudness.Loudness", "Loudness"), "how loud the test tone is"
    )

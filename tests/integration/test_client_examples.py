"""The clients that are shown to authors of clients, with a daemon that has the plug-in they speak of."""

import os
import pathlib
import pwd
import re
import shutil
import signal
import subprocess

import pytest
from bed.client import ROOT as SERVICE_ROOT
from bed.process import SCALE, Process, wait_until
from bed.servers import base_environment
from bed.stage import event, setting, struct_event

ROOT = pathlib.Path(__file__).parents[2]
EXAMPLES = ROOT / "docs/client-examples"
OTHER_NODE = "AudioDevice1Input0.Unprocessed"
USER = pwd.getpwuid(os.getuid()).pw_name

PLUGIN = "AudioDevice0Input0/Unprocessed/Loudness"
OTHER_PLUGIN = "AudioDevice1Input0/Unprocessed/Loudness"
PATH = f"{SERVICE_ROOT}/{PLUGIN}"
SETTINGS = "com.orvel.HearSense.Settings.Loudness"

with_private_bus = pytest.mark.parametrize("language", ["c", "py"])
in_all_languages = pytest.mark.parametrize("language", ["c", "py", "sh"])


@pytest.fixture(scope="module")
def compiled(tmp_path_factory):
    """The client in C, built as the page says."""
    folder = tmp_path_factory.mktemp("clients")
    shutil.copy(EXAMPLES / "listen.c", folder)
    [command] = re.findall(r"^cc .*listen\.c.*$", (EXAMPLES / "README.md").read_text(), re.M)
    command = command.replace("cc ", "cc -Wall -Wextra -Wshadow -Wconversion -Werror ", 1)
    subprocess.run(["sh", "-c", command], cwd=folder, check=True, timeout=60 * SCALE)
    return folder / "listen"


@pytest.fixture
def hearing(bed, build):
    """Starts the daemon with the plug-in on a microphone; the calls of its result start it again."""
    library = build / "plugins/loudness/libspa-hs-loudness.so"
    if not library.exists():
        pytest.skip("the plug-in loudness is not built")
    bed.stage.install_library("loudness", library)
    shutil.copy(ROOT / "plugins/loudness/loudness.conf", bed.stage.confs)
    bed.stage.grant_everything()
    bed.microphone()

    def start():
        daemon, client = bed.start()
        client.wait_added(PATH)
        return daemon, client

    return start


class Client:
    """One of the examples, running."""

    def __init__(self, bed, compiled, language, *args):
        program = compiled if language == "c" else EXAMPLES / f"listen.{language}"
        environment = base_environment(bed.stage.home) | {
            "DBUS_SYSTEM_BUS_ADDRESS": bed.bus.address,
            "PYTHONDONTWRITEBYTECODE": "1",
        }
        name = f"listen-{len(bed.extra)}"
        self.process = Process([str(program), *args], name, bed.stage.logs, environment)
        bed.extra.append(self.process.kill)

    def lines(self, pattern, start=0):
        return [line for line in self.process.out().splitlines()[start:] if re.search(pattern, line)]

    def wait_line(self, pattern, count=1, start=0):
        def seen():
            lines = self.lines(pattern, start)
            if len(lines) >= count:
                return lines[count - 1]
            assert self.process.alive, (pattern, self.process.out(), self.process.err())
            return None

        return wait_until(
            seen, lambda: f"{count} lines with {pattern}; there is {self.process.out()[-2000:]}{self.process.err()}"
        )


@pytest.fixture
def run(bed, compiled):
    return lambda language, *args: Client(bed, compiled, language, *args)


@pytest.fixture
def scripted(bed):
    """A plug-in of the same names that has the values that it is given."""
    loudness = {"Momentary": ("double", -70.0), "Peak": ("double", -120.0)}
    plugin = bed.plugin(
        "loudness",
        enabled=True,
        interface_name="Loudness",
        settings=[setting("Threshold", "double", -20.0)],
        events=[struct_event("Loudness", loudness), event("Level", "double", -120.0, public=False)],
    )
    bed.microphone()
    _, client = bed.start()
    client.wait_added(PATH)
    return plugin


@in_all_languages
def test_public_event_is_read_and_followed(scripted, run, language):
    example = run(language)
    example.wait_line(f"^source {PLUGIN.rpartition('/')[0]}$")
    example.wait_line(f"^plug-in {PLUGIN}$")
    example.wait_line(rf"^{PLUGIN}: Loudness .*Momentary\W+(d )?-70\b.*Peak\W+(d )?-120\b")
    if language == "sh":
        example.wait_line("is owned by")
    scripted.set("Loudness", [-23.5, -3.25])
    example.wait_line(r"Loudness\b.*Momentary\W+-23\.5\b.*Peak\W+-3\.2")


@with_private_bus
def test_private_event_comes_from_microphones_old_and_new(bed, scripted, run, language):
    example = run(language)
    example.wait_line(f"^{PLUGIN}: Level -120")
    scripted.set("Level", -33.5)
    example.wait_line(f"^{PLUGIN}: Level -33.5$")
    bed.microphone(OTHER_NODE)
    example.wait_line(f"^plug-in {OTHER_PLUGIN}$")
    scripted.set("Level", -44.5, scripted.instance_on(OTHER_NODE))
    example.wait_line(f"^{OTHER_PLUGIN}: Level -44.5$")


@in_all_languages
def test_setting_is_changed_or_the_refusal_is_told(bed, hearing, run, language):
    _, client = hearing()
    run(language, "-18").wait_line(rf"^{PLUGIN}: Threshold is set to -18(\.0)?$")
    assert client.get(PATH, SETTINGS, "Threshold") == -18.0
    # Louder than anything can be.
    line = run(language, "10").wait_line(f"^{PLUGIN}: Threshold stays as it was: ", start=0)
    assert "Unable to get/set property Threshold" in line
    bed.stage.grant(USER, "*HoldTime")
    line = run(language, "-19").wait_line(rf"^{PLUGIN}: Threshold stays as it was: .*caller: {USER}")
    assert "org.freedesktop.DBus.Error.AccessDenied" in line
    assert client.get(PATH, SETTINGS, "Threshold") == -18.0


def test_c_client_ends_with_the_daemon_and_by_signal(hearing, run):
    daemon, _ = hearing()
    first, second = run("c"), run("c")
    for example in (first, second):
        example.wait_line(f"^{PLUGIN}: Level")
    first.process.send_signal(signal.SIGTERM)
    assert first.process.wait() == 0
    daemon.stop()
    assert second.process.wait() == 1
    assert "hear-sense has gone" in second.process.err()


def test_python_client_goes_on_with_the_next_daemon(hearing, run):
    example = run("py")
    example.wait_line("^waiting for hear-sense$")
    daemon, _ = hearing()
    example.wait_line(f"^{PLUGIN}: Level -")
    daemon.stop()
    example.wait_line("^waiting for hear-sense$", 2)
    start = len(example.process.out().splitlines())
    hearing()
    example.wait_line(f"^plug-in {PLUGIN}$", start=start)
    example.wait_line(f"^{PLUGIN}: Level -", start=start)
    example.process.send_signal(signal.SIGINT)
    assert example.process.wait() == -signal.SIGINT
    assert example.process.err() == ""


@pytest.mark.parametrize("language", ["c", "sh"])
def test_client_without_a_daemon_says_so(run, language):
    example = run(language)
    assert example.process.wait() == 1
    assert "hear-sense" in example.process.err()

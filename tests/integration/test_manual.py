"""What the manual shows: each command is run on a live daemon and prints what stands there, each configuration is
loaded, and each message of the daemon is explained."""

import os
import pathlib
import re
import runpy
import shlex
import shutil
import subprocess

import pytest
from bed.daemon import in_namespace
from bed.process import SCALE, wait_until
from bed.servers import system_spa_dir
from bed.stage import SYSTEM_NODE

SOURCE = pathlib.Path(__file__).resolve().parents[2]
MANUAL = SOURCE / "man"
PLUGINS = ("alarm", "loudness", "voice")
IS_ROOT = os.getuid() == 0

#: How loud a tone is depends on how long it has sounded.
LOUDNESS = re.compile(r'((?:Momentary|ShortTerm|Peak)"?(?: d|:) )-?[\d.]+')

#: The page at a path, with all that it includes.
page_text = runpy.run_path(str(MANUAL / "make-page.py"))["read"]


def blocks(path, language):
    """The fenced blocks of a language, without the indentation of a list that they are in."""
    found = re.findall(rf"^( *)```{language}\n(.*?)^\1```$", page_text(path), re.S | re.M)
    return [re.sub(rf"^{indent}", "", text, flags=re.M) for indent, text in found]


def steps(block):
    """(command, what it prints) of each command in a block."""
    for part in re.split(r"^\$ ", block, flags=re.M)[1:]:
        lines = part.splitlines()
        n_more = next((n for n, line in enumerate(lines[1:]) if not line.startswith("> ")), len(lines) - 1)
        yield "\n".join([lines[0], *(line[2:] for line in lines[1 : n_more + 1])]), lines[n_more + 1 :]


def is_shown(shown, printed):
    """Whether a command printed what the page shows, loudness aside, where "..." stands for anything."""
    if shown and re.fullmatch(r"h \d+", shown[0]):
        return bool(re.fullmatch(r"h \d+", printed))
    pattern = ".*".join(map(re.escape, LOUDNESS.sub(r"\1NUMBER", "\n".join(shown)).split("...")))
    return bool(re.fullmatch(pattern, LOUDNESS.sub(r"\1NUMBER", printed)))


PAGES = sorted(MANUAL.rglob("*.[0-9].md"))


def page_name(path):
    return path.name.removesuffix(".md")


@pytest.fixture
def service(bed, build):
    """Starts the daemon with the plug-ins of this tree."""
    for name in PLUGINS:
        folder = build / f"plugins/{name}"
        if not (folder / f"libspa-hs-{name}.so").exists():
            pytest.skip(f"{name} has not been built")
        bed.stage.install_library(name, folder / f"libspa-hs-{name}.so")
        shutil.copy(SOURCE / f"plugins/{name}/{name}.conf", bed.stage.confs)
        for schema in (SOURCE / f"plugins/{name}").glob(f"{name}*.json"):
            shutil.copy(schema, bed.stage.schemas)
    bed.stage.grant_everything()
    bed.start()
    return bed


@pytest.fixture
def device(service):
    """On a microphone that hears a tone."""
    service.microphone()
    client = service.clients[0]
    for name in PLUGINS:
        client.wait_added(f"/com/orvel/HearSense/AudioDevice0Input0/Unprocessed/{name.capitalize()}")
    yield service
    # A page shows how to set this, and other tests share the server.
    service.graph.set_metadata("virtual_node_connection.AudioDevice0Input0")


class Shell:
    """Runs commands as an operator of the device would, below the device's own folders."""

    def __init__(self, bed):
        self.stage = bed.stage
        tools = bed.stage.folder / "bin"
        tools.mkdir()
        for name in ("hsctl", "hs-plugin"):
            if not (bed.stage.build / f"tools/{name}/{name}").exists():
                pytest.skip(f"{name} has not been built")
            shutil.copy(bed.stage.build / f"tools/{name}/{name}", tools)
        # Commands may be another user's.
        bed.stage.folder.chmod(0o755)
        bed.bus.folder.chmod(0o711)
        bed.bus.socket.chmod(0o777)
        self.env = bed.graph.env | {
            "DBUS_SYSTEM_BUS_ADDRESS": bed.bus.address,
            "PATH": f"{tools}:{os.environ['PATH']}",
            "SPA_PLUGIN_DIR": f"{bed.stage.spa}:{system_spa_dir()}",
        }
        self.assignments = []

    def run(self, command):
        """What the command prints, errors too, without blanks at its end."""
        if re.fullmatch(r"\w+=\S+", command):
            self.assignments.append(command)
            return ""
        argv = ["bash", "-c", "\n".join([*self.assignments, command])]
        done = subprocess.run(
            in_namespace(self.stage, argv),
            env=self.env,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            timeout=30 * SCALE,
        )
        return done.stdout.rstrip("\n")


@pytest.mark.seconds(240)
@pytest.mark.parametrize("path", [path for path in PAGES if "```console" in page_text(path)], ids=page_name)
def test_commands_print_what_the_page_shows(device, path):
    shell = Shell(device)
    for block in blocks(path, "console"):
        for command, shown in steps(block):
            if command.startswith("setpriv") and not IS_ROOT:
                continue
            last = [None]

            def prints_that(command=command, shown=shown, last=last):
                last[0] = shell.run(command)
                return is_shown(shown, last[0])

            wait_until(prints_that, lambda: f"{command} to print\n" + "\n".join(shown) + f"\nand not\n{last[0]}", 20)


@pytest.mark.parametrize("path", [path for path in PAGES if "```sh" in page_text(path)], ids=page_name)
def test_commands_for_the_service_are_commands(path):
    """They need a service manager, which the test bed has not: they were tried by hand."""
    known = {"cp", "hear-sense", "hs-plugin", "hsctl", "journalctl", "rm", "systemctl"}
    for block in blocks(path, "sh"):
        subprocess.run(["bash", "-n"], input=block, text=True, check=True)
        for line in block.splitlines():
            words = [word for word in shlex.split(line, comments=True) if not re.match(r"\w+=", word)]
            assert not words or words[0] in known, line


def guide_blocks(number):
    """The commands of a chapter of the installation guide, but for those that need a service manager."""
    guide = (SOURCE / "docs/install.md").read_text(encoding="utf-8")
    chapter = re.search(rf"^## {number}\. .*?(?=^## )", guide, re.S | re.M).group()
    for block in re.findall(r"^```sh\n(.*?)^```$", chapter, re.S | re.M):
        lines = [line for line in block.splitlines() if not line.startswith(("systemctl", "export PIPEWIRE"))]
        yield "\n".join(["set -e", *lines, "echo all well"])


def test_check_of_the_installation_guide_works(service):
    shell = Shell(service)
    listing, reading = guide_blocks(5)
    service.nodes.append(SYSTEM_NODE)
    assert shell.run(listing).endswith("all well")
    instance = "/com/orvel/HearSense/AudioDevice0Input0/Unprocessed/Loudness"
    service.clients[0].wait_added(instance)
    assert instance in shell.run("busctl --system tree com.orvel.HearSense")
    printed = shell.run(reading)
    assert re.match(r'a\{sv\} 3 "Momentary" d ', printed)
    assert '"threshold": -30.000000' in printed
    assert printed.endswith("all well")
    service.clients[0].wait_removed(instance)


def test_pattern_of_the_installation_guide_selects_sound_cards(loudness):
    bed = loudness
    shutil.copy(SOURCE / "plugins/loudness/loudness.conf", bed.stage.confs)
    (block,) = guide_blocks(6)
    assert Shell(bed).run(block) == "all well"
    bed.microphone(CARD_NODE)
    _, client = bed.start()
    client.wait_added(instance_on(CARD_NODE))


def test_rights_of_the_installation_guide_are_rights(service):
    (block,) = guide_blocks(7)
    assert Shell(service).run(block) == "all well"
    text = (service.stage.rights / "rights.d/visitor.conf").read_text()
    assert text in page_text(MANUAL / "hear-sense.8.md").replace("> ", "").replace("nobody", "visitor")


EXAMPLES = blocks(MANUAL / "hear-sense-plugin.conf.5.md", "conf")
CARD_NODE = "alsa_input.pci-0000_00_1f.3.analog-stereo"


@pytest.fixture
def loudness(bed, build):
    library = build / "plugins/loudness/libspa-hs-loudness.so"
    if not library.exists():
        pytest.skip("loudness has not been built")
    bed.stage.install_library("loudness", library)
    bed.stage.conf("loudness", "")
    return bed


def instance_on(node):
    return f"/com/orvel/HearSense/{node.replace('.', '/').replace('-', '_')}/Loudness"


def test_example_with_a_pattern_selects_nodes_and_sets_what_it_says(loudness):
    bed = loudness
    bed.stage.conf("loudness", EXAMPLES[0], bed.stage.overrides)
    bed.microphone(SYSTEM_NODE)
    bed.microphone(CARD_NODE, position=("FL", "FR"))
    _, client = bed.start()
    client.wait_added(instance_on(CARD_NODE))
    assert instance_on(SYSTEM_NODE) not in client.managed_objects()
    settings = client.get_all(instance_on(CARD_NODE), "com.orvel.HearSense.Settings.Loudness")
    assert settings["Enable"] is True
    assert settings["Threshold"] == -25
    stream = bed.graph.node_properties(f"hs-loudness-{CARD_NODE}")
    assert stream["audio.format"] == "F32P"
    assert stream["audio.rate"] == 48000
    assert stream["audio.channels"] == 2
    assert stream["stream.dont-remix"] is True
    client.wait_change(
        "com.orvel.HearSense.Events.Loudness.LoudnessAlarm", "LoudnessAlarm", {"Detected": True, "Report": True}
    )


def test_example_that_matches_nothing_switches_the_plug_in_off(loudness):
    bed = loudness
    bed.stage.conf("loudness", EXAMPLES[1], bed.stage.overrides)
    other = bed.plugin("motion")
    bed.microphone(SYSTEM_NODE)
    _, client = bed.start()
    client.wait_added(other.path())
    assert instance_on(SYSTEM_NODE) not in client.managed_objects()


def test_example_with_sources_names_its_nodes_and_their_settings(loudness):
    bed = loudness
    bed.stage.conf("loudness", EXAMPLES[2], bed.stage.overrides)
    nodes = [f"AudioDevice{n}Input0.Unprocessed" for n in range(3)]
    for node in nodes:
        bed.microphone(node)
    other = bed.plugin("motion")
    _, client = bed.start()
    client.wait_added(other.path(nodes[2]))
    for node in nodes[:2]:
        client.wait_added(instance_on(node))
    assert instance_on(nodes[2]) not in client.managed_objects()
    thresholds = [
        client.get(instance_on(node), "com.orvel.HearSense.Settings.Loudness", "Threshold") for node in nodes[:2]
    ]
    assert thresholds == [-30, -20]
    assert bed.graph.node_properties(f"hs-loudness-{nodes[0]}")["audio.channels"] == 1
    assert "audio.channels" not in bed.graph.node_properties(f"hs-loudness-{nodes[1]}")


def test_there_is_no_example_that_is_not_tried():
    assert len(EXAMPLES) == 3


def test_default_that_the_plug_in_refuses_is_shown_and_not_used(loudness):
    bed = loudness
    bed.stage.conf(
        "loudness",
        "plugin.info = { enable.default = { title = Enable, value = true }\n"
        "threshold.default = { title = Threshold, value = 500 } }",
    )
    bed.microphone(SYSTEM_NODE)
    _, client = bed.start()
    client.wait_added(instance_on(SYSTEM_NODE))
    assert client.get(instance_on(SYSTEM_NODE), "com.orvel.HearSense.Settings.Loudness", "Threshold") == 500
    # The tone is above the plug-in's own default.
    client.wait_change(
        "com.orvel.HearSense.Events.Loudness.LoudnessAlarm", "LoudnessAlarm", {"Detected": True, "Report": True}
    )


def test_node_name_in_the_information_is_what_is_heard(loudness):
    bed = loudness
    bed.stage.conf("loudness", "plugin.info = { node.name = AudioDevice5Input0.Other }")
    bed.microphone(SYSTEM_NODE)
    bed.start()
    stream = bed.graph.node_properties("hs-loudness-AudioDevice5Input0.Other")
    assert stream["target.object"] == "AudioDevice5Input0.Other"


#: Faults of the daemon's own, which the page asks to be reported. Nobody is known to have seen one.
UNEXPLAINED = {
    "Attempting to destroy bus event data for main bus",
    "Failed to write file, path is null",
    "Failed to write file, write callback is null",
    "Freeing bus event data at %p that should already have been destroyed",
    "Metrics module is not initialized. Call hs_metrics_init() first.",
    "Metrics object is NULL",
    "Metrics path is not set",
    "Unknown counter name: %s",
    "Unknown metrics type: %d",
    "Write callback failed",
    "dbus has no source: %s",
}

TEXT = r'"(?:[^"\\]|\\.)*"(?:\s*PRI\w+)?'


def messages():
    """The formats of all errors and warnings; those that a helper logs have their text where that is called."""
    helpers = ("succeeded", "check_step", "close_end", "warn_unparsable")
    for source in [*(SOURCE / "src").glob("*.cpp"), SOURCE / "platform/vetto2/vetto2.cpp"]:
        text = source.read_text(encoding="utf-8")
        for found in re.finditer(rf"pw_log_(?:error|warn)\(\s*((?:{TEXT}\s*)+)", text):
            yield unquoted(found.group(1))
        for helper in helpers:
            for found in re.finditer(rf'(?<!int )\b{helper}\((?:[^;{{]*?,)\s*("[^"/]* [^"/]*")\)', text):
                yield unquoted(found.group(1)) + ": %s"


def unquoted(literals):
    joined = "".join(re.findall(r'"((?:[^"\\]|\\.)*)"', re.sub(r"PRI\w+", '"%s"', literals)))
    return joined.replace('\\"', '"')


def is_explained(message, texts):
    """What varies is a placeholder in the one and a word in capitals, or one such value, in the other."""
    of_message = ".+".join(map(re.escape, re.split(r"%(?:ll)?[a-z]", message)))
    return any(
        re.fullmatch(of_message, text)
        or re.fullmatch(".+".join(map(re.escape, re.split(r"[A-Z]{2,}|\bN\b", text))), message)
        for text in texts
    )


def test_every_error_and_warning_of_the_daemon_is_explained():
    found = {text for text in messages() if text not in ("%s: %s", "%s: %m")}
    assert len(found) > 100
    assert found >= UNEXPLAINED
    page = page_text(MANUAL / "hear-sense.8.md").partition("## Messages")[2]
    texts = [text for text in re.findall(r"`([^`]+)`", re.sub(r"\s+", " ", page)) if " " in text]
    assert [text for text in sorted(found - UNEXPLAINED) if not is_explained(text, texts)] == []

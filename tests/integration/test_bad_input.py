"""What comes from outside and is wrong: told in the log, and no harm to anything beside it."""

import pytest
from bed.client import CallFailed
from bed.stage import SYSTEM_NODE, event, setting, struct_event

CONFS = "/usr/share/hear-sense/plugin-confs"


@pytest.fixture
def neighbour(bed):
    """A sound plug-in with an event, which whatever happens to another must not disturb."""
    return bed.plugin("neighbour", enabled=True, events=[event("Noise")])


def assert_works(client, neighbour, node=SYSTEM_NODE):
    client.wait_added(neighbour.path(node))
    instance = neighbour.instance_on(node)
    neighbour.set("Noise", True, instance)
    client.wait_change(neighbour.event_interface("Noise"), "Noise", True)


# Configuration files


def test_configuration_that_is_a_directory_drops_the_plug_in(bed, neighbour):
    (bed.stage.confs / "broken.conf").mkdir()
    bed.microphone()
    daemon, client = bed.start()
    assert_works(client, neighbour)
    assert daemon.log_count(f"Failed to load config '{CONFS}/broken.conf': ") == 1
    assert daemon.log_count(f"Could not load plugin config file: {CONFS}/broken.conf") == 1


def test_unreadable_configuration_drops_the_plug_in(bed, neighbour):
    bed.stage.conf("broken", {}).chmod(0o000)
    bed.microphone()
    daemon, client = bed.start(privileged=False)
    assert_works(client, neighbour)
    assert daemon.log_count(f"Failed to load config '{CONFS}/broken.conf': Permission denied") == 1
    assert daemon.log_count(f"Could not load plugin config file: {CONFS}/broken.conf") == 1


def test_configuration_that_is_a_dangling_link_drops_the_plug_in(bed, neighbour):
    (bed.stage.confs / "broken.conf").symlink_to("/nonexistent")
    bed.microphone()
    daemon, client = bed.start()
    assert_works(client, neighbour)
    assert daemon.log_count(f"Could not load plugin config file: {CONFS}/broken.conf") == 1


@pytest.mark.parametrize(
    "text",
    [
        "",
        "{",
        "}",
        "not json at all",
        '{ "plugin.config": { "script": ',
        "[ 1, 2 ]",
        '"text"',
        "\x00\x01\x02",
        "{ a = {{{{ }",
    ],
    ids=["empty", "open", "close", "words", "cut", "array", "string", "binary", "nested"],
)
def test_configuration_that_is_no_proper_document_does_no_harm(bed, neighbour, text):
    bed.stage.conf("broken", text)
    bed.stage.install_library("broken")
    bed.microphone()
    daemon, client = bed.start()
    assert_works(client, neighbour)
    client.wait_added("/com/orvel/HearSense/AudioDevice0Input0/Unprocessed/If_broken")
    assert daemon.alive


@pytest.mark.parametrize("value", ["text", "[ 1, 2 ]", "{ broken", 5])
def test_plug_in_part_that_is_no_object_does_no_harm(bed, neighbour, value):
    bed.stage.conf("broken", {"plugin.config": value, "plugin.info": value, "source.0": value})
    bed.stage.install_library("broken")
    bed.microphone()
    daemon, client = bed.start()
    assert_works(client, neighbour)
    assert daemon.alive


def test_configuration_named_only_conf_does_no_harm(bed):
    bed.stage.conf("", {})
    bed.quiet_microphone()
    daemon, client = bed.start()
    assert client.has_owner()
    assert daemon.alive


def test_long_plug_in_name_does_no_harm(bed, neighbour):
    bed.stage.conf("n" * 200, {})
    bed.microphone()
    daemon, client = bed.start()
    assert_works(client, neighbour)
    assert daemon.log_count("Could not load spa handle for 'hear-sense.nnn") == 1


# Settings files


@pytest.mark.parametrize(
    "text",
    [
        "",
        "{",
        "not json at all",
        '{ "gain": ',
        '{ "gain": "2.5',
        "[ 1, 2 ]",
        "\x00\x01\x02",
        '{ "gain": { "x": ',
        '{ "gain" }',
    ],
    ids=["empty", "open", "words", "cut", "cut in a text", "array", "binary", "nested", "no value"],
)
def test_settings_file_that_is_no_proper_document_is_replaced(bed, neighbour, text):
    plugin = bed.plugin(settings=[setting("Gain", "float", 1.5), setting("Label", "string", "x")])
    bed.stage.settings_file(plugin).write_text(text)
    bed.microphone()
    _, client = bed.start()
    assert_works(client, neighbour)
    written = bed.stage.settings_file(plugin).read_text()
    assert written.startswith('{\n "$schema": ') and written.endswith("\n}")
    assert '"enable": false' in written and '"label": "x"' in written


def test_settings_file_that_is_a_directory_costs_only_the_stored_values(bed, neighbour):
    plugin = bed.plugin(settings=[setting("Gain", "float", 1.5)])
    bed.stage.settings_file(plugin).mkdir()
    bed.microphone()
    _, client = bed.start()
    assert_works(client, neighbour)
    client.wait_added(plugin.path())
    assert client.get(plugin.path(), plugin.settings_interface, "Gain") == 1.5
    assert bed.stage.settings_file(plugin).is_dir()


def test_unreadable_settings_file_gives_the_defaults(bed, neighbour):
    plugin = bed.plugin(settings=[setting("Gain", "float", 1.5)])
    path = bed.stage.settings_file(plugin)
    path.write_text('{ "gain": 9.5 }')
    path.chmod(0o000)
    bed.microphone()
    _, client = bed.start(privileged=False)
    assert_works(client, neighbour)
    assert client.get(plugin.path(), plugin.settings_interface, "Gain") == 1.5


def test_read_only_settings_directory_does_no_harm(bed, neighbour):
    plugin = bed.plugin(settings=[setting("Gain", "float", 1.5)])
    bed.stage.settings.chmod(0o500)
    bed.microphone()
    _, client = bed.start(privileged=False)
    assert_works(client, neighbour)
    assert client.get(plugin.path(), plugin.settings_interface, "Gain") == 1.5
    assert list(bed.stage.settings.iterdir()) == []


# Nonsense from the plug-in

NONSENSE = [
    "null",
    "not-object",
    "wrong-object",
    "no-name",
    "no-description",
    "no-type",
    "wrong-name",
    "wrong-type",
    "choice",
    "overflow",
    "big",
    "huge",
    "struct-names",
    "struct-odd",
    "struct-nested",
    "struct-empty",
    "array-nested",
]
#: Of a description that is known already, only the value counts.
NAMELESS = ["no-name", "no-description", "wrong-name"]
#: These have one.
OTHER_VALUES = [*NAMELESS, "big", "struct-empty", "array-nested"]


@pytest.mark.parametrize("pod", NONSENSE)
def test_nonsense_event_spares_its_neighbours(bed, neighbour, pod):
    plugin = bed.plugin(enabled=True, events=[event("First"), event("Broken", pod=pod), event("Last")])
    bed.microphone()
    daemon, client = bed.start()
    assert_works(client, neighbour)
    plugin.wait_call("process")
    for title in ("First", "Last"):
        plugin.set(title, True)
        client.wait_change(plugin.event_interface(title), title, True)
    bed.unplug()
    plugin.wait_call("clear")
    client.wait_removed(plugin.path())
    assert client.managed_objects() == {}
    assert daemon.alive


@pytest.mark.parametrize("pod", NONSENSE)
def test_nonsense_setting_spares_its_neighbours(bed, neighbour, pod):
    plugin = bed.plugin(settings=[setting("First"), setting("Broken", pod=pod), setting("Last")])
    bed.microphone()
    daemon, client = bed.start()
    assert_works(client, neighbour)
    for title in ("First", "Last"):
        assert client.get(plugin.path(), plugin.settings_interface, title) is False
    assert '"last": false' in bed.stage.settings_file(plugin).read_text()
    assert daemon.alive


def turn_state_to(bed, neighbour, pod):
    """What the event State is before and after its plug-in describes it as `pod`."""
    plugin = bed.plugin(
        enabled=True,
        events=[struct_event("State", {"Detected": ("boolean", True), "Report": ("boolean", True)}), event("Other")],
    )
    bed.microphone()
    daemon, client = bed.start()
    assert_works(client, neighbour)
    plugin.wait_call("process")

    def state():
        return client.get(plugin.path(), plugin.event_interface("State"), "State")

    before = state()
    plugin.command(f"pod State {pod}")
    plugin.set("Other", True)
    client.wait_change(plugin.event_interface("Other"), "Other", True)
    after = state()
    bed.unplug()
    plugin.wait_call("clear")
    assert daemon.alive
    return before, after


@pytest.mark.parametrize("pod", [pod for pod in NONSENSE if pod not in OTHER_VALUES])
def test_event_that_turns_to_nonsense_keeps_its_last_value(bed, neighbour, pod):
    before, after = turn_state_to(bed, neighbour, pod)
    assert before == {"Detected": True, "Report": True}
    # Whether it reports is asked of the plug-in at each read.
    assert after == {"Detected": True, "Report": False}


@pytest.mark.parametrize("pod", OTHER_VALUES)
def test_event_that_turns_to_another_value_does_no_harm(bed, neighbour, pod):
    _, after = turn_state_to(bed, neighbour, pod)
    assert after == ({"Detected": True, "Report": True} if pod in NAMELESS else {})


def test_event_of_another_type_than_at_first_does_no_harm(bed):
    plugin = bed.plugin(enabled=True, events=[event("Speech", "string", "someone"), event("Other")])
    bed.microphone()
    daemon, client = bed.start()
    plugin.wait_call("process")
    plugin.command("pod Speech wrong-type")
    plugin.command("pod Speech normal")
    plugin.set("Other", True)
    client.wait_change(plugin.event_interface("Other"), "Other", True)
    assert daemon.alive


@pytest.mark.parametrize(
    "script",
    [
        {"interface_name": None},
        {"interface_name": ""},
        {"interface_name": "no-hyphens"},
        {"interface_name": "9lives"},
        {"interface_name": "x" * 300},
        {"name": None},
        {"name": "n" * 5000},
        {"schema": None, "settings_schema": None},
        {"schema": "s" * 5000, "settings_schema": "s" * 5000},
    ],
    ids=lambda script: ",".join(f"{key}={str(value)[:12]}" for key, value in script.items()),
)
def test_impossible_names_spare_the_neighbours(bed, neighbour, script):
    bed.plugin(enabled=True, events=[event("Speech")], settings=[setting("Gain")], **script)
    bed.microphone()
    daemon, client = bed.start()
    assert_works(client, neighbour)
    bed.unplug()
    client.wait_removed(neighbour.path())
    assert daemon.alive


@pytest.mark.parametrize("title", ["", "with blank", "with.point", "x" * 300, "Tür", 'quo"te', "back\\slash"])
def test_impossible_titles_spare_the_neighbours(bed, neighbour, title):
    plugin = bed.plugin(
        enabled=True,
        events=[event(title), event("Fine")],
        settings=[setting(title, "int32", 1), setting("Good", "int32", 2)],
    )
    bed.microphone()
    daemon, client = bed.start()
    assert_works(client, neighbour)
    plugin.set("Fine", True)
    client.wait_change(plugin.event_interface("Fine"), "Fine", True)
    assert client.get(plugin.path(), plugin.settings_interface, "Good") == 2
    bed.unplug()
    client.wait_removed(neighbour.path())
    assert daemon.alive


def test_same_title_twice_does_no_harm(bed, neighbour):
    plugin = bed.plugin(
        enabled=True,
        events=[event("Speech"), event("Speech")],
        settings=[setting("Gain", "int32", 1), setting("gain", "int32", 2)],
    )
    bed.microphone()
    daemon, client = bed.start()
    assert_works(client, neighbour)
    plugin.wait_call("process")
    bed.unplug()
    plugin.wait_call("clear")
    assert daemon.alive


# Nodes


@pytest.mark.parametrize(
    "name",
    [
        "n" * 300,
        "n" * 2000,
        "with blank.Raw",
        "colon:node.Raw",
        ".leading",
        "trailing.",
        "double..point",
        ".",
        "Küche.Raw",
        "slash/node.Raw",
        "100%s%n.Raw",
        "9.Raw",
    ],
    ids=lambda name: name if len(name) < 30 else f"{len(name)} characters",
)
def test_node_with_an_impossible_name_does_no_harm(bed, neighbour, name):
    plugin = bed.plugin(enabled=True, info={"node.pattern": "."}, events=[event("Speech")], settings=[setting("Gain")])
    daemon, client = bed.start()
    bed.microphone(name)
    plugin.wait_call("load")
    bed.microphone()
    assert_works(client, neighbour)
    bed.unplug(name)
    plugin.wait_call("clear", instance="motion-0")
    assert client.get(neighbour.path(), neighbour.event_interface("Noise"), "Noise") is True
    assert daemon.alive


def test_node_without_a_name_does_no_harm(bed, neighbour):
    plugin = bed.plugin(enabled=True, info={"node.pattern": "."}, events=[event("Speech")])
    daemon, client = bed.start()
    bed.graph.create(
        "spa-node-factory",
        {
            "factory.name": "hs.tone",
            "media.class": "Audio/Source",
        },
    )
    daemon.wait_log("Object added")
    bed.microphone()
    assert_works(client, neighbour)
    client.wait_added(plugin.path())
    for number in bed.graph.nodes().get("", []):
        bed.graph.command(f"destroy {number}")
    bed.graph.wait_node("", 0)
    assert client.get(neighbour.path(), neighbour.event_interface("Noise"), "Noise") is True
    assert daemon.alive


# Clients


def test_calls_to_nothing_are_answered_with_errors(bed, neighbour):
    bed.microphone()
    daemon, client = bed.start()
    assert_works(client, neighbour)
    for path, interface, member in (
        ("/nowhere", "com.orvel.HearSense", "GetPrivateBus"),
        ("/", "com.orvel.HearSense", "Nothing"),
        (neighbour.path(), "com.orvel.Nothing", "Get"),
    ):
        with pytest.raises(CallFailed):
            client.call(path, interface, member)
    assert daemon.alive


def test_client_that_never_reads_does_not_stop_the_others(bed, neighbour):
    bed.microphone()
    daemon, client = bed.start()
    deaf = bed.client()
    for _ in range(200):
        deaf.send("/", "org.freedesktop.DBus.ObjectManager", "GetManagedObjects")
    assert_works(client, neighbour)
    assert daemon.alive

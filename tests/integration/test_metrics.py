"""The counters' files."""

import pytest
from bed.stage import SYSTEM_NODE, event

CONTENT = """{{
    "name": "{name}",
    "source": "{node}",
    "enabled_count": {enabled},
    "disabled_count": {disabled},
    "dbus_object_path": "{path}",
    "dbus_interface": "{interface}"
}}
"""


def content(plugin, name="The motion plug-in", node=SYSTEM_NODE, enabled=0, disabled=0):
    return CONTENT.format(
        name=name,
        node=node,
        enabled=enabled,
        disabled=disabled,
        path=plugin.path(node),
        interface=plugin.settings_interface,
    )


@pytest.fixture
def run(bed):
    def start(before=None, node=SYSTEM_NODE, **script):
        plugin = bed.plugin(**script)
        if before is not None:
            bed.stage.metrics_file(plugin, node).write_text(before)
        bed.quiet_microphone(node)
        daemon, client = bed.start()
        client.wait_added(plugin.path(node))
        return plugin, daemon

    return start


def test_new_file_has_its_name_and_exact_content(bed, run):
    plugin, _ = run()
    assert [path.name for path in bed.stage.metrics.iterdir()] == [
        "motion_AudioDevice0Input0_Unprocessed_source_metrics.json"
    ]
    assert bed.stage.metrics_file(plugin).read_text() == content(plugin)


def test_counts_of_an_existing_file_are_kept(bed, run):
    plugin, _ = run('{ "enabled_count": 12, "disabled_count" : "7" }')
    assert bed.stage.metrics_file(plugin).read_text() == content(plugin, enabled=12, disabled=7)


def test_missing_counts_start_at_0(bed, run):
    plugin, _ = run('{ "enabled_count": 12 }')
    assert bed.stage.metrics_file(plugin).read_text() == content(plugin, enabled=12)


def test_file_that_is_no_json_is_replaced(bed, run):
    plugin, _ = run("hello")
    assert bed.stage.metrics_file(plugin).read_text() == content(plugin)


def test_first_occurrence_of_a_key_counts(bed, run):
    plugin, _ = run('{ "name": "enabled_count 5", "enabled_count": 12 }')
    assert bed.stage.metrics_file(plugin).read_text() == content(plugin, enabled=5)


def test_empty_file_stays_empty(bed, run):
    plugin, daemon = run("")
    path = "/etc/hear-sense/metrics/motion_AudioDevice0Input0_Unprocessed_source_metrics.json"
    assert daemon.log_count(f"Failed to read metrics file at path: {path}") == 1
    assert bed.stage.metrics_file(plugin).read_text() == ""


def test_keys_beyond_the_first_1023_bytes_count_as_absent(bed, run):
    plugin, _ = run('{ "enabled_count": 3, "x": "' + "x" * 1100 + '", "disabled_count": 4 }')
    assert bed.stage.metrics_file(plugin).read_text() == content(plugin, enabled=3, disabled=0)


def test_points_of_the_node_become_underscores_in_the_file_name_only(bed, run):
    plugin, _ = run(node="Hall.Left.Raw", info={"node.pattern": "."})
    path = bed.stage.metrics / "motion_Hall_Left_Raw_source_metrics.json"
    assert path.read_text() == content(plugin, node="Hall.Left.Raw")


def test_texts_are_written_as_they_are(bed, run):
    plugin, _ = run(name='A "quoted" name')
    assert bed.stage.metrics_file(plugin).read_text() == content(plugin, name='A "quoted" name')


def test_file_that_is_a_directory_is_left_alone(bed):
    plugin = bed.plugin(events=[event("Speech")])
    bed.stage.metrics_file(plugin).mkdir()
    bed.quiet_microphone()
    daemon, client = bed.start()
    client.wait_added(plugin.path())
    assert daemon.log_count("metrics file at path: ") == 1
    assert list(bed.stage.metrics_file(plugin).iterdir()) == []
    assert client.get(plugin.path(), plugin.event_interface("Speech"), "Speech") is False


def test_unreadable_file_is_left_alone(bed):
    plugin = bed.plugin()
    path = bed.stage.metrics_file(plugin)
    path.write_text("secret")
    path.chmod(0o000)
    bed.quiet_microphone()
    daemon, client = bed.start(privileged=False)
    client.wait_added(plugin.path())
    assert daemon.log_count("Failed to open metrics file at path: ") == 1
    path.chmod(0o600)
    assert path.read_text() == "secret"


def test_missing_directory_is_a_warning_and_nothing_more(bed):
    plugin = bed.plugin()
    bed.stage.metrics.rmdir()
    bed.quiet_microphone()
    daemon, client = bed.start()
    client.wait_added(plugin.path())
    assert daemon.log_count("Failed to write metrics file at path: ") == 1

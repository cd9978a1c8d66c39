"""Which configuration files are found, and which of two of the same name counts."""

DEFAULT = "/usr/share/hear-sense/plugin-confs"
OVERRIDE = "/etc/hear-sense/plugin-confs"


def loaded(daemon):
    """The paths of the configuration files that were loaded, in order."""
    return [line.split("Loaded config '")[1].split("'")[0] for line in daemon.log_lines("Loaded config '")]


def test_files_are_taken_in_alphabetical_order_and_only_conf_files(bed):
    for name in ("b", "a"):
        bed.stage.conf(name, {})
    (bed.stage.confs / "notes.txt").write_text("{}")
    (bed.stage.confs / "conf").write_text("{}")
    daemon, _ = bed.start()
    assert loaded(daemon) == [f"{DEFAULT}/a.conf", f"{DEFAULT}/b.conf"]


def test_override_replaces_a_file_and_adds_none(bed):
    for name in ("a", "b"):
        bed.stage.conf(name, {})
    for name in ("a", "z"):
        bed.stage.conf(name, {}, bed.stage.overrides)
    daemon, _ = bed.start()
    assert loaded(daemon) == [f"{OVERRIDE}/a.conf", f"{DEFAULT}/b.conf"]


def test_override_of_another_case_or_longer_name_replaces_nothing(bed):
    bed.stage.conf("a", {})
    for name in ("A", "aa", "a.conf"):
        bed.stage.conf(name, {}, bed.stage.overrides)
    daemon, _ = bed.start()
    assert loaded(daemon) == [f"{DEFAULT}/a.conf"]


def test_config_path_means_no_override(bed):
    folder = bed.stage.folder / "mine"
    folder.mkdir()
    bed.stage.conf("a", {}, folder)
    bed.stage.conf("a", {}, bed.stage.overrides)
    daemon, _ = bed.start(["--config-path", str(folder)])
    assert loaded(daemon) == [f"{folder}/a.conf"]


def test_missing_override_directory_is_warned_of_for_each_file(bed):
    bed.stage.overrides.rmdir()
    for name in ("a", "b"):
        bed.stage.conf(name, {})
    daemon, _ = bed.start()
    assert daemon.log_count(f"access {OVERRIDE} failed: No such file or directory") == 2
    assert loaded(daemon) == [f"{DEFAULT}/a.conf", f"{DEFAULT}/b.conf"]


def test_unreadable_override_directory_falls_back_to_the_default_file(bed):
    bed.stage.conf("a", {})
    bed.stage.conf("a", {}, bed.stage.overrides)
    bed.stage.overrides.chmod(0o000)
    daemon, _ = bed.start(privileged=False)
    assert daemon.log_count(f"access {OVERRIDE} failed: Permission denied") == 1
    assert loaded(daemon) == [f"{DEFAULT}/a.conf"]


def test_empty_file_counts_as_loaded_with_0_items(bed):
    bed.stage.conf("a", "")
    daemon, _ = bed.start()
    assert daemon.log_count(f"Loaded config '{DEFAULT}/a.conf' with 0 items") == 1
    assert daemon.log_count("Could not load plugin config file") == 0


def test_items_are_counted_with_duplicates(bed):
    bed.stage.conf("a", "{ a = 1 a = 2 b = 3 }")
    daemon, _ = bed.start()
    assert daemon.log_count(f"Loaded config '{DEFAULT}/a.conf' with 3 items") == 1


def test_default_directory_without_files_is_no_error(bed):
    daemon, client = bed.start()
    assert loaded(daemon) == []
    assert client.managed_objects() == {}


def test_missing_default_directory_is_no_error(bed):
    bed.stage.confs.rmdir()
    bed.stage.conf("a", {}, bed.stage.overrides)
    daemon, _ = bed.start()
    assert daemon.log_count("No plugin configurations installed.") == 1
    assert loaded(daemon) == []


def test_configuration_file_from_the_override_is_the_one_that_is_used(bed):
    plugin = bed.plugin(config={"colour": "default"})
    content = (bed.stage.confs / "motion.conf").read_text().replace('"default"', '"override"')
    bed.stage.conf("motion", content, bed.stage.overrides)
    bed.quiet_microphone()
    bed.start()
    assert plugin.wait_call("load")["config"]["colour"] == "override"

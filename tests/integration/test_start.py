"""Start-up, the command line and the exit statuses."""

import os
import re
import resource
import signal
import subprocess

import pytest
from bed.client import ALLOW_REPLACEMENT, REPLACE_EXISTING, SERVICE
from bed.process import wait_until
from bed.servers import Bus

USAGE = (
    "{} [options]\n"
    "  -h, --help                      Show this help\n"
    "  -c, --config-path               Path to load configs (Default /usr/share/hear-sense/plugin-confs/)\n"
)


@pytest.mark.parametrize("args", [["-h"], ["--help"], ["-h", "-c", "x"], ["-c", "x", "-h"], ["-h", "--nonsense"]])
def test_help_prints_the_usage_and_ends_with_0(bed, args):
    daemon = bed.spawn(args)
    assert daemon.status() == 0
    assert daemon.out() == USAGE.format(bed.stage.build / "src/hear-sense")


@pytest.mark.parametrize("args", [["--nonsense"], ["-x"], ["-c"], ["--nonsense", "-h"], ["--help=x"]])
def test_unknown_option_ends_with_1_and_getopts_message_only(bed, args):
    daemon = bed.spawn(args)
    assert daemon.status() == 1
    assert daemon.out() == ""
    assert "hear-sense: " in daemon.log()
    assert "[E]" not in daemon.log()
    assert bed.stage.files() == []


def test_operands_are_ignored(bed):
    daemon, _ = bed.start(["some", "operands"])
    assert daemon.alive


def test_start_up_logs_its_steps_in_order(bed):
    daemon, _ = bed.start()
    log = daemon.log()
    assert daemon.log_count("Starting.") == 1
    assert log.index("Starting.") < log.index("add object manager") < log.index("request name")
    for level, text in (("[I]", "Starting."), ("[D]", "add object manager"), ("[D]", "request name")):
        assert [line[:3] for line in daemon.log_lines(text)] == [level]


@pytest.mark.parametrize("args", [["-h"], ["--nonsense"]])
def test_start_is_told_before_the_command_line_is_read(bed, args):
    daemon = bed.spawn(args)
    daemon.status()
    assert daemon.log_count("] Starting.") == 1


def assert_in_order(daemon, *patterns):
    """Each line of the log comes for the first time after all those before it."""
    lines = daemon.log().splitlines()
    seen = [next((i for i, line in enumerate(lines) if re.search(p, line)), None) for p in patterns]
    assert None not in seen and seen == sorted(seen), dict(zip(patterns, seen))


def test_start_up_takes_its_steps_in_order(bed):
    bed.plugin(enabled=True)
    _, env = with_double(bed, HS_TRACE_CALLS="1")
    daemon, _ = bed.start(program="tests/unit/hear-sense-failing", env=env | {"HS_DOUBLE_LOG": "/dev/stderr"})
    assert_in_order(
        daemon,
        r"\] Starting\.$",
        "^call pw_main_loop_new$",
        "^call sd_bus_open_system$",
        "^init$",
        "^call pw_context_new$",
        "^call pw_context_connect null 0$",
        "^call pw_core_get_registry 3 0$",
        "^call sd_bus_match_signal$",
        "^call sd_bus_call$",
        "Loaded config '",
        "^call sd_bus_add_object_vtable$",
        "add object manager$",
        "^call sd_bus_add_object_manager$",
        "request name$",
        "^call sd_bus_request_name$",
        "^call sd_bus_get_fd$",
    )


def test_shut_down_takes_its_steps_in_order(bed):
    plugin = bed.plugin(enabled=True)
    bed.quiet_microphone()
    _, env = with_double(bed)
    daemon, client = bed.start(env=env | {"HS_DOUBLE_LOG": "/dev/stderr", "PIPEWIRE_DEBUG": "4"})
    client.wait_added(plugin.path())
    assert daemon.stop() == 0
    assert_in_order(
        daemon,
        "Got signal 15$",
        r"Exiting\.$",
        r"hs_context_destroy\(\)\] 0x[0-9a-f]+: destroy$",
        ": destroy plugin ",
        ": destroy source configuration$",
        ": destroy pw-source ",
        ": destroy dbus ",
        r"pw\.core .*pw_core_disconnect\(\)",
        r"pw\.context .*pw_context_destroy\(\)",
        r"pw_main_loop_destroy\(\)",
        "^release$",
    )


def test_pipewire_context_asks_for_no_data_loops(bed):
    daemon, _ = bed.start()
    assert str(bed.graph.clients()[daemon.pid]["context.num-data-loops"]) == "0"


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_signal_ends_the_daemon_with_0(bed, number):
    daemon, _ = bed.start()
    assert daemon.stop(number) == 0
    assert daemon.log_count(f"Got signal {number}") == 1
    assert daemon.log_count("Exiting.") == 1


def test_last_config_path_counts(bed):
    first, second = bed.stage.folder / "first", bed.stage.folder / "second"
    for folder, name in ((first, "one"), (second, "two")):
        folder.mkdir()
        bed.stage.conf(name, {"plugin.config": {}}, folder)
    daemon, _ = bed.start(["-c", str(first), "--config-path", str(second)])
    assert daemon.log_count(f"Loaded config '{second}/two.conf'") == 1
    assert daemon.log_count("one.conf") == 0


def test_missing_system_bus_is_logged_and_ends_with_1(bed):
    daemon = bed.spawn(bus_address="unix:path=/nonexistent/bus")
    assert daemon.status() == 1
    assert daemon.log_count("Could not open system bus: No such file or directory") == 1


def test_missing_session_bus_is_logged_and_ends_with_1(bed):
    daemon = bed.spawn(env={"HS_USE_SESSION_BUS": "true"})
    assert daemon.status() == 1
    assert daemon.log_count("Could not open session bus: No such file or directory") == 1
    assert daemon.log_lines("Could not open session bus: ")[0].startswith("[E]")


def test_missing_bus_of_any_other_value_is_the_system_bus(bed):
    daemon = bed.spawn(bus_address="unix:path=/nonexistent/bus", env={"HS_USE_SESSION_BUS": "TRUE"})
    assert daemon.status() == 1
    assert [line[:3] for line in daemon.log_lines("Could not open system bus: ")] == ["[E]"]


def test_missing_pipewire_is_one_error_and_ends_with_1(bed):
    daemon = bed.spawn(graph=None)
    assert daemon.status() == 1
    errors = [line for line in daemon.log_lines("[E]") if "hear-sense" in line]
    assert len(errors) == 1, errors
    assert daemon.log_count("request name") == 0


@pytest.mark.parametrize("flags", [0, ALLOW_REPLACEMENT], ids=["for good", "until somebody takes it"])
def test_name_that_is_taken_ends_with_1_and_leaves_it_to_its_owner(bed, flags):
    owner = bed.client()
    assert owner.own(SERVICE, flags) == 1
    daemon = bed.spawn()
    assert daemon.status() == 1
    assert daemon.log_count("Could not aquire name on bus: File exists") == 1
    # Still.
    assert owner.own(SERVICE) == 4


def test_name_is_given_up_to_nobody(bed):
    daemon, client = bed.start()
    assert client.own(SERVICE, REPLACE_EXISTING) == 3
    assert client.managed_objects() == {}
    assert daemon.alive


def test_second_daemon_ends_with_1_and_the_first_goes_on(bed):
    first, client = bed.start()
    second = bed.spawn()
    assert second.status() == 1
    assert second.log_count("Could not aquire name on bus: File exists") == 1
    assert client.managed_objects() == {}
    assert first.alive


@pytest.fixture
def session_bus(bed):
    bus = Bus(bed.stage.folder, "session")
    bed.extra.append(bus.stop)
    return bus


def with_double(bed, **env):
    """The environment that puts the double of the rights library before the real one."""
    log = bed.stage.folder / "rights.log"
    folder = bed.stage.build / "tests/plugins/vetto2-double"
    return log, {"LD_LIBRARY_PATH": str(folder), "HS_DOUBLE_LOG": str(log)} | env


def test_system_bus_initialises_and_releases_the_rights_library(bed):
    log, env = with_double(bed)
    daemon, _ = bed.start(env=env)
    assert log.read_text() == "init\n"
    assert daemon.stop() == 0
    assert log.read_text() == "init\nrelease\n"


def test_session_bus_is_used_and_the_rights_library_only_released(bed, session_bus):
    log, env = with_double(bed, HS_USE_SESSION_BUS="true", DBUS_SESSION_BUS_ADDRESS=session_bus.address)
    client = bed.client(session_bus.address)
    daemon = bed.spawn(env=env)
    daemon.wait_ready(client)
    assert not bed.client().has_owner()
    assert not log.exists()
    assert daemon.stop() == 0
    assert log.read_text() == "release\n"


@pytest.mark.parametrize("value", ["TRUE", "", "1", "false"])
def test_any_other_value_takes_the_system_bus_without_the_rights_library(bed, session_bus, value):
    log, env = with_double(bed, HS_USE_SESSION_BUS=value, DBUS_SESSION_BUS_ADDRESS=session_bus.address)
    daemon, _ = bed.start(env=env)
    assert not bed.client(session_bus.address).has_owner()
    assert not log.exists()
    assert daemon.stop() == 0
    assert log.read_text() == "release\n"


def test_rights_library_that_fails_ends_the_daemon_with_255_and_no_clean_up(bed):
    log, env = with_double(bed, HS_DOUBLE_FAIL="no rights today")
    env["ASAN_OPTIONS"] = "detect_leaks=0"
    daemon = bed.spawn(env=env)
    assert daemon.process.wait() == 255
    daemon.ended = True
    failures = daemon.log_lines("Failed to initialize libvetto: code 7: no rights today")
    assert [line[:3] for line in failures] == ["[E]"]
    assert log.read_text() == "init\n"


def test_help_leaves_the_rights_library_alone(bed):
    log, env = with_double(bed)
    assert bed.spawn(["-h"], env=env).status() == 0
    assert not log.exists()


def test_help_connects_to_nothing(bed):
    daemon = bed.spawn(["-h"], program="tests/unit/hear-sense-failing", env={"HS_TRACE_CALLS": "1"})
    assert daemon.status() == 0
    assert daemon.log_lines("call ") == []


def test_unknown_option_releases_the_rights_library(bed):
    log, env = with_double(bed)
    assert bed.spawn(["--nonsense"], env=env).status() == 1
    assert log.read_text() == "release\n"


def test_missing_configuration_directory_serves_the_bus_without_plug_ins(bed):
    daemon, client = bed.start(["-c", "/nonexistent"])
    assert daemon.log_count("No plugin configurations installed.") == 1
    assert client.managed_objects() == {}


def test_configuration_directory_that_is_a_file_counts_as_missing(bed):
    path = bed.stage.conf("motion", "{}")
    daemon, client = bed.start(["-c", str(path)])
    assert daemon.log_count("No plugin configurations installed.") == 1
    assert client.managed_objects() == {}


def test_unreadable_configuration_directory_ends_quietly_with_0(bed):
    locked = bed.stage.folder / "locked"
    locked.mkdir(mode=0o000)
    log, env = with_double(bed)
    daemon = bed.spawn(["-c", str(locked)], env=env, privileged=False)
    assert daemon.status() == 0
    assert daemon.log_count(f"access {locked} failed: Permission denied") == 1
    assert daemon.log_lines(f"access {locked} failed: ")[0].startswith("[W]")
    assert [line for line in daemon.log_lines("[E]") if "hear-sense" in line] == []
    assert daemon.log_count("request name") == 0
    assert log.read_text() == "init\nrelease\n"


def test_private_bus_method_is_offered_at_the_root(bed):
    _, client = bed.start()
    xml = client.introspect("/")
    assert re.search(
        r'<interface name="com\.orvel\.HearSense">\s*<method name="GetPrivateBus">\s*<arg type="s"[^>]*direction="in"/>'
        r'\s*<arg type="h"[^>]*direction="out"/>',
        xml,
    ), xml
    assert 'name="org.freedesktop.DBus.ObjectManager"' in xml


def test_audio_arrives_on_the_main_thread(bed):
    plugin = bed.plugin(enabled=True, events=[{"title": "Speech", "info": {"is_public": True}}])
    bed.microphone()
    bed.start()
    plugin.wait_call("process")
    assert all(call["main_thread"] for call in plugin.record())


def test_loop_waits_for_its_turn_and_the_thread_that_brings_buffers_does_not(bed):
    daemon, _ = bed.start()
    policies = {int(tid): os.sched_getscheduler(int(tid)) for tid in os.listdir(f"/proc/{daemon.pid}/task")}
    assert policies.pop(daemon.pid) == os.SCHED_BATCH
    assert policies and os.SCHED_BATCH not in policies.values()


def test_soft_limit_of_descriptors_is_raised_to_the_hard_one(bed):
    daemon, _ = bed.start(wrapper=["prlimit", "--nofile=64:128", "--"])
    assert resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE) == (128, 128)


def test_bus_that_goes_away_ends_the_daemon_with_0(own_bed):
    daemon, _ = own_bed.start()
    own_bed.bus.stop()
    assert daemon.status() == 0
    assert daemon.log_count("Failed to process bus event: ") == 1
    # A bus that fails and one that is closed each end the loop, and both may be seen in one round.
    assert daemon.log_count("Exiting.") in (1, 2)


def test_pipewire_that_goes_away_is_one_error_and_ends_the_daemon_with_0(own_bed):
    plugin = own_bed.plugin(enabled=True, events=[{"title": "Speech", "info": {"is_public": True}}])
    own_bed.microphone()
    daemon, _ = own_bed.start()
    plugin.wait_call("process")
    own_bed.graph.server.kill()
    assert daemon.status() == 0
    assert [line[:3] for line in daemon.log_lines("PipeWire connection lost: ")] == ["[E]"]
    assert daemon.log_count("Exiting.") == 1
    assert plugin.methods("clear") == ["clear"]


def test_daemon_leaves_no_child_behind(bed):
    daemon, _ = bed.start()
    group = daemon.process.pid
    assert daemon.stop() == 0
    wait_until(
        lambda: subprocess.run(["ps", "-o", "pid=", "--sid", str(group)], capture_output=True).stdout.strip() == b"",
        "an empty session",
    )

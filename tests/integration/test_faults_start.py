"""Calls that fail while the daemon starts: one error, its exit status, and nothing left behind.

The program is the daemon's own main, linked so that a call can fail; see tests/unit/failing-calls.hpp.
"""

import pytest
from bed.stage import event

PROGRAM = "tests/unit/hear-sense-failing"

#: the call, and what is logged instead
FATAL = [
    ("pw_main_loop_new", "Could not create main loop: Input/output error"),
    ("sd_bus_open_system", "Could not open system bus: Input/output error"),
    ("pw_context_new", "Could not create PipeWire context: Input/output error"),
    ("pw_context_connect", "Could not connect to PipeWire: Input/output error"),
    ("pw_core_get_registry", "Could not get the registry of PipeWire: Input/output error"),
    ("sd_bus_add_object_vtable", "Could not add method GetPrivateBus to /"),
    ("sd_bus_add_object_manager", "Could not add object manager: Input/output error"),
    ("sd_bus_request_name", "Could not aquire name on bus: Input/output error"),
]

SURVIVED = [
    ("sd_bus_add_filter", "Could not guard bus "),
    ("sd_bus_match_signal", "Could not setup match signal: Input/output error"),
    ("sd_bus_message_new_method_call", "Feature flag check failed: Input/output error"),
    ("sd_bus_call", "Feature flag check failed: Input/output error"),
]


def errors(daemon):
    return [line for line in daemon.log_lines("[E]") if "hear-sense" in line]


@pytest.mark.parametrize("call, message", FATAL)
def test_start_that_fails_is_one_error_and_status_1(bed, call, message):
    bed.plugin(enabled=True, events=[event("Speech")])
    daemon = bed.spawn(program=PROGRAM, env={"HS_FAIL_CALL": call})
    assert daemon.status() == 1
    assert len(errors(daemon)) == 1 and message in errors(daemon)[0], daemon.tail()


#: Without it the main loop can not run; all else is ready by then.
MAIN_LOOP = "sd_bus_get_fd"

#: Nothing has asked for rights before the system bus is open.
WITHOUT_RIGHTS = ("pw_main_loop_new", "sd_bus_open_system")


@pytest.mark.parametrize("call", [*(call for call, _ in FATAL), MAIN_LOOP])
def test_start_that_fails_gives_the_rights_library_back(bed, call):
    log = bed.stage.folder / "rights.log"
    env = {
        "LD_LIBRARY_PATH": str(bed.stage.build / "tests/plugins/vetto2-double"),
        "HS_DOUBLE_LOG": str(log),
        "HS_FAIL_CALL": call,
    }
    assert bed.spawn(program=PROGRAM, env=env).status() == 1
    assert log.read_text() == ("release\n" if call in WITHOUT_RIGHTS else "init\nrelease\n")


def test_main_loop_that_can_not_run_ends_with_1(bed):
    daemon = bed.spawn(program=PROGRAM, env={"HS_FAIL_CALL": MAIN_LOOP})
    assert daemon.status() == 1
    assert daemon.log_count("request name") == 1


@pytest.mark.parametrize("call, message", SURVIVED)
def test_start_goes_on_without_what_it_can_do_without(bed, call, message):
    plugin = bed.plugin(enabled=True, events=[event("Speech")])
    bed.microphone()
    daemon, client = bed.start(program=PROGRAM, env={"HS_FAIL_CALL": call})
    client.wait_added(plugin.path())
    plugin.wait_call("process")
    assert daemon.log_count(message) == 1


def test_audio_that_cannot_be_started_is_one_error_and_the_objects_stay(bed):
    plugin = bed.plugin(enabled=True, events=[event("Speech")])
    bed.microphone()
    daemon, client = bed.start(program=PROGRAM, env={"HS_FAIL_CALL": "pw_stream_connect"})
    client.wait_added(plugin.path())
    assert daemon.log_count("Couldn't connect to stream for plugin 'motion'") == 1
    assert client.get(plugin.path(), plugin.event_interface("Speech"), "Speech") is False
    assert plugin.calls("init") == []
    bed.unplug()
    client.wait_removed(plugin.path())
    bed.microphone()
    client.wait_added(plugin.path(), 2)
    plugin.wait_call("process")

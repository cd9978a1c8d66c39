"""hsctl, the tool of operators, with a daemon that it looks into."""

import errno
import fcntl
import json
import os
import pathlib
import pty
import pwd
import re
import select
import shlex
import signal
import struct
import subprocess
import termios

import pytest
from bed.client import CallFailed
from bed.process import SCALE, Process, wait_until
from bed.servers import Bus, base_environment
from bed.stage import SYSTEM_NODE, event, setting, struct_event

OTHER_NODE = "AudioDevice1Input0.Unprocessed"
NAME = f"if_motion@{SYSTEM_NODE}"
OTHER_NAME = f"if_motion@{OTHER_NODE}"
USER = pwd.getpwuid(os.getuid()).pw_name

OK, FAILED, USAGE, UNREACHABLE = range(4)

COMMANDS = [
    "status", "list", "show", "get", "set", "enable", "disable", "monitor", "top", "trigger", "indicate"
]  # fmt: skip


class Tool:
    """hsctl on the bed's bus."""

    def __init__(self, bed):
        self.bed = bed
        self.program = bed.stage.build / "tools/hsctl/hsctl"
        self.environment = base_environment(bed.stage.home) | {
            "DBUS_SYSTEM_BUS_ADDRESS": bed.bus.address,
            "ASAN_OPTIONS": "exitcode=98",
        }
        self.n_spawned = 0

    def run(self, *args, status=OK, env=None):
        ended = subprocess.run(
            [self.program, *args],
            env=self.environment | (env or {}),
            capture_output=True,
            text=True,
            timeout=30 * SCALE,
            stdin=subprocess.DEVNULL,
        )
        assert ended.returncode == status, (args, ended.returncode, ended.stdout, ended.stderr)
        return ended

    def out(self, *args, **kwargs):
        return self.run(*args, **kwargs).stdout

    def json(self, *args, **kwargs):
        return json.loads(self.out("--json=short", *args, **kwargs))

    def refused(self, *args, status=USAGE):
        """What a call that must not succeed says; it prints nothing."""
        ended = self.run(*args, status=status)
        assert ended.stdout == ""
        return ended.stderr

    def spawn(self, *args, env=None):
        self.n_spawned += 1
        process = Process(
            [str(self.program), *args], f"hsctl-{self.n_spawned}", self.bed.stage.logs, self.environment | (env or {})
        )
        self.bed.extra.append(process.kill)
        return process


@pytest.fixture
def tool(bed):
    if not (bed.stage.build / "tools/hsctl/hsctl").exists():
        pytest.skip("hsctl has not been built")
    return Tool(bed)


@pytest.fixture
def hearing(bed):
    """Starts a plug-in that hears, on one microphone or several."""

    def start(*nodes, **kwargs):
        bed.stage.grant_everything()
        plugin = bed.plugin(
            **{
                "enabled": True,
                "settings": [
                    setting("Gain", "int32", 1),
                    setting("Depth", "double", 0.5),
                    setting("Label", "string", "here"),
                    setting("Fast"),
                ],
                "events": [
                    event("Speech"),
                    event("Level", "double", -20.0, public=False),
                    event("Count", "int32", 0),
                    struct_event("Alarm", {"Detected": ("boolean", False), "Report": ("boolean", False)}),
                ],
            }
            | kwargs
        )
        for node in nodes or (SYSTEM_NODE,):
            bed.microphone(node)
        daemon, client = bed.start()
        for node in nodes or (SYSTEM_NODE,):
            client.wait_added(plugin.path(node))
        if plugin.script_path and kwargs.get("enabled", True):
            plugin.wait_call("process")
        return plugin, daemon, client

    return start


def lines_of(process):
    whole, _, _ = process.out().rpartition("\n")
    return [json.loads(line) for line in whole.splitlines()]


def wait_line(process, title, value=None, start=0):
    """The last line of an event, with that value if told, once there is one."""

    def fitting():
        assert process.alive, process.err()
        return [
            line
            for line in lines_of(process)[start:]
            if line["event"] == title and value in (None, line["value"])
        ]

    return wait_until(fitting, lambda: f"the event {title}; there is {lines_of(process)[-5:]}; {process.err()}")[-1]


def wait_said(process, text):
    wait_until(lambda: text in process.err(), lambda: f"{text!r} on standard error; there is {process.err()!r}")


def wait_listening(process, client, plugin):
    """Waits until the process prints what is announced, and forgets what it has printed so far."""

    def printed():
        client.call(plugin.path(), plugin.event_interface("Alarm") + ".Methods", "TriggerEvent")
        return any(line["event"] == "Alarm" for line in lines_of(process))

    wait_until(printed, lambda: "a line of the event: " + process.err(), interval=0.1)


def without_escapes(text):
    return re.sub("\033(\\[[0-9;?]*[a-zA-Z]|[=>]|\\([A-Z0-9])", "", text)


class Terminal:
    """A program on a terminal of 30 lines of 120 columns."""

    def __init__(self, program, args, env):
        self.text = ""
        self._ended = False
        self.pid, self._end = pty.fork()
        if self.pid == 0:
            fcntl.ioctl(0, termios.TIOCSWINSZ, struct.pack("HHHH", 30, 120, 0, 0))
            os.execve(program, [str(program), *args], env)

    def _read(self, seconds):
        """Takes what has come; false at the end."""
        if not select.select([self._end], [], [], seconds)[0]:
            return True
        try:
            part = os.read(self._end, 65536)
        except OSError:
            part = b""
        self.text += part.decode(errors="replace")
        self._ended = self._ended or not part
        return bool(part)

    def wait(self, pattern, start=0):
        """The match of the pattern in what has been written since the index `start`."""

        def found():
            match = re.search(pattern, self.text[start:], re.S)
            assert match or not self._ended, (pattern, self.text[start:])
            return match or (self._read(0.05) and None)

        return wait_until(found, lambda: f"{pattern!r}; there is {self.text[start:]!r}", interval=0)

    def poll(self):
        """Takes what has come, without waiting."""
        return self._read(0)

    def type(self, keys):
        os.write(self._end, keys.encode())

    def resize(self, lines, columns):
        fcntl.ioctl(self._end, termios.TIOCSWINSZ, struct.pack("HHHH", lines, columns, 0, 0))

    def wait_end(self):
        """The exit status."""
        wait_until(lambda: not self._read(0.05), lambda: f"the end; there is {self.text[-2000:]!r}", interval=0)
        _, status = os.waitpid(self.pid, 0)
        self.pid = None
        os.close(self._end)
        return os.waitstatus_to_exitcode(status)

    def kill(self):
        if self.pid is not None:
            os.kill(self.pid, signal.SIGKILL)
            self.wait_end()


@pytest.fixture
def on_terminal(tool):
    """Starts hsctl, or another program, on a terminal."""
    started = []

    def start(*args, program=None, env=None):
        terminal = Terminal(program or tool.program, args, tool.environment | {"TERM": "xterm"} | (env or {}))
        started.append(terminal)
        return terminal

    yield start
    for terminal in started:
        terminal.kill()


# What there is


def test_alone_it_shows_the_status(tool, hearing):
    hearing()
    assert tool.out() == tool.out("status")
    rows = [line.split("\t") for line in tool.out().splitlines()]
    assert rows == [
        [NAME, "enabled", "Alarm", "Detected: false, Report: false"],
        [NAME, "enabled", "Count", "0"],
        [NAME, "enabled", "Speech", "false"],
    ]


def test_status_as_json(tool, hearing):
    plugin, _, _ = hearing()
    status = tool.json("status")
    [chain] = status["chains"]
    assert list(chain) == ["chain", "niceName", "direction", "path", "sources"]
    [source] = chain["sources"]
    assert source["source"] == SYSTEM_NODE
    assert source["plugins"] == [
        {
            "plugin": "if_motion",
            "source": SYSTEM_NODE,
            "name": NAME,
            "path": plugin.path(),
            "enabled": True,
            "events": [
                {"event": "Alarm", "value": {"Detected": False, "Report": False}},
                {"event": "Count", "value": 0},
                {"event": "Speech", "value": False},
            ],
        }
    ]
    assert json.loads(tool.out("--json=pretty")) == status
    assert "\n  " in tool.out("--json=pretty")


def test_on_a_terminal_there_are_colours_unless_told_otherwise(tool, hearing, on_terminal):
    hearing()
    coloured = on_terminal()
    assert coloured.wait_end() == OK
    assert "\033[32menabled\033[0m" in coloured.text
    assert f"  {SYSTEM_NODE}" in coloured.text
    for env in ({"NO_COLOR": "1"}, {"TERM": "dumb"}):
        plain = on_terminal(env=env)
        assert plain.wait_end() == OK
        assert "\033" not in plain.text
        assert plain.text == without_escapes(coloured.text)
    assert "\033" not in tool.out()


def test_lists(tool, hearing):
    plugin, _, _ = hearing(SYSTEM_NODE, OTHER_NODE)
    assert [each["name"] for each in tool.json("list", "plugins")] == [NAME, OTHER_NAME]
    sources = tool.json("list", "sources")
    assert [each["source"] for each in sources] == [SYSTEM_NODE, OTHER_NODE]
    assert sources[0]["chain"] == "AudioDevice0Input0"
    assert sources[0]["plugins"] == ["if_motion"]
    settings = {each["setting"]: each for each in tool.json("list", "settings") if each["source"] == SYSTEM_NODE}
    assert {title: each["type"] for title, each in settings.items()} == {
        "Enable": "boolean", "Gain": "int32", "Depth": "double", "Label": "string", "Fast": "boolean",
    }  # fmt: skip
    assert settings["Depth"]["value"] == 0.5
    assert tool.out("list", "plugins").splitlines()[0].split("\t") == [NAME, "enabled", plugin.path()]


def test_private_events_are_listed_from_a_private_bus(tool, hearing):
    hearing()
    assert [each["event"] for each in tool.json("list", "events")] == ["Alarm", "Count", "Speech"]
    events = {each["event"]: each for each in tool.json("list", "events", "--private")}
    assert set(events) == {"Alarm", "Count", "Level", "Speech"}
    assert (events["Level"]["public"], events["Level"]["value"]) == (False, -20.0)
    assert (events["Alarm"]["public"], events["Alarm"]["trigger"], events["Alarm"]["type"]) == (True, True, "struct")
    assert tool.out("get", "--private", "if_motion", "Level") == "-20\n"


def test_show_tells_all_of_one_plugin(tool, hearing):
    hearing()
    shown = tool.json("show", "if_motion")
    assert list(shown) == ["plugin", "source", "name", "path", "enabled", "schema", "settings", "events"]
    assert [each["setting"] for each in shown["settings"]] == ["Depth", "Enable", "Fast", "Gain", "Label"]
    kinds = [line.split("\t")[0] for line in tool.out("show", NAME).splitlines()]
    assert kinds == ["plugin"] + ["setting"] * 5 + ["event"] * 3


# Names


def test_an_unknown_name_lists_what_there_is(tool, hearing):
    hearing()
    text = tool.refused("show", "nothing")
    assert "No plug-in 'nothing'" in text and NAME in text
    text = tool.refused("get", "if_motion", "Nothing")
    assert "Gain  (setting)" in text and "Speech  (event)" in text
    text = tool.refused("set", "if_motion", "Nothing", "1")
    assert "no setting 'Nothing'" in text and "Gain" in text
    text = tool.refused("trigger", "if_motion", "Speech")
    assert "can be triggered" in text and "Alarm" in text
    assert "AudioDevice0Input0" in tool.refused("indicate", "speaker", "on", "--chain", "nowhere")


def test_an_ambiguous_name_lists_what_it_may_mean(tool, hearing):
    plugin, _, client = hearing(SYSTEM_NODE, OTHER_NODE)
    for command in (["show"], ["get", "Gain"], ["set", "Gain", "5"], ["enable"], ["trigger"]):
        text = tool.refused(command[0], "if_motion", *command[1:])
        assert "more than one source" in text and NAME in text and OTHER_NAME in text
    tool.run("set", NAME.upper(), "gain", "5")
    assert client.get(plugin.path(), plugin.settings_interface, "Gain") == 5
    assert client.get(plugin.path(OTHER_NODE), plugin.settings_interface, "Gain") == 1
    tool.run("set", "--all", "if_motion", "Gain", "6")
    for node in (SYSTEM_NODE, OTHER_NODE):
        assert client.get(plugin.path(node), plugin.settings_interface, "Gain") == 6


def test_a_source_may_be_told_in_part(tool, hearing):
    hearing(SYSTEM_NODE, OTHER_NODE)
    tool.run("set", "if_motion@audiodevice0", "Gain", "5")
    assert tool.out("get", "if_motion@AudioDevice0Input0", "Gain") == "5\n"
    assert tool.out("get", "if_motion@AudioDevice1Input0", "Gain") == "1\n"
    text = tool.refused("get", "if_motion@AudioDevice", "Gain")
    assert NAME in text and OTHER_NAME in text
    assert "No plug-in 'if_mot'" in tool.refused("get", "if_mot", "Gain")


def test_an_event_that_is_not_public_is_hinted_at(tool, hearing):
    hearing()
    assert "with --private" in tool.refused("get", "if_motion", "Level")
    assert "--private" not in tool.refused("get", "--private", "if_motion", "Nothing")


# Changes


def test_values_are_written_as_their_type(tool, hearing):
    plugin, _, client = hearing()
    for title, text, value in (
        ("Gain", "-7", -7),
        ("Gain", "0x10", 16),
        ("Depth", "-2.25", -2.25),
        ("Label", "there and back", "there and back"),
        ("Fast", "yes", True),
    ):
        assert tool.out("set", "if_motion", title, text) == ""
        assert client.get(plugin.path(), plugin.settings_interface, title) == value
        assert tool.json("get", "if_motion", title)["value"] == value
    tool.run("set", "if_motion", "Label", "--", "-x")
    assert tool.out("get", "if_motion", "Label") == "-x\n"
    [written] = tool.json("set", "if_motion", "Fast", "off")
    assert written == {
        "plugin": "if_motion", "source": SYSTEM_NODE, "setting": "Fast", "type": "boolean", "value": False,
    }  # fmt: skip


def test_values_of_the_wrong_type_are_not_sent(tool, hearing):
    plugin, _, _ = hearing()
    before = len(plugin.calls("set_settings"))
    for title, text in (
        ("Gain", "loud"), ("Gain", "1.5"), ("Gain", "2147483648"), ("Gain", ""), ("Depth", "nan"), ("Depth", "1e999"),
        ("Depth", "1,5"), ("Fast", "maybe"), ("Label", "x" * 128), ("Enable", "2"),
    ):  # fmt: skip
        assert "hsctl: " in tool.refused("set", "if_motion", title, text)
    assert len(plugin.calls("set_settings")) == before


def test_enable_and_disable(tool, hearing):
    plugin, _, client = hearing(enabled=False)
    assert "No plug-in is enabled" in tool.run("status").stderr
    tool.run("enable", "if_motion")
    assert client.get(plugin.path(), plugin.settings_interface, "Enable") is True
    assert tool.json("list", "plugins")[0]["enabled"] is True
    tool.run("disable", NAME)
    assert client.get(plugin.path(), plugin.settings_interface, "Enable") is False


def test_a_refused_write_shows_what_the_daemon_says(tool, hearing, bed):
    plugin, _, client = hearing(schema="motion.json")
    bed.stage.grant(USER, "Depth")
    text = tool.refused("set", "if_motion", "Gain", "5", status=FAILED)
    assert f"[caller: {USER} property: Gain]" in text and "may be" not in text
    assert client.get(plugin.path(), plugin.settings_interface, "Gain") == 1


def test_a_value_that_the_plugin_does_not_take_is_told_with_its_schema(tool, hearing):
    hearing(schema="motion.json", returns={"set_settings": -errno.EINVAL})
    text = tool.refused("set", "if_motion", "Gain", "5", status=FAILED)
    assert "Unable to get/set property Gain" in text
    assert f"Gain of {NAME} stays as it was; what it may be is in" in text and "/motion.json" in text


def test_trigger(tool, hearing):
    plugin, _, client = hearing()
    tool.run("trigger", "if_motion")
    client.wait_change(plugin.event_interface("Alarm"), "Alarm", {"Detected": True, "Report": True})
    tool.run("trigger", "if_motion", "alarm")
    client.wait_change(plugin.event_interface("Alarm"), "Alarm", {"Detected": True, "Report": True}, count=2)


def test_indicate(tool, hearing):
    counter = "IndicateTransientAudioDisturbance"
    plugin, _, _ = hearing(settings=[setting(counter, "int64", 5)])
    for args, pod in (
        (["speaker", "on"], [["String", "IndicateInternalSpeakerActive"], ["Bool", True]]),
        (["continuous", "off"], [["String", "IndicateContinuousAudioDisturbance"], ["Bool", False]]),
        (["transient"], [["String", counter], ["Long", 6]]),
        (["transient", "--chain", "audiodevice0input0"], [["String", counter], ["Long", 7]]),
    ):
        assert tool.out("indicate", *args) == ""
        plugin.wait_call("set_settings", pod=["Struct", pod])
    tool.refused("indicate", "speaker")
    tool.refused("indicate", "transient", "on")


# What is missing


def test_a_value_that_cannot_be_read_hides_only_itself(tool, bed):
    """One of them is enough for the daemon to answer no client that asks for all objects."""
    bed.stage.grant_everything()
    wrong = {"Gain.default": {"title": "Gain", "value": "much"}}
    plugin = bed.plugin(
        enabled=True, info=wrong, settings=[setting("Gain", "int32", 1), setting("Fast")], events=[event("Speech")]
    )
    bed.microphone()
    daemon, client = bed.start()
    daemon.wait_log("Failed to emit interfaces on main")
    with pytest.raises(CallFailed):
        client.managed_objects()
    told = f"hear-sense cannot tell Gain of {plugin.path()}"
    shown = tool.run("show", "if_motion")
    assert shown.stderr.count("hsctl:") == 1 and told in shown.stderr
    assert "setting\tGain\tint32\t-\n" in shown.stdout and "setting\tFast\tboolean\tfalse\n" in shown.stdout
    assert f"{NAME}\tenabled\tSpeech\tfalse\n" == tool.out("status")
    assert tool.json("get", "if_motion", "Gain")["value"] is None
    assert complete_in_bash(tool, "hsctl set if_motion ") == {"Enable", "Fast", "Gain"}
    process = tool.spawn("monitor")
    wait_said(process, told)
    plugin.set("Speech", True)
    wait_line(process, "Speech", True)

    tool.run("set", "if_motion", "Gain", "3")
    assert tool.run("get", "if_motion", "Gain").stderr == ""
    assert client.managed_objects()[plugin.path()][plugin.settings_interface]["Gain"] == 3


def test_hints_without_bus_daemon_or_node(tool, bed):
    nowhere = {"DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/nonexistent/bus"}
    assert "no system bus" in tool.run("status", status=UNREACHABLE, env=nowhere).stderr
    assert "hear-sense is not running" in tool.refused("status", status=UNREACHABLE)
    assert "hear-sense is not running" in tool.refused("set", "loudness", "Threshold", "-20", status=UNREACHABLE)
    bed.start()
    assert "no plug-in has found a node" in tool.run("status").stderr
    assert tool.json("status") == {"chains": []}


@pytest.mark.parametrize("how", ["option", "environment"])
def test_the_session_bus_on_request(tool, bed, how):
    bed.start()
    nowhere = "unix:path=/nonexistent/bus"
    env = {"DBUS_SYSTEM_BUS_ADDRESS": nowhere, "DBUS_SESSION_BUS_ADDRESS": bed.bus.address}
    if how == "environment":
        env["HS_USE_SESSION_BUS"] = "true"
    tool.run(*(["--user"] if how == "option" else []), "status", env=env)
    assert "no session bus" in tool.run("status", "--user", status=UNREACHABLE).stderr


def test_a_wrong_command_line_ends_with_its_status(tool):
    for args in (["nonsense"], ["list"], ["list", "nonsense"], ["--json=long"], ["set", "a"], ["top", "-n", "x"]):
        text = tool.refused(*args)
        assert text.startswith("hsctl: ") and "--help\n" in text
    assert "see hsctl set --help" in tool.refused("set", "a")
    assert "Usage: hsctl" in tool.out("--help")
    assert re.fullmatch(r"hsctl \d+\.\d+\.\d+\n", tool.out("--version"))


# Events


def test_monitor_prints_events_as_they_come(tool, hearing):
    plugin, _, client = hearing()
    process = tool.spawn("monitor")
    wait_listening(process, client, plugin)
    plugin.set("Count", 7)
    line = wait_line(process, "Count")
    assert list(line) == ["wall", "monotonic", "source", "plugin", "event", "value"]
    assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z", line["wall"])
    assert (line["source"], line["plugin"], line["event"], line["value"]) == (SYSTEM_NODE, "if_motion", "Count", 7)
    process.send_signal(signal.SIGINT)
    assert process.wait() == OK
    assert process.err() == ""


def test_monitor_prints_what_the_patterns_mean(tool, hearing):
    plugin, _, client = hearing(SYSTEM_NODE, OTHER_NODE)
    process = tool.spawn("monitor", "alarm", f"*@{SYSTEM_NODE}/Count", "Nonsense")
    wait_said(process, "'Nonsense' means no event yet")
    wait_listening(process, client, plugin)
    plugin.set("Speech", True, plugin.instance_on(SYSTEM_NODE))
    plugin.set("Count", 3, plugin.instance_on(OTHER_NODE))
    plugin.set("Count", 4, plugin.instance_on(SYSTEM_NODE))
    line = wait_line(process, "Count")
    assert (line["source"], line["value"]) == (SYSTEM_NODE, 4)
    assert {line["event"] for line in lines_of(process)} == {"Alarm", "Count"}


def test_monitor_takes_a_private_bus(tool, hearing):
    plugin, daemon, client = hearing()
    process = tool.spawn("monitor", "--private", "Level", "Alarm")
    wait_listening(process, client, plugin)
    plugin.set("Level", -33.5)
    line = wait_line(process, "Level", -33.5)
    assert (line["source"], line["plugin"]) == (SYSTEM_NODE, "if_motion")
    process.send_signal(signal.SIGTERM)
    assert process.wait() == OK
    daemon.wait_log("Destroy bus event data: ")


def test_monitor_takes_up_with_the_next_daemon(tool, hearing, bed):
    plugin, daemon, client = hearing()
    process = tool.spawn("monitor", "--private")
    wait_listening(process, client, plugin)
    assert daemon.stop() == 0
    wait_said(process, "hear-sense has ended")
    n_processed = len(plugin.calls("process"))
    before = len(lines_of(process))
    bed.start()
    wait_said(process, "hear-sense is back")
    plugin.wait_call("process", n_processed + 1)
    plugin.set("Level", -41.0)
    assert wait_line(process, "Level", -41.0, before)["source"] == SYSTEM_NODE


def test_monitor_waits_for_the_first_daemon(tool, hearing):
    process = tool.spawn("monitor")
    wait_said(process, "waiting for it")
    plugin, _, client = hearing()
    wait_said(process, "hear-sense is back")
    wait_listening(process, client, plugin)


def test_monitor_ends_when_its_reader_does(tool, bed):
    bed.start()
    reader, writer = os.pipe()
    with subprocess.Popen([tool.program, "monitor"], env=tool.environment, stdout=writer) as process:
        os.close(writer)
        os.close(reader)
        assert process.wait(10 * SCALE) == OK


def test_monitor_reports_a_bus_that_goes(own_bed):
    process = Tool(own_bed).spawn("monitor")
    wait_said(process, "waiting for it")
    own_bed.bus.stop()
    assert process.wait() == UNREACHABLE
    assert "The bus has gone" in process.err()


def test_monitor_prints_columns_on_a_terminal(hearing, on_terminal):
    plugin, _, client = hearing()
    terminal = on_terminal("monitor", "Alarm", "Count")

    def printed():
        client.call(plugin.path(), plugin.event_interface("Alarm") + ".Methods", "TriggerEvent")
        return terminal.poll() and "true" in terminal.text

    wait_until(printed, lambda: f"a line of the event; there is {terminal.text!r}", interval=0.1)
    # The plug-in takes each back, so that the first line may tell of an end.
    line = terminal.wait(r"([^\r\n]*Alarm[^\r\n]*true[^\r\n]*)\r\n").group(1)
    assert f"\033[2m{NAME}\033[0m" in line and "\033[31mDetected: true, Report: true\033[0m" in line
    assert re.fullmatch(
        rf"\d\d:\d\d:\d\d\.\d{{3}}  \d+\.\d{{3}}  {NAME}  Alarm  Detected: true, Report: true", without_escapes(line)
    )
    start = len(terminal.text)
    plugin.set("Speech", True)
    plugin.set("Count", 7)
    terminal.wait(r"Count[^\r\n]*7\r\n", start)
    assert "Speech" not in terminal.text
    terminal.type("\003")
    assert terminal.wait_end() == OK


# The live view


def test_top_in_batch(tool, hearing):
    plugin, _, client = hearing()
    plugin.set("Speech", True)
    client.wait_change(plugin.event_interface("Speech"), "Speech", True)
    text = tool.out("top", "-b", "-n", "2", "-d", "0.05", "--private")
    frames = text.strip().split("\n\n")
    assert len(frames) == 2
    for frame in frames:
        assert f"{NAME}  on   ( ) Alarm  Count [------------]" in frame
        assert "Level [------------]      -20" in frame and "(*) Speech" in frame
    objects = [json.loads(line) for line in tool.out("top", "-b", "-n2", "-d0.05", "--json=short").splitlines()]
    assert [each["plugins"][0]["name"] for each in objects] == [NAME, NAME]
    assert {"event": "Count", "value": 0} in objects[0]["plugins"][0]["events"]


@pytest.mark.parametrize("how", ["key", "Ctrl-C", "SIGTERM"])
def test_top_draws_on_a_terminal_and_gives_it_back(tool, hearing, on_terminal, how):
    hearing()
    terminal = on_terminal("top")
    terminal.wait(f"{NAME}.*Speech")
    if how == "SIGTERM":
        os.kill(terminal.pid, signal.SIGTERM)
    else:
        terminal.type({"key": "q", "Ctrl-C": "\003"}[how])
    assert terminal.wait_end() == OK
    assert "\033[?1049h" in terminal.text
    assert terminal.text.rindex("\033[?1049l") > terminal.text.rindex(NAME)
    assert "use -b" in tool.refused("top")


def test_top_draws_anew_when_the_terminal_changes_its_size(hearing, on_terminal):
    hearing(SYSTEM_NODE, OTHER_NODE)
    # The next frame is an hour away.
    terminal = on_terminal("top", "-d", "3600")
    terminal.wait(f"{OTHER_NAME}.*Speech")
    start = len(terminal.text)
    # A line of title, an empty one, and one of the two plug-ins; its events do not fit beside it.
    terminal.resize(3, 50)
    terminal.wait("hear-sense", start)
    terminal.wait(NAME, start)
    seen = terminal.text[start:]
    assert OTHER_NAME not in seen and "Speech" not in seen
    start = len(terminal.text)
    terminal.resize(30, 120)
    terminal.wait(f"{OTHER_NAME}.*Speech", start)
    terminal.type("q")
    assert terminal.wait_end() == OK


# Completion


def options_of(text):
    """The options that a help text tells."""
    return {name for line in text.splitlines() for name in re.findall(r"^ *(-\w)?,?(--[\w-]+)?", line)[0] if name}


def complete_in_bash(tool, line, breaks=" \t\n"):
    """What bash, which splits words at `breaks`, would offer at the end of the line."""
    script = tool.bed.stage.build / "tools/hsctl"
    source = os.path.join(os.path.dirname(__file__), "../../tools/hsctl/completions/hsctl.bash")
    words = shlex.split(line) + ([""] if line.endswith(" ") else [])
    command = f"""
        PATH={shlex.quote(str(script))}:$PATH
        source {shlex.quote(source)}
        COMP_WORDBREAKS={shlex.quote(breaks)}
        COMP_LINE={shlex.quote(line)} COMP_POINT={len(line)}
        COMP_WORDS=({" ".join(map(shlex.quote, words))}) COMP_CWORD={len(words) - 1}
        $(complete -p hsctl | sed 's/.*-F \\([^ ]*\\).*/\\1/')
        printf '%s\\n' "${{COMPREPLY[@]}}"
    """
    ended = subprocess.run(
        ["bash", "--norc", "-c", command], env=tool.environment, capture_output=True, text=True, timeout=30 * SCALE
    )
    assert ended.returncode == 0 and ended.stderr == "", ended.stderr
    return set(ended.stdout.split())


@pytest.mark.parametrize("command", ["", *COMMANDS])
def test_no_option_is_missing_from_the_completions(tool, command):
    told = options_of(tool.out(*command.split(), "--help")) | {"--user"}
    assert "--help" in told
    offered = complete_in_bash(tool, f"hsctl {command} -" if command else "hsctl -")
    assert told - offered == set()
    assert {"--json=short", "--json=pretty"} <= offered


def test_no_subcommand_is_missing_from_the_completions(tool):
    told = re.findall(r"^  ([a-z]+) ", tool.out("--help").partition("Subcommands:")[2], re.M)
    assert sorted(told) == sorted(COMMANDS)
    assert complete_in_bash(tool, "hsctl ") == set(COMMANDS)


def test_live_names_are_completed(tool, hearing):
    hearing()
    assert complete_in_bash(tool, "hsctl show ") == {"if_motion", NAME}
    assert complete_in_bash(tool, "hsctl set if_motion ") == {"Enable", "Gain", "Depth", "Label", "Fast"}
    assert complete_in_bash(tool, "hsctl set if_motion fa") == {"Fast"}
    assert complete_in_bash(tool, "hsctl set if_motion Fast ") == {"true", "false"}
    assert complete_in_bash(tool, "hsctl trigger if_motion ") == {"Alarm"}
    assert complete_in_bash(tool, "hsctl --user --json=short list ev") == {"events"}
    assert complete_in_bash(tool, "hsctl indicate speaker o") == {"on", "off"}
    assert complete_in_bash(tool, "hsctl indicate speaker --chain ") == {"AudioDevice0Input0"}
    assert "Level" in complete_in_bash(tool, "hsctl monitor --private L")


def test_what_bash_has_split_off_is_not_completed_again(tool, hearing):
    hearing()
    assert complete_in_bash(tool, "hsctl show if_motion@Aud") == {NAME}
    assert complete_in_bash(tool, "hsctl show if_motion@Aud", " @=:") == {SYSTEM_NODE}
    assert complete_in_bash(tool, "hsctl --json=p", " @=:") == {"pretty"}


def test_without_a_daemon_nothing_is_completed_and_nothing_said(tool):
    ended = tool.run("complete", "--", "show", "")
    assert (ended.stdout, ended.stderr) == ("", "")


#: What zsh is told before it is asked.
ZSH_START = """
unset RPS1 zle_bracketed_paste; unsetopt beep prompt_sp always_last_prompt; LISTMAX=0
fpath=({functions} $fpath); path=({programs} $path)
autoload -Uz compinit; compinit -u -D
PS1='ready> '
"""
#: The prompt and what zsh has the terminal do after it.
ZSH_READY = "ready> (\033\\[[?0-9]*[a-zA-Z])*$"


@pytest.fixture
def zsh(tool, on_terminal):
    """zsh on a terminal, with the completion of hsctl."""
    completions = pathlib.Path(__file__).resolve().parents[2] / "tools/hsctl/completions"
    start = tool.bed.stage.home / "start.zsh"
    start.write_text(ZSH_START.format(functions=completions, programs=tool.program.parent))
    shell = on_terminal("-f", "-i", program="/usr/bin/zsh", env={"HOME": str(tool.bed.stage.home), "PS1": "% "})
    shell.type(f"source {start}\r")
    shell.wait(ZSH_READY)
    return shell


def listed_by_zsh(shell, line):
    """What zsh lists as fitting at the end of the line."""
    start = len(shell.text)
    shell.type(line + "\004")
    # A list ends with the prompt; without one, what follows ends it.
    shell.type("\025print -r -- d''one\r")
    shell.wait("done\r\n.*" + ZSH_READY, start)
    text = without_escapes(shell.text[start:]).replace("\r", "").replace("ready> ", "\nready> ")
    lines = text.partition("ready> print")[0].partition("print -r")[0].splitlines()
    return {word for each in lines[1:] if not each.startswith("ready> ") for word in each.split()}


def completed_by_zsh(shell, line):
    """The line as zsh makes it when it is completed at its end, without the last space."""
    start = len(shell.text)
    shell.type(line + "\t")
    shell.type("\001print -r -- '<\005>'\r")
    return shell.wait(r"\n<(hsctl[^>]*?) ?>\r\n.*" + ZSH_READY, start).group(1)


@pytest.mark.parametrize(
    ("line", "offered"),
    [
        ("hsctl ", set(COMMANDS)),
        ("hsctl show ", {"if_motion", NAME}),
        ("hsctl set if_motion ", {"Enable", "Gain", "Depth", "Label", "Fast"}),
        ("hsctl set if_motion Fast ", {"true", "false"}),
        ("hsctl --user --json=short list ", {"plugins", "sources", "events", "settings"}),
        ("hsctl list --", {"--help", "--json", "--json=pretty", "--json=short", "--private", "--user", "--version"}),
        ("hsctl show nothing", set()),
    ],
)
def test_zsh_lists_what_fits(hearing, zsh, line, offered):
    hearing()
    assert listed_by_zsh(zsh, line) == offered


@pytest.mark.parametrize(
    ("line", "whole"),
    [
        ("hsctl sho", "hsctl show"),
        ("hsctl show if_motion@", f"hsctl show {NAME}"),
        ("hsctl set if_motion fa", "hsctl set if_motion Fast"),
        ("hsctl --json=p", "hsctl --json=pretty"),
        ("hsctl monitor --private Lev", "hsctl monitor --private Level"),
        ("hsctl indicate speaker --chain a", "hsctl indicate speaker --chain AudioDevice0Input0"),
    ],
)
def test_zsh_completes_the_line(hearing, zsh, line, whole):
    hearing()
    assert completed_by_zsh(zsh, line) == whole

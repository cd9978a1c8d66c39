"""What makes a service of the daemon: the bus policy and activation, the systemd unit, its user and its folders."""

import configparser
import contextlib
import json
import os
import pathlib
import pwd
import re
import shutil
import subprocess
import tempfile

import pytest
from bed.client import DENIED, OBJECTS, SERVICE, BusClient, CallFailed
from bed.private import PrivateClient, descriptor_client
from bed.process import SCALE, Process, wait_until
from bed.servers import accepts, base_environment
from bed.stage import event, setting

DATA = pathlib.Path(__file__).resolve().parents[2] / "data"
SERVICE_USER = "hear-sense"
IS_ROOT = os.getuid() == 0

#: An id that no user of the machine has, and that of somebody who is nobody in particular.
SPARE_ID = 61990
STRANGER_ID = pwd.getpwnam("nobody").pw_uid if IS_ROOT else os.getuid()

# The rules that every system bus begins with; services add theirs.
SYSTEM_BUS = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path={socket}</listen>
  <auth>EXTERNAL</auth>
  <servicedir>{services}</servicedir>
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
  </policy>
  <include>{policy}</include>
</busconfig>
"""


class PolicyBus:
    """A system bus with our policy, on which the service's user has the id that is told."""

    def __init__(self, folder, service_id, env=None):
        self.services = folder / "services"
        self.services.mkdir(parents=True)
        self.socket = folder / "bus.sock"
        self.address = f"unix:path={self.socket}"
        config = folder / "bus.conf"
        config.write_text(
            SYSTEM_BUS.format(socket=self.socket, services=self.services, policy=DATA / f"{SERVICE}.conf")
        )
        users = folder / "passwd"
        users.write_text(f"{SERVICE_USER}:x:{service_id}:{service_id}::/:/usr/sbin/nologin\n")
        self.process = Process(
            self._with_users(users)
            + ["dbus-daemon", "--nofork", "--nopidfile", "--nosyslog", f"--config-file={config}"],
            "policy-bus",
            folder,
            base_environment(folder) | {"DBUS_SYSTEM_BUS_ADDRESS": self.address} | (env or {}),
        )
        wait_until(lambda: accepts(self.socket), lambda: "a system bus: " + self.process.err())
        assert "Unknown username" not in self.process.err()
        self.socket.chmod(0o777)

    @staticmethod
    def _with_users(users):
        """Our user first, so that the machine's own entry of that name does not count."""
        users.write_text(users.read_text() + pathlib.Path("/etc/passwd").read_text())
        if not IS_ROOT:
            return ["bwrap", "--die-with-parent", "--dev-bind", "/", "/", "--ro-bind", str(users), "/etc/passwd"]
        script = 'mount --bind "$0" /etc/passwd && exec "$@"'
        return ["unshare", "--mount", "--propagation", "private", "sh", "-c", script, str(users)]

    def stop(self):
        self.process.kill()


@pytest.fixture
def system_bus():
    """Starts a PolicyBus."""
    with contextlib.ExitStack() as stack:

        def start(service_id, env=None):
            folder = pathlib.Path(tempfile.mkdtemp(prefix="hs-"))
            stack.callback(shutil.rmtree, folder)
            folder.chmod(0o755)
            bus = PolicyBus(folder, service_id, env)
            stack.callback(bus.stop)
            return bus

        yield start


@contextlib.contextmanager
def being(user_id):
    """Within it, connections that are made are that user's. Only root can be somebody else."""
    before = os.geteuid()
    if user_id != before:
        os.seteuid(user_id)
    try:
        yield
    finally:
        if user_id != before:
            os.seteuid(before)


@contextlib.contextmanager
def client_of(bus, user_id, enable_fds=False):
    with being(user_id):
        client = BusClient(bus.address, enable_fds)
    try:
        yield client
    finally:
        client.close()


def assert_may_not_own(bus, user_id, name=SERVICE):
    with client_of(bus, user_id) as client:
        with pytest.raises(CallFailed) as failure:
            client.own(name)
        assert failure.value.name == DENIED


def test_service_user_may_own_the_name_and_no_other(system_bus):
    service_id = SPARE_ID if IS_ROOT else os.getuid()
    bus = system_bus(service_id)
    assert_may_not_own(bus, service_id, SERVICE + "2")
    with client_of(bus, service_id) as client:
        assert client.own(SERVICE) == 1


def test_other_users_may_not_own_the_name(system_bus):
    bus = system_bus(SPARE_ID)
    assert_may_not_own(bus, STRANGER_ID)
    assert_may_not_own(bus, os.getuid())


@pytest.fixture
def service(own_bed, system_bus, monkeypatch):
    """The daemon on a PolicyBus, run by its own user where the test is root, and its plug-in."""
    service_id = SPARE_ID if IS_ROOT else os.getuid()
    bus = system_bus(service_id)
    plugin = own_bed.plugin(
        enabled=True,
        settings=[setting("Gain", "int32", 1)], events=[event("Speech"), event("Whisper", public=False)]
    )
    own_bed.microphone()
    if IS_ROOT:
        own_bed.graph.socket.chmod(0o777)
        for path in (own_bed.stage.folder, *own_bed.stage.folder.rglob("*")):
            os.chown(path, service_id, service_id, follow_symlinks=False)
        # The build may lie where only root looks.
        wrapper = (
            f"setpriv --reuid={service_id} --regid={service_id} --clear-groups"
            " --inh-caps=+dac_read_search --ambient-caps=+dac_read_search --"
        )
        monkeypatch.setenv("HS_TEST_WRAPPER", f"{wrapper} {os.environ.get('HS_TEST_WRAPPER', '')}")
    daemon = own_bed.spawn(bus_address=bus.address)
    with client_of(bus, os.getuid()) as client:
        daemon.wait_ready(client)
        wait_until(lambda: plugin.path() in client.managed_objects(), "the plug-in on the bus")
    yield bus, plugin, daemon, service_id
    daemon.finish()


def test_service_runs_as_its_own_user(service):
    _, _, daemon, service_id = service
    assert os.stat(f"/proc/{daemon.pid}").st_uid == service_id


def test_unprivileged_user_reads_and_hears_and_is_refused_by_the_daemon_alone(service):
    bus, plugin, daemon, _ = service
    with client_of(bus, STRANGER_ID) as client:
        assert client.get(plugin.path(), plugin.settings_interface, "Gain") == 1
        with pytest.raises(CallFailed) as failure:
            client.set(plugin.path(), plugin.settings_interface, "Gain", "i", 2)
        assert failure.value.name == DENIED
        assert failure.value.text.endswith(f": [caller: {pwd.getpwuid(STRANGER_ID).pw_name} property: Gain]")
        plugin.set("Speech", True)
        plugin.command("notify 0")
        client.wait_change(plugin.event_interface("Speech"), "Speech", True)
    assert daemon.alive


def test_user_with_a_grant_writes_through_the_policy(service, own_bed):
    bus, plugin, _, service_id = service
    own_bed.stage.grant(pwd.getpwuid(STRANGER_ID).pw_name, f"{plugin.settings_interface}.Gain")
    with client_of(bus, STRANGER_ID) as client:
        client.set(plugin.path(), plugin.settings_interface, "Gain", "i", 2)
        assert client.get(plugin.path(), plugin.settings_interface, "Gain") == 2
    assert own_bed.stage.settings_file(plugin).stat().st_uid == service_id


def test_unprivileged_user_takes_a_private_bus(service, own_bed):
    bus, plugin, _, _ = service
    with being(STRANGER_ID):
        main = descriptor_client(bus)
    own_bed.clients.append(main)
    private = PrivateClient(main)
    own_bed.clients.append(private)
    private.enable(plugin, "Whisper")
    plugin.set("Whisper", True)
    plugin.command("notify 1")
    private.wait_change(plugin.event_interface("Whisper"), "Whisper", True)


def test_first_call_starts_the_daemon(build, own_bed, system_bus):
    bus = system_bus(os.getuid(), {"XDG_RUNTIME_DIR": str(own_bed.graph.runtime)})
    installed = build / f"data/{SERVICE}.service"
    entry = read_ini(installed)["D-BUS Service"]
    assert (entry["Name"], entry["User"]) == (SERVICE, SERVICE_USER)
    assert entry["SystemdService"] == "hear-sense.service"
    # Where it will be installed there is nothing yet; without configurations it touches no file of the machine.
    nothing = bus.services / "no-configurations"
    nothing.mkdir()
    assert [entry["Exec"]] == installed_paths(build, "/bin/hear-sense")
    text = installed.read_text().replace(entry["Exec"], f"{build}/src/hear-sense -c {nothing}")
    (bus.services / installed.name).write_text(text)
    with client_of(bus, os.getuid()) as client:
        client._bus("ReloadConfig")
        assert not client.has_owner()
        assert client.call("/", OBJECTS, "GetManagedObjects", timeout=20)[0] == {}
        pid = client._bus("GetConnectionUnixProcessID", "s", (SERVICE,))[0]
        assert os.path.samefile(f"/proc/{pid}/exe", build / "src/hear-sense")
    bus.stop()
    wait_until(lambda: not os.path.exists(f"/proc/{pid}"), "the daemon to end with its bus")


def read_ini(path):
    # Only the last of several equal keys is kept.
    parser = configparser.ConfigParser(strict=False, interpolation=None, delimiters="=")
    parser.optionxform = str
    parser.read(path)
    return parser


def installed_paths(build, end):
    """Where Meson installs the files whose paths end like that."""
    targets = json.loads((build / "meson-info/intro-installed.json").read_text()).values()
    return [target for target in targets if target.endswith(end)]


@pytest.mark.parametrize(
    "name",
    [
        f"/share/dbus-1/system.d/{SERVICE}.conf",
        f"/share/dbus-1/system-services/{SERVICE}.service",
        f"/share/dbus-1/interfaces/{SERVICE}.xml",
        f"/share/dbus-1/interfaces/{SERVICE}.Events.PLUGIN.EVENT.xml",
    ],
)
def test_file_of_the_bus_is_installed_where_it_is_looked_for(build, name):
    assert len(installed_paths(build, name)) == 1


@pytest.mark.parametrize(
    "name",
    [
        "/lib/systemd/system/hear-sense.service",
        "/lib/sysusers.d/hear-sense.conf",
        "/lib/tmpfiles.d/hear-sense.conf",
    ],
)
def test_file_of_systemd_is_installed_where_it_is_looked_for(build, name):
    entries = json.loads((build / "meson-info/intro-buildoptions.json").read_text())
    options = {entry["name"]: entry["value"] for entry in entries}
    chosen = options["systemd"] if options["systemd"] != "auto" else options["auto_features"]
    wanted = chosen != "disabled"
    assert len(installed_paths(build, name)) == int(wanted)


def run(*argv):
    return subprocess.run(
        [str(part) for part in argv], capture_output=True, text=True, timeout=60 * SCALE, check=False
    )


@pytest.fixture
def root(build, tmp_path):
    """A file system in which the units and the programs that they start are installed."""
    units = tmp_path / "usr/lib/systemd/system"
    units.mkdir(parents=True)
    unit = build / "data/hear-sense.service"
    shutil.copy(unit, units)
    for path in (DATA / "pipewire-system").glob("*.s[eo]*"):
        if path.suffix in (".service", ".socket"):
            shutil.copy(path, units)
    for path in units.glob("*.service"):
        program = tmp_path / read_ini(path)["Service"]["ExecStart"].lstrip("/")
        program.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy("/bin/true", program)
    return tmp_path


def verify(root, *units):
    """Has systemd read the units; the targets and services of the system that they name are not there."""
    return run("systemd-analyze", f"--root={root}", "verify", "--man=no", "--recursive-errors=no", *units)


def test_systemd_accepts_the_units(root):
    done = verify(root, "hear-sense.service", "pipewire.socket", "pipewire.service", "wireplumber.service")
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")


def drop_ins(text):
    """What the comments of the unit offer for a drop-in, each a piece that is indented."""
    for block in re.findall(r"(?:^#   .*\n)+", text, re.M):
        lines = [line.removeprefix("#   ") for line in block.splitlines()]
        if lines[0] == "[Service]":
            yield "\n".join(lines) + "\n"


def test_systemd_accepts_what_the_comments_offer_for_a_drop_in(build, root):
    folder = root / "etc/systemd/system/hear-sense.service.d"
    folder.mkdir(parents=True)
    found = list(drop_ins((build / "data/hear-sense.service").read_text()))
    assert len(found) >= 5
    for number, text in enumerate(found):
        (folder / f"{number}.conf").write_text(text)
    done = verify(root, "hear-sense.service")
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")


def test_unit_is_hardened(build):
    unit = build / "data/hear-sense.service"
    done = run("systemd-analyze", "security", "--no-pager", "--offline=true", "--threshold=10", unit)
    assert done.returncode == 0, done.stdout


def test_descriptors_of_the_unit_hold_what_the_daemon_may_have(build, own_bed):
    """What one plug-in and one private bus take, 256 times each, with room to spare."""
    plugins = [own_bed.plugin(name, enabled=True, events=[event("Speech")]) for name in ("first", "second")]
    daemon, _ = own_bed.start()
    before = daemon.descriptors()
    nodes = [own_bed.microphone(f"AudioDevice{number}Input0.Unprocessed") for number in range(4)]
    for plugin in plugins:
        for number in range(len(nodes)):
            plugin.wait_call("process", instance=f"{plugin.name}-{number}")
    of_a_source = (daemon.descriptors() - before) / (len(plugins) * len(nodes))
    main = descriptor_client(own_bed.bus)
    own_bed.clients.append(main)
    before = daemon.descriptors()
    privates = [PrivateClient(main) for _ in range(8)]
    own_bed.clients += privates
    for private in privates:
        private.managed_objects()
    of_a_bus = (daemon.descriptors() - before) / len(privates)
    limit = int(read_ini(build / "data/hear-sense.service")["Service"]["LimitNOFILE"])
    assert 2 <= of_a_source
    assert 2 <= of_a_bus
    assert 256 * (of_a_source + of_a_bus) + 64 < limit


def in_root(*argv):
    """An ordinary user is root in a name space in which there is nobody else."""
    return run(*argv) if IS_ROOT else run("unshare", "--map-root-user", *argv)


@pytest.fixture
def users(tmp_path):
    """A file system with root as its only user."""
    (tmp_path / "etc").mkdir()
    (tmp_path / "etc/passwd").write_text("root:x:0:0:root:/root:/bin/sh\n")
    (tmp_path / "etc/group").write_text("root:x:0:\n")
    return tmp_path


def test_user_and_its_group_are_made(users):
    file = DATA / "hear-sense.sysusers.conf"
    done = in_root("systemd-sysusers", f"--root={users}", "--dry-run", file)
    assert (done.returncode, (users / "etc/passwd").read_text().count("\n")) == (0, 1), done.stderr
    done = in_root("systemd-sysusers", f"--root={users}", file)
    assert done.returncode == 0, done.stderr
    made = (users / "etc/passwd").read_text().splitlines()[-1].split(":")
    assert made[0] == SERVICE_USER
    assert 0 < int(made[2]) < 1000
    assert made[5:] == ["/", "/usr/sbin/nologin"]
    groups = {line.split(":")[0]: line.split(":")[2:] for line in (users / "etc/group").read_text().splitlines()}
    assert groups[SERVICE_USER][0] == made[3]
    assert groups["pipewire"][1] == SERVICE_USER


def test_pipewire_user_of_the_example_is_made(users):
    (users / "etc/group").write_text("root:x:0:\naudio:x:29:\n")
    for file in (DATA / "hear-sense.sysusers.conf", DATA / "pipewire-system/pipewire.sysusers.conf"):
        done = in_root("systemd-sysusers", f"--root={users}", file)
        assert done.returncode == 0, done.stderr
    groups = {line.split(":")[0]: line.split(":")[2:] for line in (users / "etc/group").read_text().splitlines()}
    assert groups["audio"] == ["29", "pipewire"]
    user = next(line for line in (users / "etc/passwd").read_text().splitlines() if line.startswith("pipewire:"))
    assert user.split(":")[3] == groups["pipewire"][0]


def test_folders_that_the_daemon_writes_to_are_its_own(users):
    service_id = SPARE_ID if IS_ROOT else 0
    with open(users / "etc/passwd", "a", encoding="ascii") as file:
        file.write(f"{SERVICE_USER}:x:{service_id}:{service_id}::/:/usr/sbin/nologin\n")
    with open(users / "etc/group", "a", encoding="ascii") as file:
        file.write(f"{SERVICE_USER}:x:{service_id}:\n")
    done = in_root("systemd-tmpfiles", f"--root={users}", "--create", DATA / "hear-sense.tmpfiles.conf")
    assert (done.returncode, done.stderr) == (0, "")
    folder = users / "etc/hear-sense"
    for path, owner in (
        (folder, 0),
        (folder / "plugin-confs", 0),
        (folder / "plugin-settings", service_id),
        (folder / "metrics", service_id),
    ):
        found = path.stat()
        outside = owner if IS_ROOT else os.getuid()
        assert (found.st_uid, found.st_gid, found.st_mode & 0o7777) == (
            outside,
            outside if IS_ROOT else os.getgid(),
            0o755,
        )

"""The servers that the daemon talks to: a message bus and an audio graph, both private."""

import glob
import json
import os
import pathlib
import re
import socket
import subprocess

from .process import SCALE, Process, wait_until

CONFIG = pathlib.Path(__file__).parent / "config"

BUS_CONFIG = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path={path}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
  </policy>
</busconfig>
"""


def system_spa_dir():
    """Where the distribution keeps PipeWire's own SPA plug-ins."""
    found = sorted(glob.glob("/usr/lib/*/spa-0.2/support")) + sorted(glob.glob("/usr/lib*/spa-0.2/support"))
    assert found, "no SPA plug-ins on this machine"
    return str(pathlib.Path(found[0]).parent)


def accepts(path):
    """Whether somebody listens on that socket."""
    with socket.socket(socket.AF_UNIX) as probe:
        try:
            probe.connect(str(path))
        except OSError:
            return False
    return True


def base_environment(home):
    """What every child gets: nothing that a user's own session or configuration could bring in."""
    return {
        "PATH": os.environ.get("PATH", "/usr/bin:/bin"),
        "HOME": str(home),
        "XDG_STATE_HOME": str(home / "state"),
        "XDG_CONFIG_HOME": str(home / "config"),
        "XDG_CACHE_HOME": str(home / "cache"),
        "LANG": "C.UTF-8",
        "DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/nonexistent/bus",
        "DBUS_SESSION_BUS_ADDRESS": "unix:path=/nonexistent/bus",
    }


class Bus:
    """A dbus-daemon without service files or policy."""

    def __init__(self, folder, name="bus"):
        self.folder = folder
        self.socket = folder / f"{name}.sock"
        self.address = f"unix:path={self.socket}"
        config = folder / f"{name}.conf"
        config.write_text(BUS_CONFIG.format(path=self.socket))
        self.process = Process(
            ["dbus-daemon", "--nofork", "--nopidfile", f"--config-file={config}"],
            name,
            folder,
            base_environment(folder),
        )
        wait_until(lambda: accepts(self.socket), lambda: "a message bus: " + self.process.err())

    def stop(self):
        self.process.kill()
        self.socket.unlink(missing_ok=True)


class Graph:
    """PipeWire and WirePlumber, and one pw-cli that owns the virtual microphones.

    A microphone lives as long as that pw-cli, so that nothing stays in the graph when the tests end.
    """

    def __init__(self, folder):
        self.folder = folder
        self.runtime = folder / "run"
        self.runtime.mkdir(mode=0o700)
        self.built = pathlib.Path(os.environ["HS_BUILD_DIR"]).resolve() / "tests/plugins"
        self.env = base_environment(folder) | {
            "XDG_RUNTIME_DIR": str(self.runtime),
            "PIPEWIRE_CONFIG_DIR": str(CONFIG),
            "WIREPLUMBER_CONFIG_DIR": str(CONFIG),
            "SPA_PLUGIN_DIR": f"{self.built}:{system_spa_dir()}",
        }
        self.socket = self.runtime / "pipewire-0"
        self.processes = []
        self.server = self._start("pipewire", ["pipewire"])
        wait_until(lambda: accepts(self.socket), lambda: "PipeWire: " + self.server.err())
        self.start_manager()
        self.cli = self._start("pw-cli", ["pw-cli"], stdin=subprocess.PIPE)

    def _start(self, name, argv, stdin=subprocess.DEVNULL):
        process = Process(argv, name, self.folder, self.env, stdin=stdin)
        self.processes.append(process)
        return process

    def start_manager(self):
        """Who links microphones and streams; a new one where the last has ended."""
        self.manager = self._start("wireplumber", ["wireplumber"])

    def force(self, key, value):
        """Has the graph, and every stream, change over to that "rate", or to buffers of that "quantum"."""
        self._ask("pw-metadata", "-n", "settings", "0", f"clock.force-{key}", str(value))

    def command(self, line):
        """One line to pw-cli, which answers to its log at best."""
        self.cli.popen.stdin.write(line.encode() + b"\n")
        self.cli.popen.stdin.flush()

    def _ask(self, *argv):
        # Nobody gets an answer while the session manager links some hundred streams.
        patience = 60 * SCALE
        return subprocess.run(
            argv, env=self.env, capture_output=True, text=True, timeout=patience, check=True, errors="replace"
        ).stdout

    def _listing(self, kind, key):
        """The global ids of all objects of a type by one of their properties; "" where they lack it."""
        result = {}
        for block in re.split(r"^\s*id (?=\d+, type )", self._ask("pw-cli", "ls", kind), flags=re.M)[1:]:
            value = re.search(rf'^\s*{re.escape(key)} = "(.*)"$', block, re.M)
            result.setdefault(value.group(1) if value else "", []).append(int(block.split(",", 1)[0]))
        return result

    def nodes(self):
        """The global ids of all nodes by name; a node without a name counts under ""."""
        return self._listing("Node", "node.name")

    def metadata(self):
        """The global ids of all metadata by name."""
        return self._listing("Metadata", "metadata.name")

    def clients(self):
        """What each client says of itself, by its process."""
        objects = [found for found in json.loads(self._ask("pw-dump")) if found["type"].endswith(":Client")]
        return {found["info"]["props"].get("application.process.id"): found["info"]["props"] for found in objects}

    def wait_node(self, name, count=1):
        wait_until(lambda: len(self.nodes().get(name, [])) == count, f"{count} nodes {name[:80]} in the graph")

    def create(self, factory, properties, wait=True):
        """A node, made of a factory of the server; its name, if it has one, should be new."""
        args = " ".join(f"{key}={json.dumps(value)}" for key, value in properties.items())
        self.command(f"create-node {factory} {{ {args} }}")
        name = properties.get("node.name")
        if wait and name is not None:
            self.wait_node(name)

    def destroy(self, *names):
        """Removes every node of those names and waits until the graph knows it."""
        for name in names:
            for number in self.nodes().get(name, []):
                self.command(f"destroy {number}")
            self.wait_node(name, 0)

    def microphone(self, name, media_class="Audio/Source", position=("MONO",), wait=True, **extra):
        """A microphone that hears a steady tone: buffers flow as soon as somebody listens."""
        properties = {
            "factory.name": "hs.tone",
            "media.class": media_class,
            "audio.position": list(position),
        }
        if name is not None:
            properties["node.name"] = name
        self.create("adapter", properties | extra, wait)

    def listen(self, name):
        """How many bytes of sound, more or less, come from a microphone in a second."""
        file = self.folder / "heard.wav"
        file.unlink(missing_ok=True)
        listener = ["pw-cat", "--record", "--target", name, "--channels", "1", str(file)]
        subprocess.run(["timeout", "1", *listener], env=self.env, capture_output=True)
        return file.stat().st_size if file.exists() else 0

    def quiet_microphone(self, name, media_class="Audio/Source", wait=True, **extra):
        """A microphone that offers a format and never delivers a buffer."""
        properties = {
            "factory.name": "support.null-audio-sink",
            "media.class": media_class,
            "audio.position": ["MONO"],
        }
        if name is not None:
            properties["node.name"] = name
        self.create("adapter", properties | extra, wait)

    def loop_microphone(self, name, feed):
        """A microphone that hears what is played to the sink `feed`; ends with the process it returns."""
        process = self._start(
            f"loop-{name}",
            [
                "pw-loopback",
                f"--capture-props=media.class=Audio/Sink node.name={feed} audio.position=[MONO]",
                f"--playback-props=media.class=Audio/Source node.name={name} audio.position=[MONO]",
            ],
        )
        self.wait_node(name)
        self.wait_node(feed)
        return process

    def play(self, path, feed):
        """Starts to play a sound file to a sink."""
        return self._start(f"play-{feed}", ["pw-play", "--target", feed, str(path)])

    def node_properties(self, name):
        """The properties of the node of that name, once there is one."""

        def find():
            for entry in json.loads(self._ask("pw-dump")):
                properties = (entry.get("info") or {}).get("props") or {}
                if entry["type"] == "PipeWire:Interface:Node" and properties.get("node.name") == name:
                    return properties
            return None

        return wait_until(find, f"a node {name}")

    def export_metadata(self, name):
        """Adds an empty metadata object of that name."""
        before = len(self.metadata().get(name, []))
        process = self._start(f"metadata-{len(self.processes)}", [str(self.built / "hs-export-metadata"), name])
        wait_until(lambda: len(self.metadata().get(name, [])) > before, lambda: f"metadata {name}: {process.err()}")

    def set_metadata(self, key, value=None, name="virtual-nodes"):
        """Writes a metadata key of subject 0; without a value the key is deleted."""
        if value is None:
            self._ask("pw-metadata", "-n", name, "-d", "0", key)
        else:
            self._ask("pw-metadata", "-n", name, "0", key, value, "Spa:String:JSON")

    def connect(self, device, connection_type, acoustic_id=None):
        """What the device's own software publishes about a device's connection."""
        value = {"connection_type": connection_type}
        if acoustic_id is not None:
            value["acoustic_id"] = acoustic_id
        self.set_metadata(f"virtual_node_connection.{device}", json.dumps(value))

    def stop(self):
        for process in reversed(self.processes):
            process.kill()

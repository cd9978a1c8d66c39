"""A test's own file system: what the daemon finds below its fixed paths, and the plug-ins it can load."""

import json
import os
import pathlib
import pwd

from .client import ROOT, SERVICE
from .process import wait_until

SYSTEM_NODE = "AudioDevice0Input0.Unprocessed"


def event(title, kind="boolean", value=False, public=True, **more):
    """An event of the scripted plug-in; see tests/plugins/script.hpp for what `more` and `info` may hold."""
    info = {"is_public": public} | more.pop("info", {})
    return {"title": title, "description": f"About {title}", "type": kind, "value": value, "info": info} | more


def array_event(title, element, values, **more):
    return event(title, "array", values, element=element, **more)


def struct_event(title, members, **more):
    """`members` maps each name to (type, value)."""
    return event(
        title,
        "struct",
        [value for _, value in members.values()],
        members=[[name, kind] for name, (kind, _) in members.items()],
        **more,
    )


def setting(title, kind="boolean", value=False, **more):
    return {"title": title, "description": f"About {title}", "type": kind, "value": value} | more


class Plugin:
    """One scripted plug-in: its configuration file, its script and the record of its calls."""

    def __init__(self, stage, name, script):
        self.name = name
        self.interface_name = script.get("interface_name", f"If_{name}")
        self.folder = stage.scripts / name
        self.folder.mkdir()
        self.record_path = self.folder / "record.jsonl"
        self.script_path = self.folder / "script.json"
        self.script_path.write_text(
            json.dumps({"record": str(self.record_path), "control": str(self.folder)} | script, ensure_ascii=False)
        )

    @property
    def settings_interface(self):
        return f"{SERVICE}.Settings.{self.interface_name}"

    def event_interface(self, title):
        return f"{SERVICE}.Events.{self.interface_name}.{title}"

    def path(self, node=SYSTEM_NODE):
        """The object path of the instance on a node."""
        segment = node.replace(".", "/").replace("-", "_")
        return f"{ROOT}/{segment if '.' in node else segment + '/Processed'}/{self.interface_name}"

    def record(self):
        """Every call so far, oldest first."""
        if not self.record_path.exists():
            return []
        whole, _, _ = self.record_path.read_text().rpartition("\n")
        return [json.loads(line) for line in whole.splitlines()]

    def calls(self, method=None, **matches):
        return [
            call
            for call in self.record()
            if (method is None or call["method"] == method)
            and all(call.get(key) == value for key, value in matches.items())
        ]

    def methods(self, *wanted, instance=None):
        """The names of the calls, in order; with `wanted`, of these methods only."""
        return [
            call["method"]
            for call in self.record()
            if (not wanted or call["method"] in wanted) and instance in (None, call["instance"])
        ]

    def wait_call(self, method, count=1, timeout=10.0, **matches):
        """The count-th call of a method."""
        return wait_until(
            lambda: self.calls(method, **matches)[count - 1 :],
            lambda: f"{count} calls of {method} {matches or ''} of {self.name}; there were {self.methods()[-20:]}",
            timeout,
        )[0]

    def instance_on(self, node):
        """The name of the instance that was last initialised on a node."""
        return self.wait_call("init", source=node) and self.calls("init", source=node)[-1]["instance"]

    def command(self, text, instance=None):
        """Has an instance, the first one if not told, obey a command at its next buffer, and waits for that."""
        instance = instance or f"{self.name}-0"
        done = len(self.calls("command", instance=instance))
        with open(self.folder / f"{instance}.ctl", "a", encoding="utf-8") as control:
            control.write(text + "\n")
        call = self.wait_call("command", done + 1, instance=instance)
        assert call["known"], f"the plug-in did not understand: {text}"

    def set(self, title, value, instance=None):
        self.command(f"set {title} {json.dumps(value, ensure_ascii=False)}", instance)


class Stage:
    def __init__(self, folder, build):
        self.folder = folder
        self.build = build
        self.etc = folder / "etc"
        self.share = folder / "share"
        self.rights = folder / "vetto2"
        self.spa = folder / "spa"
        self.home = folder / "home"
        self.scripts = folder / "scripts"
        self.logs = folder / "logs"
        self.confs = self.share / "plugin-confs"
        self.schemas = self.share / "plugin-schemas"
        self.overrides = self.etc / "plugin-confs"
        self.settings = self.etc / "plugin-settings"
        self.metrics = self.etc / "metrics"
        for path in (
            self.confs,
            self.schemas,
            self.overrides,
            self.settings,
            self.metrics,
            self.rights / "rights.d",
            self.spa / "hear-sense",
            self.home,
            self.scripts,
            self.logs,
        ):
            path.mkdir(parents=True)

    def install_library(self, name, target=None):
        """Makes a library loadable under a plug-in's name: the scripted plug-in, if not told otherwise."""
        link = self.spa / "hear-sense" / f"libspa-hs-{name}.so"
        link.symlink_to(target or self.build / "tests/plugins/libspa-hs-scripted.so")
        return link

    def conf(self, name, content, folder=None):
        """A configuration file; anything but a text is written as JSON."""
        path = (folder or self.confs) / f"{name}.conf"
        path.write_text(content if isinstance(content, str) else json.dumps(content, indent=1, ensure_ascii=False))
        return path

    def plugin(
        self, file_name="motion", /, *, enabled=False, info=None, conf=None, config=None, library=True, **script
    ):
        """A scripted plug-in, installed.

        `info` becomes "plugin.info", `config` adds to "plugin.config", `conf` to the configuration file
        itself, and the rest goes to the script.
        """
        plugin = Plugin(self, file_name, script)
        info = dict(info or {})
        if enabled:
            info["Enable.default"] = {"title": "Enable", "value": "true"}
        content = {"plugin.config": {"script": str(plugin.script_path)} | (config or {})}
        if info:
            content["plugin.info"] = info
        self.conf(file_name, content | (conf or {}))
        if library:
            self.install_library(file_name)
        return plugin

    def grant(self, user, *keys):
        """Lets the user write these properties, and no others that are not granted elsewhere."""
        path = self.rights / "rights.d" / "grant.conf"
        fresh = path.with_suffix(".new")
        fresh.write_text(json.dumps({"users": {user: list(keys)}}))
        fresh.rename(path)

    def grant_everything(self):
        self.grant(pwd.getpwuid(os.getuid()).pw_name, "*")

    def settings_file(self, plugin, node="AudioDevice0Input0"):
        return self.settings / f"{getattr(plugin, 'name', plugin)}-{node}.conf"

    def metrics_file(self, plugin, node=SYSTEM_NODE):
        return self.metrics / f"{getattr(plugin, 'name', plugin)}_{node.replace('.', '_')}_source_metrics.json"

    def files(self):
        """All files of the daemon's own folder below /etc, as relative paths."""
        return sorted(str(path.relative_to(self.etc)) for path in self.etc.rglob("*") if path.is_file())


def make_stage(folder, build):
    return Stage(pathlib.Path(folder), build)

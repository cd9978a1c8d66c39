"""The daemon under test, in a mount namespace of its own.

The namespace lays the test's folders over /etc/hear-sense, /usr/share/hear-sense and /etc/vetto2, so that
the very binary that ships is tested with its fixed paths. These mount points need not exist on the machine:
a tmpfs covers /etc and /usr/share and holds only what the daemon needs of the real ones.
"""

import os
import re
import select
import shlex
import shutil
import signal

from .client import CallFailed
from .process import SCALE, Process, wait_until
from .servers import base_environment, system_spa_dir

KEPT_ETC = ("passwd", "group", "nsswitch.conf", "ld.so.cache", "ld.so.conf", "ld.so.conf.d", "localtime", "pipewire")
KEPT_SHARE = ("pipewire", "zoneinfo")

#: Below it are the files that the daemon writes.
WRITTEN = "/etc/hear-sense"

SANITIZER_REPORTS = ("AddressSanitizer", "LeakSanitizer", "UndefinedBehaviorSanitizer", "runtime error:")

#: What the wrapper valgrind exits with when it has found something.
WRAPPER_FAILURE = 97


class UnexpectedEnd(AssertionError):
    """The daemon died, or it did not end as it should."""


def _mounts(stage):
    return (
        (stage.etc, WRITTEN),
        (stage.share, "/usr/share/hear-sense"),
        (stage.rights, "/etc/vetto2"),
    )


def _kept():
    for folder, names in (("/etc", KEPT_ETC), ("/usr/share", KEPT_SHARE)):
        for name in names:
            path = f"{folder}/{name}"
            if os.path.exists(path):
                yield path


def _as_root(stage, argv, disk):
    """unshare and mount: the process that is started becomes the daemon itself."""
    real = stage.folder / "real"
    lines = ["set -e"]
    for folder in ("/etc", "/usr/share"):
        aside = real / folder.strip("/")
        aside.mkdir(parents=True, exist_ok=True)
        lines += [f"mount --bind {folder} {shlex.quote(str(aside))}", f"mount -t tmpfs -o mode=755 tmpfs {folder}"]
    for path in _kept():
        if os.path.isdir(path):
            source = shlex.quote(str(real / path.strip("/")))
            lines.append(f"mkdir {path}; mount --bind {source} {path}")
        else:
            copy = real / "files" / path.strip("/")
            copy.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(path, copy)
            lines.append(f"cp -p {shlex.quote(str(copy))} {path}")
    for source, target in _mounts(stage):
        lines.append(f"mkdir {target}; mount --bind {shlex.quote(str(source))} {target}")
    if disk is not None:
        lines.append(f"mount -t tmpfs -o size={disk} tmpfs {WRITTEN}")
    lines.append('exec "$@"')
    return ["unshare", "--mount", "--propagation", "private", "sh", "-c", "\n".join(lines), "sh", *argv]


def _as_user(stage, argv, disk, status_fd=None):
    args = ["bwrap", "--die-with-parent", "--dev-bind", "/", "/", "--tmpfs", "/etc", "--tmpfs", "/usr/share"]
    for path in _kept():
        args += ["--ro-bind", os.path.realpath(path), path]
    for source, target in _mounts(stage):
        args += ["--bind", str(source), target]
    if disk is not None:
        args += ["--size", str(disk), "--tmpfs", WRITTEN]
    if status_fd is not None:
        args += ["--json-status-fd", str(status_fd)]
    return [*args, "--", *argv]


def in_namespace(stage, argv):
    """A command that finds the folders which the daemon finds."""
    return _as_root(stage, argv, None) if os.getuid() == 0 else _as_user(stage, argv, None)


class Daemon:
    def __init__(
        self,
        stage,
        bus_address,
        graph,
        args=(),
        env=None,
        without=(),
        privileged=True,
        debug="4",
        wrapper=(),
        program="src/hear-sense",
        disk=None,
    ):
        """`without` names environment variables to leave out; privileged=False keeps root to file modes.

        `wrapper` is a command that runs the daemon in its place, such as prlimit with its options. With `disk`,
        what the daemon writes is on an empty disk of so many bytes, which ends with it.
        """
        self.stage = stage
        self.ended = False
        self._status = None
        environment = base_environment(stage.home) | {
            "SPA_PLUGIN_DIR": f"{stage.spa}:{system_spa_dir()}",
            "PIPEWIRE_DEBUG": f"2,hear-sense:{debug}",
            "ASAN_OPTIONS": "halt_on_error=1:abort_on_error=0:detect_leaks=1:exitcode=98",
            "UBSAN_OPTIONS": "halt_on_error=1:print_stacktrace=1",
        }
        for name in ("ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"):
            if name in os.environ:
                environment[name] = ":".join(filter(None, (environment.get(name), os.environ[name])))
        environment["XDG_RUNTIME_DIR"] = str(graph.runtime if graph else stage.home)
        if bus_address:
            environment["DBUS_SYSTEM_BUS_ADDRESS"] = bus_address
        environment |= env or {}
        for name in without:
            environment.pop(name, None)
        under = [*wrapper, *shlex.split(os.environ.get("HS_TEST_WRAPPER", ""))]
        argv = [*under, str(stage.build / program), *args]
        if disk is not None:
            folders = " ".join(f"{WRITTEN}/{path.name}" for path in (stage.settings, stage.metrics))
            argv = ["sh", "-c", f'mkdir {folders} && exec "$@"', "sh", *argv]
        if os.getuid() == 0:
            if not privileged:
                argv = ["setpriv", "--bounding-set=-dac_override,-dac_read_search", "--", *argv]
            self.process = Process(_as_root(stage, argv, disk), "daemon", stage.logs, environment)
            self.pid = self.process.pid
        else:
            assert shutil.which("bwrap"), "bwrap is needed to run the tests as an ordinary user"
            reader, writer = os.pipe()
            self.process = Process(
                _as_user(stage, argv, disk, writer), "daemon", stage.logs, environment, pass_fds=(writer,)
            )
            os.close(writer)
            # Stays open until bwrap has told the end of its child as well: it would die of a closed pipe.
            self._status = os.fdopen(reader)
            self.pid = self._child_pid()

    def _child_pid(self):
        ready, _, _ = select.select([self._status], [], [], 10 * SCALE)
        text = os.read(self._status.fileno(), 4096).decode() if ready else ""
        found = re.search(r'"child-pid":\s*(\d+)', text)
        assert found, f"bwrap did not start the daemon: {self.process.err()}"
        return int(found.group(1))

    @property
    def alive(self):
        return self.process.alive

    def _status_kb(self, field):
        with open(f"/proc/{self.pid}/status", encoding="ascii") as status:
            return int(next(line.split()[1] for line in status if line.startswith(field)))

    def memory(self):
        """Resident kilobytes."""
        return self._status_kb("VmRSS")

    def assert_grown_by_less(self, before, limit_kb, now=None):
        """Says nothing with AddressSanitizer, which keeps what was freed, or under a wrapper such as valgrind."""
        reserves_terabytes = self._status_kb("VmSize") > 1024**3
        if not reserves_terabytes and not os.environ.get("HS_TEST_WRAPPER"):
            assert (now or self.memory()) - before < limit_kb

    def cpu_seconds(self):
        """What all threads have used so far."""
        total = 0
        for task in os.listdir(f"/proc/{self.pid}/task"):
            with open(f"/proc/{self.pid}/task/{task}/schedstat", encoding="ascii") as times:
                total += int(times.read().split()[0])
        return total / 1e9

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def threads(self):
        return len(os.listdir(f"/proc/{self.pid}/task"))

    def log(self):
        return self.process.err()

    def out(self):
        return self.process.out()

    def log_lines(self, text):
        return [line for line in self.log().splitlines() if text in line]

    def log_count(self, text):
        return len(self.log_lines(text))

    def wait_log(self, text, count=1, timeout=10.0):
        """Waits until a text stands in that many lines of the log."""
        def seen():
            if self.log_count(text) >= count:
                return True
            if not self.alive and self.log_count(text) < count:
                raise UnexpectedEnd(f"the daemon ended without logging {text!r}: {self.tail()}")
            return False

        wait_until(seen, lambda: f"{count} lines with {text!r} in the log: {self.tail()}", timeout)

    def tail(self):
        return f"status {self.process.popen.poll()}, log:\n" + "\n".join(self.log().splitlines()[-40:])

    def wait_ready(self, client, timeout=10.0):
        """Waits until the daemon owns its name and answers: all that comes before its loop is done."""
        def owned():
            if not self.alive:
                raise UnexpectedEnd("the daemon ended at start: " + self.tail())
            return client.has_owner()

        wait_until(owned, lambda: "the bus name: " + self.tail(), timeout)
        try:
            client.call("/", "org.freedesktop.DBus.Peer", "Ping", timeout=timeout)
        except (CallFailed, TimeoutError) as error:
            raise UnexpectedEnd("the daemon did not answer at start: " + self.tail()) from error

    def status(self, timeout=10.0):
        """Waits for the end; the exit status, negative for a signal. The test has then seen to it."""
        status = self.process.wait(timeout)
        self.ended = True
        if status > 128:
            status = 128 - status
        self.assert_clean()
        assert status != WRAPPER_FAILURE, "the wrapper has found errors: " + self.tail()
        return status

    def terminate(self, number=signal.SIGTERM):
        if self.alive:
            os.kill(self.pid, number)

    def stop(self, number=signal.SIGTERM, timeout=10.0):
        """Ends the daemon as its service manager would; the exit status."""
        self.terminate(number)
        return self.status(timeout)

    def assert_clean(self):
        reports = [line for line in self.log().splitlines() if any(text in line for text in SANITIZER_REPORTS)]
        assert not reports, "a sanitizer has found errors: " + self.tail()

    def finish(self):
        """At the end of each test: a daemon that still should run has to, and has to end well."""
        try:
            if not self.ended:
                if not self.alive:
                    raise UnexpectedEnd("the daemon died: " + self.tail())
                status = self.stop()
                assert status == 0, f"status {status} at SIGTERM: " + self.tail()
        finally:
            self.process.kill()
            if self._status is not None:
                self._status.close()

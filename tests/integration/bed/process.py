"""Child processes that cannot outlive the test run, and waiting with deadlines."""

import ctypes
import os
import signal
import subprocess
import time

PR_SET_PDEATHSIG = 1

#: Multiplies every deadline: a daemon under valgrind is some twenty times slower.
SCALE = float(os.environ.get("HS_TEST_TIMEOUT_SCALE", "1"))

_libc = ctypes.CDLL(None, use_errno=True)


class Deadline(AssertionError):
    """Something that was waited for did not happen."""


def wait_until(predicate, what, timeout=10.0, interval=0.01):
    """Returns the first true value of `predicate`; `what` is a text, or a function that makes one."""
    end = time.monotonic() + timeout * SCALE
    while True:
        value = predicate()
        if value:
            return value
        if time.monotonic() > end:
            raise Deadline(f"not within {timeout * SCALE:g} s: {what() if callable(what) else what}")
        time.sleep(interval)


def _die_with_parent():
    _libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)


class Process:
    """A child in its own process group; standard output and error go to `<logs>/<name>.out` and `.err`."""

    def __init__(self, argv, name, logs, env, stdin=subprocess.DEVNULL, pass_fds=()):
        self.name = name
        self.out_path = logs / f"{name}.out"
        self.err_path = logs / f"{name}.err"
        with open(self.out_path, "ab") as out, open(self.err_path, "ab") as err:
            self.popen = subprocess.Popen(
                argv,
                env=env,
                stdin=stdin,
                stdout=out,
                stderr=err,
                start_new_session=True,
                preexec_fn=_die_with_parent,
                pass_fds=pass_fds,
            )

    @property
    def pid(self):
        return self.popen.pid

    @property
    def alive(self):
        return self.popen.poll() is None

    def out(self):
        return self.out_path.read_text(errors="replace")

    def err(self):
        return self.err_path.read_text(errors="replace")

    def send_signal(self, number):
        if self.alive:
            os.kill(self.pid, number)

    def wait(self, timeout=10.0):
        """The exit status, negative for a signal."""
        try:
            return self.popen.wait(timeout * SCALE)
        except subprocess.TimeoutExpired as error:
            raise Deadline(f"{self.name} did not end within {timeout * SCALE:g} s") from error

    def kill(self):
        """Ends the whole group at once; harmless when it has ended."""
        try:
            os.killpg(self.popen.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.popen.wait()

    def stop(self, timeout=5.0):
        """Asks politely first."""
        self.send_signal(signal.SIGTERM)
        try:
            self.wait(timeout)
        finally:
            self.kill()

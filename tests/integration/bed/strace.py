"""Faults of the kernel, injected by strace: the n-th call of a kind fails, or kills who makes it."""

import functools
import re
import subprocess

import pytest

from .process import wait_until

#: LeakSanitizer cannot look for leaks in a program that is traced.
ENVIRONMENT = {"ASAN_OPTIONS": "detect_leaks=0"}


@functools.cache
def _works():
    try:
        return subprocess.run(["strace", "-qq", "-e", "trace=none", "true"], capture_output=True).returncode == 0
    except FileNotFoundError:
        return False


def command(log, paths, inject=()):
    """What goes before a command line to log the calls that concern `paths`, and to inject faults into them."""
    if not _works():
        pytest.skip("strace is missing, or may not trace here")
    argv = ["strace", "-qq", "-o", str(log)]
    for path in paths:
        argv += ["-P", str(path)]
    for fault in inject:
        argv += ["-e", f"inject={fault}"]
    return argv


def calls(log):
    """The names of the calls so far, in order."""
    return re.findall(r"^(\w+)\(", log.read_text(errors="replace"), re.M) if log.exists() else []


def traced_pid(tracer):
    """The process that a strace has started."""
    def find():
        with open(f"/proc/{tracer}/task/{tracer}/children", encoding="ascii") as children:
            return [int(pid) for pid in children.read().split()]

    return wait_until(find, "strace to start its command")[0]

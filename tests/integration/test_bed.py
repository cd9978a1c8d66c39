"""The microphones that the other tests listen to."""

import pathlib
import signal
import time

import pytest
from bed.process import wait_until
from bed.stage import event


@pytest.fixture
def plugin(own_bed):
    """A plug-in that hears a microphone."""
    plugin = own_bed.plugin(enabled=True, events=[event("Speech")], record_process=100000)
    own_bed.microphone()
    own_bed.start()
    plugin.wait_call("process")
    return plugin


def stand_still(process, seconds):
    status = pathlib.Path(f"/proc/{process.pid}/stat")
    process.send_signal(signal.SIGSTOP)
    try:
        wait_until(lambda: status.read_text().rsplit(")", 1)[1].split()[0] == "T", f"{process.name} to stand still")
        time.sleep(seconds)
    finally:
        process.send_signal(signal.SIGCONT)


def test_microphone_sounds_on_after_cycles_were_missed(own_bed, plugin):
    for _ in range(10):
        heard = len(plugin.calls("process"))
        # Some ten cycles of the graph.
        stand_still(own_bed.graph.server, 0.2)
        plugin.wait_call("process", heard + 5)
    assert max(call["peak"] for call in plugin.calls("process")[-5:]) > 0.5


@pytest.mark.parametrize("quantum", [64, 4096])
def test_microphone_follows_the_quantum_of_the_graph(own_bed, plugin, quantum):
    own_bed.graph.force("quantum", quantum)
    wait_until(lambda: plugin.calls("process")[-1]["size"] == quantum * 4, f"buffers of {quantum}")
    heard = len(plugin.calls("process"))
    plugin.wait_call("process", heard + 5)
    assert max(call["peak"] for call in plugin.calls("process")[-5:]) > 0.5


def test_microphone_sounds_at_another_rate_of_the_graph(own_bed, plugin):
    own_bed.graph.force("rate", 44100)
    wait_until(lambda: plugin.calls("init")[-1]["rate"] == 44100, "the rate")
    heard = len(plugin.calls("process"))
    plugin.wait_call("process", heard + 20)
    assert max(call["peak"] for call in plugin.calls("process")[-5:]) > 0.5

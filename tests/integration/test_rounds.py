"""Nodes and clients that come and go, over and over: nothing of them stays.

HS_ROUNDS asks for more rounds than the suite has time for.
"""

import os

import pytest
from bed.client import ROOT
from bed.private import PrivateClient, descriptor_client
from bed.process import wait_until
from bed.stage import SYSTEM_NODE, event, setting

ROUNDS = int(os.environ.get("HS_ROUNDS", "200"))
WARM_UP = 10
SECONDS_OF_A_ROUND = 3
#: Well below what one object of a node would come to in a few hundred rounds.
ALLOWED_KB = 2 * 1024
SOURCE = f"{ROOT}/AudioDevice0Input0/Unprocessed"


def play_round(bed, plugin, client, main, node_goes_first):
    client.signals.clear()
    bed.graph.microphone(SYSTEM_NODE, wait=False)
    client.wait_added(plugin.path())
    private = PrivateClient(main)
    private.enable(plugin, "Whisper")
    assert private.get(plugin.path(), plugin.event_interface("Whisper"), "EnableEvent") is True
    if not node_goes_first:
        private.close()
    bed.unplug()
    client.wait_removed(SOURCE)
    if node_goes_first:
        private.wait_removed(SOURCE)
        assert private.managed_objects() == {}
        private.close()
    assert client.managed_objects() == {}


@pytest.mark.seconds(60 + SECONDS_OF_A_ROUND * (ROUNDS + WARM_UP))
def test_rounds_leave_nothing_behind(bed):
    bed.stage.grant_everything()
    plugin = bed.plugin(
        enabled=True,
        settings=[setting("Gain", "float", 1.5)],
        events=[event("Whisper", public=False), event("Speech")],
    )
    bed.nodes.append(SYSTEM_NODE)
    daemon, client = bed.start()
    main = descriptor_client(bed.bus)
    bed.clients.append(main)
    root = client.introspect("/")
    alone = daemon.descriptors(), daemon.threads()

    def back():
        wait_until(
            lambda: (daemon.descriptors(), daemon.threads()) == alone,
            lambda: f"{alone} descriptors and threads, not {daemon.descriptors(), daemon.threads()}",
        )

    for number in range(WARM_UP):
        play_round(bed, plugin, client, main, number % 2 == 0)
        back()
    before = daemon.memory()
    for number in range(ROUNDS):
        play_round(bed, plugin, client, main, number % 2 == 0)
        back()
    after = daemon.memory()
    print(f"{ROUNDS} rounds, resident {before} KiB before, {after} KiB after")
    daemon.assert_grown_by_less(before, ALLOWED_KB, after)

    assert client.introspect("/") == root
    assert client.managed_objects() == {}
    private = PrivateClient(main)
    assert private.managed_objects() == {}
    private.close()
    methods = plugin.methods("load", "clear")
    assert methods.count("load") == methods.count("clear")

"""The daemon's whole life in one run, short enough to be watched by valgrind."""

from bed.client import ROOT
from bed.private import PrivateClient, descriptor_client
from bed.stage import event, setting, struct_event

NODES = ("AudioDevice0Input0.Unprocessed", "AudioDevice1Input0.Unprocessed")


def test_life_from_start_to_sigterm_with_two_plug_ins_on_two_microphones(bed):
    bed.stage.grant_everything()
    alarm = struct_event("Alarm", {"Detected": ("boolean", False), "Report": ("boolean", False)}, public=False)
    plugins = [
        bed.plugin(name, enabled=True, settings=[setting("Gain", "double", 1.0)], events=[event("Speech"), alarm])
        for name in ("motion", "noise")
    ]
    daemon, client = bed.start()
    for node in NODES:
        loop = bed.graph.loop_microphone(node, f"feed{NODES.index(node)}")
        bed.extra.append(loop.stop)
    for plugin in plugins:
        for node in NODES:
            client.wait_added(plugin.path(node))
            plugin.wait_call("init", source=node)
            plugin.wait_call("process", instance=plugin.instance_on(node))

    main = descriptor_client(bed.bus)
    bed.clients.append(main)
    private = PrivateClient(main)
    bed.clients.append(private)
    for plugin in plugins:
        instance = plugin.instance_on(NODES[0])
        client.set(plugin.path(), plugin.settings_interface, "Gain", "d", 0.5)
        private.enable(plugin, "Alarm")
        plugin.set("Speech", True, instance)
        client.wait_change(plugin.event_interface("Speech"), "Speech", True)
        plugin.set("Alarm", [True, True], instance)
        private.wait_change(plugin.event_interface("Alarm"), "Alarm", {"Detected": True, "Report": True})
        client.set(plugin.path(), plugin.settings_interface, "Enable", "b", False)
        plugin.wait_call("deactivate", instance=instance)

    bed.extra[0]()
    client.wait_removed(f"{ROOT}/AudioDevice0Input0/Unprocessed")
    for plugin in plugins:
        plugin.wait_call("clear")
        assert set(client.managed_objects()[plugin.path(NODES[1])]) >= {plugin.settings_interface}
    assert daemon.stop() == 0
    for plugin in plugins:
        assert plugin.methods("load").count("load") == plugin.methods("clear").count("clear") == 2

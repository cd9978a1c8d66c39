"""Who may write what: the rights library is asked for every write on the system bus."""

import os
import pwd

import pytest
from bed.client import DENIED, SERVICE, CallFailed
from bed.private import PrivateClient, descriptor_client
from bed.servers import Bus
from bed.stage import event, setting

USER = pwd.getpwuid(os.getuid()).pw_name


@pytest.fixture
def published(bed):
    """Publishes a plug-in with the settings Gain and Hold and the event Speech."""

    def publish(**kwargs):
        plugin = bed.plugin(
            settings=[setting("Gain", "int32", 1), setting("Hold", "int32", 2)],
            events=[event("Speech"), event("Whisper", public=False)],
        )
        bed.quiet_microphone()
        daemon, client = bed.start(**kwargs)
        client.wait_added(plugin.path())
        return plugin, daemon, client

    return publish


def write(client, plugin, name="Gain", value=5):
    client.set(plugin.path(), plugin.settings_interface, name, "i", value)


def assert_refused(client, plugin, text, name="Gain"):
    before = client.get(plugin.path(), plugin.settings_interface, name)
    with pytest.raises(CallFailed) as failure:
        write(client, plugin, name, before + 1)
    assert (failure.value.name, failure.value.text) == (DENIED, text)
    assert client.get(plugin.path(), plugin.settings_interface, name) == before
    assert client.changes(plugin.settings_interface, name) == []
    assert plugin.calls("set_settings") == []


def double(bed, **env):
    log = bed.stage.folder / "rights.log"
    folder = bed.stage.build / "tests/plugins/vetto2-double"
    return log, {"LD_LIBRARY_PATH": str(folder), "HS_DOUBLE_LOG": str(log)} | env


def test_user_without_a_grant_is_refused_and_the_daemon_goes_on(published, bed):
    plugin, daemon, client = published()
    before = bed.stage.settings_file(plugin).read_bytes()
    for round_number in range(1, 4):
        with pytest.raises(CallFailed) as failure:
            write(client, plugin)
        assert failure.value.name == DENIED
        assert failure.value.text.endswith(f": [caller: {USER} property: Gain]")
        assert daemon.log_count(f"Vetto: {USER} is not authorized for Gain") == round_number
    assert client.get(plugin.path(), plugin.settings_interface, "Gain") == 1
    assert bed.stage.settings_file(plugin).read_bytes() == before


def test_grant_of_one_property_holds_for_that_one(published, bed):
    bed.stage.grant(USER, f"{SERVICE}.Settings.If_motion.Gain")
    plugin, _, client = published()
    write(client, plugin)
    assert client.get(plugin.path(), plugin.settings_interface, "Gain") == 5
    with pytest.raises(CallFailed) as failure:
        write(client, plugin, "Hold")
    assert failure.value.name == DENIED


def test_grant_that_comes_later_holds_at_once(published, bed):
    plugin, _, client = published()
    with pytest.raises(CallFailed):
        write(client, plugin)
    bed.stage.grant_everything()
    write(client, plugin)
    assert client.get(plugin.path(), plugin.settings_interface, "Gain") == 5


def test_enabling_an_event_on_the_system_bus_needs_the_right(published, bed):
    plugin, _, client = published()
    speech = plugin.event_interface("Speech")
    with pytest.raises(CallFailed) as failure:
        client.set(plugin.path(), speech, "EnableEvent", "b", False)
    assert failure.value.name == DENIED
    assert client.get(plugin.path(), speech, "EnableEvent") is True
    bed.stage.grant(USER, f"{SERVICE}.Events.*.EnableEvent")
    client.set(plugin.path(), speech, "EnableEvent", "b", False)
    assert client.get(plugin.path(), speech, "EnableEvent") is False


def test_library_is_asked_for_user_and_key_and_its_text_comes_first(published, bed):
    log, env = double(bed, HS_DOUBLE_REFUSE="2 not on a Sunday")
    plugin, daemon, client = published(env=env)
    assert_refused(client, plugin, f"not on a Sunday: [caller: {USER} property: Gain]")
    assert log.read_text().splitlines() == ["init", f"check {USER} {SERVICE}.Settings.If_motion.Gain"]
    assert daemon.log_count(f"Vetto: {USER} is not authorized for Gain") == 1


def test_internal_error_of_the_library_refuses_with_its_code(published, bed):
    _, env = double(bed, HS_DOUBLE_REFUSE="17 rights are on fire")
    plugin, daemon, client = published(env=env)
    assert_refused(client, plugin, f"rights are on fire: [caller: {USER} property: Gain]")
    assert daemon.log_count("Vetto: Internal error 17 for Gain") == 1


def test_long_key_is_cut_at_255_characters(bed):
    log, env = double(bed)
    title = "G" * 200
    plugin = bed.plugin(interface_name="P" * 60, settings=[setting(title, "int32", 1)])
    bed.quiet_microphone()
    _, client = bed.start(env=env)
    client.wait_added(plugin.path())
    write(client, plugin, title)
    key = f"{plugin.settings_interface}.{title}"[:255]
    assert len(key) == 255
    assert f"check {USER} {key}" in log.read_text().splitlines()


def test_reads_and_methods_are_not_checked(published, bed):
    log, env = double(bed, HS_DOUBLE_REFUSE="2 no")
    plugin, _, client = published(env=env)
    client.get_all(plugin.path(), plugin.settings_interface)
    client.call(
        "/com/orvel/HearSense/AudioDevice0Input0",
        f"{SERVICE}.AudioChain",
        "IndicateTransientAudioDisturbance",
    )
    assert log.read_text().splitlines() == ["init"]


def test_private_bus_is_never_checked(published, bed):
    log, env = double(bed, HS_DOUBLE_REFUSE="2 no")
    plugin, _, _ = published(env=env)
    main = descriptor_client(bed.bus)
    bed.clients.append(main)
    private = PrivateClient(main)
    bed.clients.append(private)
    private.enable(plugin, "Whisper")
    assert private.get(plugin.path(), plugin.event_interface("Whisper"), "EnableEvent") is True
    assert log.read_text().splitlines() == ["init"]


@pytest.mark.parametrize("value", ["TRUE", "", "1"])
def test_with_the_variable_set_anyone_may_write_on_the_system_bus(published, bed, value):
    log, env = double(bed, HS_DOUBLE_REFUSE="2 no", HS_USE_SESSION_BUS=value)
    plugin, _, client = published(env=env)
    write(client, plugin)
    assert client.get(plugin.path(), plugin.settings_interface, "Gain") == 5
    assert not log.exists()


def test_on_the_session_bus_anyone_may_write(bed):
    session = Bus(bed.stage.folder, "session")
    bed.extra.append(session.stop)
    log, env = double(
        bed, HS_DOUBLE_REFUSE="2 no", HS_USE_SESSION_BUS="true", DBUS_SESSION_BUS_ADDRESS=session.address
    )
    plugin = bed.plugin(settings=[setting("Gain", "int32", 1)])
    bed.quiet_microphone()
    client = bed.client(session.address)
    daemon = bed.spawn(env=env)
    daemon.wait_ready(client)
    client.wait_added(plugin.path())
    write(client, plugin)
    assert client.get(plugin.path(), plugin.settings_interface, "Gain") == 5
    assert not log.exists()

"""The device's preview flag: read at start, and a reason to end when it changes."""

import threading

import pytest
from bed.client import SERVICE
from bed.private import PrivateClient, descriptor_client
from jeepney import DBusAddress, HeaderFields, MessageType, new_method_call, new_method_return, new_signal
from jeepney.io.blocking import open_dbus_connection

FLAG_SERVICE = "com.orvel.FeatureFlagService1"
FLAG_PATH = "/com/orvel/FeatureFlagService1"


class FlagService(threading.Thread):
    """Answers Get with `signature` and `body`; never, where there is no signature."""

    def __init__(self, address, signature=None, body=()):
        super().__init__(daemon=True)
        self.signature = signature
        self.body = body
        self.asked = []
        self.connection = open_dbus_connection(address)
        bus = DBusAddress("/org/freedesktop/DBus", "org.freedesktop.DBus", "org.freedesktop.DBus")
        self.connection.send_and_get_reply(new_method_call(bus, "RequestName", "su", (FLAG_SERVICE, 4)))
        self.ending = threading.Event()

    def run(self):
        while not self.ending.is_set():
            try:
                message = self.connection.receive(timeout=0.05)
            except TimeoutError:
                continue
            except OSError:
                return
            if message.header.message_type is not MessageType.method_call:
                continue
            self.asked.append((message.header.fields[HeaderFields.member], message.body))
            if self.signature is not None:
                self.connection.send(new_method_return(message, self.signature, self.body))

    def announce(self, flags, signature="as"):
        emitter = DBusAddress(FLAG_PATH, interface=FLAG_SERVICE)
        self.connection.send(new_signal(emitter, "FeaturesSet", signature, (flags,)))

    def stop(self):
        self.ending.set()
        self.join()
        self.connection.close()


@pytest.fixture
def serve(own_bed):
    def start(*args):
        service = FlagService(own_bed.bus.address, *args)
        service.start()
        own_bed.extra.append(service.stop)
        return service

    return start


def preview(bed, **kwargs):
    """What a plug-in is told of the flag, and the daemon."""
    plugin = bed.plugin()
    bed.quiet_microphone()
    daemon, client = bed.start(**kwargs)
    client.wait_added(plugin.path())
    return plugin.wait_call("load")["config"]["preview"], daemon


def test_absent_service_means_no_preview_and_two_warnings(own_bed):
    told, daemon = preview(own_bed)
    assert told == "false"
    assert daemon.log_count("Feature flag check failed: ") == 1
    assert daemon.log_count('Feature flag "hear_sense_preview" is not present.') == 1


@pytest.mark.parametrize("value, told", [(True, "true"), (False, "false")])
def test_flag_is_handed_to_the_plug_in(own_bed, serve, value, told):
    service = serve("a{sb}", ({"hear_sense_preview": value},))
    assert preview(own_bed)[0] == told
    assert service.asked == [("Get", (["hear_sense_preview"],))]


def test_service_that_does_not_know_the_flag_means_no_preview_without_a_warning(own_bed, serve):
    serve("a{sb}", ({},))
    told, daemon = preview(own_bed)
    assert told == "false"
    assert daemon.log_count("Feature flag") == 0


@pytest.mark.parametrize("answer", [("s", ("yes",)), ("a{ss}", ({"hear_sense_preview": "true"},)), ("", ())])
def test_broken_answer_means_no_preview_and_two_warnings(own_bed, serve, answer):
    serve(*answer)
    told, daemon = preview(own_bed)
    assert told == "false"
    assert daemon.log_count("Feature flag check failed: ") == 1
    assert daemon.log_count('Feature flag "hear_sense_preview" is not present.') == 1


def test_service_that_never_answers_is_waited_for_and_then_start_up_goes_on(own_bed, serve):
    service = serve()
    told, daemon = preview(own_bed, env={"SYSTEMD_BUS_TIMEOUT": "1s"})
    assert told == "false"
    assert len(service.asked) == 1
    assert daemon.log_count("Feature flag check failed: Connection timed out") == 1


@pytest.mark.parametrize("flags", [["hear_sense_preview"], ["other", "hear_sense_preview"], ["hear_sense_preview2"]])
def test_announced_flag_ends_the_daemon_with_0(own_bed, serve, flags):
    service = serve("a{sb}", ({},))
    daemon, _ = own_bed.start()
    main = descriptor_client(own_bed.bus)
    own_bed.clients.append(main)
    private = PrivateClient(main)
    own_bed.clients.append(private)
    service.announce(flags)
    assert daemon.status() == 0
    assert daemon.log_count("Got signal 0") == 1
    assert daemon.log_count("Destroy bus event data: ") == 1


def test_other_flags_do_nothing(own_bed, serve):
    service = serve("a{sb}", ({},))
    daemon, client = own_bed.start()
    service.announce(["other", "hear_sense", "my_hear_sense_preview"])
    service.announce([])
    assert client.managed_objects() == {}
    assert daemon.alive


def test_malformed_announcement_is_logged_and_ignored(own_bed, serve):
    service = serve("a{sb}", ({},))
    daemon, _ = own_bed.start()
    service.announce("hear_sense_preview", "s")
    daemon.wait_log("Failed to read message: ")
    assert daemon.alive


@pytest.mark.parametrize("addressed", [False, True])
def test_announcement_of_somebody_else_is_ignored(own_bed, serve, addressed):
    service = serve("a{sb}", ({},))
    daemon, client = own_bed.start()
    impostor = open_dbus_connection(own_bed.bus.address)
    announcement = new_signal(
        DBusAddress(FLAG_PATH, interface=FLAG_SERVICE), "FeaturesSet", "as", (["hear_sense_preview"],)
    )
    if addressed:
        announcement.header.fields[HeaderFields.destination] = SERVICE
    impostor.send(announcement)
    impostor.close()
    service.announce(["other"])
    assert client.has_owner(SERVICE)
    assert client.managed_objects() == {}
    assert daemon.alive

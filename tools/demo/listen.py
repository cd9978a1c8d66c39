#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Prints what hear-sense says on the system bus and on a private one, and sums it up at the end.

Given a command, runs it (it plays the sound) and listens until it has ended and nothing is detected;
given none, listens until it is interrupted. Exit status: 0, 1 when the signals were
not as they should be, 2 when the command failed, 130 when it was interrupted.
"""

import argparse
import signal
import subprocess
import sys
import time

from jeepney import DBusAddress, HeaderFields, MatchRule, MessageType, Properties, message_bus, new_method_call
from jeepney.io.blocking import Proxy, open_dbus_connection

from private import OBJECTS, PrivateClient

SERVICE = "com.orvel.HearSense"
EVENTS = SERVICE + ".Events."
SETTINGS = SERVICE + ".Settings.Loudness"
PROPERTIES = "org.freedesktop.DBus.Properties"

BAR_WIDTH = 30
BAR_FLOOR = -60.0

# How long after the sound to listen on: for the last of it, and for what is still detected.
SETTLE_SECONDS = 1.0
DETECTED_SECONDS = 12.0

LEVEL = "Level"
ONSETS = "Onsets"

# Seconds from one line to the next of events that come more often than people read.
PACES = {"Loudness": 0.5, LEVEL: 1.0, ONSETS: 1.0}

# What each detection means, as it begins and as it ends.
DETECTIONS = {
    "LoudnessAlarm": ("LOUD: above the threshold", "over: below the threshold again"),
    "Speech": ("somebody speaks", "nobody speaks any more"),
    "SmokeAlarm": ("SMOKE ALARM", "the smoke alarm is over"),
    "CarbonMonoxideAlarm": ("CARBON-MONOXIDE ALARM", "the carbon-monoxide alarm is over"),
}

# What the own sound has, each once, and how much its loudness has to rise and fall, in LU.
EXPECTED = ("LoudnessAlarm", "Speech", "SmokeAlarm")
EXPECTED_SWING = 15.0


def bar(level):
    filled = round((level - BAR_FLOOR) / -BAR_FLOOR * BAR_WIDTH)
    filled = max(0, min(BAR_WIDTH, filled))
    utf8 = (sys.stdout.encoding or "").lower().replace("-", "") == "utf8"
    return ("█" if utf8 else "#") * filled + ("·" if utf8 else ".") * (BAR_WIDTH - filled)


def plain(variant):
    """A D-Bus variant, and the variants within it, as plain Python values."""
    kind, value = variant
    if kind == "a{sv}":
        return {key: plain(inner) for key, inner in value.items()}
    return value


def describe(title, value):
    if title == "Loudness":
        momentary = value["Momentary"]
        return (f"{momentary:6.1f} LUFS {bar(momentary)} "
                f"short-term {value['ShortTerm']:6.1f} LUFS, peak {value['Peak']:6.1f} dBFS")
    if title in DETECTIONS:
        begins, ends = DETECTIONS[title]
        return begins if value["Detected"] else ends
    if title == "AlarmTone":
        return (f"{value['Frequency']:.0f} Hz at {value['Level']:.1f} dBFS, "
                f"{value['SignalToNoise']:.1f} dB above the noise")
    if title == LEVEL:
        return f"{value:6.1f} dBFS  (on the private bus)"
    if title == ONSETS:
        return f"{value['Count']} so far, the last at {value['Time']:.2f} s of audio"
    return str(value)


class Heard:
    """Everything that came, as (seconds, title, value)."""

    def __init__(self):
        self.signals = []

    def of(self, title):
        return [(at, value) for at, t, value in self.signals if t == title]

    def is_detecting(self):
        return any(values[-1][1]["Detected"] for values in map(self.of, DETECTIONS) if values)

    def print_summary(self, seconds):
        print(f"\nHeard in {seconds:.1f} s: {len(self.signals)} signals.")
        loudness = self.of("Loudness")
        if loudness:
            levels = [(value["Momentary"], at) for at, value in loudness]
            quietest, loudest = min(levels), max(levels)
            print(f"  {'Loudness':19} {len(loudness)} times: "
                  f"quietest {quietest[0]:.1f} LUFS at {quietest[1]:.1f} s, "
                  f"loudest {loudest[0]:.1f} LUFS at {loudest[1]:.1f} s, "
                  f"highest peak {max(value['Peak'] for _, value in loudness):.1f} dBFS")
        levels = [value for _, value in self.of(LEVEL)]
        if levels:
            print(f"  {LEVEL:19} {len(levels)} times on the private bus: "
                  f"from {min(levels):.1f} to {max(levels):.1f} dBFS")
        onsets = self.of(ONSETS)
        if onsets:
            print(f"  {ONSETS:19} {len(onsets)} of them")
        for title in DETECTIONS:
            changes = [f"{'detected' if value['Detected'] else 'over'} at {at:.1f} s" for at, value in self.of(title)]
            print(f"  {title:19} {', '.join(changes) if changes else 'never'}")

    def missing_of_own_sound(self):
        """What should have been heard of room, speech and alarm and was not."""
        missing = []
        levels = [value["Momentary"] for _, value in self.of("Loudness")]
        if not levels or max(levels) - levels[0] < EXPECTED_SWING:
            missing.append("the loudness did not rise with the sound")
        if not levels or max(levels) - levels[-1] < EXPECTED_SWING:
            missing.append("the loudness did not fall with the sound")
        if len(self.of(LEVEL)) < 10:
            missing.append("the private client heard nothing")
        for title in EXPECTED:
            if [value["Detected"] for _, value in self.of(title)] != [True, False]:
                missing.append(f"{title} was not detected once")
        if self.of("CarbonMonoxideAlarm"):
            missing.append("the smoke alarm was taken for another")
        if not self.of(ONSETS):
            missing.append("there were no onsets")
        return missing


def subscribe(connection):
    Proxy(message_bus, connection).AddMatch(
        MatchRule(type="signal", sender=SERVICE, interface=PROPERTIES, member="PropertiesChanged"))


def event_values(message):
    """The event values in a message: (title, value) pairs."""
    if message.header.message_type is not MessageType.signal or \
            message.header.fields.get(HeaderFields.member) != "PropertiesChanged":
        return []
    interface, changed, _ = message.body
    return [(title, plain(variant)) for title, variant in changed.items()
            if interface.startswith(EVENTS) and interface.rpartition(".")[2] == title]


def set_threshold(connection, threshold):
    """Changes the setting on every microphone, and shows what the daemon says to it."""
    root = DBusAddress("/", SERVICE, OBJECTS)
    objects = connection.send_and_get_reply(new_method_call(root, "GetManagedObjects")).body[0]
    for path, interfaces in objects.items():
        if SETTINGS not in interfaces:
            continue
        before = interfaces[SETTINGS]["Threshold"][1]
        address = DBusAddress(path, SERVICE, SETTINGS)
        reply = connection.send_and_get_reply(Properties(address).set("Threshold", "d", threshold))
        if reply.header.message_type is MessageType.error:
            print(f"    the daemon refused to change Threshold: {reply.body[0]}")
        else:
            print(f"    Threshold on {path.split('/')[4]} set from {before:g} to {threshold:g} LUFS", flush=True)


class Screen:
    """Shows what is heard, at a pace that can be read."""

    def __init__(self, start):
        self.start = start
        self.shown = {}

    def show(self, heard, title, value):
        now = time.monotonic() - self.start
        heard.signals.append((now, title, value))
        if now - self.shown.get(title, -1.0) >= PACES.get(title, 0.0):
            self.shown[title] = now
            print(f"{now:6.2f} s  {title:14} {describe(title, value)}", flush=True)


def listen(connection, private, heard, player, screen):
    ended = None
    while True:
        try:
            values = event_values(connection.receive(timeout=0.1))
        except TimeoutError:
            values = []
        for level in private.values():
            screen.show(heard, LEVEL, level)
        for title, value in values:
            screen.show(heard, title, value)
        if player is None:
            continue
        now = time.monotonic()
        if ended is None and player.poll() is not None:
            if player.returncode != 0:
                return
            ended = now
        if ended is not None and now - ended > (DETECTED_SECONDS if heard.is_detecting() else SETTLE_SECONDS):
            return


def main():
    options = argparse.ArgumentParser(description=__doc__)
    options.add_argument("--own-sound", action="store_true",
                         help="fail unless room, speech and smoke alarm were heard")
    options.add_argument("--threshold", type=float, help="sets the alarm's threshold first, in LUFS")
    options.add_argument("player", nargs="*", help="the command that plays the sound")
    args = options.parse_args()

    # The shell starts background programs with SIGINT ignored; here it always ends the listening.
    signal.signal(signal.SIGINT, signal.default_int_handler)

    heard = Heard()
    with open_dbus_connection("SYSTEM") as connection:
        if args.threshold is not None:
            set_threshold(connection, args.threshold)
        private = PrivateClient(LEVEL)
        print(f"    a private client listens to {LEVEL} on {private.n_enabled} microphone(s)\n", flush=True)
        subscribe(connection)
        start = time.monotonic()
        player = subprocess.Popen(args.player) if args.player else None
        try:
            listen(connection, private, heard, player, Screen(start))
            interrupted = False
        except KeyboardInterrupt:
            interrupted = True
        finally:
            if player is not None and player.poll() is None:
                player.terminate()
                player.wait()
        if player is not None and player.returncode != 0 and not interrupted:
            return 2
        heard.print_summary(time.monotonic() - start)

    if interrupted:
        return 130 if player is not None else 0
    if args.own_sound:
        missing = heard.missing_of_own_sound()
        for text in missing:
            print(f"Not as it should be: {text}.", file=sys.stderr)
        return 1 if missing else 0
    return 0


sys.exit(main())

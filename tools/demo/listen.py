#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Prints what hear-sense says on the system bus, as it says it, and sums it up at the end.

Given a command, runs it (it plays the sound) and listens until it has ended and no alarm is up;
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

# How long after the sound to listen on: for the last of it, and for an alarm that is still up.
SETTLE_SECONDS = 1.0
ALARM_SECONDS = 12.0

# A private client hears the level ten times a second; people are shown one a second.
LEVEL = "Level"
LEVEL_SECONDS = 1.0

# How much the own sound's signals have to rise and fall, in LU; the sound itself moves by 32.
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
    if title == "LoudnessAlarm":
        return "LOUD: above the threshold" if value["Detected"] else "over: below the threshold again"
    return str(value)


class Heard:
    """Everything that came, as (seconds, title, value)."""

    def __init__(self):
        self.signals = []

    def of(self, title):
        return [(at, value) for at, t, value in self.signals if t == title]

    def alarm_is_up(self):
        alarms = self.of("LoudnessAlarm")
        return bool(alarms) and alarms[-1][1]["Detected"]

    def print_summary(self, seconds):
        print(f"\nHeard in {seconds:.1f} s: {len(self.signals)} signals.")
        loudness = self.of("Loudness")
        if loudness:
            levels = [(value["Momentary"], at) for at, value in loudness]
            quietest, loudest = min(levels), max(levels)
            print(f"  Loudness       {len(loudness)} times: "
                  f"quietest {quietest[0]:.1f} LUFS at {quietest[1]:.1f} s, "
                  f"loudest {loudest[0]:.1f} LUFS at {loudest[1]:.1f} s, "
                  f"highest peak {max(value['Peak'] for _, value in loudness):.1f} dBFS")
        levels = [value for _, value in self.of(LEVEL)]
        if levels:
            print(f"  Level          {len(levels)} times on the private bus: "
                  f"from {min(levels):.1f} to {max(levels):.1f} dBFS")
        changes = [f"{'raised' if value['Detected'] else 'cleared'} at {at:.1f} s"
                   for at, value in self.of("LoudnessAlarm")]
        print(f"  LoudnessAlarm  {', '.join(changes) if changes else 'never raised'}")

    def missing_of_own_sound(self):
        """What should have been heard of quiet, loud, quiet and was not."""
        missing = []
        levels = [value["Momentary"] for _, value in self.of("Loudness")]
        if not levels or max(levels) - levels[0] < EXPECTED_SWING:
            missing.append("the loudness did not rise with the sound")
        if not levels or max(levels) - levels[-1] < EXPECTED_SWING:
            missing.append("the loudness did not fall with the sound")
        if len(self.of(LEVEL)) < 10:
            missing.append("the private client heard nothing")
        if [value["Detected"] for _, value in self.of("LoudnessAlarm")] != [True, False]:
            missing.append("the alarm was not raised and cleared once")
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


def show_level(heard, private, start, shown):
    """Takes what the private client has heard; returns when a level was last shown."""
    now = time.monotonic()
    for level in private.values():
        heard.signals.append((now - start, LEVEL, level))
        if now - shown >= LEVEL_SECONDS:
            print(f"{now - start:6.2f} s  {LEVEL:14} {level:6.1f} dBFS  (on the private bus)", flush=True)
            shown = now
    return shown


def listen(connection, private, heard, player, start):
    ended = None
    shown = start
    while True:
        try:
            values = event_values(connection.receive(timeout=0.1))
        except TimeoutError:
            values = []
        shown = show_level(heard, private, start, shown)
        now = time.monotonic()
        for title, value in values:
            heard.signals.append((now - start, title, value))
            print(f"{now - start:6.2f} s  {title:14} {describe(title, value)}", flush=True)
        if player is None:
            continue
        if ended is None and player.poll() is not None:
            if player.returncode != 0:
                return
            ended = now
        if ended is not None and now - ended > (ALARM_SECONDS if heard.alarm_is_up() else SETTLE_SECONDS):
            return


def main():
    options = argparse.ArgumentParser(description=__doc__)
    options.add_argument("--own-sound", action="store_true",
                         help="fail unless a rise, a fall and one alarm were heard")
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
            listen(connection, private, heard, player, start)
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

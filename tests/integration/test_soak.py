"""Many microphones for a long time, with clients and settings that come and go: nothing grows, no event is lost.

HS_SOAK_SECONDS asks for more than the suite has time for. HS_SOAK_OUTPUT names a folder for the figures, as
soak.csv, and for their curves, as soak.svg, which python3-matplotlib draws.
"""

import collections
import csv
import json
import os
import pathlib
import statistics
import time

import pytest
import soak_picture
from bed.client import plain
from bed.private import PrivateClient, descriptor_client
from bed.process import SCALE, wait_until
from bed.stage import event, setting

SECONDS = float(os.environ.get("HS_SOAK_SECONDS", "30"))
OUTPUT = os.environ.get("HS_SOAK_OUTPUT")
NODES = [f"AudioDevice{number}Input0.Unprocessed" for number in range(32)]
GUEST = "AudioDevice99Input0.Unprocessed"
TICK = 0.05
#: Of everything that happens, how often.
FIRE_SECONDS = 0.05
SETTING_SECONDS = 0.5
CLIENT_SECONDS = 1.0
GUEST_SECONDS = 4.0
SAMPLE_SECONDS = max(0.5, SECONDS / 400)
#: A stream that comes or goes changes them several times within this.
SETTLED_SECONDS = 2.0
#: What one instance, client or signal that stayed in each round would come to in an hour is far more.
ALLOWED_KIB = 1024


class Ears:
    """Hears events of all nodes on one connection; each value has to be the next."""

    def __init__(self, peer, title, paths):
        self.peer = peer
        self.title = title
        self.last = dict.fromkeys(paths, 0)
        self.count = 0

    def listen(self):
        self.peer.pump()
        for signal in self.peer.signals:
            if signal.member != "PropertiesChanged" or self.title not in signal.body[1] or signal.path not in self.last:
                continue
            value = plain(signal.body[1][self.title][1])
            # A stream that starts tells its events anew.
            if value == 0 and self.last[signal.path] == 0:
                continue
            assert value == self.last[signal.path] + 1, f"{signal.path}: {value} after {self.last[signal.path]}"
            self.last[signal.path] = value
            self.count += 1
        self.peer.signals.clear()


class Soak:
    def __init__(self, bed):
        bed.stage.grant_everything()
        self.bed = bed
        self.plugin = bed.plugin(
            enabled=True,
            settings=[setting("Gain", "int32", 0)],
            events=[event("Rustle", "int32", 0, public=False), event("Speech", "int32", 0)],
        )
        bed.graph.force("quantum", 4096)
        self.daemon, self.client = bed.start(debug="2")
        for name in NODES:
            bed.graph.microphone(name, wait=False)
        for name in NODES:
            self.client.wait_added(self.plugin.path(name), timeout=30)
        self.instances = {}
        wait_until(self._know_instances, "all microphones to be heard", 60, 0.2)
        self.main = descriptor_client(bed.bus)
        bed.clients.append(self.main)
        private = PrivateClient(self.main)
        bed.clients.append(private)
        for name in NODES:
            private.enable(self.plugin, "Rustle", node=name)
        paths = [self.plugin.path(name) for name in NODES]
        self.ears = [Ears(private, "Rustle", paths), Ears(self.client, "Speech", paths)]
        self.fired = collections.Counter()
        self.gains = {}
        self.turns = collections.Counter()
        self.guests = []
        self.rows = []

    def _know_instances(self):
        for call in self.plugin.calls("init"):
            self.instances[call["source"]] = call["instance"]
        return len(self.instances) == len(NODES)

    def _turn(self, what):
        self.turns[what] += 1
        return self.turns[what] - 1

    def fire(self):
        name = NODES[self._turn("fire") % len(NODES)]
        self.fired[name] += 1
        value = self.fired[name]
        with open(self.plugin.folder / f"{self.instances[name]}.ctl", "a", encoding="utf-8") as control:
            control.write(f"set Rustle {value}\nnotify 0\nset Speech {value}\nnotify 1\n")

    def write_setting(self):
        number = self._turn("setting")
        name = NODES[number * 7 % len(NODES)]
        self.gains[name] = number
        self.client.set(self.plugin.path(name), self.plugin.settings_interface, "Gain", "i", number)

    def change_guests(self):
        """A client comes, and the one before the last goes; every third says nothing first."""
        guest = PrivateClient(self.main)
        number = self._turn("client")
        if number % 3:
            guest.enable(self.plugin, "Rustle", node=NODES[number % len(NODES)])
        self.guests.append(guest)
        if len(self.guests) > 2:
            self.guests.pop(0).close()

    def change_microphone(self):
        if self._turn("microphone") % 2 == 0:
            self.bed.microphone(GUEST, wait=False)
            self.client.wait_added(self.plugin.path(GUEST))
        else:
            self.bed.unplug(GUEST)
            self.client.wait_removed(self.plugin.path(GUEST))

    def sample(self, seconds):
        row = {
            "seconds": round(seconds, 2),
            "resident_kib": self.daemon.memory(),
            "descriptors": self.daemon.descriptors(),
            "threads": self.daemon.threads(),
            "objects": len(self.client.managed_objects()),
            "cpu_seconds": round(self.daemon.cpu_seconds(), 3),
            "events": sum(ears.count for ears in self.ears),
        }
        before = self.rows[-1] if self.rows else {"cpu_seconds": row["cpu_seconds"], "seconds": seconds - 1}
        share = (row["cpu_seconds"] - before["cpu_seconds"]) / (row["seconds"] - before["seconds"])
        self.rows.append(row | {"cpu_share": round(share, 4)})

    def held(self):
        return self.daemon.descriptors(), self.daemon.threads(), len(self.client.managed_objects())

    def settled(self):
        """What is held once that has not changed for a while; a stream that goes gives back its memory late."""
        last, since = self.held(), time.monotonic()

        def unchanged():
            nonlocal last, since
            if (now := self.held()) != last:
                last, since = now, time.monotonic()
            return time.monotonic() - since >= SETTLED_SECONDS

        wait_until(unchanged, lambda: f"still changing: {last} descriptors, threads and objects", 30, 0.1)
        return last

    def rest(self):
        """The guests are gone, and everything that was fired has been heard."""
        for guest in self.guests:
            guest.close()
        self.guests.clear()
        if self.turns["microphone"] % 2:
            self.change_microphone()
        wanted = {self.plugin.path(name): self.fired[name] for name in NODES}

        def missing():
            return [
                f"{ears.title} {value} on {path}, not {ears.last[path]}"
                for ears in self.ears
                for path, value in wanted.items()
                if ears.last[path] != value
            ]

        def all_heard():
            for ears in self.ears:
                ears.listen()
            return not missing()

        wait_until(all_heard, lambda: "; ".join(missing()), 30, 0.05)

    def run(self, seconds):
        tasks = {
            self.fire: FIRE_SECONDS,
            self.write_setting: SETTING_SECONDS,
            self.change_guests: CLIENT_SECONDS,
            self.change_microphone: GUEST_SECONDS,
        }
        begin = time.monotonic()
        due = dict.fromkeys(tasks, 0.0)
        next_sample = 0.0
        while (passed := time.monotonic() - begin) < seconds:
            for task, every in tasks.items():
                if passed >= due[task]:
                    task()
                    due[task] = max(due[task] + every, passed - 10 * every)
            for ears in self.ears:
                ears.listen()
            for guest in self.guests:
                guest.pump()
                guest.signals.clear()
            self.main.signals.clear()
            if passed >= next_sample:
                self.sample(passed)
                next_sample += SAMPLE_SECONDS
            time.sleep(TICK / 2)

    def save(self, folder):
        folder.mkdir(parents=True, exist_ok=True)
        with open(folder / "soak.csv", "w", encoding="ascii", newline="") as file:
            writer = csv.DictWriter(file, list(self.rows[0]), lineterminator="\n")
            writer.writeheader()
            writer.writerows(self.rows)
        soak_picture.draw(folder / "soak.csv", folder / "soak.svg")


@pytest.mark.seconds(180 + 1.5 * SECONDS)
def test_nothing_grows_and_no_event_is_lost_with_32_microphones(own_bed):
    soak = Soak(own_bed)
    # What is allocated once and kept is allocated now.
    soak.run(min(60, max(10, SECONDS / 10)))
    soak.rest()
    before = soak.settled()
    soak.rows.clear()
    try:
        soak.run(SECONDS)
        soak.rest()
    finally:
        if OUTPUT:
            soak.save(pathlib.Path(OUTPUT))

    wait_until(lambda: soak.held() == before, lambda: f"{before} descriptors, threads and objects, not {soak.held()}")
    # Without the guest, whose stream has memory of its own.
    memory = [row["resident_kib"] for row in soak.rows if row["objects"] == before[2]]
    quarter = max(1, len(memory) // 4)
    first, last = statistics.median(memory[:quarter]), statistics.median(memory[-quarter:])
    print(
        f"{SECONDS:g} s: {sum(ears.count for ears in soak.ears)} events heard, {soak.turns['setting']} settings written,"
        f" {soak.turns['client']} clients, {soak.turns['microphone'] // 2} microphones;"
        f" resident {first:.0f} KiB in the first quarter, {last:.0f} KiB in the last;"
        f" {statistics.mean(row['cpu_share'] for row in soak.rows[1:]):.2%} of a core"
    )
    soak.daemon.assert_grown_by_less(first, ALLOWED_KIB, last)
    for name, gain in soak.gains.items():
        stored = json.loads(own_bed.stage.settings_file(soak.plugin, name.split(".")[0]).read_text())
        assert stored["gain"] == gain
    assert soak.fired.total() > 0.5 * (SECONDS / FIRE_SECONDS) / SCALE
    errors = [line for line in soak.daemon.log_lines("[E]") if "hear-sense" in line]
    # A microphone that comes is told to a client that has just gone, too.
    assert [line for line in errors if "Transport endpoint is not connected" not in line] == []

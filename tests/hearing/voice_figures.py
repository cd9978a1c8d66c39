#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""How well the plug-in "voice" hears: speech in noise, and what else it takes for speech.

Makes sounds (see synth.py), lets `hs-plugin run voice` hear them and prints tables in Markdown. Ends with 1 where a
goal is missed: every utterance heard in silence and over noise at 10 dB and above, and under 5 % of the frames false
in noise, tones and chords, each kind by itself. Speech in an echoing room is measured, but not a goal.

A frame is 10 ms. An utterance counts as heard when `Detected` is true in one of its frames; a frame of an utterance
as hit when it is true there, and a frame without speech as false. The hold time belongs to what is measured. The
signal-to-noise ratio is that of the whole utterance, pauses included, to the noise, up to 8 kHz.
"""

import argparse
import json
import os
import pathlib
import shlex
import subprocess
import sys
import tempfile
import time
import zlib

import numpy as np

import synth

LEAD, TAIL = 1.5, 3.0
SPEEDS = (120, 160, 220)
BACKGROUNDS = ("white", "pink", "household", "room")
SNRS = (20, 10, 5)
GOAL_SNR, GOAL_FALSE = 10, 0.05


class Tool:
    def __init__(self, command, folder, settings):
        self.command = command
        self.settings = [word for setting in settings for word in ("--set", setting)]
        self.folder = pathlib.Path(folder)
        self.seconds = 0.0
        self.busy = 0.0

    def hear(self, sounds):
        """For each sound, whether speech was detected in each of its frames."""
        files = [self.folder / f"{i}.wav" for i in range(len(sounds))]
        for file, samples in zip(files, sounds):
            synth.write_wav(file, samples)
        began = time.monotonic()
        # Blocks of 10 ms, so that times are those of the frames.
        out = subprocess.run([*self.command, "run", "voice", *self.settings, "--block", str(synth.RATE // 100),
                              *map(str, files)], check=True, stdout=subprocess.PIPE).stdout
        self.busy += time.monotonic() - began
        self.seconds += sum(map(len, sounds)) / synth.RATE
        detected = {file.name: np.zeros(len(samples) * 100 // synth.RATE, bool)
                    for file, samples in zip(files, sounds)}
        for line in out.decode().splitlines():
            told = json.loads(line)
            if told.get("event") == "Speech":
                # The time is that of the end of the frame.
                first = max(0, round(told["time"] * 100) - 1)
                detected[pathlib.Path(told["source"]).name][first:] = told["value"]["Detected"]
        return list(detected.values())


# Speech.

def scene(said, behind, snr, *names):
    """One utterance after LEAD seconds and before TAIL seconds of the background."""
    rng = synth.generator("voice", behind, snr, *names)
    seconds = LEAD + len(said) / synth.RATE + TAIL
    signal = np.zeros(synth.frames(seconds))
    synth.add_at(signal, LEAD, said / synth.rms(said))
    if behind != "silence":
        noise = synth.household(rng, seconds) if behind == "household" else \
            synth.noise(rng, seconds, 0 if behind == "white" else 3)
        mask = np.zeros(len(signal), bool)
        mask[synth.frames(LEAD):synth.frames(LEAD) + len(said)] = True
        if behind == "room":
            signal = synth.room(rng, signal, 0.5, 0)
        signal = synth.mix(signal, noise[:len(signal)], snr, signal_mask=mask)
    return synth.at_level(signal, rng.uniform(-45, -20))


def text(rng):
    return " ".join(str(rng.choice(synth.WORDS.split())) for _ in range(int(rng.integers(4, 12))))


def utterances(n_each, speeds):
    """(voice, speed, samples) for all voices."""
    for voice in synth.VOICES:
        for speed in speeds:
            for i in range(n_each):
                rng = synth.generator("utterance", voice, speed, i)
                yield voice, speed, synth.say(text(rng), voice, speed, int(rng.integers(30, 70)))


class Tally:
    """What became of a number of utterances."""

    def __init__(self):
        self.heard, self.hits, self.delays, self.early, self.late = [], [], [], [], []

    def add(self, detected, said):
        begin = round(LEAD * 100)
        end = begin + len(said) * 100 // synth.RATE
        hits = detected[begin:end]
        self.heard.append(bool(hits.any()))
        self.hits += list(hits)
        if hits.any():
            self.delays.append(np.argmax(hits) / 100)
            rest = detected[end:]
            self.late.append((len(rest) if rest.all() else np.argmin(rest)) / 100)
        self.early.append(bool(detected[:begin].any()))

    def row(self):
        delay, late = ((f"{np.median(x):.2f} s" if x else "-") for x in (self.delays, self.late))
        return (f"{sum(self.heard)} of {len(self.heard)} | {100 * np.mean(self.hits):.0f} % | {delay} | {late} | "
                f"{sum(self.early)}")


def measure_speech(tool, conditions, n_each, speeds):
    print(f"\n## Speech: {len(synth.VOICES)} voices, {', '.join(map(str, speeds))} words a minute\n")
    print("| Background | SNR | Utterances heard | Frames hit | Detected after | Cleared after | False before |")
    print("| --- | --- | --- | --- | --- | --- | --- |")
    all_said = list(utterances(n_each, speeds))
    by_voice = {voice: Tally() for voice in synth.VOICES}
    by_speed = {speed: Tally() for speed in speeds}
    is_met = True
    for behind, snr in conditions:
        tally = Tally()
        sounds = [scene(said, behind, snr, i) for i, (_, _, said) in enumerate(all_said)]
        for (voice, speed, said), detected in zip(all_said, tool.hear(sounds)):
            tally.add(detected, said)
            if snr == GOAL_SNR:
                by_voice[voice].add(detected, said)
                by_speed[speed].add(detected, said)
        name = "pink, in a room" if behind == "room" else behind
        print(f"| {name} | {f'{snr} dB' if snr is not None else '-'} | {tally.row()} |", flush=True)
        if behind != "room" and (snr is None or snr >= GOAL_SNR):
            is_met = is_met and all(tally.heard)
    for title, tallies in (("Voice", by_voice), ("Words a minute", by_speed)):
        print(f"\n| {title}, all backgrounds at {GOAL_SNR} dB | Utterances heard | Frames hit | Detected after | "
              "Cleared after | False before |\n| --- | --- | --- | --- | --- | --- |")
        for key, tally in tallies.items():
            print(f"| {key} | {tally.row()} |")
    return is_met


def measure_words(tool, count):
    print("\n## Single words\n\n| Background | SNR | Words heard |\n| --- | --- | --- |")
    words = []
    for i in range(count):
        rng = synth.generator("word", i)
        words.append(synth.say(str(rng.choice(synth.WORDS.split())), str(rng.choice(synth.VOICES)),
                               int(rng.integers(120, 221)), int(rng.integers(30, 71))))
    for behind, snr in (("silence", None), ("pink", 20), ("pink", 10)):
        tally = Tally()
        for said, detected in zip(words, tool.hear([scene(said, behind, snr, "word", i)
                                                    for i, said in enumerate(words)])):
            # It may be over before it is known for speech.
            tally.heard.append(bool(detected[round(LEAD * 100):].any()))
        print(f"| {behind} | {f'{snr} dB' if snr else '-'} | {sum(tally.heard)} of {count} |", flush=True)


# What is no speech.

def steady(frequencies, seconds, shape):
    t = np.arange(synth.frames(seconds)) / synth.RATE
    slope = {"sine": None, "organ": 1.2, "sawtooth": 1.0, "square": 1.0}[shape]
    made = np.zeros(len(t))
    for frequency in frequencies:
        for k in range(1, 2 if slope is None else int(7000 / frequency) + 1):
            if shape != "square" or k % 2 == 1:
                made += np.sin(2 * np.pi * k * (frequency * t + 0.13 * k)) / k ** (slope or 1)
    return made


def in_turn(rng, seconds, make):
    """Sounds of 2 to 8 s, each from `make(length)`, with pauses between some."""
    made = np.zeros(synth.frames(seconds))
    at = 0.0
    while at < seconds:
        length = rng.uniform(2, 8)
        sound = make(length)
        synth.add_at(made, at, sound / synth.rms(sound) * synth.fade(len(sound), seconds=0.01))
        at += length + rng.choice([0.0, 0.3, 1.0])
    return made


def tones(rng, seconds, shape):
    return in_turn(rng, seconds, lambda length: steady([60 * 50 ** rng.random()], length, shape))


def chords(rng, seconds, shape):
    def chord(length):
        root = 80 * 8 ** rng.random()
        steps = [(0, 4, 7), (0, 3, 7), (0, 5, 9), (0, 4, 7, 10), (0, 3, 6), (0, 7)][int(rng.integers(6))]
        return steady([root * 2 ** (step / 12) for step in steps], length, shape)
    return in_turn(rng, seconds, chord)


def modulated(rng, seconds, frequency, depth=0.9):
    t = np.arange(synth.frames(seconds)) / synth.RATE
    return synth.noise(rng, seconds, rng.choice([0, 3])) * (1 + depth * np.sin(2 * np.pi * frequency * t))


def melody(rng, seconds, shape, n_voices=1):
    made = np.zeros(synth.frames(seconds))
    for _ in range(n_voices):
        at, step = 0.0, int(rng.integers(4, 16))
        while at < seconds:
            length = rng.choice([0.15, 0.25, 0.5, 1.0])
            step = int(np.clip(step + rng.integers(-3, 4), 0, 24))
            synth.add_at(made, at, synth.note(165 * 2 ** (step / 12), 0.95 * length, shape))
            at += length
    return made


def vibrato(rng, seconds):
    """Long notes of a bowed string, each with a vibrato of half a semitone up and down."""
    def note(length):
        t = np.arange(synth.frames(length)) / synth.RATE
        phase = 200 * 2 ** rng.uniform(0, 1) * (t - 0.03 * np.cos(2 * np.pi * 5.5 * t) / (2 * np.pi * 5.5))
        return sum(np.sin(2 * np.pi * k * phase) / k ** 0.6 for k in range(1, 11))
    return in_turn(rng, seconds, note)


def siren(rng, seconds, shape):
    t = np.arange(synth.frames(seconds)) / synth.RATE
    phase = np.cumsum(300 + 120 * np.sin(2 * np.pi * 0.25 * t)) / synth.RATE
    return sum(np.sin(2 * np.pi * k * phase) / k for k in range(1, 2 if shape == "sine" else 12))


GOAL_KINDS = {
    "white noise": lambda rng, s: synth.noise(rng, s, 0),
    "pink noise": lambda rng, s: synth.noise(rng, s, 3),
    "brown noise": lambda rng, s: synth.noise(rng, s, 6),
    "household noise": synth.household,
    "noise, modulated at 0.3 Hz": lambda rng, s: modulated(rng, s, 0.3),
    "noise, modulated at 1 Hz": lambda rng, s: modulated(rng, s, 1),
    "noise, modulated at 4 Hz": lambda rng, s: modulated(rng, s, 4),
    "noise, modulated at 8 Hz": lambda rng, s: modulated(rng, s, 8),
    "tones, sine": lambda rng, s: tones(rng, s, "sine"),
    "tones, square": lambda rng, s: tones(rng, s, "square"),
    "tones, sawtooth": lambda rng, s: tones(rng, s, "sawtooth"),
    "chords, sine": lambda rng, s: chords(rng, s, "sine"),
    "chords, organ": lambda rng, s: chords(rng, s, "organ"),
    "chords, sawtooth": lambda rng, s: chords(rng, s, "sawtooth"),
}

OTHER_KINDS = {
    "beeps and alarms": synth.other_beeps,
    "melody, plucked": lambda rng, s: melody(rng, s, "pluck"),
    "melody, organ": lambda rng, s: melody(rng, s, "organ"),
    "melody, bowed": lambda rng, s: melody(rng, s, "bow"),
    "melody, flute": lambda rng, s: melody(rng, s, "flute"),
    "two melodies at once, organ": lambda rng, s: melody(rng, s, "organ", 2),
    "music": synth.music,
    "strings with vibrato": vibrato,
    "siren, sine": lambda rng, s: siren(rng, s, "sine"),
    "siren, rich": lambda rng, s: siren(rng, s, "rich"),
}


def measure_false(tool, minutes):
    print(f"\n## False frames in {minutes:g} min of each sound, half of it over pink noise at 10 dB\n")
    print("| Sound | Frames false | Times detected |\n| --- | --- | --- |")
    worst = 0.0
    part = min(60.0, minutes * 30)
    for kind, make in {**GOAL_KINDS, **OTHER_KINDS}.items():
        sounds = []
        for i in range(round(minutes * 60 / part)):
            rng = synth.generator("no speech", zlib.crc32(kind.encode()), i)
            sound = make(rng, part)
            if i % 2 == 1:
                sound = synth.mix(sound, synth.noise(rng, part, 3), 10)
            sounds.append(synth.at_level(sound, rng.uniform(-45, -20)))
        all_detected = tool.hear(sounds)
        share = float(np.mean(np.concatenate(all_detected)))
        times = sum(int(np.sum(np.diff(detected.astype(int), prepend=0) == 1)) for detected in all_detected)
        print(f"| {kind} | {100 * share:.1f} % | {times} |", flush=True)
        if kind in GOAL_KINDS:
            worst = max(worst, share)
    return worst < GOAL_FALSE


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", 1)[0])
    parser.add_argument("--tool", default=os.environ.get("HS_PLUGIN", "hs-plugin"),
                        help="the command hs-plugin (default: $HS_PLUGIN, or that on the PATH)")
    parser.add_argument("--set", action="append", default=[], metavar="SETTING=VALUE",
                        help="a setting of the plug-in; may be repeated")
    parser.add_argument("--each", type=int, default=4, help="utterances of each voice and speed (default: 4)")
    parser.add_argument("--minutes", type=float, default=10.0, help="of each sound that is no speech (default: 10)")
    parser.add_argument("--quick", action="store_true", help="one utterance of each voice, at 10 dB, and one minute")
    options = parser.parse_args()

    conditions = [("silence", None)] + [(behind, snr) for behind in BACKGROUNDS for snr in SNRS]
    speeds = SPEEDS
    if options.quick:
        options.each, options.minutes, speeds = 1, 1.0, SPEEDS[1:2]
        conditions = [(behind, snr) for behind, snr in conditions if snr in (None, GOAL_SNR)]
    with tempfile.TemporaryDirectory(prefix="voice-figures-") as folder:
        tool = Tool(shlex.split(options.tool), folder, options.set)
        is_heard = measure_speech(tool, conditions, options.each, speeds)
        if not options.quick:
            measure_words(tool, 100)
        is_quiet = measure_false(tool, options.minutes)
    print(f"\n{tool.seconds / 60:.0f} min heard in {tool.busy:.1f} s, "
          f"{100 * tool.busy / tool.seconds:.2f} % of real time")
    for is_met, goal in ((is_heard, f"every utterance heard at {GOAL_SNR} dB"),
                         (is_quiet, f"under {100 * GOAL_FALSE:g} % false in noise, tones and chords")):
        print(f"{'met' if is_met else 'MISSED'}: {goal}")
    return 0 if is_heard and is_quiet else 1


if __name__ == "__main__":
    sys.exit(main())

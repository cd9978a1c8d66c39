#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Writes the sound of the demo: a quiet room, somebody who speaks, a smoke alarm, the room again.

Usage: make-sound.py OUTPUT.wav SPEECH.wav
"""

import array
import math
import random
import signal
import sys
import wave

RATE = 48000

ROOM_DBFS = -58.0
SPEECH_PEAK_DBFS = -14.0
ALARM_PEAK_DBFS = -8.0

ALARM_HZ = 3100.0
#: Seconds at which the beeps of one round begin, how long they are, and how long the round is (ISO 8201).
BEEPS = (0.0, 1.0, 2.0)
BEEP_SECONDS = 0.5
ROUND_SECONDS = 4.0
ROUNDS = 2
FADE_SECONDS = 0.005

BEFORE_SPEECH_SECONDS = 2.0
AFTER_SPEECH_SECONDS = 1.0
AFTER_ALARM_SECONDS = 4.0


def amplitude(dbfs):
    return 10 ** (dbfs / 20)


def room(seconds):
    """Noise that gets weaker towards high frequencies."""
    rng = random.Random(1)
    value = 0.0
    scale = amplitude(ROOM_DBFS) * 3
    for _ in range(int(seconds * RATE)):
        value += 0.2 * (rng.gauss(0.0, 1.0) - value)
        yield scale * value


def read_speech(path):
    """The file's first channel, at our rate, with its peak where it should be."""
    with wave.open(path) as file:
        values = array.array("h", file.readframes(file.getnframes()))
        step = file.getframerate() / RATE
    if sys.byteorder == "big":
        values.byteswap()
    scale = amplitude(SPEECH_PEAK_DBFS) / max(abs(value) for value in values)
    for i in range(int((len(values) - 1) / step)):
        at, share = divmod(i * step, 1.0)
        left, right = values[int(at)], values[int(at) + 1]
        yield scale * (left + share * (right - left))


def alarm():
    scale = amplitude(ALARM_PEAK_DBFS)
    for i in range(int(ROUNDS * ROUND_SECONDS * RATE)):
        at = (i / RATE) % ROUND_SECONDS
        since = min((at - begin for begin in BEEPS if at >= begin), default=BEEP_SECONDS)
        fade = max(0.0, min(1.0, since / FADE_SECONDS, (BEEP_SECONDS - since) / FADE_SECONDS))
        yield scale * fade * math.sin(2 * math.pi * ALARM_HZ * i / RATE)


def add(scene, begin, samples):
    for i, sample in enumerate(samples, int(begin * RATE)):
        scene[i] += sample


def main():
    signal.signal(signal.SIGINT, signal.SIG_DFL)
    output, speech_path = sys.argv[1:]
    speech = list(read_speech(speech_path))
    alarm_begin = BEFORE_SPEECH_SECONDS + len(speech) / RATE + AFTER_SPEECH_SECONDS
    scene = list(room(alarm_begin + ROUNDS * ROUND_SECONDS + AFTER_ALARM_SECONDS))
    add(scene, BEFORE_SPEECH_SECONDS, speech)
    add(scene, alarm_begin, alarm())

    data = array.array("h", (round(32767 * sample) for sample in scene))
    if sys.byteorder == "big":
        data.byteswap()
    with wave.open(output, "wb") as out:
        out.setnchannels(1)
        out.setsampwidth(2)
        out.setframerate(RATE)
        out.writeframes(data.tobytes())
    print(f"{alarm_begin:.0f}")


main()

#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Writes the sound of the demo: a chord that is quiet, then loud, then quiet again."""

import array
import math
import signal
import sys
import wave

RATE = 48000
CHORD = (440.0, 554.37, 659.26)

# (seconds, level at the end in dBFS); the level moves evenly over each part.
PARTS = ((3.0, -46.0), (1.0, -14.0), (3.0, -14.0), (1.0, -46.0), (4.0, -46.0))
START_LEVEL = -46.0


def samples():
    start = START_LEVEL
    n = 0
    for seconds, end in PARTS:
        count = int(seconds * RATE)
        for i in range(count):
            level = start + (end - start) * i / count
            amplitude = 10 ** (level / 20) * math.sqrt(2 / len(CHORD))
            t = n / RATE
            yield amplitude * sum(math.sin(2 * math.pi * f * t) for f in CHORD)
            n += 1
        start = end


def main():
    signal.signal(signal.SIGINT, signal.SIG_DFL)
    data = array.array("h", (round(32767 * s) for s in samples()))
    if sys.byteorder == "big":
        data.byteswap()
    with wave.open(sys.argv[1], "wb") as out:
        out.setnchannels(1)
        out.setsampwidth(2)
        out.setframerate(RATE)
        out.writeframes(data.tobytes())


main()

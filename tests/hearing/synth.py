# SPDX-License-Identifier: MIT
"""Sounds for measuring what the plug-ins hear: noise, households, music, beeps, alarms and speech.

Everything is a numpy array of float64 samples at RATE, full scale being 1, and everything follows from a seed: the
same seed makes the same sound on every run. Speech is espeak-ng's. Not a test by itself.
"""

import functools
import io
import subprocess
import wave
import zlib

import numpy as np

RATE = 16000


def generator(*names):
    """A random generator of its own for what the names, which may be numbers, say."""
    return np.random.default_rng(zlib.crc32(repr(names).encode()))


def frames(seconds, rate=RATE):
    return int(round(seconds * rate))


# Levels and mixing.

def db(power):
    return 10 * np.log10(np.maximum(power, 1e-20))


def rms(samples):
    return float(np.sqrt(np.mean(np.square(samples)))) if len(samples) else 0.0


def at_level(samples, dbfs):
    """Scaled to an RMS level."""
    return samples * (10 ** (dbfs / 20) / max(rms(samples), 1e-12))


def third_octave(frequency):
    """The edges of the third of an octave around a frequency."""
    return frequency * 2 ** (-1 / 6), frequency * 2 ** (1 / 6)


def in_band(samples, band, rate=RATE):
    """What of a sound lies between the two frequencies of a band."""
    size = 1 << max(len(samples) - 1, 1).bit_length()
    spectrum = np.fft.rfft(samples, size)
    at = np.fft.rfftfreq(size, 1 / rate)
    spectrum[(at < band[0]) | (at > band[1])] = 0
    return np.fft.irfft(spectrum, size)[:len(samples)]


def snr_gain(signal, noise, snr, band=None, signal_mask=None, noise_mask=None, rate=RATE):
    """The factor for `noise` that puts `signal` at `snr` dB above it.

    Both are measured in `band` (a pair of frequencies; the whole of it without one), each where its mask holds.
    """
    if band:
        signal, noise = in_band(signal, band, rate), in_band(noise, band, rate)
    signal = signal if signal_mask is None else signal[signal_mask]
    noise = noise if noise_mask is None else noise[noise_mask]
    return rms(signal) / max(rms(noise), 1e-12) * 10 ** (-snr / 20)


def mix(signal, noise, snr, **how):
    """`signal` at `snr` dB above `noise`, which is scaled; see snr_gain."""
    return signal + noise * snr_gain(signal, noise, snr, **how)


def clip(samples, over_db):
    """Cut off that many dB below its peak, and amplified to full scale."""
    limit = np.max(np.abs(samples)) * 10 ** (-over_db / 20)
    return np.clip(samples / max(limit, 1e-12), -1, 1)


def room(rng, samples, rt60=0.4, direct_db=0.0, rate=RATE):
    """As heard in a room: the direct sound and, that many dB below it, a tail that falls by 60 dB in `rt60`."""
    n = frames(rt60, rate)
    tail = rng.standard_normal(n) * 10 ** (-3 * np.arange(n) / n)
    tail *= 10 ** (-direct_db / 20) / np.sqrt(np.sum(tail ** 2))
    tail[0] += 1
    return convolve(samples, tail)[:len(samples)]


def convolve(a, b):
    size = 1 << (len(a) + len(b) - 2).bit_length()
    return np.fft.irfft(np.fft.rfft(a, size) * np.fft.rfft(b, size), size)[:len(a) + len(b) - 1]


def resample(samples, old_rate, new_rate):
    if old_rate == new_rate:
        return samples
    n = int(round(len(samples) * new_rate / old_rate))
    spectrum = np.fft.rfft(samples)
    kept = np.zeros(n // 2 + 1, complex)
    m = min(len(kept), len(spectrum))
    kept[:m] = spectrum[:m]
    return np.fft.irfft(kept, n) * (n / max(len(samples), 1))


# Files.

def write_wav(path, samples, rate=RATE):
    """16 bits; one channel, or as many as the second dimension has. What is above full scale is cut off."""
    samples = np.asarray(samples)
    with wave.open(str(path), "wb") as out:
        out.setnchannels(1 if samples.ndim == 1 else samples.shape[1])
        out.setsampwidth(2)
        out.setframerate(rate)
        out.writeframes(np.round(np.clip(samples, -1, 1) * 32767).astype("<i2").tobytes())


def read_wav(file):
    """Samples and rate of a file of 16 bits; the first channel."""
    with wave.open(file, "rb") as sound:
        # A stream from a pipe does not know its length: espeak-ng writes a large one.
        data = np.frombuffer(sound.readframes(sound.getnframes()), "<i2")
        return data[::sound.getnchannels()] / 32768, sound.getframerate()


# Noise.

def noise(rng, seconds, slope=0.0, rate=RATE):
    """Noise that falls by `slope` dB per octave: 0 is white, 3 pink, 6 brown."""
    n = frames(seconds, rate)
    size = 1 << max(n - 1, 1).bit_length()
    spectrum = np.fft.rfft(rng.standard_normal(size))
    at = np.maximum(np.fft.rfftfreq(size, 1 / rate), 20.0)
    made = np.fft.irfft(spectrum * (at / 1000) ** (-slope / 6.02), size)[:n]
    return made / rms(made)


def fade(n, rate=RATE, seconds=0.005):
    """An envelope of one that rises and falls within a few milliseconds."""
    envelope = np.ones(n)
    m = min(frames(seconds, rate), n // 2)
    if m:
        slope = 0.5 - 0.5 * np.cos(np.pi * np.arange(m) / m)
        envelope[:m], envelope[n - m:] = slope, slope[::-1]
    return envelope


def add_at(samples, seconds, sound, rate=RATE):
    begin = frames(seconds, rate)
    part = samples[begin:begin + len(sound)]
    part += sound[:len(part)]


def household(rng, seconds, rate=RATE):
    """A kitchen: humming, a fan or a tap now and then, clinking dishes, knocks, steps, rustling."""
    n = frames(seconds, rate)
    t = np.arange(n) / rate
    made = 0.05 * noise(rng, seconds, 4.5, rate)
    for k in range(1, 8):
        made += 0.03 / k * np.sin(2 * np.pi * (50 * k * t + rng.random()))
    at = 0.0
    while at < seconds:
        kind = rng.choice(["tap", "fan", "clink", "knock", "steps", "rustle", "nothing"],
                          p=[0.08, 0.08, 0.3, 0.14, 0.1, 0.2, 0.1])
        loud = 10 ** (rng.uniform(-20, 0) / 20)
        if kind in ("tap", "fan"):
            length = rng.uniform(4, 12)
            sound = noise(rng, length, 0.0 if kind == "tap" else 4.0, rate)
            sound *= 0.15 * loud * (1 + 0.3 * np.sin(2 * np.pi * rng.uniform(1, 9) * np.arange(len(sound)) / rate))
            sound *= fade(len(sound), rate, 0.5)
        elif kind == "clink":
            length = rng.uniform(0.2, 0.8)
            s = np.arange(frames(length, rate)) / rate
            sound = sum(rng.uniform(0.2, 1) * np.sin(2 * np.pi * f * s) * np.exp(-s * rng.uniform(8, 40))
                        for f in rng.uniform(900, min(7000, 0.45 * rate), 5))
            sound *= 0.5 * loud
        elif kind in ("knock", "steps"):
            length = 0.2
            one = noise(rng, length, 6.0, rate) * np.exp(-np.arange(frames(length, rate)) / rate * 35)
            count, pause = (rng.integers(1, 5), 0.25) if kind == "knock" else (rng.integers(3, 9), rng.uniform(0.45, 0.6))
            sound = np.zeros(frames(count * pause + length, rate))
            for i in range(count):
                add_at(sound, i * pause, one * loud, rate)
        elif kind == "rustle":
            length = rng.uniform(0.3, 2)
            sound = noise(rng, length, -1.0, rate)
            sound *= 0.2 * loud * fade(len(sound), rate, 0.1) * (rng.random(len(sound)) < 0.3)
        else:
            sound = np.zeros(1)
        add_at(made, at, sound, rate)
        at += rng.exponential(0.9)
    return made / rms(made)


# Music.

def note(frequency, seconds, shape, rate=RATE):
    """One note: a pluck, an organ, a bowed string or a flute."""
    t = np.arange(frames(seconds, rate)) / rate
    n_partials = {"pluck": 8, "organ": 5, "bow": 10, "flute": 2}[shape]
    made = np.zeros(len(t))
    for k in range(1, n_partials + 1):
        if k * frequency > 0.45 * rate:
            break
        wobble = 0.004 * np.sin(2 * np.pi * 5.5 * t) / (2 * np.pi * 5.5) if shape in ("bow", "flute") else 0.0
        made += np.sin(2 * np.pi * k * frequency * (t + wobble)) / k ** (0.6 if shape == "bow" else 1.2)
    if shape == "pluck":
        made *= np.exp(-t * 3.5)
    return made * fade(len(t), rate, 0.06 if shape == "bow" else 0.008)


def music(rng, seconds, rate=RATE):
    """Chords, a melody, a bass and, mostly, drums, with a new piece every half minute or so."""
    made = np.zeros(frames(seconds, rate))
    begin = 0.0
    while begin < seconds:
        beat = 60 / rng.uniform(60, 180)
        length = rng.uniform(20, 40)
        key = 55 * 2 ** (rng.integers(0, 12) / 12)
        scale = [0, 2, 4, 5, 7, 9, 11] if rng.random() < 0.6 else [0, 2, 3, 5, 7, 8, 10]
        pad, lead = rng.choice(["pluck", "organ", "bow"]), rng.choice(["pluck", "organ", "bow", "flute"])
        has_drums = rng.random() < 0.7
        hiss = noise(rng, 0.08, -2.0, rate) * np.exp(-np.arange(frames(0.08, rate)) / rate * 60)
        thump = np.sin(2 * np.pi * 60 * np.arange(frames(0.15, rate)) / rate) * np.exp(-np.arange(frames(0.15, rate)) / rate * 20)
        step = 7
        at = begin
        while at < min(begin + length, seconds):
            root = int(rng.choice([0, 3, 4, 5]))
            for i in (0, 2, 4):
                degree = root + i
                pitch = key * 4 * 2 ** ((scale[degree % 7] + 12 * (degree // 7)) / 12)
                add_at(made, at, 0.2 * note(pitch, 4 * beat, pad, rate), rate)
            add_at(made, at, 0.4 * note(key * 2 ** (scale[root] / 12), 2 * beat, "pluck", rate), rate)
            melody = at
            while melody < at + 4 * beat - 1e-6:
                duration = float(rng.choice([0.25, 0.5, 0.5, 1, 1, 2])) * beat
                step = int(np.clip(step + rng.integers(-3, 4), 0, 20))
                if rng.random() < 0.85:
                    pitch = key * 8 * 2 ** ((scale[step % 7] + 12 * (step // 7)) / 12)
                    add_at(made, melody, 0.35 * note(pitch, 0.9 * duration, lead, rate), rate)
                melody += duration
            if has_drums:
                for i in range(8):
                    add_at(made, at + i * beat / 2, 0.3 * hiss, rate)
                    if i % 4 == 0:
                        add_at(made, at + i * beat / 2, 0.8 * thump, rate)
            at += 4 * beat
        begin = at
    return made / max(rms(made), 1e-9)


# Beeps and alarms.

SMOKE = ((0.5, 0.5), (0.5, 0.5), (0.5, 1.5))
CARBON_MONOXIDE = ((0.1, 0.1), (0.1, 0.1), (0.1, 0.1), (0.1, 5.0))

# Rhythms that are no alarm, as pairs of seconds with a beep and without one.
OTHER_RHYTHMS = {
    "continuous": ((60.0, 0.0),),
    "slow, 1 s on and off": ((1.0, 1.0),),
    "reversing lorry": ((0.5, 0.5),),
    "fast, 0.25 s on and off": ((0.25, 0.25),),
    "two of three beeps": ((0.5, 0.5), (0.5, 1.5)),
    "two of three beeps in 4 s": ((0.5, 0.5), (0.5, 2.5)),
    "four of three beeps": ((0.5, 0.5), (0.5, 0.5), (0.5, 0.5), (0.5, 1.5)),
    "smoke, a quarter faster": tuple((0.75 * on, 0.75 * off) for on, off in SMOKE),
    "smoke, a quarter slower": tuple((1.25 * on, 1.25 * off) for on, off in SMOKE),
    "three long beeps": ((1.0, 1.0), (1.0, 1.0), (1.0, 3.0)),
    "alarm clock": ((0.1, 0.1), (0.1, 0.1), (0.1, 0.1), (0.1, 0.5)),
    "alarm clock, every 2 s": ((0.1, 0.1), (0.1, 0.1), (0.1, 0.1), (0.1, 1.3)),
    "three of four beeps": ((0.1, 0.1), (0.1, 0.1), (0.1, 5.0)),
    "five of four beeps": ((0.1, 0.1),) * 4 + ((0.1, 5.0),),
    "carbon monoxide, half the pause": ((0.1, 0.1),) * 3 + ((0.1, 2.5),),
    "carbon monoxide, a quarter faster": tuple((0.75 * on, 0.75 * off) for on, off in CARBON_MONOXIDE),
    "carbon monoxide, a quarter slower": tuple((1.25 * on, 1.25 * off) for on, off in CARBON_MONOXIDE),
    "wrist watch": ((0.05, 0.1), (0.05, 0.8)),
    "kitchen timer": ((0.06, 0.06),) * 3 + ((0.06, 0.58),),
    "microwave oven": ((0.8, 0.6),) * 3 + ((0.8, 12.0),),
    "low battery": ((0.1, 14.9),),
    "ring": ((1.0, 4.0),),
    "double ring": ((0.4, 0.2), (0.4, 2.0)),
    "washing machine": ((0.3, 0.3),) * 3 + ((0.3, 3.0),),
}


def tone(frequency, seconds, shape="sine", rate=RATE):
    """A sine, or a square wave as far as its harmonics fit below half the rate; its peak is about 1."""
    t = np.arange(frames(seconds, rate)) / rate
    if shape == "sine":
        return np.sin(2 * np.pi * frequency * t)
    return sum(np.sin(2 * np.pi * k * frequency * t) / k for k in range(1, int(0.48 * rate / frequency) + 1, 2)) * 4 / np.pi


def beeps(rhythm, seconds, frequency, shape="sine", rng=None, jitter=0.0, rate=RATE):
    """Beeps in a rhythm that begins at once; with `jitter` each on and off is longer or shorter by up to that share.

    The samples, and where a beep sounds.
    """
    made = np.zeros(frames(seconds, rate))
    sounds = np.zeros(len(made), bool)
    at, i = 0.0, 0
    while at < seconds:
        on, off = rhythm[i % len(rhythm)]
        if jitter:
            on, off = on * rng.uniform(1 - jitter, 1 + jitter), off * rng.uniform(1 - jitter, 1 + jitter)
        beep = tone(frequency, min(on, seconds - at), shape, rate)
        add_at(made, at, beep * fade(len(beep), rate, 0.003), rate)
        sounds[frames(at, rate):frames(at + on, rate)] = True
        at, i = at + on + off, i + 1
    return made, sounds


def stretched(rhythm, factor):
    return tuple((on * factor, off * factor) for on, off in rhythm)


def cycle(rhythm):
    """Seconds from one beginning of a rhythm to the next."""
    return sum(on + off for on, off in rhythm)


def other_beeps(rng, seconds, rate=RATE):
    """Beeps that are no alarm, 30 s of each, at the frequencies of alarms and others, over quiet noise."""
    made = 0.003 * noise(rng, seconds, 3.0, rate)
    at = 0.0
    while at < seconds:
        kind = rng.integers(0, 4)
        if kind < 3:
            rhythm = OTHER_RHYTHMS[str(rng.choice(list(OTHER_RHYTHMS)))]
        else:
            rhythm = tuple((float(on), float(off)) for on, off in rng.uniform(0.05, 1.0, (int(rng.integers(2, 7)), 2)))
        frequency, shape = [(rng.uniform(2800, 3500), "sine"), (rng.uniform(490, 550), "square"),
                            (rng.uniform(400, 4000), "sine")][int(rng.integers(0, 3))]
        sound, _ = beeps(rhythm, 28.0, frequency, shape, rate=rate)
        if rng.random() < 0.5:
            sound = room(rng, sound, rng.uniform(0.2, 0.6), rng.uniform(-3, 6), rate)
        add_at(made, at, sound * 10 ** (rng.uniform(-40, -6) / 20), rate)
        at += 30.0
    return made


# Speech.

VOICES = ("en-gb", "en-us", "en-gb+f2", "en-us+m3", "en-gb+f4", "de", "de+f3", "fr", "fr+f5", "es", "sv", "sv+f2")

WORDS = """morning kitchen the window is open please bring water and bread from shop tomorrow we will see whether train
comes on time three children play outside garden while their mother reads a newspaper yesterday it rained all day long
she said that nobody had called him since Monday what do you think about this question yes no perhaps later seven people
bought tickets for concert under bridge near old station where music starts quickly slowly loud quiet voice telephone
rings again answer door light table chair house street city river mountain summer winter doctor teacher letter number"""


@functools.lru_cache(maxsize=4096)
def _spoken(voice, speed, pitch, text):
    wav = subprocess.run(["espeak-ng", "--stdout", "-v", voice, "-s", str(speed), "-p", str(pitch), text],
                         check=True, stdout=subprocess.PIPE).stdout
    return read_wav(io.BytesIO(wav))


def say(text, voice="en-gb", speed=160, pitch=50, rate=RATE):
    """One utterance, without the silence at its ends."""
    samples, old_rate = _spoken(voice, speed, pitch, text)
    samples = resample(samples, old_rate, rate)
    loud = np.flatnonzero(np.abs(samples) > 0.01 * np.max(np.abs(samples)))
    return samples[loud[0]:loud[-1] + 1]


def utterance(rng, rate=RATE):
    """A sentence of random words in a random voice."""
    words = WORDS.split()
    text = " ".join(str(rng.choice(words)) for _ in range(int(rng.integers(4, 14))))
    return say(text, str(rng.choice(VOICES)), int(rng.integers(120, 230)), int(rng.integers(25, 75)), rate)


def speech(rng, seconds, pause=(0.2, 1.2), rate=RATE):
    """Sentence after sentence with pauses, and where somebody speaks. Its RMS is 1 while somebody does."""
    made = np.zeros(frames(seconds, rate))
    speaks = np.zeros(len(made), bool)
    at = 0.0
    while at < seconds:
        said = utterance(rng, rate)
        add_at(made, at, said / rms(said), rate)
        speaks[frames(at, rate):frames(at, rate) + len(said)] = True
        at += len(said) / rate + rng.uniform(*pause)
    return made, speaks

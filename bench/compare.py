#!/usr/bin/python3
"""Speed and sound of Morvane's two engines against soundstretch, Rubber Band (R2, R3) and SoX.

Material is made at run time: speech (espeak-ng), a solo plucked instrument and a 44 s full mix
with drums (synthesised here), a drum pattern played on the recorded GMRockKit of Debian's
hydrogen-data, and two oracles whose ideal results are known: a harmonic tone and a click train.
Onsets are counted with aubio on the drums and the full mix. Every tool renders every file at every setting; CPU time is the child's user
plus system time (median of --runs), quality is measured on the first run's output.
"""
import argparse
import datetime
import os
import platform
import re
import statistics
import subprocess
import sys
import tempfile

import numpy as np
import soundfile as sf

RATE = 44100

SETTINGS = [  # name, time ratio, cents
    ("time 150 %", 1.5, 0),
    ("pitch +700 cents", 1.0, 700),
    ("time 75 %, pitch -500 cents", 0.75, -500),
    ("time 200 %", 2.0, 0),
]

TONE_F0 = 220.0
TONE_HARMONICS = 10


# ---------------------------------------------------------------- material


def new_report(out, stem):
    """A path for a new report in out: stem.md, or stem-2.md, -3 ... when the day already has
    one, which stays as it was."""
    os.makedirs(out, exist_ok=True)
    for n in range(1, 1000):
        path = os.path.join(out, stem + (f"-{n}" if n > 1 else "") + ".md")
        if not os.path.exists(path):
            return path
    raise SystemExit(f"{out} holds a thousand reports named {stem}")


def fade(x, ms=10):
    n = int(RATE * ms / 1000)
    ramp = np.linspace(0.0, 1.0, n)
    x[:n] *= ramp[:, None] if x.ndim == 2 else ramp
    x[-n:] *= ramp[::-1, None] if x.ndim == 2 else ramp[::-1]
    return x


def harmonic_tone(seconds, f0):
    t = np.arange(int(round(seconds * RATE))) / RATE
    x = np.zeros_like(t)
    for h in range(1, TONE_HARMONICS + 1):
        if h * f0 < RATE / 2 * 0.9:
            x += np.sin(2 * np.pi * h * f0 * t) / h
    x *= 0.3
    return fade(np.stack([x, x], axis=1))


def click_positions():
    rng = np.random.default_rng(11)
    positions, p = [], int(0.25 * RATE)
    while p < 10 * RATE - int(0.3 * RATE):
        positions.append(p)
        p += int(rng.uniform(0.3, 0.6) * RATE)
    return np.array(positions)


def click_train(length, positions):
    x = np.zeros((length, 2))
    for p in positions:
        if 0 <= p < length:
            x[p, :] = 0.8
    return x


def pluck(f, seconds, rng):
    t = np.arange(int(seconds * RATE)) / RATE
    x = np.zeros_like(t)
    for h in range(1, 16):
        if h * f > RATE / 2 * 0.9:
            break
        x += np.sin(2 * np.pi * h * f * t + rng.uniform(0, 6.28)) / h ** 1.3 * np.exp(
            -t * (1.5 + 0.8 * h))
    return x * np.minimum(1.0, t / 0.002)


def instrument():
    rng = np.random.default_rng(3)
    out = np.zeros(int(20 * RATE) + RATE)
    melody = [0, 4, 7, 12, 11, 7, 4, 2, 0, 5, 9, 12, 7, 4, 2, -1]
    pos = 0
    for i in range(40):
        semis = melody[i % len(melody)]
        length = 0.5 if i % 4 else 0.75
        note = pluck(196.0 * 2 ** (semis / 12), 1.2, rng)
        start = int(pos * RATE)
        end = min(len(out), start + len(note))
        out[start:end] += note[: end - start]
        pos += length
        if pos > 19.5:
            break
    out = out[: int(20 * RATE)] * 0.35
    return fade(np.stack([out, out * 0.9], axis=1))


def full_mix():
    rng = np.random.default_rng(7)
    seconds, bpm = 44, 112
    n = seconds * RATE
    beat = 60.0 / bpm
    left, right = np.zeros(n + RATE), np.zeros(n + RATE)
    t = np.arange(int(0.6 * RATE)) / RATE
    kick = np.sin(2 * np.pi * (50 * t + 60 * (1 - np.exp(-t * 30)) / 30)) * np.exp(-t * 9)
    snare = (rng.standard_normal(len(t)) * 0.5 + np.sin(2 * np.pi * 190 * t)) * np.exp(-t * 18)
    hat = np.diff(rng.standard_normal(int(0.08 * RATE) + 1)) * np.exp(-np.arange(
        int(0.08 * RATE)) / RATE * 60) * 0.25
    chords = [(0, 4, 7), (9, 0, 4), (5, 9, 0), (7, 11, 2)]
    for b in range(int(seconds / beat)):
        s = int(b * beat * RATE)
        for part, gain, pan in ((kick if b % 2 == 0 else snare, 0.6, 0.5),):
            left[s:s + len(part)] += part * gain * (1 - pan + 0.5)
            right[s:s + len(part)] += part * gain * (pan + 0.5)
        for e in (0, 1):
            h = s + int(e * beat / 2 * RATE)
            left[h:h + len(hat)] += hat * 0.8
            right[h:h + len(hat)] += hat * 1.2
        chord = chords[(b // 4) % 4]
        tt = np.arange(int(beat * RATE)) / RATE
        root = 55.0 * 2 ** (chord[0] / 12)
        bass = np.sin(2 * np.pi * root * tt) * np.exp(-tt * 3) * 0.35
        left[s:s + len(bass)] += bass
        right[s:s + len(bass)] += bass
        pad = sum(np.sin(2 * np.pi * 220 * 2 ** (c / 12) * tt + c) for c in chord) * 0.05
        left[s:s + len(pad)] += pad * 1.2
        right[s:s + len(pad)] += pad * 0.8
        if b % 2 == 0:
            note = pluck(440 * 2 ** (chord[b // 2 % 3] / 12), 0.8, rng) * 0.25
            left[s:s + len(note)] += note * 0.7
            right[s:s + len(note)] += note * 1.3
    mix = np.stack([left[:n], right[:n]], axis=1)
    return fade(mix / np.max(np.abs(mix)) * 0.89)


SPEECH = ("The quick brown fox jumps over the lazy dog. A stretched recording should keep its "
          "voice: every consonant crisp, every vowel at its own pitch. Pack my box with five "
          "dozen liquor jugs. How vexingly quick daft zebras jump.")


def speech(workdir):
    raw = os.path.join(workdir, "speech-raw.wav")
    subprocess.run(["espeak-ng", "-s", "150", "-w", raw, SPEECH], check=True)
    x, sr = sf.read(raw)
    if x.ndim == 2:
        x = x[:, 0]
    # to 44.1 kHz by linear interpolation: the material, not the measurement, so adequate
    t = np.arange(int(len(x) * RATE / sr)) * sr / RATE
    y = np.interp(t, np.arange(len(x)), x) * 0.8 / max(1e-9, np.max(np.abs(x)))
    return fade(np.stack([y, y], axis=1))


KIT = "/usr/share/hydrogen/data/drumkits/GMRockKit/"


def drums():
    """A 12 s pattern at 100 bpm from recorded hits: kick, snare, closed hi-hats, a crash."""
    def hit(name):
        x, sr = sf.read(KIT + name, always_2d=True)
        assert sr == RATE, name
        return x.mean(axis=1)

    kick, snare = hit("Kick-Hard.wav"), hit("Snare-Hard.wav")
    hats, soft, crash = hit("HatClosed-Med.wav"), hit("HatClosed-Soft.wav"), hit("Crash-Med.wav")
    out = np.zeros((12 * RATE, 2))

    def place(s, at, gain, pan=0.0):
        i = int(at * RATE)
        n = min(len(s), len(out) - i)
        out[i:i + n, 0] += s[:n] * gain * (1 - pan)
        out[i:i + n, 1] += s[:n] * gain * (1 + pan)

    step = 60 / 100 / 4
    for k in range(int(10.5 / step)):
        at = 0.5 + k * step
        if k % 16 in (0, 7, 10):
            place(kick, at, 0.8)
        if k % 16 in (4, 12):
            place(snare, at, 0.7, 0.1)
        if k % 2 == 0:
            place(hats if k % 4 == 0 else soft, at, 0.35, -0.4)
        if k % 32 == 0:
            place(crash, at, 0.3, 0.3)
    return fade(out / np.max(np.abs(out)) * 0.9)


def make_material(workdir):
    files = {}
    for name, signal in (("speech", speech(workdir)), ("instrument", instrument()),
                         ("full mix", full_mix()), ("drums", drums()),
                         ("harmonic tone", harmonic_tone(8.0, TONE_F0)),
                         ("click train", click_train(10 * RATE, click_positions()))):
        path = os.path.join(workdir, name.replace(" ", "-") + ".wav")
        sf.write(path, signal, RATE, subtype="PCM_16")
        files[name] = path
    return files


# ---------------------------------------------------------------- tools


def tool_commands(morvane, plugin):
    def mv(i, o, T, c):
        return [morvane, "render", "-q", "--plugin", plugin, "-t", f"{T * 100:g}", "-p",
                f"{c:g}", i, o]

    def crisp(i, o, T, c):
        return mv(i, o, T, c)[:3] + ["-e", "crisp"] + mv(i, o, T, c)[3:]

    def ss(i, o, T, c):
        return ["soundstretch", i, o, f"-tempo={(1 / T - 1) * 100:.6f}", f"-pitch={c / 100:g}"]

    def rb2(i, o, T, c):
        return ["rubberband", "-q", "-t", f"{T:g}", "-p", f"{c / 100:g}", i, o]

    def rb3(i, o, T, c):
        return ["rubberband", "-q", "--fine", "-t", f"{T:g}", "-p", f"{c / 100:g}", i, o]

    def sx(i, o, T, c):
        cmd = ["sox", i, o]
        if T != 1.0:
            cmd += ["tempo", f"{1 / T:.6f}"]
        if c != 0:
            cmd += ["pitch", f"{c:g}"]
        return cmd

    return [("Morvane", mv), ("Morvane crisp", crisp), ("soundstretch", ss), ("rubberband R2", rb2),
            ("rubberband R3 (--fine)", rb3), ("SoX tempo/pitch", sx)]


def cpu_seconds(cmd, env=None):
    proc = subprocess.Popen(cmd, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, env=env)
    _, status, usage = os.wait4(proc.pid, 0)
    err = proc.stderr.read().decode(errors="replace")
    proc.stderr.close()
    if os.waitstatus_to_exitcode(status) != 0:
        raise RuntimeError(f"{' '.join(cmd)} failed: {err.strip()[:300]}")
    return usage.ru_utime + usage.ru_stime


SIMD_LEVELS = ["avx512", "avx2", "baseline"]


def simd_paths(tools, path, runs, work):
    """Each Morvane engine's CPU time on path at each instruction set (MORVANE_SIMD), against
    soundstretch's in the same runs, pair by pair:
    engine -> setting -> level -> median ratio soundstretch / Morvane."""
    ss = dict(tools)["soundstretch"]
    out = os.path.join(work, "simd.wav")
    ratios = {}
    for engine in ("Morvane", "Morvane crisp"):
        mv = dict(tools)[engine]
        for label, T, c in SETTINGS:
            for level in SIMD_LEVELS:
                env = dict(os.environ, MORVANE_SIMD=level)
                pairs = [cpu_seconds(ss(path, out, T, c)) / cpu_seconds(mv(path, out, T, c), env)
                         for _ in range(runs)]
                ratios.setdefault(engine, {}).setdefault(label, {})[level] = \
                    statistics.median(pairs)
    return ratios


def short_files(tools, path, morvane, plugin, work, clips=100):
    """One-second clips cut from path: CPU per file for one process a file (Morvane and
    soundstretch) and for one morvane batch over all the clips at -j 1.
    setting -> (morvane ms, soundstretch ms, batch ms)."""
    x, rate = sf.read(path, always_2d=True)
    folder = os.path.join(work, "clips")
    os.makedirs(folder, exist_ok=True)
    names = []
    for k in range(clips):
        start = (k * rate // 3) % (len(x) - rate)
        names.append(os.path.join(folder, f"clip{k:03d}.wav"))
        sf.write(names[-1], x[start:start + rate], rate, subtype="PCM_16")
    mv, ss = dict(tools)["Morvane"], dict(tools)["soundstretch"]
    out = os.path.join(work, "clip-out.wav")
    result = {}
    for label, T, c in SETTINGS:
        each = statistics.median(cpu_seconds(mv(n, out, T, c)) for n in names)
        peer = statistics.median(cpu_seconds(ss(n, out, T, c)) for n in names)
        batch = cpu_seconds([morvane, "render", "-q", "--force", "--plugin", plugin, "-t",
                             f"{T * 100:g}", "-p", f"{c:g}", "-j", "1", "-d",
                             os.path.join(work, "batch-out")] + names) / clips
        result[label] = (each * 1e3, peer * 1e3, batch * 1e3)
    return result


def footprints(tools, clip, morvane, plugin, work, runs):
    """A one-second job at time 150 % with every tool, and morvane --version, help and info of the
    clip: median minor page
    faults and peak resident KB as /usr/bin/time reports them (a child of Python would count
    Python's own pages in), and CPU ms. [(label, faults, KB, ms)]."""
    out = os.path.join(work, "footprint.wav")
    report = os.path.join(work, "footprint.txt")
    env = dict(os.environ, MORVANE_PLUGIN=plugin)
    commands = [(tool, cmd(clip, out, 1.5, 0)) for tool, cmd in tools]
    commands.append(("`morvane --version`", [morvane, "--version"]))
    commands.append(("`morvane help`", [morvane, "help"]))
    commands.append(("`morvane info` of the clip", [morvane, "info", clip]))
    rows = []
    for label, cmd in commands:
        faults, kb, ms = [], [], []
        for _ in range(runs):
            subprocess.run(["/usr/bin/time", "-f", "%R %M", "-o", report] + cmd, env=env,
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=True)
            with open(report) as f:
                r, m = f.read().split()[-2:]
            faults.append(int(r))
            kb.append(int(m))
            ms.append(cpu_seconds(cmd, env) * 1e3)
        rows.append((label, statistics.median(faults), statistics.median(kb),
                     statistics.median(ms)))
    return rows


# ---------------------------------------------------------------- measurements


def mono(x):
    return x.mean(axis=1) if x.ndim == 2 else x


def pitch_cents(out, expected_f0):
    x = mono(out)
    n = len(x)
    x = x[int(0.2 * n):int(0.8 * n)]
    if len(x) < 4096:
        return float("nan")
    size = 1 << int(np.ceil(np.log2(len(x) * 8)))
    spectrum = np.abs(np.fft.rfft(x * np.hanning(len(x)), size)) + 1e-20
    estimates = []
    for h in (1, 2, 3, 4):
        target = expected_f0 * h
        lo = int(target * 2 ** (-150 / 1200) * size / RATE)
        hi = int(target * 2 ** (150 / 1200) * size / RATE) + 1
        k = lo + int(np.argmax(spectrum[lo:hi]))
        a, b, c = np.log(spectrum[k - 1:k + 2])
        shift = 0.5 * (a - c) / (a - 2 * b + c) if (a - 2 * b + c) != 0 else 0.0
        estimates.append((k + shift) * RATE / size / h)
    return 1200 * np.log2(np.median(estimates) / expected_f0)


def clicks(out, expected):
    """Kept, lost and doubled clicks, and the median timing error of the kept ones in ms."""
    x = np.abs(mono(out))
    if len(x) == 0:
        return len(expected), 0, 0, float("nan")
    threshold = 0.3 * np.max(x)
    above = np.flatnonzero(x >= threshold)
    events, group = [], []
    for i in above:  # one event per burst: samples within 5 ms belong together
        if group and i - group[-1] > int(0.005 * RATE):
            events.append(group[int(np.argmax(x[group]))])
            group = []
        group.append(i)
    if group:
        events.append(group[int(np.argmax(x[group]))])
    events = np.array(events)
    kept = lost = doubled = 0
    errors = []
    for p in expected:
        near = events[np.abs(events - p) <= int(0.1 * RATE)] if len(events) else []
        hits = [e for e in near if abs(e - p) <= int(0.01 * RATE)]
        if hits:
            kept += 1
            errors.append(min(abs(e - p) for e in hits) / RATE * 1000)
        else:
            lost += 1
        if len(near) > 1:
            doubled += 1
    return kept, lost, doubled, (float(np.median(errors)) if errors else float("nan"))


def spectral_distance(out, ideal):
    """Mean frame-wise log-spectral distance in dB, 50 Hz to 16 kHz, over the common length."""
    a, b = mono(out), mono(ideal)
    n = min(len(a), len(b))
    size, hop = 2048, 512
    if n < size:
        return float("nan")
    window = np.hanning(size)
    frames = range(0, n - size, hop)
    A = np.array([np.abs(np.fft.rfft(a[i:i + size] * window)) ** 2 for i in frames])
    B = np.array([np.abs(np.fft.rfft(b[i:i + size] * window)) ** 2 for i in frames])
    floor = 1e-10 * max(B.max(), 1e-30)
    lo, hi = int(50 * size / RATE), int(16000 * size / RATE)
    d = 10 * np.log10((A[:, lo:hi] + floor) / (B[:, lo:hi] + floor))
    return float(np.mean(np.sqrt(np.mean(d ** 2, axis=1))))


ONSET_LEAD = 18 * 256  # frames of silence before a file that aubio reads: 18 of its hops


def onset_times(path):
    """aubio's onsets in a file, in seconds. aubio drops an attack that comes 4 to 20 ms into a
    file (one at 3 ms or at 40 ms it finds), where a stretched output's first attack often lands,
    so the file is read behind silence; a whole number of aubio's hops, so that every later frame
    sees what it saw without it."""
    x, rate = sf.read(path, dtype="float32", always_2d=True)
    with tempfile.NamedTemporaryFile(suffix=".wav") as f:
        sf.write(f.name, np.concatenate([np.zeros((ONSET_LEAD, x.shape[1]), np.float32), x]), rate,
                 subtype="FLOAT")
        r = subprocess.run(["aubioonset", "-i", f.name], capture_output=True, text=True,
                           check=True)
    t = np.array([float(t) for t in r.stdout.split()]) - ONSET_LEAD / rate
    return np.maximum(t, 0.0)


def onsets(inp, out, T):
    """Precision and recall of the output's onsets against the input's scaled by the time rate,
    each matched once within 50 ms (aubio's default detector on both)."""
    want, got = onset_times(inp) * T, onset_times(out)
    used, hits = set(), 0
    for t in want:
        for j in np.argsort(np.abs(got - t)) if len(got) else []:
            if abs(got[j] - t) > 0.05:
                break
            if j not in used:
                used.add(j)
                hits += 1
                break
    return hits / max(len(got), 1), hits / max(len(want), 1)


def quality(name, out, n_in, T, cents):
    q = {"duration_ms": (len(out) - round(n_in * T)) / RATE * 1000}
    ratio = 2 ** (cents / 1200)
    if name == "harmonic tone":
        q["pitch_cents"] = pitch_cents(out, TONE_F0 * ratio)
        ideal = harmonic_tone(round(n_in * T) / RATE, TONE_F0 * ratio)
        q["tone_lsd"] = spectral_distance(out, ideal)
    if name == "click train":
        expected = np.round(click_positions() * T).astype(int)
        q["clicks"] = clicks(out, expected)
        q["click_lsd"] = spectral_distance(out, click_train(round(n_in * T), expected))
    return q


# ---------------------------------------------------------------- report


def versions():
    def deb(p):
        r = subprocess.run(["dpkg-query", "-W", "-f=${Version}", p], capture_output=True, text=True)
        return r.stdout.strip() or "?"

    commit = subprocess.run(["git", "rev-parse", "--short", "HEAD"], capture_output=True,
                            text=True).stdout.strip()
    cpu = "?"
    with open("/proc/cpuinfo") as f:
        info = f.read()
    m = re.search(r"model name\s*:\s*(.*)", info)
    if m:
        cpu = m.group(1)
    flags = re.search(r"flags\s*:\s*(.*)", info)
    simd = [f for f in ("avx2", "avx512f", "avx512bw") if flags and f in flags.group(1).split()]
    return {
        "machine": f"{cpu}, {os.cpu_count()} cores, {', '.join(simd)}; Linux {platform.release()}",
        "Morvane": f"git {commit}",
        "soundstretch": f"Debian soundstretch {deb('soundstretch')}",
        "rubberband": f"Debian rubberband-cli {deb('rubberband-cli')}",
        "SoX": f"Debian sox {deb('sox')}",
    }


def fmt(v, pattern="{:.1f}"):
    return "–" if v is None or (isinstance(v, float) and np.isnan(v)) else pattern.format(v)


# The crisp engine's stages, by the functions that hold them (inclusive counts; the transform
# also runs inside the onset finder and the low band's frames).
CRISP_STAGES = [
    ("transform, forward and inverse", ("CRealFft::Forward", "CRealFft::InverseAdd",
                                        "CRealFft::Inverse")),
    ("phase lock", ("CCrispVocoder::Lock",)),
    ("onset finder", ("CCrisp::FeedDetector",)),
    ("low band: decimation", ("CCrisp::Decimate",)),
    ("low band: its frames", ("CCrisp::NextLowFrame",)),
    ("low band: back to the full rate", ("CCrisp::AddLow",)),
    ("resampler and output", ("CCrisp::Emit",)),
    ("resampler ahead of the vocoder (from +600 cents)", ("CCrisp::TakeRead",)),
]


def stage_counts(out):
    """Inclusive instructions of each of CRISP_STAGES' functions in a callgrind file."""
    r = subprocess.run(["callgrind_annotate", "--inclusive=yes", "--threshold=100", out],
                       capture_output=True, text=True)
    best = {}
    for line in r.stdout.splitlines():
        # "count (share)  file:Class::Function(arguments) [object]", the file "???" when unknown
        m = re.match(r"\s*([\d,]+) \([^)]*\)\s+(\S+?)\(", line)
        if m:
            name = re.sub(r"^.*?[^:]:(?=[^:])", "", m.group(2))
            n = int(m.group(1).replace(",", ""))
            best[name] = max(best.get(name, 0), n)
    return [sum(best.get(f, 0) for f in functions) for _, functions in CRISP_STAGES]


def valgrind(cmd, workdir, cache=False):
    """One command under valgrind, AVX2 kernels (valgrind has no AVX-512): callgrind's whole
    count of instructions and its output file (for stage_counts); with cache, cachegrind's
    simulated first-level caches (this machine's sizes) instead: instructions, data references
    and the misses of each cache, and the caches' description."""
    out = os.path.join(workdir, "cg.out")
    what = (["--tool=cachegrind", "--cache-sim=yes", f"--cachegrind-out-file={out}"] if cache
            else ["--tool=callgrind", f"--callgrind-out-file={out}"])
    r = subprocess.run(["valgrind", *what, *cmd], capture_output=True, text=True,
                       env=dict(os.environ, MORVANE_SIMD="avx2"))
    if not cache:
        m = re.search(r"Collected : (\d+)", r.stderr)
        return int(m.group(1)) if m else float("nan"), out

    def total(label):  # "==pid== D1  misses:  13,254,321  ( 8,443,716 rd + ...)"
        m = re.search(label + r":\s+([\d,]+)", r.stderr)
        return int(m.group(1).replace(",", "")) if m else float("nan")

    counts = {k: total(label) for k, label in (("instructions", r"I\s+refs"),
                                                ("I1 misses", r"I1\s+misses"),
                                                ("data", r"D\s+refs"),
                                                ("D1 misses", r"D1\s+misses"))}
    with open(out) as f:
        counts["caches"] = "; ".join(" ".join(line[6:].split()) for line in f
                                     if line.startswith("desc: ") and "1 cache" in line)
    return counts


def callgrind(cmd, path, workdir, stages=False):
    """Instructions per second of audio of cmd (a tool_commands builder) on path at each
    setting; with stages, each row also carries CRISP_STAGES' counts per second."""
    rows = []
    seconds = sf.info(path).frames / RATE
    for label, T, c in SETTINGS:
        n, out = valgrind(cmd(path, os.path.join(workdir, "cg.wav"), T, c), workdir)
        row = (label, n / seconds)
        if stages:
            row += ([k / seconds for k in stage_counts(out)],)
        rows.append(row)
    return rows


# Where crisp's time goes beyond its instructions: the tools' first-level cache misses at one
# setting.
CACHE_TOOLS = ("Morvane", "Morvane crisp", "soundstretch")


def caches(tools, path, workdir, T=2.0, cents=0):
    """CACHE_TOOLS' cachegrind counts per second of audio on path at one setting."""
    seconds = sf.info(path).frames / RATE
    rows = []
    for tool in CACHE_TOOLS:
        counts = valgrind(dict(tools)[tool](path, os.path.join(workdir, "cg.wav"), T, cents),
                          workdir, cache=True)
        rows.append((tool, {k: v / seconds if k != "caches" else v for k, v in counts.items()}))
    return rows


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--morvane", required=True)
    ap.add_argument("--plugin", required=True)
    ap.add_argument("--out", required=True)
    ap.add_argument("--runs", type=int, default=5)
    ap.add_argument("--quick", action="store_true", help="only the full mix, for a fast look")
    ap.add_argument("--no-callgrind", action="store_true")
    ap.add_argument("--corpus", action="store_true",
                    help="also measure the corpus of real material (bench/corpus.py)")
    ap.add_argument("--corpus-only", action="store_true", help="only the corpus")
    sys.dont_write_bytecode = True  # no __pycache__ in the source tree
    import corpus  # here, as corpus imports this module for the shared measures
    corpus.add_options(ap)
    args = ap.parse_args()
    if args.corpus_only or args.engines or args.classes:
        # a chosen subset of tools or classes is a corpus run: the report below needs them all
        corpus.run(args)
        return

    tools = tool_commands(args.morvane, args.plugin)
    v = versions()  # (the commit the build was made from, before any later one)
    with tempfile.TemporaryDirectory(prefix="morvane-compare-") as work:
        files = make_material(work)
        if args.quick:
            files = {"full mix": files["full mix"]}
        lengths = {name: sf.info(p).frames for name, p in files.items()}
        cpu = {}  # (setting, tool, material) -> [seconds]
        q = {}  # (setting, tool, material) -> quality
        for run in range(args.runs):
            for label, T, c in SETTINGS:
                for name, path in files.items():
                    for tool, cmd in tools:
                        out = os.path.join(work, "out.wav")
                        key = (label, tool, name)
                        cpu.setdefault(key, []).append(cpu_seconds(cmd(path, out, T, c)))
                        if run == 0:
                            y, _ = sf.read(out, always_2d=True)
                            q[key] = quality(name, y, lengths[name], T, c)
                            if name in ("drums", "full mix"):
                                q[key]["onsets"] = onsets(path, out, T)
            print(f"run {run + 1}/{args.runs} done", file=sys.stderr)
        simd = simd_paths(tools, files["full mix"], args.runs, work)
        short = short_files(tools, files["full mix"], args.morvane, args.plugin, work)
        feet = footprints(tools, os.path.join(work, "clips", "clip000.wav"), args.morvane,
                          args.plugin, work, args.runs)
        cg = cgCrisp = cgSs = cache = []
        if not args.no_callgrind:
            mix, by = files["full mix"], dict(tools)
            cg = callgrind(by["Morvane"], mix, work)
            cgCrisp = callgrind(by["Morvane crisp"], mix, work, stages=True)
            cgSs = callgrind(by["soundstretch"], mix, work)
            cache = caches(tools, mix, work)

    audio = {name: n / RATE for name, n in lengths.items()}
    lines = [f"# Morvane against the time-stretchers users have — {datetime.date.today()}", "",
             f"- Machine: {v['machine']}"]
    lines += [f"- {k}: {v[k]}" for k in ("Morvane", "soundstretch", "rubberband", "SoX")]
    lines += [f"- Material: {', '.join(f'{n} ({audio[n]:.1f} s)' for n in files)}; stereo "
              f"44.1 kHz 16-bit WAV, made by bench/compare.py at run time.",
              f"- Speed: CPU time (user + system) of the whole command, median of {args.runs} "
              f"runs, as × real time (seconds of input per second of CPU). 'vs Morvane' is the "
              f"peer's CPU time over Morvane's on all material (above 1: Morvane is faster).",
              "- Duration error: output length minus round(input × time), in ms, largest "
              "magnitude over the files.",
              "- Pitch error on the harmonic tone (220 Hz, 10 harmonics), in cents; clicks "
              "kept / lost / doubled out of the click train's, with the median timing error of "
              "the kept ones; spectral distance: mean frame-wise log-spectral distance in dB "
              "to the ideal result (tone at the target pitch and length, clicks at the scaled "
              "times), 50 Hz – 16 kHz.",
              "- Onsets P/R: precision and recall of aubio's onsets in the output against the "
              "input's scaled by the time rate, matched once each within 50 ms, on the drums "
              "(recorded kit) and the full mix. 'Morvane' is the splice engine, the default.", ""]
    for label, T, c in SETTINGS:
        lines += [f"## {label}", "",
                  "| tool | full mix × RT | all material × RT | vs Morvane | duration error ms "
                  "| pitch error cents | clicks kept/lost/doubled | click timing ms "
                  "| tone distance dB | click distance dB | onsets P/R drums | onsets P/R mix |",
                  "|---|---:|---:|---:|---:|---:|---|---:|---:|---:|---:|---:|"]
        med = {(tool, n): statistics.median(cpu[(label, tool, n)]) for tool, _ in tools
               for n in files}
        total = {tool: sum(med[(tool, n)] for n in files) for tool, _ in tools}
        for tool, _ in tools:
            mix = audio["full mix"] / med[(tool, "full mix")]
            allrt = sum(audio.values()) / total[tool]
            rel = total[tool] / total["Morvane"]
            dur = max((q[(label, tool, n)]["duration_ms"] for n in files), key=abs)
            tone = q.get((label, tool, "harmonic tone"), {})
            ck = q.get((label, tool, "click train"), {})
            kept = ck.get("clicks")
            pr = [q.get((label, tool, n), {}).get("onsets") for n in ("drums", "full mix")]
            prs = [f"{p[0]:.2f}/{p[1]:.2f}" if p else "–" for p in pr]
            lines.append(
                f"| {tool} | {mix:.0f} | {allrt:.0f} | "
                f"{'–' if tool == 'Morvane' else f'{rel:.2f}'} | {dur:+.1f} | "
                f"{fmt(tone.get('pitch_cents'), '{:+.2f}')} | "
                f"{f'{kept[0]}/{kept[1]}/{kept[2]}' if kept else '–'} | "
                f"{fmt(kept[3] if kept else None, '{:.2f}')} | "
                f"{fmt(tone.get('tone_lsd'))} | {fmt(ck.get('click_lsd'))} | {prs[0]} | {prs[1]} |")
        lines.append("")
    lines += ["## Each instruction set (full mix)", "",
              "soundstretch's CPU time over each Morvane engine's, pair by pair in the same "
              f"runs, median of {args.runs}, with `MORVANE_SIMD` capping Morvane's kernels; above "
              "1: Morvane is faster. A level the processor lacks runs the next one down.", "",
              "| setting | " + " | ".join(f"splice {lv}" for lv in SIMD_LEVELS) + " | "
              + " | ".join(f"crisp {lv}" for lv in SIMD_LEVELS) + " |",
              "|---|" + "---:|" * (2 * len(SIMD_LEVELS))]
    lines += [f"| {label} | " + " | ".join(f"{simd[engine][label][lv]:.2f}"
                                         for engine in ("Morvane", "Morvane crisp")
                                         for lv in SIMD_LEVELS) + " |"
              for label, _, _ in SETTINGS]
    lines += ["", "## Short files", "",
              "100 one-second clips of the full mix: CPU milliseconds per file, median over the "
              "clips for one process a file, and one `morvane render -j 1` over all of them "
              "divided by 100.", "",
              "| setting | Morvane, a process a file | soundstretch, a process a file "
              "| Morvane, one batch | soundstretch / Morvane (process) "
              "| soundstretch / Morvane (batch) |", "|---|---:|---:|---:|---:|---:|"]
    lines += [f"| {label} | {m:.2f} | {p:.2f} | {b:.2f} | {p / m:.2f} | {p / b:.2f} |"
              for label, (m, p, b) in short.items()]
    lines += ["", "The first clip at time 150 % with every tool, one process each, and "
              "`morvane --version`, `help` and `info` of the clip: minor page faults and peak "
              "resident memory as "
              "`/usr/bin/time` reports them, and CPU milliseconds, median of "
              f"{args.runs}. A page's first touch is a fault of its own, so faults count the "
              "memory a command writes and the libraries it maps.", "",
              "| command | minor page faults | peak resident MB | CPU ms |",
              "|---|---:|---:|---:|"]
    lines += [f"| {label} | {faults:.0f} | {kb / 1024:.1f} | {ms:.1f} |"
              for label, faults, kb, ms in feet]
    lines.append("")
    if cg:
        lines += ["## Instructions per second of audio (callgrind)", "",
                  "The full mix under `valgrind --tool=callgrind`, whole process, Morvane's AVX2 "
                  "kernels (valgrind does not run AVX-512). Stable from run to run, unlike "
                  "times on a shared machine.", "",
                  "| setting | splice: instructions per second of audio | crisp | soundstretch "
                  "| crisp / soundstretch |", "|---|---:|---:|---:|---:|"]
        lines += [f"| {label} | {n / 1e6:.1f} M | {row[1] / 1e6:.1f} M | {ss[1] / 1e6:.1f} M "
                  f"| {row[1] / ss[1]:.2f} |" for (label, n), row, ss in zip(cg, cgCrisp, cgSs)]
        lines += ["", "The crisp engine by stage, inclusive (the transform also runs inside the "
                  "onset finder and the low band's frames), instructions per second of audio:", "",
                  "| stage | " + " | ".join(row[0] for row in cgCrisp) + " |",
                  "|---|" + "---:|" * len(cgCrisp)]
        lines += [f"| {name} | " + " | ".join(f"{row[2][i] / 1e6:.1f} M" for row in cgCrisp) + " |"
                  for i, (name, _) in enumerate(CRISP_STAGES)]
        lines += ["", "## First-level cache misses at time 200 % (cachegrind)", "",
                  "The full mix under `valgrind --tool=cachegrind --cache-sim=yes`, whole "
                  f"process, per second of audio; caches simulated as {cache[0][1]['caches']}. "
                  "Instructions alone do not give the time: a miss waits on the next level.", "",
                  "| tool | instructions | data references | D1 misses | D1 miss rate "
                  "| I1 misses |", "|---|---:|---:|---:|---:|---:|"]
        lines += [f"| {tool} | {k['instructions'] / 1e6:.1f} M | {k['data'] / 1e6:.1f} M "
                  f"| {k['D1 misses'] / 1e6:.2f} M | {100 * k['D1 misses'] / k['data']:.1f} % "
                  f"| {k['I1 misses'] / 1e3:.1f} k |" for tool, k in cache]
        lines.append("")
    path = new_report(args.out, f"compare-{datetime.date.today()}")
    with open(path, "x") as f:
        f.write("\n".join(lines))
    print("\n".join(lines))
    print(f"\nwritten to {path}", file=sys.stderr)
    if args.corpus:
        corpus.run(args)


if __name__ == "__main__":
    main()

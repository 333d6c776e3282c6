"""The tool, Python and JavaScript give the same answers for the same inputs:
recordings in several formats decoded into the same fields and values, the
same command words rendered into the same samples with the same fields, and
the same message for the same bad words.

    conformance.py TOOL PACKAGE_DIR WORK_DIR

runs with the Python that has the nimbara package installed; PACKAGE_DIR is
the built npm package (build/web/package)."""
import hashlib
import json
import math
import os
import subprocess
import sys
import wave

import numpy as np

import nimbara

TOOL, PACKAGE, WORK = sys.argv[1:4]
HERE = os.path.dirname(os.path.abspath(__file__))

# Every colour syntax, the options, a clamped puff, a puff without the tank
# query, the queries and an operation name.
COMMANDS = [
    ["flash", "255", "165", "0"],
    ["flash", "#ffa500"],
    ["flash", "FFA500"],
    ["flash", "orange", "--special", "3", "--time", "700"],
    ["puff", "teal", "--time", "5000"],
    ["puff", "#10ff80", "--time=20"],
    ["puff", "hotpink", "--no-tank"],
    ["spray", "250"],
    ["state"],
    ["tank"],
    ["echo", "4294967295"],
    ["doSprayWithLightLed", "1", "2", "3", "4", "700"],
]
BAD_WORDS = [
    ["flash", "300", "0", "0"],
    ["puff", "#12345"],
    ["flash", "1", "2"],
    ["spray", "abc"],
    ["spray", "5", "--time", "3"],
    ["state", "now"],
    ["echo", "4294967296"],
    ["flash", "red", "--no-tank"],
    ["puf", "red"],
    ["doLightLed", "1", "2", "3"],
]
# The recordings' formats, as sox arguments.
FORMATS = [
    ("pcm16.wav", []),
    ("pcm24-48k-mono.wav", ["-b", "24", "-r", "48000", "-c", "1"]),
    ("float32.wav", ["-e", "floating-point", "-b", "32"]),
    ("pcm16-32k.flac", ["-r", "32000"]),
]

failures = []


def check(what, tool, python, js):
    if not (tool == python == js):
        failures.append(f"{what}:\n  tool   {tool}\n  python {python}\n  js     {js}")


def tool_render(words):
    out = os.path.join(WORK, "render.wav")
    done = subprocess.run([TOOL, "--json", "render", *words, "--out", out],
                          capture_output=True, text=True)
    if done.returncode != 0:
        return {"error": json.loads(done.stderr)["error"]}
    fields = json.loads(done.stdout)
    del fields["out"], fields["frames"]
    with wave.open(out) as w:
        data = w.readframes(w.getnframes())
    return {"fields": fields, "sha256": hashlib.sha256(data).hexdigest()}


def python_render(words):
    try:
        fields = nimbara.command(*words)
        samples = nimbara.render(fields).astype("<i2").tobytes()
        return {"fields": fields, "sha256": hashlib.sha256(samples).hexdigest()}
    except ValueError as e:
        return {"error": str(e)}


def same_numbers(a, b):
    """Fields equal, floats to 1e-9 (the WebAssembly build's maths library
    may round the last bit of a logarithm differently)."""
    if a.keys() != b.keys():
        return False
    for key, x in a.items():
        y = b[key]
        if isinstance(x, float) or isinstance(y, float):
            if not math.isclose(x, y, rel_tol=1e-9, abs_tol=1e-12):
                return False
        elif x != y:
            return False
    return True


def check_recordings(tool, python, js, name):
    if not len(tool) == len(python) == len(js):
        failures.append(f"{name}: {len(tool)} transmissions from the tool, "
                        f"{len(python)} from Python, {len(js)} from JS")
        return
    for i, t in enumerate(tool):
        if not (same_numbers(t, python[i]) and same_numbers(t, js[i])):
            failures.append(f"{name} #{i}:\n  tool   {t}\n  python {python[i]}\n"
                            f"  js     {js[i]}")


def recordings():
    """A stream of every command with gaps, in every format."""
    gap = np.zeros((13230, 2), dtype=np.int16)
    parts = [gap]
    for words in COMMANDS:
        parts += [nimbara.render(*words), gap]
    stream = np.concatenate(parts)
    source = os.path.join(WORK, "stream.wav")
    with wave.open(source, "wb") as w:
        w.setnchannels(2)
        w.setsampwidth(2)
        w.setframerate(44100)
        w.writeframes(stream.astype("<i2").tobytes())
    made = []
    for name, sox in FORMATS:
        path = os.path.join(WORK, name)
        subprocess.run(["sox", "-V1", "-G", source, *sox, path], check=True)
        if name.endswith(".wav"):
            js = {"path": path, "format": "wav"}
        else:  # lossless: its 16-bit samples, as every reader sees them
            raw = path + ".raw"
            subprocess.run(["sox", path, "-t", "raw", "-e", "signed", "-b", "16", raw], check=True)
            info = subprocess.run(["soxi", "-r", path], capture_output=True, text=True, check=True)
            channels = subprocess.run(["soxi", "-c", path], capture_output=True, text=True, check=True)
            js = {"path": raw, "format": "s16", "rate": float(info.stdout),
                  "channels": int(channels.stdout)}
        made.append((name, path, js))
    return made


def main():
    made = recordings()
    request = {"package": PACKAGE, "commands": COMMANDS + BAD_WORDS,
               "recordings": [js for _, _, js in made]}
    node = subprocess.run(["node", os.path.join(HERE, "front_end.mjs")], input=json.dumps(request),
                          capture_output=True, text=True)
    if node.returncode != 0:
        sys.exit(f"conformance: the JavaScript side failed:\n{node.stderr}")
    js = json.loads(node.stdout)

    for words, js_answer in zip(COMMANDS + BAD_WORDS, js["commands"]):
        check(" ".join(words), tool_render(words), python_render(words), js_answer)
    for words in BAD_WORDS:
        if "error" not in python_render(words):
            failures.append(f"{' '.join(words)}: accepted")

    decoded = subprocess.run([TOOL, "--json", "decode", *[p for _, p, _ in made]],
                             capture_output=True, text=True, check=True)
    by_file = {}
    for line in decoded.stdout.splitlines():
        fields = json.loads(line)
        by_file.setdefault(fields.pop("file"), []).append(fields)
    for (name, path, _), js_found in zip(made, js["recordings"]):
        tool_found = by_file.get(path, [])
        python_found = [t.fields for t in nimbara.decode_file(path)]
        check_recordings(tool_found, python_found, js_found, name)
        if [t["command"] for t in tool_found] != [w[0] if not w[0].startswith("do") else "puff"
                                                  for w in COMMANDS]:
            failures.append(f"{name}: the tool heard {[t['command'] for t in tool_found]}")

    if failures:
        print("conformance: the front ends differ", *failures, sep="\n")
        sys.exit(1)
    heard = sum(len(found) for found in js["recordings"])
    print(f"conformance: {len(COMMANDS)} commands, {len(BAD_WORDS)} bad words and "
          f"{len(made)} recordings ({heard} transmissions) alike in the tool, Python and "
          f"JavaScript")


main()

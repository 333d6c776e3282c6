#!/usr/bin/env python3
"""nimbara serve's figures, each beside a reference taken in the same run:
publish to first sample (beside the tool started for the same command), CPU
while idle (beside the broker's), and the spread of 20 services on one cue
(with a start time, beside the same cue without one). The first sample of an
output is seen as its WAV file starting to grow: the WAV output plays as fast
as it can, so it shows when the service began to play.
Usage: serve_bench.py NIMBARA; prints a Markdown table."""
import getpass
import json
import os
import socket
import statistics
import subprocess
import sys
import tempfile
import time

TOOL = os.path.abspath(sys.argv[1])
WORK = tempfile.mkdtemp(prefix="nimbara-serve-bench-")
TICKS = os.sysconf("SC_CLK_TCK")


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_for(condition, timeout=20, pause=0.0002):
    deadline = time.monotonic() + timeout
    while not condition():
        if time.monotonic() > deadline:
            raise RuntimeError("timed out")
        time.sleep(pause)
    return time.monotonic()


def size(path):
    try:
        return os.stat(path).st_size
    except FileNotFoundError:
        return 0


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICKS


port = free_port()
conf = os.path.join(WORK, "mosquitto.conf")
with open(conf, "w") as f:
    f.write(f"listener {port} 127.0.0.1\nuser {getpass.getuser()}\nallow_anonymous true\n")
broker = subprocess.Popen(["mosquitto", "-c", conf], stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL)
wait_for(lambda: subprocess.run(["mosquitto_pub", "-h", "127.0.0.1", "-p", str(port), "-t", "x",
                                 "-m", "x"], stderr=subprocess.DEVNULL).returncode == 0, 10, 0.05)


def serve(name, *devices):
    args = [TOOL, "serve", "--mqtt", f"mqtt://127.0.0.1:{port}", "--name", name]
    for device in devices:
        args += ["--device", device]
    process = subprocess.Popen(args, stderr=subprocess.DEVNULL)
    sub = subprocess.run(["mosquitto_sub", "-h", "127.0.0.1", "-p", str(port), "-C", "1", "-W",
                          "20", "-t", f"nimbara/{name}/availability"], capture_output=True,
                         text=True)
    assert sub.stdout.strip() == "online", sub
    return process


def publisher(topic):
    """A connected mosquitto_pub: each line written is one message, at once."""
    return subprocess.Popen(["mosquitto_pub", "-h", "127.0.0.1", "-p", str(port), "-t", topic,
                             "-l"], stdin=subprocess.PIPE, text=True, bufsize=1)


rows = []

# Publish to first sample, beside the tool started for the same command.
wav = os.path.join(WORK, "first.wav")
service = serve("first", "wav:" + wav)
pub = publisher("nimbara/first/first/command")
latencies = []
for _ in range(20):
    before = size(wav)
    start = time.monotonic()
    pub.stdin.write("state\n")
    latencies.append(wait_for(lambda: size(wav) > before) - start)
    time.sleep(0.5)  # the transmission ends before the next
tool_latencies = []
for i in range(20):
    path = os.path.join(WORK, f"tool{i}.wav")
    start = time.monotonic()
    tool = subprocess.Popen([TOOL, "-q", "--device", "wav:" + path, "state"])
    tool_latencies.append(wait_for(lambda: size(path) > 44) - start)
    tool.wait()
pub.stdin.close()
pub.wait()
ours, reference = statistics.median(latencies), statistics.median(tool_latencies)
rows.append(("publish to first sample (WAV output), median of 20",
             f"{ours * 1000:.1f} ms, {ours / reference:.2f}x the tool started for the same "
             f"command ({reference * 1000:.1f} ms)"))

# CPU while idle, beside the broker's over the same seconds.
time.sleep(1)
ours_before, broker_before = cpu_seconds(service.pid), cpu_seconds(broker.pid)
idle = 20
time.sleep(idle)
ours_cpu = cpu_seconds(service.pid) - ours_before
broker_cpu = cpu_seconds(broker.pid) - broker_before
rows.append((f"CPU while idle over {idle} s (one output)",
             f"{ours_cpu:.2f} CPU s, the broker {broker_cpu:.2f} CPU s "
             f"(one clock tick is {1 / TICKS:.2f} s)"))
service.terminate()
service.wait()

# The spread of 20 services on one cue: with a start time, and without.
services, wavs = [], []
for i in range(20):
    wavs.append(os.path.join(WORK, f"room{i}.wav"))
    services.append(serve(f"room{i}", "wav:" + wavs[-1]))


def spread(payload):
    before = [size(w) for w in wavs]
    first = [None] * len(wavs)
    publishers = [subprocess.Popen(["mosquitto_pub", "-h", "127.0.0.1", "-p", str(port), "-t",
                                    f"nimbara/room{i}/room{i}/command", "-m", payload])
                  for i in range(len(wavs))]

    def all_started():
        now = time.monotonic()
        for i, w in enumerate(wavs):
            if first[i] is None and size(w) > before[i]:
                first[i] = now
        return all(f is not None for f in first)

    wait_for(all_started, 30)
    for p in publishers:
        p.wait()
    return max(first) - min(first)


with_at = [spread(json.dumps({"command": "state", "at": int(time.time() * 1000) + 2000}))
           for _ in range(3)]
without = [spread("state") for _ in range(3)]
a, b = statistics.median(with_at), statistics.median(without)
rows.append(("spread of 20 services on one cue, median of 3",
             f"{a * 1000:.1f} ms with a start time; {b * 1000:.1f} ms published one by one "
             f"without ({b / a:.1f}x)"))
for process in services:
    process.terminate()
for process in services:
    process.wait()
broker.terminate()
broker.wait()
subprocess.run(["rm", "-rf", WORK])

print("| figure | measured |\n|---|---|")
for figure, measured in rows:
    print(f"| {figure} | {measured} |")

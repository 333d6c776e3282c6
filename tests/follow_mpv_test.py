#!/usr/bin/env python3
"""play --follow mpv against a real mpv (null outputs) playing a video made
by ffmpeg: each cue is sent when the film reaches it, a pause of a second
delays the rest by that second, a seek skips the cues jumped over, and the
end of the film ends the command. What was sent is decoded back from the WAV
output. Usage: follow_mpv_test.py NIMBARA"""
import json
import os
import socket
import subprocess
import sys
import tempfile
import time

TOLERANCE = 0.06  # seconds: mpv reports its position once a frame (40 ms)

TRACK = """WEBVTT

NOTE five echoes, a second and a half apart

00:00.500 --> 00:01.000
echo 1

00:02.000 --> 00:02.500
echo 2

00:03.500 --> 00:04.000
echo 3

00:05.000 --> 00:05.500
echo 4

00:06.500 --> 00:07.000
echo 5
"""

failures = []


def expect(description, ok, detail=""):
    print(("ok: " if ok else "FAIL: ") + description + (f" ({detail})" if detail else ""))
    if not ok:
        failures.append(description)


class Mpv:
    """A client of mpv's JSON IPC socket that waits for each reply."""

    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX)
        for _ in range(100):
            try:
                self.socket.connect(path)
                break
            except (FileNotFoundError, ConnectionRefusedError):
                time.sleep(0.05)  # mpv has not made its socket yet
        else:
            raise SystemExit("mpv did not open its socket")
        self.file = self.socket.makefile("r")
        self.next_id = 1

    def command(self, *words):
        request_id = self.next_id
        self.next_id += 1
        self.socket.sendall((json.dumps({"command": list(words), "request_id": request_id}) +
                             "\n").encode())
        for line in self.file:
            reply = json.loads(line)
            if reply.get("request_id") == request_id:
                if reply.get("error") != "success":
                    raise SystemExit(f"mpv: {words}: {reply}")
                return time.time()
        raise SystemExit("mpv closed its socket")


def main():
    tool = sys.argv[1]
    work = tempfile.mkdtemp(prefix="nimbara-follow.")
    video, track = os.path.join(work, "film.webm"), os.path.join(work, "film.vtt")
    sock, wav = os.path.join(work, "mpv.sock"), os.path.join(work, "sent.wav")
    with open(track, "w") as f:
        f.write(TRACK)
    subprocess.run(["ffmpeg", "-loglevel", "error", "-y", "-f", "lavfi", "-i",
                    "testsrc=size=160x120:rate=25", "-t", "8", "-c:v", "libvpx", "-b:v", "100k",
                    video], check=True)
    mpv = subprocess.Popen(["mpv", "--no-config", "--vo=null", "--ao=null", "--pause",
                            "--input-ipc-server=" + sock, video],
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    control = Mpv(sock)
    follow = subprocess.Popen([tool, "-v", "--json", "--device", "wav:" + wav, "play", track,
                               "--follow", "mpv:" + sock], stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True)
    sent = {}

    def next_cue():
        line = follow.stdout.readline()
        if not line:
            raise SystemExit("the follower ended early: " + follow.stderr.read())
        cue = json.loads(line)
        sent[cue["number"]] = cue
        return cue

    try:
        # The follower says when it has subscribed to the film's position.
        for line in follow.stderr:
            if "following mpv" in line:
                break
        else:
            raise SystemExit("the follower did not start")
        started = control.command("set_property", "pause", False)
        first = next_cue()
        paused = control.command("set_property", "pause", True)
        time.sleep(1.0)  # the pause itself
        resumed = control.command("set_property", "pause", False)
        second = next_cue()
        seeked = control.command("seek", 4.0, "absolute")
        fourth = next_cue()
        fifth = next_cue()
        status = follow.wait(timeout=30)
    finally:
        if follow.poll() is None:
            follow.kill()
        mpv.kill()
        mpv.wait()

    errors = follow.stderr.read().strip()
    expect("the film's end ends the command", status == 0, errors if status else "")
    order = [c["number"] for c in (first, second, fourth, fifth)]
    expect("cues 1, 2, 4, 5 sent, 3 jumped over", order == [1, 2, 4, 5], str(order))
    error = first["sent"] - started - 0.5
    expect("the first cue when the film reaches it", abs(error) < TOLERANCE,
           f"{error * 1000:+.1f} ms")
    pause = resumed - paused
    error = second["sent"] - first["sent"] - 1.5 - pause
    expect("a pause delays the rest by its length", abs(error) < TOLERANCE,
           f"paused {pause * 1000:.0f} ms, error {error * 1000:+.1f} ms")
    error = fourth["sent"] - seeked - 1.0
    expect("after a seek, the next cue from the new position", abs(error) < TOLERANCE,
           f"{error * 1000:+.1f} ms")
    error = fifth["sent"] - fourth["sent"] - 1.5
    expect("then on at the film's pace", abs(error) < TOLERANCE, f"{error * 1000:+.1f} ms")

    decoded = subprocess.run([tool, "--json", "decode", wav], capture_output=True, text=True)
    heard = [json.loads(line).get("number") for line in decoded.stdout.splitlines()]
    expect("the output heard exactly the cues sent", heard == [1, 2, 4, 5], str(heard))
    subprocess.run(["rm", "-rf", work])
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()

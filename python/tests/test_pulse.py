"""Accessory on the test script's PulseAudio server: presence by sink, a puff
recorded from the sink's monitor, and a server that cannot be reached."""
import os
import subprocess
import sys

import numpy as np
import pytest

import nimbara
from conftest import eventually


def test_presence_follows_the_sink(pulse_server):
    headphones = nimbara.Accessory("pulse:headphones")
    speaker = nimbara.Accessory("pulse:speaker")
    default = nimbara.Accessory("pulse")
    assert (headphones.route, headphones.present) == ("Headphones", True)
    assert (speaker.route, speaker.present) == ("Speaker", False)
    assert (default.route, default.present) == ("Headphones", True)
    with pytest.raises(nimbara.NoDevice, match='"Speaker"'):
        speaker.puff(1, 2, 3)
    missing = nimbara.Accessory("pulse:no_such_sink")
    assert missing.route is None and not missing.present
    for acc in (headphones, speaker, default, missing):
        acc.close()


class MonitorRecording:
    """parec on a sink's monitor, into a raw file."""

    def __init__(self, source, path):
        self.path = path
        self.process = subprocess.Popen(
            ["parec", "-d", source, "--raw", "--format=s16le", "--rate=44100", "--channels=2",
             "--latency-msec=20"], stdout=open(path, "wb"))

    def samples(self):
        return np.fromfile(self.path, dtype="<i2")

    def stop(self):
        self.process.terminate()
        self.process.wait(timeout=10)


def heard_in(samples):
    return [(t.command, t.red, t.blue, t.special, t.time, t.damaged)
            for t in nimbara.decode(samples.reshape(-1, 2)[: samples.size // 2])]


def test_a_puff_is_recorded_from_the_headphones_monitor(pulse_server, tmp_path):
    recording = MonitorRecording("headphones.monitor", tmp_path / "monitor.raw")
    try:
        assert eventually(lambda: recording.samples().size > 0), "parec records"
        with nimbara.Accessory("pulse:headphones") as acc:
            acc.puff(255, 0, 128, special=1, time=500)
        expected = [("puff", 255, 128, 1, 500, False)]
        assert eventually(lambda: heard_in(recording.samples()) == expected), \
            heard_in(recording.samples())
    finally:
        recording.stop()


def test_no_server_is_an_audio_error(pulse_server, tmp_path):
    script = (
        "import nimbara\n"
        "acc = nimbara.Accessory('pulse', skip_precheck=True)\n"
        "assert acc.route is None and not acc.present\n"
        "try:\n"
        "    acc.flash(1, 2, 3)\n"
        "except nimbara.AudioError as e:\n"
        "    print(e.status, e.text)\n")
    env = dict(os.environ, PULSE_SERVER=f"unix:{tmp_path}/no-server")
    done = subprocess.run([sys.executable, "-c", script], env=env, capture_output=True, text=True,
                          timeout=60)
    assert done.returncode == 0, done.stderr
    status, text = done.stdout.split(" ", 1)
    assert int(status) < 0 and text.strip() == nimbara._nimbara.status_text(int(status))

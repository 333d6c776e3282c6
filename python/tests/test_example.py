"""The timeline example plays its scents, in order."""
import subprocess
import sys
from pathlib import Path

import nimbara

EXAMPLE = Path(__file__).resolve().parents[1] / "examples" / "timeline.py"


def test_timeline_example_into_a_wav_file(tmp_path):
    wav = tmp_path / "timeline.wav"
    done = subprocess.run([sys.executable, str(EXAMPLE), "--device", f"wav:{wav}", "--speed", "0"],
                          capture_output=True, text=True, timeout=120)
    assert done.returncode == 0, done.stderr
    heard = [tuple(getattr(t, n, None) for n in ("command", "red", "green", "blue", "time"))
             for t in nimbara.decode_file(wav)]
    assert heard == [("flash", 0xFF, 0xB0, 0x00, 500), ("puff", 0x40, 0xFF, 0x40, 300),
                     ("spray", None, None, None, 200), ("puff", 255, 0, 64, 800),
                     ("flash", 0, 0, 0, 100)]


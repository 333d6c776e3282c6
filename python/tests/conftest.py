"""Shared fixtures: the nimbara tool, the test PulseAudio server."""
import os
import shutil
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]


@pytest.fixture(scope="session")
def tool():
    """The nimbara tool of the release build (or $NIMBARA_TOOL)."""
    path = Path(os.environ.get("NIMBARA_TOOL", ROOT / "build/release/tool/nimbara"))
    if not path.is_file():
        pytest.fail(f"the nimbara tool is not built: {path}")
    return str(path)


@pytest.fixture(scope="session")
def pulse_server():
    """The test script's private PulseAudio server (sinks headphones and speaker)."""
    if os.environ.get("NIMBARA_TEST_PULSE") != "1" or not os.environ.get("PULSE_SERVER"):
        pytest.skip("no test PulseAudio server (run scripts/python-test)")
    assert shutil.which("parec"), "parec is needed to record a sink's monitor"
    return os.environ["PULSE_SERVER"]


def eventually(condition, seconds=10.0):
    """Polls condition until it holds or the deadline passes."""
    import time
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        if condition():
            return True
        time.sleep(0.02)
    return condition()

"""TankId's packed form and Base64 text, the version, and the log."""
import subprocess
import sys
import threading
from pathlib import Path

import pytest

import nimbara


def test_tank_id_packed_form_and_base64():
    tank = nimbara.TankId(year=13, month=11, day=15, scent_id=0x155, serial_id=0x2AAA,
                          reserve1=2, reserve2=0xBEEF)
    assert tank.encode() == bytes.fromhex("6DBD55AAAABEEF")
    assert tank.to_base64() == "bb1Vqqq+7w=="
    assert nimbara.TankId.decode(tank.encode()) == tank
    assert nimbara.TankId.decode(tank.encode() + b"\x01\x02") == tank
    assert nimbara.TankId.from_base64("bb1Vqqq+7w==") == tank
    assert str(tank) == ("date=13/11/15, scentId=341, serialId=10922, reserve1=2, "
                         "reserve2=48879")
    assert eval(repr(tank), {"TankId": nimbara.TankId}) == tank
    assert nimbara.TankId().encode() == bytes(7)
    assert nimbara.TankId(year=40).encode()[0] == 8 << 3, "year keeps its low 5 bits"
    month = nimbara.TankId.decode(bytes.fromhex("00800000000000"))
    assert (month.month, month.year, month.day) == (1, 0, 0)
    tank.serial_id = 7
    assert tank != nimbara.TankId.from_base64("bb1Vqqq+7w==")


@pytest.mark.parametrize("call,error,words", [
    (lambda: nimbara.TankId(year=256), ValueError, "year must be from 0 to 255"),
    (lambda: nimbara.TankId(reserve2=-1), ValueError, "reserve2 must be from 0 to 65535"),
    (lambda: nimbara.TankId(13), TypeError, ""),
    (lambda: setattr(nimbara.TankId(), "scent_id", 70000), ValueError, "scent_id"),
    (lambda: nimbara.TankId.decode(b"\x01\x02"), ValueError, "at least 7 bytes, not 2"),
    (lambda: nimbara.TankId.from_base64("!!"), ValueError, "at least 7 bytes"),
    (lambda: nimbara.TankId.decode("text"), TypeError, ""),
])
def test_tank_id_bad_values(call, error, words):
    with pytest.raises(error, match=words):
        call()


def test_version():
    version = (Path(__file__).resolve().parents[2] / "VERSION").read_text().strip()
    assert nimbara.__version__ == version


def test_the_log_is_silent_by_default():
    script = ("import nimbara\n"
              "acc = nimbara.Accessory('virtual')\n"
              "acc.flash(1, 2, 3)\n"
              "nimbara.render('echo', 5)\n"
              "print('done')\n")
    done = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True,
                          timeout=60)
    assert (done.returncode, done.stdout, done.stderr) == (0, "done\n", "")


def test_log_handler_gets_every_thread_s_lines_and_survives_its_errors():
    lines, threads = [], set()

    def handler(line):
        lines.append(line)
        threads.add(threading.get_ident())
        if "build protocol" in line:
            raise RuntimeError("a handler that fails")

    unraisable = []
    old_hook = sys.unraisablehook
    sys.unraisablehook = unraisable.append
    try:
        nimbara.set_log_handler(handler)
        nimbara.Accessory("virtual").flash(1, 2, 3)
        nimbara.flush_log()
        nimbara.set_log_handler(None)
        count = len(lines)
        nimbara.render("flash", 1, 2, 3)
        assert len(lines) == count, "None silences the log"
    finally:
        nimbara.set_log_handler(None)
        sys.unraisablehook = old_hook
    assert "doLightLed start." in lines
    assert any(line.startswith("doLightLed end. ret=0") for line in lines)
    assert len(threads) >= 2, "the audio thread's lines arrive too"
    assert unraisable and isinstance(unraisable[0].exc_value, RuntimeError)
    with pytest.raises(TypeError, match="callable"):
        nimbara.set_log_handler(42)

"""Accessory on the virtual device and into WAV files: commands, errors,
threads and Ctrl-C."""
import os
import pickle
import signal
import threading
import time

import numpy as np
import pytest

import nimbara


def test_every_command_reaches_the_virtual_accessory():
    with nimbara.Accessory("virtual") as acc:
        assert acc.present and acc.route == "Virtual Headphones"
        acc.flash(255, 0, 128, special=2, time=700)
        acc.puff("#10ff80", time=5000)
        acc.puff((1, 2, 3))
        acc.puff("orange", tank=False)
        acc.flash("ff0080")
        acc.spray(250)
        acc.state()
        tank = acc.tank()
        assert acc.echo(1234) == 0
        acc.send("puff", "teal", "--time", "50", "--no-tank")
        heard = acc.heard()
        assert acc.heard() == []
    assert isinstance(tank, nimbara.TankId)
    assert (tank.year, tank.month, tank.day, tank.scent_id, tank.serial_id) == (13, 11, 15, 0, 0)
    names = ("command", "red", "green", "blue", "special", "time", "number", "asks_tank")
    assert [tuple(getattr(t, n, None) for n in names) for t in heard] == [
        ("flash", 255, 0, 128, 2, 700, None, None),
        ("puff", 0x10, 0xFF, 0x80, 0, 1000, None, True),
        ("puff", 1, 2, 3, 0, 500, None, True),
        ("puff", 255, 165, 0, 0, 500, None, False),
        ("flash", 255, 0, 128, 0, 500, None, None),
        ("spray", None, None, None, None, 250, None, None),
        ("state", None, None, None, None, None, None, None),
        ("tank", None, None, None, None, None, None, None),
        ("echo", None, None, None, None, None, 1234, None),
        ("puff", 0, 128, 128, 0, 100, None, False),
    ]
    with pytest.raises(AttributeError, match="carries no red"):
        heard[6].red
    assert not any(t.damaged for t in heard)


def test_no_device_and_skip_precheck():
    acc = nimbara.Accessory("virtual", route="Speaker")
    assert not acc.present and acc.route == "Speaker"
    for call in (lambda: acc.flash(1, 2, 3), lambda: acc.puff(1, 2, 3), lambda: acc.spray(100),
                 acc.tank, lambda: acc.echo(1)):
        with pytest.raises(nimbara.NoDevice) as caught:
            call()
        assert str(caught.value).startswith("No device.")
        assert caught.value.route == "Speaker"
        assert isinstance(caught.value, nimbara.Error)
        copy = pickle.loads(pickle.dumps(caught.value))
        assert (type(copy), str(copy), copy.route) == (nimbara.NoDevice, str(caught.value), "Speaker")
    assert acc.heard() == [], "nothing is sent without a device"
    acc.skip_precheck = True
    acc.flash(9, 9, 9)
    assert acc.tank().day == 15
    assert [t.command for t in acc.heard()] == ["flash", "tank"]
    assert not acc.present, "present reports the route, whatever the skip says"
    headset = nimbara.Accessory("virtual", route="Wired HeadsetInOut")
    assert headset.present
    headset.close()


def test_into_a_wav_file(tmp_path):
    path = tmp_path / "out.wav"
    with nimbara.Accessory(f"wav:{path}") as acc:
        assert acc.present
        acc.puff(255, 255, 0, time=300)
        acc.echo(42)
        with pytest.raises(TypeError, match="only the virtual device"):
            acc.heard()
    assert acc.closed
    found = nimbara.decode_file(path)
    assert [t.fields for t in found] == [
        dict(found[0].fields, command="puff", red=255, green=255, blue=0, time=300, asks_tank=True),
        dict(found[1].fields, command="echo", number=42)]
    assert "time" not in found[1].fields
    with pytest.raises(ValueError, match="closed"):
        acc.flash(1, 2, 3)
    with pytest.raises(ValueError, match="closed"):
        acc.present


def test_a_failing_output_raises_audio_error(tmp_path):
    acc = nimbara.Accessory(f"wav:{tmp_path}/no/such/folder/out.wav")
    with pytest.raises(nimbara.AudioError) as caught:
        acc.flash(1, 2, 3)
    error = caught.value
    assert isinstance(error, nimbara.Error)
    assert error.status < 0
    assert error.text and error.text in str(error)
    assert "did not go out whole" in str(error) and error.device in str(error)
    copy = pickle.loads(pickle.dumps(error))
    assert (type(copy), str(copy), copy.status) == (nimbara.AudioError, str(error), error.status)


@pytest.mark.parametrize("make,error,words", [
    (lambda: nimbara.Accessory("speakers"), ValueError, "unknown audio output"),
    (lambda: nimbara.Accessory(3), TypeError, "device must be a str"),
    (lambda: nimbara.Accessory("virtual", route=5), TypeError, "route must be"),
    (lambda: nimbara.Accessory("pulse", route="Headphones"), ValueError, "pulse:SINK"),
    (lambda: nimbara.Accessory("alsa", allow_resampling=True), ValueError, "cannot allow resampling"),
])
def test_bad_outputs(make, error, words):
    with pytest.raises(error, match=words):
        make()


def test_bad_command_arguments():
    acc = nimbara.Accessory("virtual")
    cases = [
        (lambda: acc.flash(256, 0, 0), ValueError, "red must be from 0 to 255"),
        (lambda: acc.flash(1, 2), TypeError, "green and blue"),
        (lambda: acc.flash("#12345"), ValueError, "#rrggbb"),
        (lambda: acc.flash("#gg0000"), ValueError, "#rrggbb"),
        (lambda: acc.flash((1, 2)), ValueError, "red, green and blue"),
        (lambda: acc.flash("#ffffff", 2, 3), TypeError, "one value"),
        (lambda: acc.puff(1, 2, 3, time=1.5), TypeError, "time must be an integer"),
        (lambda: acc.puff(1, 2, 3, special=-1), ValueError, "special must be from 0"),
        (lambda: acc.spray(40000), ValueError, "time must be from"),
        (lambda: acc.echo(2 ** 32), ValueError, "number must be from 0 to 4294967295"),
        (lambda: acc.echo(None), TypeError, "number must be an integer"),
    ]
    for call, error, words in cases:
        with pytest.raises(error, match=words):
            call()
    assert acc.heard() == [], "no bad command reached the output"


def test_other_threads_run_while_a_command_plays():
    # The log handler tells, from inside the call, that the sound is starting;
    # a worker thread must then get its Python work done before the call
    # returns, which it cannot while the call holds the GIL.
    acc = nimbara.Accessory("virtual")
    inside, done = threading.Event(), threading.Event()

    def on_log(line):
        if line == "doSprayWithLightLedGetTankId start.":
            inside.set()

    def worker():
        if inside.wait(timeout=30):
            sum(range(10000))
            done.set()

    thread = threading.Thread(target=worker)
    thread.start()
    nimbara.set_log_handler(on_log)
    try:
        acc.puff(1, 2, 3)
        finished_in_time = done.is_set()
    finally:
        nimbara.set_log_handler(None)
        inside.set()
        thread.join()
    assert finished_in_time, "the worker ran while the puff played"


def test_commands_from_several_threads_take_turns():
    acc = nimbara.Accessory("virtual")
    errors = []

    def send(n):
        try:
            acc.echo(n)
        except Exception as e:  # collected for the assertion below
            errors.append(e)

    threads = [threading.Thread(target=send, args=(n,)) for n in range(4)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert errors == []
    heard = acc.heard()
    assert sorted(t.number for t in heard) == [0, 1, 2, 3]
    assert not any(t.damaged for t in heard)


def test_ctrl_c_ends_the_command_first():
    assert threading.current_thread() is threading.main_thread()
    acc = nimbara.Accessory("virtual")
    timer = threading.Timer(0.1, os.kill, (os.getpid(), signal.SIGINT))
    began = time.monotonic()
    timer.start()
    with pytest.raises(KeyboardInterrupt):
        acc.puff(200, 100, 50, time=900)
    timer.join()
    assert time.monotonic() - began >= 0.35
    heard = acc.heard()
    assert [(t.command, t.red, t.time, t.damaged) for t in heard] == [("puff", 200, 900, False)]
    acc.flash(1, 1, 1)
    assert [t.command for t in acc.heard()] == ["flash"]

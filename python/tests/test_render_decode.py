"""render against the tool's render, and the receiver over rendered sound."""
import pickle
import subprocess
import wave

import numpy as np
import pytest

import nimbara

# (render's arguments, the tool's render words): every library operation and
# every verb.
RENDERS = [
    (("doLightLed", 255, 0, 128, 1, 500), None),
    (("doSprayWithLightLed", 10, 20, 30, 0, 5000), None),
    (("doSprayWithLightLedGetTankId", 0, 255, 0, 7, 50), None),
    (("doAquireDeviceState",), None),
    (("doGetTankId",), None),
    (("doEcho", 0x12345678), None),
    (("flash", 255, 0, 128, 1, 700), ["flash", "255", "0", "128", "--special", "1", "--time", "700"]),
    (("puff", 1, 2, 3, 0, 5000), ["puff", "1", "2", "3", "--time", "5000"]),
    (("spray", 300), None),
    (("state",), None),
    (("tank",), None),
    (("echo", 42), None),
]


def read_wav(path):
    with wave.open(str(path), "rb") as w:
        assert (w.getnchannels(), w.getsampwidth(), w.getframerate()) == (2, 2, 44100)
        return np.frombuffer(w.readframes(w.getnframes()), dtype="<i2").reshape(-1, 2)


@pytest.mark.parametrize("args,words", RENDERS, ids=[a[0] for a, _ in RENDERS])
def test_render_is_the_tools_render(tool, tmp_path, args, words):
    out = tmp_path / "tool.wav"
    words = words or [str(a) for a in args]
    subprocess.run([tool, "render", *words, "--out", str(out)], check=True, capture_output=True)
    samples = nimbara.render(*args)
    assert samples.dtype == np.int16 and samples.ndim == 2 and samples.shape[1] == 2
    assert np.array_equal(samples, read_wav(out))
    assert np.any(samples != 0)


def test_verbs_render_as_their_operations():
    assert np.array_equal(nimbara.render("flash", 1, 2, 3), nimbara.render("doLightLed", 1, 2, 3, 0, 500))
    assert np.array_equal(nimbara.render("puff", 1, 2, 3, 4, 5000),
                          nimbara.render("doSprayWithLightLedGetTankId", 1, 2, 3, 4, 5000))
    assert np.array_equal(nimbara.render("state"), nimbara.render("doAquireDeviceState"))
    assert np.array_equal(nimbara.render("tank"), nimbara.render("doGetTankId"))
    assert np.array_equal(nimbara.render("echo", 99), nimbara.render("doEcho", 99))
    assert nimbara.render("state").shape[0] < nimbara.render("spray", 300).shape[0]
    assert not np.array_equal(nimbara.render("flash", 1, 2, 3), nimbara.render("flash", 1, 2, 4))


@pytest.mark.parametrize("call,error,words", [
    (lambda: nimbara.render("sneeze"), ValueError, "unknown command"),
    (lambda: nimbara.render("flash", 1, 2), ValueError, "takes 3 to 5 arguments"),
    (lambda: nimbara.render("doLightLed", 1, 2, 3), ValueError, "takes 5 arguments"),
    (lambda: nimbara.render("flash", 256, 0, 0), ValueError, "red must be from 0 to 255"),
    (lambda: nimbara.render("spray", 40000), ValueError, "time must be from -32768"),
    (lambda: nimbara.render("echo", -1), ValueError, "number must be from 0"),
    (lambda: nimbara.render("echo", 2 ** 80), ValueError, "out of range"),
    (lambda: nimbara.render("flash", 1.5, 0, 0), TypeError, "must be an integer, not float"),
    (lambda: nimbara.render("flash", "1", 0, 0.5), TypeError, "word 4 must be an integer, not float"),
    (lambda: nimbara.render("flash", "#12345"), ValueError, "is not a colour"),
    (lambda: nimbara.render("puff", "red", "--time", "x"), ValueError,
     'time must be a decimal number, not "x"'),
    (lambda: nimbara.render({"command": "state", "red": 1}), ValueError, "state carries no red"),
    (lambda: nimbara.render({"command": "flash", "red": "1"}), ValueError, "red must be a whole number"),
    (lambda: nimbara.render(4), TypeError, "operation must be a str"),
])
def test_bad_render_arguments_raise(call, error, words):
    with pytest.raises(error, match=words):
        call()


ROUND_TRIPS = [
    (("flash", 255, 0, 128, 3, 700), dict(command="flash", red=255, green=0, blue=128, special=3, time=700)),
    (("puff", 1, 2, 3, 0, 5000), dict(command="puff", red=1, green=2, blue=3, time=1000, asks_tank=True)),
    (("doSprayWithLightLed", 9, 8, 7, 0, 300), dict(command="puff", time=300, asks_tank=False)),
    (("spray", 250), dict(command="spray", time=250, red=None, number=None)),
    (("state",), dict(command="state", red=None, time=None, number=None)),
    (("tank",), dict(command="tank", asks_tank=None)),
    (("echo", 0xDEADBEEF), dict(command="echo", number=0xDEADBEEF, red=None, time=None)),
]


@pytest.mark.parametrize("command,expected", ROUND_TRIPS, ids=[c[0][0] for c in ROUND_TRIPS])
def test_render_then_decode(command, expected):
    found = nimbara.decode(nimbara.render(*command))
    assert len(found) == 1
    t = found[0]
    assert not t.damaged
    for field, value in expected.items():
        assert getattr(t, field, None) == value, field


def test_decode_takes_any_numeric_type_and_shape():
    stereo = nimbara.render("flash", 10, 20, 30)
    silence = np.zeros((4410, 2), dtype=np.int16)
    two = np.concatenate([stereo, silence, nimbara.render("echo", 5)])
    variants = {
        "int16": two,
        "float64": two / 32768.0,
        "float32 mono": ((two[:, 0] / 32768.0).astype(np.float32), 1),
        "int32": two.astype(np.int32) << 16,
        "uint8": ((two.astype(np.int32) >> 8) + 128).astype(np.uint8),
        "list": two.tolist(),
    }
    for name, samples in variants.items():
        samples, channels = samples if isinstance(samples, tuple) else (samples, 2)
        found = nimbara.decode(samples, channels=channels)
        assert [t.command for t in found] == ["flash", "echo"], name
        assert (found[0].red, found[1].number) == (10, 5), name
        assert found[1].start > found[0].start + 0.4, name
    assert nimbara.decode(np.zeros((0, 2), dtype=np.int16)) == []
    # Another rate: the rendered sound resampled to 48 kHz by plain interpolation.
    x = np.arange(two.shape[0] * 48000 // 44100) * 44100 / 48000
    resampled = np.interp(x, np.arange(two.shape[0]), two[:, 0].astype(float)) / 32768
    assert [t.command for t in nimbara.decode(resampled, sample_rate=48000, channels=1)] == \
        ["flash", "echo"]


def test_bad_samples_raise():
    with pytest.raises(ValueError, match="3-dimensional"):
        nimbara.decode(np.zeros((2, 2, 2)))
    with pytest.raises(TypeError, match="integers or floats"):
        nimbara.decode(np.array(["a", "b"]))
    with pytest.raises(ValueError, match="8000"):
        nimbara.decode(np.zeros(100, dtype=np.int16), sample_rate=100)
    with pytest.raises(ValueError, match="whole frames of 2 channels"):
        nimbara.decode(np.zeros(5, dtype=np.int16))
    with pytest.raises(ValueError, match="2 channels"):
        nimbara.Receiver(44100, 1).push(np.zeros((10, 2), dtype=np.int16))
    with pytest.raises(ValueError, match="whole frames"):
        nimbara.Receiver(44100, 2).push(np.zeros(5, dtype=np.int16))
    with pytest.raises(TypeError):
        nimbara.Receiver(44100, 2.0)


def test_receiver_in_uneven_chunks():
    commands = [("flash", 1, 2, 3), ("puff", 4, 5, 6), ("echo", 77), ("spray", 120)]
    gap = np.zeros((2000, 2), dtype=np.int16)
    stream = np.concatenate([part for c in commands for part in (nimbara.render(*c), gap)])
    receiver = nimbara.Receiver(44100, 2)
    found, sizes, at = [], [1, 7, 1000, 33333, 2, 4096, 12345], 0
    for i in range(10 ** 6):
        if at >= len(stream):
            break
        chunk = stream[at:at + sizes[i % len(sizes)]]
        at += len(chunk)
        receiver.push(chunk)
        found += receiver.take()
        if i < 3:
            assert found == [], "nothing is complete after a few samples"
    assert len(found) >= 2, "transmissions come out while the stream goes on"
    receiver.finish()
    found += receiver.take()
    assert receiver.take() == [], "each is handed out once"
    assert [t.command for t in found] == ["flash", "puff", "echo", "spray"]
    assert [getattr(t, "number", None) for t in found] == [None, None, 77, None]
    assert found == nimbara.decode(stream)
    assert pickle.loads(pickle.dumps(found)) == found
    # Interleaved flat chunks of floats give the same.
    flat = nimbara.Receiver(44100, 2)
    floats = (stream / 32768.0).reshape(-1)
    for i in range(0, len(floats), 5002):
        flat.push(floats[i:i + 5002])
    flat.finish()
    assert [t.command for t in flat.take()] == ["flash", "puff", "echo", "spray"]


def test_decode_file_reads_real_wav_files(tool, tmp_path):
    wav = tmp_path / "puff.wav"
    subprocess.run([tool, "render", "doSprayWithLightLedGetTankId", "255", "64", "0", "0", "500",
                    "--out", str(wav)], check=True, capture_output=True)
    converted = tmp_path / "puff-48k-24bit-mono.wav"
    subprocess.run(["sox", str(wav), "-b", "24", "-r", "48000", "-c", "1", str(converted)], check=True)
    for path in (wav, converted):
        found = nimbara.decode_file(path)
        assert [(t.command, t.red, t.green, t.damaged) for t in found] == [("puff", 255, 64, False)]
    with pytest.raises(FileNotFoundError):
        nimbara.decode_file(tmp_path / "missing.wav")
    text = tmp_path / "text.wav"
    text.write_text("not a wave at all, just text")
    with pytest.raises(ValueError, match="not an audio file libsndfile reads"):
        nimbara.decode_file(str(text))


def test_noise_lowers_the_estimated_snr():
    clean = nimbara.render("puff", 1, 2, 3) / 32768.0
    noisy = clean + np.random.default_rng(1).normal(0, 0.3, clean.shape)
    (a,), (b,) = nimbara.decode(clean), nimbara.decode(noisy)
    assert (a.red, b.red, a.damaged, b.damaged) == (1, 1, False, False)
    assert 0 < b.confidence <= 1 and 0 < a.confidence <= 1
    assert a.snr_db > b.snr_db > 0
    assert abs(a.start - b.start) < 0.001


def test_command_fields_from_words_and_from_fields():
    puff = nimbara.command("puff", "Orange", "--time", 5000)
    assert puff == {"command": "puff", "red": 255, "green": 165, "blue": 0, "special": 0,
                    "time": 5000, "asks_tank": True, "sprays": 1000,
                    "operation": "doSprayWithLightLedGetTankId"}
    assert nimbara.command(puff) == puff
    assert nimbara.command({"command": "puff", "red": 1, "green": 2, "blue": 3,
                            "asks_tank": False})["operation"] == "doSprayWithLightLed"
    assert nimbara.command("state") == {"command": "state", "operation": "doAquireDeviceState"}
    assert np.array_equal(nimbara.render(puff), nimbara.render("puff", 255, 165, 0, 0, 5000))
    with pytest.raises(ValueError, match=r'unknown command "puf" \(did you mean puff\?\)'):
        nimbara.command("puf", "red")
    with pytest.raises(ValueError, match="sprays 900 does not match"):
        nimbara.command(dict(puff, sprays=900))
    with pytest.raises(TypeError, match="first word"):
        nimbara.command(3)

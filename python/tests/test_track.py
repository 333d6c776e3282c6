"""Scent tracks: read, rendered whole (the same samples as the tool's) and
played on the virtual accessory at their cues' times."""
import json
import subprocess

import numpy as np
import pytest

import nimbara

TRACK = """WEBVTT

NOTE a meadow, then roses

meadow
00:00.250 --> 00:01.000 align:start
puff orange --time 300

00:00:01.500 --> 00:00:02.000
{"command": "flash", "red": 0, "green": 128, "blue": 255, "time": 250}

00:02.125 --> 00:02.500
spray 300
"""


@pytest.fixture
def track(tmp_path):
    path = tmp_path / "film.vtt"
    path.write_text(TRACK)
    return path


def test_a_track_is_read_with_its_lines_and_fields(track):
    cues = nimbara.read_track(track)
    assert [(c.start, c.line, c.command) for c in cues] == [
        (0.25, 7, "puff"), (1.5, 10, "flash"), (2.125, 13, "spray")]
    assert cues[0].fields == {"command": "puff", "red": 255, "green": 165, "blue": 0,
                              "special": 0, "time": 300, "asks_tank": True, "sprays": 300,
                              "operation": "doSprayWithLightLedGetTankId"}
    assert cues[1].fields["blue"] == 255 and cues[2].fields == {
        "command": "spray", "time": 300, "sprays": 300, "operation": "createSprayProtocol"}
    # The same field maps as the vocabulary gives for the cues' text.
    assert cues[0].fields == nimbara.command(*cues[0].text.split())
    assert cues[1].fields == nimbara.command(json.loads(cues[1].text))
    assert cues[0].text == "puff orange --time 300"


def test_bad_tracks_name_the_file_and_line(tmp_path):
    with pytest.raises(ValueError, match=r"^x.vtt:4: unknown command \"blink\"$"):
        nimbara.parse_track("WEBVTT\n\n00:01.000 --> 00:02.000\nblink red\n", "x.vtt")
    with pytest.raises(ValueError, match=r"^x.vtt:4: unknown command \"puf\" \(did you mean puff\?\)$"):
        nimbara.parse_track("WEBVTT\n\n00:01.000 --> 00:02.000\npuf red\n", "x.vtt")
    with pytest.raises(ValueError, match=r"^x.vtt:4: puff needs green$"):
        nimbara.parse_track('WEBVTT\n\n00:01.000 --> 00:02.000\n{"command": "puff", "red": 1}\n',
                            "x.vtt")
    with pytest.raises(ValueError, match=r"^x.vtt:7: starts at 0.100 s, before the puff of line 4"):
        nimbara.parse_track("WEBVTT\n\n00:00.000 --> 00:01.000\npuff red\n\n"
                            "00:00.100 --> 00:01.000\nflash red\n", "x.vtt")
    with pytest.raises(ValueError, match=r"^<track>:3: the cue's start is not a time"):
        nimbara.parse_track("WEBVTT\n\n00:1.000 --> 00:02.000\npuff red\n")
    with pytest.raises(OSError):
        nimbara.read_track(tmp_path / "missing.vtt")


def test_a_rendered_track_is_the_tools_and_decodes_at_its_cues(track, tool, tmp_path):
    samples = nimbara.render_track(track)
    subprocess.run([tool, "-q", "render", str(track), "--out", str(tmp_path / "tool.wav")],
                   check=True)
    from_tool = nimbara.decode_file(tmp_path / "tool.wav")
    heard = nimbara.decode(samples)
    assert [t.command for t in heard] == ["puff", "flash", "spray"]
    assert [(t.command, t.start) for t in heard] == [(t.command, t.start) for t in from_tool]
    for t, at in zip(heard, [0.25, 1.5, 2.125]):
        assert abs(t.start - at) < 0.005


def test_a_track_plays_on_the_accessory_at_its_times(track):
    reported = []
    with nimbara.Accessory("virtual") as acc:
        sent = nimbara.play_track(acc, track, on_cue=reported.append)
        heard = acc.heard()
    assert reported == sent
    assert [s["cue"] for s in sent] == [0.25, 1.5, 2.125]
    cues = nimbara.read_track(track)
    assert [{k: v for k, v in s.items() if k not in ("cue", "sent", "line")} for s in sent] == [
        c.fields for c in cues]
    assert [s["line"] for s in sent] == [c.line for c in cues]
    assert [(t.command, t.time) for t in heard] == [("puff", 300), ("flash", 250), ("spray", 300)]
    assert [(t.red, t.green, t.blue) for t in heard[:2]] == [(255, 165, 0), (0, 128, 255)]
    # Each command went out as far after the first as its cue is.
    gaps = np.diff([s["sent"] for s in sent]) - np.diff([s["cue"] for s in sent])
    assert np.all(np.abs(gaps) < 0.05), gaps

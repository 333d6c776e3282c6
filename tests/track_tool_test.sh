#!/usr/bin/env bash
# Scent tracks through the nimbara tool: a WebVTT track rendered whole and
# played into a WAV, decoded back with every command at its cue's time; the
# errors, each naming the file and line, with exit status 2.
set -u
tool="$1"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0

fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

# A track with all that WebVTT allows beside the cues: a header line, STYLE,
# REGION and NOTE blocks, identifiers, settings, both forms of timestamp, a
# cue over two lines, a JSON field map and CRLF line ends.
printf '%s\r\n' "WEBVTT - scents" "Kind: metadata" "" \
  "STYLE" "::cue { color: lime }" "" \
  "REGION" "id:scents" "" \
  "NOTE a meadow" "then roses" "" \
  "1" "00:00.250 --> 00:01.000 align:start" "puff orange --time 300" "" \
  "00:00:01.750 --> 00:00:02.000" "flash 0 128 255" "--special 3" "" \
  "roses" "00:03.333 --> 00:04.000" '{"command": "puff", "red": 255, "green": 0, "blue": 64, "time": 800, "asks_tank": false}' "" \
  "00:00:05.000 --> 00:00:05.100" "spray 300" "" \
  "00:06.007 --> 00:06.500" "echo 42" >"$work/film.vtt"
expected='[("puff", 0.25, (255, 165, 0)), ("flash", 1.75, (0, 128, 255)), ("puff", 3.333, (255, 0, 64)), ("spray", 5.0, None), ("echo", 6.007, None)]'

# Each decoded command is the cue's, at its time within 5 ms; prints the errors.
check_timeline() {  # description, decode --json output
  python3 - "$2" "$expected" <<'PY' || fail "$1"
import ast, json, sys
lines = [json.loads(l) for l in open(sys.argv[1]) if l.strip()]
expected = ast.literal_eval(sys.argv[2])
if len(lines) != len(expected):
    sys.exit(f"{len(lines)} commands decoded, {len(expected)} expected: {lines}")
worst = 0
for got, (verb, start, rgb) in zip(lines, expected):
    if got["command"] != verb or got["damaged"]:
        sys.exit(f"{got} is not a whole {verb}")
    if rgb and (got["red"], got["green"], got["blue"]) != rgb:
        sys.exit(f"{got} is not rgb{rgb}")
    worst = max(worst, abs(got["start"] - start))
if worst >= 0.005:
    sys.exit(f"a command is {worst * 1000:.1f} ms from its cue")
print(f"{len(lines)} commands at their cues, the worst {worst * 1000:.2f} ms off")
PY
}

"$tool" -q render "$work/film.vtt" --out "$work/render.wav" || fail "render a track"
"$tool" --json decode "$work/render.wav" >"$work/render.json" || fail "decode the render"
check_timeline "render a track" "$work/render.json"
"$tool" -q --device "wav:$work/played.wav" play "$work/film.vtt" || fail "play a track into a WAV"
"$tool" --json decode "$work/played.wav" >"$work/played.json" || fail "decode what was played"
check_timeline "play a track" "$work/played.json"

# play --json: a line per cue, with its time, when it was sent and its fields.
before=$(date +%s.%N)
"$tool" --json --device virtual play "$work/film.vtt" >"$work/play.json" || fail "play --json"
after=$(date +%s.%N)
python3 - "$work/play.json" "$before" "$after" <<'PY' || fail "play --json lines"
import json, sys
lines = [json.loads(l) for l in open(sys.argv[1])]
before, after = float(sys.argv[2]), float(sys.argv[3])
assert [l["cue"] for l in lines] == [0.25, 1.75, 3.333, 5.0, 6.007], lines
assert [l["line"] for l in lines] == [15, 18, 23, 26, 29], lines
assert all(before <= l["sent"] <= after for l in lines), (before, after, lines)
assert lines[1]["special"] == 3 and lines[2]["asks_tank"] is False and lines[4]["number"] == 42, lines
PY

# Errors: exit 2, one line on stderr naming the file and line.
bad() {  # description, expected message, track text (printf format)
  printf "$3" >"$work/bad.vtt"
  "$tool" --device virtual play "$work/bad.vtt" >/dev/null 2>"$work/err"
  local status=$?
  if [ "$status" -ne 2 ]; then fail "$1: exit status $status, not 2"; return; fi
  [ "$(wc -l <"$work/err")" -eq 1 ] || fail "$1: stderr is not one line: $(cat "$work/err")"
  grep -qF -- "$work/bad.vtt$2" "$work/err" || fail "$1: no \"bad.vtt$2\" in $(cat "$work/err")"
}
bad "no header" ":1: a WebVTT file starts with" 'WEBVT\n\n00:01.000 --> 00:02.000\npuff red\n'
bad "a bad start" ":4: the cue's start is not a time" 'WEBVTT\n\nid\n0:01.000 --> 00:02.000\npuff red\n'
bad "minutes past 59" ":3: the cue's start is not a time" 'WEBVTT\n\n00:60.000 --> 01:02.000\npuff red\n'
bad "a bad end" ":3: the cue's end is not a time" 'WEBVTT\n\n00:01.000 --> 00:02.0\npuff red\n'
bad "no arrow" ":3: a cue needs a timing line" 'WEBVTT\n\n00:01.000 00:02.000\npuff red\n'
bad "no command" ":3: the cue has no command" 'WEBVTT\n\n00:01.000 --> 00:02.000\n\n'
bad "an unknown verb" ":6: unknown command \"blink\"" 'WEBVTT\n\nNOTE x\n\n00:01.000 --> 00:02.000\nblink red\n'
bad "a near verb" ":4: unknown command \"puf\" (did you mean puff?)" 'WEBVTT\n\n00:01.000 --> 00:02.000\npuf red\n'
bad "a field map short of its colour" ":4: puff needs green" 'WEBVTT\n\n00:01.000 --> 00:02.000\n{"command": "puff", "red": 1}\n'
bad "a bad colour" ":4: \"mauvish\" is not a colour" 'WEBVTT\n\n00:01.000 --> 00:02.000\npuff mauvish\n'
bad "a field out of range" ":4: red must be from 0 to 255" 'WEBVTT\n\n00:01.000 --> 00:02.000\n{"command": "puff", "red": 256, "green": 0, "blue": 0}\n'
bad "overlapping cues" ":7: starts at 0.200 s, before the puff of line 4 has finished" \
  'WEBVTT\n\n00:00.000 --> 00:01.000\npuff red\n\n00:00.200 --> 00:01.000\nflash red\n'
bad "no cue" " holds no cue" 'WEBVTT\n\nNOTE nothing yet\n'

"$tool" render "$work/missing.vtt" --out "$work/x.wav" 2>"$work/err"
[ $? -eq 1 ] && grep -qF "cannot read $work/missing.vtt" "$work/err" || fail "a missing track: $(cat "$work/err")"
[ ! -e "$work/x.wav" ] || fail "a missing track wrote a file"
"$tool" --device virtual play "$work/film.vtt" --follow vlc:x 2>"$work/err"
[ $? -eq 2 ] && grep -qF -- "--follow takes mpv:SOCKET" "$work/err" || fail "--follow vlc: $(cat "$work/err")"
"$tool" --device virtual play "$work/film.vtt" --follow "mpv:$work/none.sock" 2>"$work/err"
[ $? -eq 1 ] && grep -qF "cannot reach mpv at $work/none.sock" "$work/err" || fail "no mpv: $(cat "$work/err")"

if [ "$failures" -ne 0 ]; then echo "$failures failures"; exit 1; fi
echo "track tool: all passed"

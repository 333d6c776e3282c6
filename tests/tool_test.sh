#!/usr/bin/env bash
# The nimbara tool end to end, through the real binary: render then decode
# for every operation, the error cases with their exit statuses, the virtual
# accessory, and listen against the test script's sound server: PulseAudio, or
# PipeWire (NIMBARA_TEST_SERVER) with its sinks at NIMBARA_TEST_SINK_RATE. The
# server's tests name their backend: the default one depends on which server runs.
set -u
tool="$1"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
passes=0

check() {  # description, expected status, command...
  local description=$1 expected=$2
  shift 2
  "$@" >"$work/out" 2>"$work/err"
  local status=$?
  if [ "$status" -ne "$expected" ]; then
    echo "FAIL: $description: exit status $status, expected $expected"; cat "$work/err"
    failures=$((failures + 1))
    return 1
  fi
  passes=$((passes + 1))
}

contains() {  # description, file, text
  if grep -qF -- "$3" "$2"; then passes=$((passes + 1)); else
    echo "FAIL: $1: no \"$3\" in:"; cat "$2"; failures=$((failures + 1)); fi
}

# Every line of a file is a JSON object; `check` is a Python expression over
# the list of them, `lines`.
json_lines() {  # description, file, python expression
  if python3 -c 'import json, sys
lines = [json.loads(l) for l in open(sys.argv[1]) if l.strip()]
sys.exit(0 if eval(sys.argv[2]) else 1)' "$2" "$3" 2>"$work/json.err"; then passes=$((passes + 1)); else
    echo "FAIL: $1: not ($3) in:"; cat "$2" "$work/json.err"; failures=$((failures + 1)); fi
}

one_line() {  # description: stderr holds one line
  if [ "$(wc -l <"$work/err")" -eq 1 ]; then passes=$((passes + 1)); else
    echo "FAIL: $1: stderr is not one line:"; cat "$work/err"; failures=$((failures + 1)); fi
}

# Render then decode gives back every operation with its arguments.
render_decode() {  # operation, expected decode text, arguments...
  local operation=$1 expected=$2
  shift 2
  check "render $operation" 0 "$tool" render "$operation" "$@" --out "$work/$operation.wav" &&
    check "decode $operation" 0 "$tool" decode "$work/$operation.wav" &&
    contains "decode $operation" "$work/out" "$expected"
}
render_decode doAquireDeviceState "state"
render_decode doGetTankId "tank"
render_decode doEcho "echo number 4294967295" 4294967295
render_decode doLightLed "flash rgb(255, 0, 128) special 7 time -1 ms" 255 0 128 7 -1
render_decode doSprayWithLightLed "puff rgb(1, 2, 3) special 4 time 1000 ms" 1 2 3 4 5000
render_decode doSprayWithLightLedGetTankId \
  "puff rgb(9, 8, 7) special 6 time 100 ms" 9 8 7 6 -20
check "render writes targetFrames" 0 "$tool" --json render doEcho 1 --out "$work/echo.wav"
json_lines "render frames" "$work/out" 'lines[0]["frames"] == 17640 and lines[0]["command"] == "echo"'
check "decode --json" 0 "$tool" --json decode "$work/doEcho.wav"
json_lines "decode json" "$work/out" 'lines[0]["command"] == "echo" and lines[0]["number"] == 4294967295'

# Every verb, with the same words as the device commands, renders and decodes
# back to itself; colours in every syntax.
verb_round_trip() {  # expected decode text, render words...
  local expected=$1
  shift
  check "render $*" 0 "$tool" -q render "$@" --out "$work/verb.wav" &&
    check "decode $*" 0 "$tool" decode "$work/verb.wav" &&
    contains "decode $*" "$work/out" "$expected"
}
verb_round_trip "flash rgb(255, 165, 0) special 0 time 500 ms" flash orange
verb_round_trip "flash rgb(0, 128, 128) special 3 time 250 ms" flash teal --special 3 --time 250
verb_round_trip "puff rgb(255, 0, 128) special 0 time 700 ms" puff '#ff0080' --time 700
verb_round_trip "puff rgb(255, 0, 128) special 0 time 1000 ms" puff FF0080 --time 5000
verb_round_trip "puff rgb(1, 2, 3) special 0 time 500 ms without asking for the tank" \
  puff 1 2 3 --no-tank
verb_round_trip "spray time 300 ms" spray 300
verb_round_trip "spray time -300 ms" spray -300
verb_round_trip "spray time -1 ms" spray -1  # sixteen 1-bits in a row
verb_round_trip "state" state
verb_round_trip "tank" tank
verb_round_trip "echo number 10" echo 010
check "decode names a puff's tank question" 0 "$tool" --json decode "$work/doSprayWithLightLedGetTankId.wav"
json_lines "asks_tank" "$work/out" 'lines[0]["command"] == "puff" and lines[0]["asks_tank"] is True'

# Standard input and output.
"$tool" -q render flash navy --out - | "$tool" decode - >"$work/out" 2>"$work/err"
contains "render to stdout, decode stdin" "$work/out" "flash rgb(0, 0, 128)"
"$tool" -q render echo 77 --out - | sox -t wav - -t raw -r 22050 -e signed -b 16 -c 1 - 2>/dev/null |
  "$tool" decode --raw --rate 22050 --channels 1 - >"$work/out" 2>"$work/err"
contains "raw PCM from stdin" "$work/out" "echo number 77"

# Whatever libsndfile reads, several files in one call, JSON Lines naming each.
"$tool" -q render puff lime --time 600 --out "$work/source.wav"
formats=("u8.wav -b 8 -e unsigned" "ulaw.wav -e u-law" "alaw.wav -e a-law" "adpcm.wav -e ima-adpcm"
         "float.wav -e float -b 32" "s24.wav -b 24" "mono.wav -c 1" "low.wav -r 8000"
         "flac.flac" "ogg.ogg -C 10")
files=()
for format in "${formats[@]}"; do
  read -r name options <<<"$format"
  # shellcheck disable=SC2086
  sox -D "$work/source.wav" $options "$work/$name" && files+=("$work/$name")  # no dither: the same file every run
done
lame --quiet -b 320 "$work/source.wav" "$work/mp3.mp3" && files+=("$work/mp3.mp3")
check "decode every format" 0 "$tool" --json decode "${files[@]}"
json_lines "every format" "$work/out" \
  "len(lines) == ${#files[@]} and all(l['command'] == 'puff' and not l['damaged'] and (l['red'], l['green'], l['blue'], l['time']) == (0, 255, 0, 600) for l in lines) and len({l['file'] for l in lines}) == ${#files[@]}"

# A cue file: every command at its time, in one WAV.
cat >"$work/cues.txt" <<CUES
# a film
0.0 puff orange --time 600
2.5 flash 0 0 255   # blue
3.0 spray 300

3.5 echo 5
CUES
check "play cues into a WAV" 0 "$tool" --device "wav:$work/timeline.wav" play "$work/cues.txt"
check "decode the timeline" 0 "$tool" --json decode "$work/timeline.wav"
json_lines "timeline" "$work/out" \
  "[l['command'] for l in lines] == ['puff', 'flash', 'spray', 'echo'] and all(abs(l['start'] - t) < 0.002 for l, t in zip(lines, [0.0, 2.5, 3.0, 3.5]))"
printf '0 puff red\n0.2 flash red\n' >"$work/overlap.txt"
check "overlapping cues" 2 "$tool" --device virtual play "$work/overlap.txt" && one_line "overlap"
contains "overlapping cues" "$work/err" "overlap.txt:2: starts at 0.200 s, before the puff of line 1"
printf '0 puff red\nsoon flash red\n' >"$work/badtime.txt"
check "a bad time" 2 "$tool" --device virtual play "$work/badtime.txt" && one_line "bad time"
contains "a bad time" "$work/err" "badtime.txt:2:"
printf '0 puff red\n1 blink red\n' >"$work/badverb.txt"
check "a bad command" 2 "$tool" --device virtual play "$work/badverb.txt" && one_line "bad command"
contains "a bad command" "$work/err" "badverb.txt:2: unknown command"

# Decoding streams: a ten-minute recording takes hardly more memory than one
# transmission (holding it would take 100 MiB). Measured against a short decode
# by the same binary, so a sanitizer's own overhead cancels out.
sox -n -r 44100 -c 2 -b 16 "$work/minute.wav" trim 0 59.6
parts=()
for _ in $(seq 10); do parts+=("$work/minute.wav" "$work/source.wav"); done
sox "${parts[@]}" "$work/long.wav"
peak_kib() { /usr/bin/time -f "%M" -o "$work/rss" "$tool" decode "$1" >"$work/out" 2>/dev/null; tail -1 "$work/rss"; }
short_kib=$(peak_kib "$work/source.wav")
long_kib=$(peak_kib "$work/long.wav")
if [ "$(grep -c puff "$work/out")" -eq 10 ] && [ $((long_kib - short_kib)) -lt 8192 ]; then
  passes=$((passes + 1)); else
  echo "FAIL: a ten-minute decode: $(grep -c puff "$work/out") puffs, $long_kib KiB against $short_kib KiB for one"
  failures=$((failures + 1)); fi
rm -f "$work/long.wav"

# Manners: version, help, suggestions, decimal numbers, short messages.
check "version" 0 "$tool" --version
contains "version" "$work/out" "nimbara 1."
check "help for a command" 0 "$tool" help puff
contains "help for a command" "$work/out" "--no-tank"
check "a misspelt command" 2 "$tool" stauts && one_line "misspelt"
contains "a misspelt command" "$work/err" 'unknown command "stauts" (did you mean status?)'
check "a misspelt verb" 2 "$tool" render flsh red --out "$work/x.wav" && one_line "misspelt verb"
contains "a misspelt verb" "$work/err" "did you mean flash?"
check "a huge number" 2 "$tool" --device virtual echo 99999999999999999999999999999999999999999
contains "a huge number" "$work/err" '"99999999999999999999..."'
check "not a colour" 2 "$tool" --device virtual flash blurple && one_line "not a colour"
contains "not a colour" "$work/err" '"blurple" is not a colour'
check "errors as JSON" 2 "$tool" --json --device virtual flash 1 2 300
json_lines "errors as JSON" "$work/err" 'lines[0]["exit"] == 2 and "blue" in lines[0]["error"]'
check "quiet" 0 "$tool" -q --device virtual flash red
if [ -s "$work/out" ]; then echo "FAIL: -q printed"; failures=$((failures + 1)); else passes=$((passes + 1)); fi
check "a trace" 0 "$tool" -v --device virtual flash red
contains "a trace" "$work/err" "sending flash rgb(255, 0, 0) special 0 time 500 ms (doLightLed, 17640 frames)"
check "the library's log" 0 "$tool" -vv --device virtual flash red
contains "the library's log" "$work/err" "doLightLed start."
for bad in nan inf -1; do
  check "listen --seconds $bad" 2 "$tool" listen --seconds "$bad" && one_line "listen --seconds $bad"
done

# Bad input: one line on stderr; 2 for usage, 1 for failures, 3 for no device.
check "unknown subcommand" 2 "$tool" bogus && one_line "unknown subcommand"
check "unknown option" 2 "$tool" --loud status && one_line "unknown option"
check "colour above 255" 2 "$tool" --device virtual flash 256 0 0 && one_line "colour"
check "time beyond 16 bits" 2 "$tool" --device virtual puff 1 2 3 --time 40000 && one_line "time"
check "not a number" 2 "$tool" --device virtual echo twelve && one_line "not a number"
check "bad device" 2 "$tool" --device speakers status && one_line "bad device"
check "render argument" 2 "$tool" render doLightLed 1 2 3 4 --out "$work/x.wav" && one_line "arguments"
check "render range" 2 "$tool" render doLightLed 1 2 300 4 5 --out "$work/x.wav" && one_line "range"
check "missing file" 1 "$tool" decode "$work/none.wav" && one_line "missing file"
echo "not audio" >"$work/text.wav"
check "not a WAV" 1 "$tool" decode "$work/text.wav" && one_line "not a WAV"
contains "not a WAV" "$work/err" "is not an audio file libsndfile reads"
head -c 44 "$work/doEcho.wav" >"$work/empty.wav"
check "no samples" 1 "$tool" decode "$work/empty.wav" && one_line "no samples"
contains "no samples" "$work/err" "holds no samples"
check "unwritable output" 1 "$tool" render doEcho 1 --out "$work/none/x.wav" && one_line "unwritable"
if ls "$work"/none* "$work"/*.partial >/dev/null 2>&1; then
  echo "FAIL: a partial file was left behind"; failures=$((failures + 1)); fi
# An output that cannot take the sound fails the command, and leaves no file.
check "wav into no folder" 1 "$tool" --device "wav:$work/none/x.wav" flash 1 2 3 &&
  one_line "wav into no folder"
contains "wav into no folder" "$work/err" "cannot write $work/none/x.wav"
check "wav on a full disk" 1 "$tool" --device wav:/dev/full flash 1 2 3 && one_line "full disk"
check "wav past the size limit" 1 bash -c "ulimit -f 20; exec '$tool' --device 'wav:$work/big.wav' flash 1 2 3"
one_line "wav past the size limit"
check "render past the size limit" 1 bash -c \
  "ulimit -f 20; exec '$tool' render doLightLed 1 2 3 0 500 --out '$work/big2.wav'"
if ls "$work"/big* >/dev/null 2>&1; then
  echo "FAIL: a truncated file was left behind"; failures=$((failures + 1)); fi
check "render onto a full device" 1 "$tool" render doLightLed 1 2 3 0 500 --out /dev/full &&
  one_line "render onto a full device"
if [ ! -c /dev/full ]; then echo "FAIL: /dev/full was replaced"; failures=$((failures + 1)); fi

check "no device" 3 "$tool" --device virtual --route Speaker puff 1 2 3 && one_line "no device"
contains "no device" "$work/err" "No device."
check "status without a device" 3 "$tool" --device virtual --route Speaker status
contains "status without a device" "$work/out" "device: absent"
check "no server" 1 env PULSE_SERVER=unix:"$work"/nothing "$tool" --device pulse status && one_line "no server"
contains "no server" "$work/err" "--device virtual"
check "no PipeWire" 1 env PIPEWIRE_RUNTIME_DIR="$work" "$tool" --device pipewire status &&
  one_line "no PipeWire"
contains "no PipeWire" "$work/err" "--device virtual"

# The virtual accessory shows what it did; the skip switch sends without a route.
check "virtual puff" 0 "$tool" --device virtual puff 255 64 0 --time 2000
contains "virtual puff" "$work/out" "time 2000 ms (sent as 1000 ms: the accessory sprays 1000 ms"
contains "virtual puff" "$work/out" "accessory: sprays for 1000 ms, LED rgb(255, 64, 0)"
check "skip precheck" 0 "$tool" --device virtual --route Speaker --skip-precheck flash 0 0 255
contains "skip precheck" "$work/out" "accessory: LED rgb(0, 0, 255) special 0 for 500 ms"
check "tank" 0 "$tool" --device virtual --json tank
json_lines "tank" "$work/out" 'lines[0]["tank"]["base64"] == "bbwAAAAAAA==" and lines[0]["tank"]["year"] == 13 and lines[0]["heard"] is False'
check "tank says what it is" 0 "$tool" --device virtual tank
contains "tank says what it is" "$work/out" "no reply is heard: the library's fixed tank identity is"
contains "tank says what it is" "$work/out" "accessory: is asked for its tank identity"
check "echo says what it is" 0 "$tool" --device virtual echo 77
contains "echo says what it is" "$work/out" "no reply is heard"
check "wav device" 0 "$tool" --device "wav:$work/played.wav" flash 1 2 3
check "decode what the wav device heard" 0 "$tool" decode "$work/played.wav"
contains "wav device" "$work/out" "flash rgb(1, 2, 3)"

# listen decodes a puff that a second process plays through the headphone sink.
if [ -n "${NIMBARA_TEST_PULSE:-}" ]; then
  "$tool" --device pulse listen --count 1 --seconds 20 >"$work/listen" 2>"$work/listen.err" &
  listener=$!
  for _ in $(seq 100); do
    pactl list short source-outputs 2>/dev/null | grep -q . && break
    sleep 0.05
  done
  check "puff on the server" 0 "$tool" --device pulse puff 12 34 56 --time 700
  wait "$listener"
  contains "listen" "$work/listen" "puff rgb(12, 34, 56) special 0 time 700 ms"
  contains "listen" "$work/listen" "accessory sprays for 700 ms"
  check "status on the server" 0 "$tool" --device pulse status
  contains "status" "$work/out" "route: Headphones"
  contains "status" "$work/out" "device: present"
  check "status on the speaker" 3 "$tool" --device pulse:speaker status
  contains "status on the speaker" "$work/out" "route: Speaker"

  # Presence is judged on the sink that plays, not on the default one.
  check "puff on the speaker" 3 "$tool" --device pulse:speaker puff red && one_line "speaker puff"
  "$tool" --device pulse --json listen --source speaker.monitor --count 1 --seconds 20 >"$work/listen" 2>/dev/null &
  listener=$!
  for _ in $(seq 100); do
    pactl list short source-outputs 2>/dev/null | grep -q . && break
    sleep 0.05
  done
  check "a chosen sink plays" 0 "$tool" --device pulse:speaker --skip-precheck flash 9 8 7
  wait "$listener"
  json_lines "heard on the chosen sink" "$work/listen" \
    'lines[0]["command"] == "flash" and (lines[0]["red"], lines[0]["green"], lines[0]["blue"]) == (9, 8, 7)'
  check "too few heard" 1 "$tool" --device pulse listen --source speaker.monitor --count 1 --seconds 0.5 &&
    one_line "too few heard"
  contains "too few heard" "$work/err" "heard 0 of 1 transmissions"
  check "no such source" 1 "$tool" --device pulse listen --source nosuch --seconds 1 && one_line "no such source"
  contains "no such source" "$work/err" 'there is no source named "nosuch"'

  # A timeline whose process is stopped while it plays: the server runs dry in
  # the middle of the sound, and the play fails with one line; played through
  # undisturbed, it succeeds.
  printf '0.0 flash red\n0.5 flash green\n1.0 flash blue\n1.5 flash 1 2 3\n' >"$work/four.txt"
  check "a timeline on the server" 0 "$tool" --device pulse --skip-precheck play "$work/four.txt"
  # Plays the four-cue timeline with the given device options, stops the
  # player 0.4 s into its stream (once the server shows a stream matching
  # $2) for longer than the server's buffer lasts, and expects exit status 1.
  stop_midway() {  # name, sink-input pattern, device options...
    local name=$1 pattern=$2; shift 2
    "$tool" "$@" --skip-precheck play "$work/four.txt" >"$work/out" 2>"$work/err" &
    local player=$!
    for _ in $(seq 400); do
      pactl list sink-inputs 2>/dev/null | grep -q "$pattern" && break
      sleep 0.01
    done
    sleep 0.4
    kill -STOP "$player"
    sleep 0.6
    kill -CONT "$player"
    wait "$player"
    local status=$?
    if [ "$status" -eq 1 ]; then passes=$((passes + 1)); else
      echo "FAIL: $name: exit status $status"; cat "$work/err"; failures=$((failures + 1)); fi
  }
  stop_midway "a player stopped mid-timeline" 'media.name = "nimbara"' --device pulse
  grep -v -e '^nimbara: warning: the sink runs at' -e '^  context.properties' "$work/err" >"$work/err.errors"
  mv "$work/err.errors" "$work/err"
  one_line "a player stopped mid-timeline"
  contains "a player stopped mid-timeline" "$work/err" "the output ran dry while the command played"

  # ALSA through alsa-lib's pulse plugin into the same server: a puff is heard,
  # status cannot tell presence without jack controls and says the way out,
  # and a player stopped mid-timeline reports the xrun.
  printf 'pcm.hp { type pulse device "headphones" handle_underrun true }\npcm.mon { type pulse device "headphones.monitor" }\n' >"$work/asoundrc"
  export ALSA_CONFIG_PATH="/usr/share/alsa/alsa.conf:$work/asoundrc"
  check "status on ALSA" 3 "$tool" --device alsa:hp status
  contains "status on ALSA" "$work/out" "cannot tell whether headphones are plugged in"
  check "puff on ALSA without the precheck" 3 "$tool" --device alsa:hp puff red && one_line "ALSA puff"
  contains "puff on ALSA without the precheck" "$work/err" "--skip-precheck"
  check "outputs on ALSA" 0 "$tool" --device alsa:hp outputs
  contains "outputs on ALSA" "$work/out" "hp"
  check "no such ALSA PCM" 1 "$tool" --device alsa:nosuch --skip-precheck flash red && one_line "no PCM"
  "$tool" --device alsa:mon listen --count 1 --seconds 20 >"$work/listen" 2>"$work/listen.err" &
  listener=$!
  for _ in $(seq 100); do
    pactl list short source-outputs 2>/dev/null | grep -q . && break
    sleep 0.05
  done
  check "puff on ALSA" 0 "$tool" --device alsa:hp --skip-precheck puff 21 43 65
  wait "$listener"
  contains "heard from ALSA" "$work/listen" "puff rgb(21, 43, 65)"
  # pipewire-pulse does not pass a stream's underrun on to alsa-lib's pulse
  # plugin (the native backend's own test above sees it there): on PulseAudio only.
  if [ "${NIMBARA_TEST_SERVER:-pulseaudio}" = pulseaudio ]; then
    stop_midway "an ALSA player stopped mid-timeline" 'application.name = "ALSA' --device alsa:hp
    contains "an ALSA player stopped mid-timeline" "$work/err" "the output ran dry while the command played"
  fi
  unset ALSA_CONFIG_PATH

  # Whether the signal reaches the sink unresampled, and the fix when it does not.
  kind=${NIMBARA_TEST_SERVER:-pulseaudio}
  rate=${NIMBARA_TEST_SINK_RATE:-44100}
  exact=false; [ "$rate" -eq 44100 ] && exact=true
  pyexact=False; [ "$exact" = true ] && pyexact=True
  check "status rate" 0 "$tool" --device pulse --json status
  json_lines "status rate" "$work/out" "lines[0]['rate'] == $rate and lines[0]['exact'] == $pyexact"
  check "outputs" 0 "$tool" --device pulse --json outputs
  json_lines "outputs" "$work/out" \
    "{'name': 'headphones', 'description': 'Headphones', 'port': '', 'present': True, 'default': True, 'rate': $rate, 'exact': $pyexact} in lines[0] and {'name': 'speaker', 'description': 'Speaker', 'port': '', 'present': False, 'default': False, 'rate': $rate, 'exact': $pyexact} in lines[0]"
  check "outputs without a server" 1 env PULSE_SERVER=unix:"$work"/nothing "$tool" --device pulse outputs &&
    one_line "outputs without a server"
  # The native PipeWire backend reads the same sinks as the server's
  # PulseAudio interface; a graph that cannot run at 44100 Hz is refused
  # unless resampling is allowed.
  if [ "$kind" = pipewire ]; then
    check "pipewire status" 0 "$tool" --device pipewire --json status
    json_lines "pipewire status" "$work/out" \
      "lines[0]['route'] == 'Headphones' and lines[0]['present'] and lines[0]['rate'] == $rate and lines[0]['exact'] == $pyexact"
    check "pipewire outputs" 0 "$tool" --device pipewire --json outputs
    json_lines "pipewire outputs" "$work/out" \
      "{'name': 'headphones', 'description': 'Headphones', 'port': '', 'present': True, 'default': True, 'rate': $rate, 'exact': $pyexact} in lines[0] and {'name': 'speaker', 'description': 'Speaker', 'port': '', 'present': False, 'default': False, 'rate': $rate, 'exact': $pyexact} in lines[0]"
    check "pipewire status on the speaker" 3 "$tool" --device pipewire:speaker status
    contains "pipewire status on the speaker" "$work/out" "route: Speaker"
    resample=()
    if [ "$exact" = false ]; then
      check "pipewire refuses to resample" 1 "$tool" --device pipewire puff 1 2 3
      contains "pipewire refuses to resample" "$work/err" "(status -14)"
      contains "pipewire refuses to resample" "$work/err" "--allow-resampling"
      resample=(--allow-resampling)
    fi
    "$tool" --device pipewire listen --count 1 --seconds 20 >"$work/listen" 2>"$work/listen.err" &
    listener=$!
    for _ in $(seq 100); do
      pactl list short source-outputs 2>/dev/null | grep -q . && break
      sleep 0.05
    done
    check "pipewire puff" 0 "$tool" --device pipewire "${resample[@]}" puff 65 43 21 --time 700
    wait "$listener"
    contains "pipewire listen" "$work/listen" "puff rgb(65, 43, 21) special 0 time 700 ms"
    # Stopped, the player misses the graph's cycles: its clock shows the gap.
    stop_midway "a PipeWire player stopped mid-timeline" 'media.name = "nimbara"' \
      --device pipewire "${resample[@]}"
    contains "a PipeWire player stopped mid-timeline" "$work/err" "the output ran dry while the command played"
  fi

  check "flash warns about the rate" 0 "$tool" --device pulse flash 4 5 6
  if [ "$exact" = true ]; then
    if grep -q "resampled" "$work/err"; then
      echo "FAIL: an exact sink was warned about:"; cat "$work/err"; failures=$((failures + 1)); fi
  else
    contains "flash warns about the rate" "$work/err" "the sink runs at $rate Hz, so the 44100 Hz signal is resampled"
    contains "flash warns about the rate" "$work/err" "context.properties = { default.clock.allowed-rates = [ 44100 48000 ] }"
  fi
  if [ "$kind" = pulseaudio ]; then
    # PulseAudio switches an idle sink's rate by itself; one held by another
    # stream at 48000 Hz keeps it.
    pactl load-module module-null-sink sink_name=busy sink_properties=device.description=Busy rate=48000 >"$work/module"
    pacat --raw --rate=48000 -d busy /dev/zero &
    holder=$!
    for _ in $(seq 100); do [ "$(pactl list short sinks | awk '$2 == "busy" {print $NF}')" = RUNNING ] && break; sleep 0.05; done
    check "a busy sink at 48000 Hz" 3 "$tool" --device pulse:busy status
    contains "a busy sink at 48000 Hz" "$work/out" "rate: 48000 Hz, resampled"
    contains "a busy sink at 48000 Hz" "$work/err" "default-sample-rate = 44100"
    kill "$holder"; wait "$holder" 2>/dev/null
    pactl unload-module "$(cat "$work/module")"
  fi

  # The presence rule reads the sink's description: "Headphone" anywhere, case matters.
  pactl load-module module-null-sink sink_name=usb sink_properties=device.description=USB-Headphone-Set >"$work/module"
  pactl load-module module-null-sink sink_name=lower sink_properties=device.description=usb-headphones >>"$work/module"
  check "a headphone set" 0 "$tool" --device pulse:usb status
  check "lower-case headphones" 3 "$tool" --device pulse:lower status
  while read -r module; do pactl unload-module "$module"; done <"$work/module"

  # A turned-down output is warned about before a flash; the flash still goes.
  pactl set-sink-volume headphones 50%
  check "flash at half volume" 0 "$tool" --device pulse flash 1 2 3
  contains "flash at half volume" "$work/err" "warning: the output is below full volume"
  pactl set-sink-volume headphones 100%

  # A server that goes away while a puff plays fails the puff.
  private="$work/private"
  mkdir -p "$private/run"
  chmod 700 "$private/run"
  if [ "$kind" = pipewire ]; then
    # Its processes in a group of their own, killed as one.
    allowed=""; [ "$exact" = true ] && allowed=44100
    setsid "$NIMBARA_TEST_PRIVATE_SERVER" "$private" $allowed >/dev/null 2>&1 &
    server=$!
    socket="$private/run/pulse/native"
    for _ in $(seq 200); do [ -e "$private/ready" ] && break; sleep 0.05; done
  else
    printf 'load-module module-native-protocol-unix socket=%s auth-anonymous=1\n%s\n' \
      "$private/native" "load-module module-null-sink sink_name=h sink_properties=device.description=Headphones" \
      >"$private/server.pa"
    HOME="$private" XDG_RUNTIME_DIR="$private/run" pulseaudio --daemonize=no -n -F "$private/server.pa" \
      --exit-idle-time=-1 --use-pid-file=no --log-target=file:"$private/log" &
    server=$!
    socket="$private/native"
  fi
  for _ in $(seq 100); do PULSE_SERVER="unix:$socket" pactl info >/dev/null 2>&1 && break; sleep 0.05; done
  PULSE_SERVER="unix:$socket" "$tool" --device pulse puff 1 2 3 >"$work/out" 2>"$work/err" &
  puff=$!
  # Once its stream is on the server (not the rate probe's), the puff is under way.
  for _ in $(seq 200); do
    PULSE_SERVER="unix:$socket" pactl list sink-inputs 2>/dev/null | grep -q 'media.name = "nimbara"' && break
  done
  if [ "$kind" = pipewire ]; then kill -9 -- "-$server"; else kill -9 "$server"; fi
  wait "$server" 2>/dev/null
  wait "$puff"
  status=$?
  if [ "$status" -eq 1 ]; then passes=$((passes + 1)); else
    echo "FAIL: a puff whose server died: exit status $status"; cat "$work/err"; failures=$((failures + 1)); fi
  # Besides the warning about a resampling sink, one line.
  grep -v -e '^nimbara: warning: the sink runs at' -e '^  context.properties' "$work/err" >"$work/err.errors"
  mv "$work/err.errors" "$work/err"
  one_line "a puff whose server died"
else
  echo "listen: skipped (no test PulseAudio server)"
fi

echo "tool: $passes passed, $failures failed"
[ "$failures" -eq 0 ]

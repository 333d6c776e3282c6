#!/usr/bin/env python3
"""nimbara serve end to end: a private mosquitto on the loopback, the service
on virtual, WAV and sound-server outputs, and mosquitto_pub/mosquitto_sub as
clients. Usage: serve_test.py NIMBARA [--only NAME] [--no-pulse]."""
import argparse
import getpass
import json
import os
import re
import select
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import wave

arguments = argparse.ArgumentParser()
arguments.add_argument("tool")
arguments.add_argument("--only", help="run the tests whose name holds this")
arguments.add_argument("--no-pulse", action="store_true", help="a build without the sound server")
options = arguments.parse_args()
TOOL = os.path.abspath(options.tool)
ONLY = options.only
ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
WORK = tempfile.mkdtemp(prefix="nimbara-serve-")
failures = []
passes = 0


def check(condition, what, detail=""):
    global passes
    if condition:
        passes += 1
    else:
        failures.append(what)
        print(f"FAIL: {what}" + (f": {detail}" if detail else ""), flush=True)
    return condition


STARTED = []  # every process the test starts, stopped at exit whatever happens


def started(process):
    STARTED.append(process)
    return process


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Broker:
    """A private mosquitto on 127.0.0.1."""

    def __init__(self, port=None, extra=""):
        self.port = port or free_port()
        self.conf = os.path.join(WORK, f"mosquitto-{self.port}.conf")
        with open(self.conf, "w") as f:
            # As root, mosquitto would otherwise drop to its own user, who
            # cannot read the test's files.
            f.write(f"listener {self.port} 127.0.0.1\nuser {getpass.getuser()}\n"
                    f"{extra or 'allow_anonymous true'}\n")
        self.start()

    def start(self):
        self.log = open(os.path.join(WORK, f"mosquitto-{self.port}.log"), "a")
        self.proc = started(subprocess.Popen(["mosquitto", "-c", self.conf], stdout=self.log,
                                             stderr=subprocess.STDOUT))
        deadline = time.monotonic() + 10
        while time.monotonic() < deadline:
            try:
                socket.create_connection(("127.0.0.1", self.port), timeout=0.2).close()
                return
            except OSError:
                time.sleep(0.05)
        raise RuntimeError("mosquitto did not start")

    def stop(self):
        self.proc.terminate()
        self.proc.wait()
        self.log.close()

    def publish(self, topic, payload, retain=False, user=None):
        command = ["mosquitto_pub", "-h", "127.0.0.1", "-p", str(self.port), "-q", "1",
                   "-t", topic, "-m", payload]
        subprocess.run(command + (["-r"] if retain else []), check=True)

    def publish_lines(self, topic, lines):
        subprocess.run(["mosquitto_pub", "-h", "127.0.0.1", "-p", str(self.port), "-q", "1",
                        "-t", topic, "-l"], input="\n".join(lines) + "\n", text=True, check=True)


class Watch:
    """mosquitto_sub on some topics; every message kept with its arrival time."""

    def __init__(self, broker, *topics):
        self.broker = broker
        self.sync = f"test/sync/{os.getpid()}/{id(self)}"
        args = ["mosquitto_sub", "-h", "127.0.0.1", "-p", str(broker.port), "-v", "-q", "1"]
        for topic in topics + (self.sync,):
            args += ["-t", topic]
        self.proc = started(subprocess.Popen(args, stdout=subprocess.PIPE, bufsize=1,
                                             encoding="utf-8", errors="replace"))
        self.messages = []
        self.changed = threading.Condition()
        threading.Thread(target=self._read, daemon=True).start()
        # Subscribed once a message of our own comes back.
        deadline = time.monotonic() + 10
        while not self.wait(lambda m: any(t == self.sync for t, _, _ in m), 0.2):
            if time.monotonic() > deadline:
                raise RuntimeError("mosquitto_sub did not subscribe")
            broker.publish(self.sync, "ping")

    def _read(self):
        for line in self.proc.stdout:
            topic, _, payload = line.rstrip("\n").partition(" ")
            with self.changed:
                self.messages.append((topic, payload, time.monotonic()))
                self.changed.notify_all()

    def wait(self, predicate, timeout=20):
        with self.changed:
            return self.changed.wait_for(lambda: predicate(self.messages), timeout)

    def on(self, topic):
        return [(p, t) for tp, p, t in self.messages if tp == topic]

    def wait_count(self, topic, count, timeout=20):
        self.wait(lambda m: sum(1 for t, _, _ in m if t == topic) >= count, timeout)
        return [json_or_text(p) for p, _ in self.on(topic)]

    def close(self):
        self.proc.terminate()
        self.proc.wait()


def json_or_text(payload):
    try:
        return json.loads(payload)
    except ValueError:
        return payload


class Service:
    """nimbara serve on a broker, its log in a file."""

    def __init__(self, broker, name, *options, env=None, port=None):
        self.name = name
        self.log_path = os.path.join(WORK, f"serve-{name}.log")
        self.log = open(self.log_path, "w")
        url = f"mqtt://127.0.0.1:{port or broker.port}"
        self.proc = started(subprocess.Popen(
            [TOOL, "serve", "--mqtt", url, "--name", name] + list(options), stderr=self.log,
            env={**os.environ, **(env or {})}))

    def topic(self, output, leaf):
        return f"nimbara/{self.name}/{output}/{leaf}"

    def stop(self, sig=signal.SIGTERM):
        self.proc.send_signal(sig)
        status = self.proc.wait(timeout=30)
        self.log.close()
        return status

    def logged(self):
        with open(self.log_path) as f:
            return f.read()


def wait_online(broker, name, timeout=20):
    watch = Watch(broker, f"nimbara/{name}/availability")
    online = watch.wait(lambda m: any(p == "online" for t, p, _ in m if t != watch.sync), timeout)
    watch.close()
    return online


def samples_of(path):
    with wave.open(path) as w:
        return w.readframes(w.getnframes())


def tool_wav(*words):
    """What the tool itself writes on a WAV output for one command."""
    path = os.path.join(WORK, "tool.wav")
    if os.path.exists(path):
        os.remove(path)
    subprocess.run([TOOL, "-q", "--device", "wav:" + path] + list(words), check=True)
    return samples_of(path)


# Home Assistant's required and checked fields per entity type.
REQUIRED = {
    "light": ["command_topic", "schema", "supported_color_modes"],
    "button": ["command_topic"],
    "number": ["command_topic", "min", "max"],
    "binary_sensor": ["state_topic"],
    "sensor": ["state_topic"],
}
LEVEL = re.compile(r"^[A-Za-z0-9_-]+$")


def test_discovery_and_commands():
    """Discovery, words and field maps, the Home Assistant entities, exact
    samples on a WAV output, malformed input, and a clean stop."""
    broker = Broker()
    wav = os.path.join(WORK, "room one.wav")
    watch = Watch(broker, "homeassistant/#", "nimbara/#")
    service = Service(broker, "flat.1", "--device", "virtual", "--device", "wav:" + wav)
    check(wait_online(broker, "flat_1"), "the service is online under its safe id flat_1")

    configs = {}
    watch.wait(lambda m: sum(1 for t, _, _ in m if t.endswith("/config")) >= 12)
    for topic, payload, _ in watch.messages:
        if topic.startswith("homeassistant/") and topic.endswith("/config"):
            configs[topic] = json.loads(payload)
    check(len(configs) == 12, "six entities for each of the two outputs", str(sorted(configs)))
    unique_ids = set()
    for topic, config in configs.items():
        parts = topic.split("/")
        check(len(parts) == 5 and parts[1] in REQUIRED and LEVEL.match(parts[2]) and
              LEVEL.match(parts[3]), f"discovery topic {topic} has HA's shape")
        component = parts[1]
        for field in REQUIRED.get(component, []):
            check(field in config, f"{topic} has {field}")
        check(config.get("availability_topic") == "nimbara/flat_1/availability",
              f"{topic} names the availability topic")
        check(config["device"]["identifiers"] == [parts[2]], f"{topic} belongs to device {parts[2]}")
        unique_ids.add(config["unique_id"])
        if component == "light":
            check(config["schema"] == "json" and config["supported_color_modes"] == ["rgb"],
                  "the light is JSON schema in colour mode rgb")
            check(isinstance(config["flash_time_short"], int), "the light has a flash length")
        if component == "number":
            check((config["min"], config["max"]) == (100, 1000), "the length is 100 to 1000 ms")
    check(len(unique_ids) == 12, "every entity has its own unique id")
    check(set(n.split("/")[2] for n in configs) == {"nimbara_flat_1_virtual",
                                                    "nimbara_flat_1_room_one"},
          "outputs named virtual and room_one (the WAV file's name made safe)")
    state = json.loads(watch.on("nimbara/flat_1/room_one/state")[-1][0])
    check(state["present"] is True and state["route"] == "WAV Headphones",
          "the state tells presence and route", str(state))

    # Commands on the WAV output, as words, as a field map, and from the
    # Home Assistant entities; each one's result, then the file bit for bit.
    out = "nimbara/flat_1/room_one/"
    broker.publish(out + "command", "puff orange --time 300")
    broker.publish(out + "command", json.dumps(
        {"command": "flash", "red": 1, "green": 2, "blue": 3, "time": 700, "id": "cue-7"}))
    broker.publish(out + "length/set", "250")
    broker.publish(out + "light/set", json.dumps(
        {"state": "ON", "color": {"r": 0, "g": 128, "b": 255}, "flash": "short"}))
    results = watch.wait_count(out + "result", 2)
    check(watch.wait(lambda m: any(t == out + "length" and p == "250" for t, p, _ in m)),
          "the length is set and published")
    broker.publish(out + "puff/press", "PRESS")
    broker.publish(out + "spray/press", "PRESS")
    results = watch.wait_count(out + "result", 5)
    check([r.get("result") for r in results] == ["done"] * 5, "five commands done", str(results))
    check(results[0]["command"]["time"] == 300 and results[0]["command"]["red"] == 255,
          "words: puff orange --time 300")
    check(results[1].get("id") == "cue-7", "a field map's id comes back in its result")
    check(results[2]["command"]["time"] == 1000 and results[2]["command"]["blue"] == 255,
          "the light's short flash is a second in its colour", str(results[2]))
    check(results[3]["command"]["command"] == "puff" and results[3]["command"]["time"] == 250 and
          results[3]["command"]["green"] == 128, "Puff: the length and the light's colour")
    check(results[4]["command"] == {**results[4]["command"], "command": "spray", "time": 250},
          "Spray: the length")
    light = [json.loads(p) for p, _ in watch.on(out + "light/state")]
    check([l["state"] for l in light] == ["ON", "OFF"], "the light goes on, then off", str(light))
    check(watch.wait(lambda m: any(t == out + "state" and (json.loads(p)["last"] or {}).get(
        "command") == "spray" for t, p, _ in m)), "the state names the last command")

    # Bad input: each gets a result that says what was wrong.
    bad = [("command", "{\"command\": \"flash\"", "not JSON"),
           ("command", "flsh orange", "did you mean flash"),
           ("command", "flash 300 0 0", "0 to 255"),
           ("command", "x" * 100000, "at most 4096"),
           ("command", "[1, 2]", "not a JSON object"),
           ("command", "{\"command\": \"spray\", \"red\": 1}", "spray carries no red"),
           ("command", "{\"command\": \"state\", \"at\": \"soon\"}", "Unix milliseconds"),
           ("command", "{\"command\": \"state\", \"at\": 99999999999999}", "more than a day"),
           ("command", b"flsh\xff red", "unknown command \"flsh\ufffd\""),
           ("length/set", "5000", "100 to 1000"),
           ("light/set", "{\"state\": \"ON\", \"color\": {\"r\": 300}}", "color.r"),
           ("light/set", "{\"state\": \"ON\", \"flash\": 60}", "32.767")]
    for leaf, payload, _ in bad:
        broker.publish(out + leaf, payload)
    broker.publish("nimbara/flat_1/kitchen/command", "state")
    results = watch.wait_count(out + "result", 5 + len(bad))[5:]
    for (leaf, payload, expected), result in zip(bad, results):
        check(result.get("result") == "error" and result.get("exit") == 2 and
              expected in result.get("message", ""), f"bad {leaf} {payload[:30]!r}: {expected}",
              str(result))
    unknown = watch.wait_count("nimbara/flat_1/kitchen/result", 1)
    check(unknown and "no output named \"kitchen\"" in unknown[0]["message"],
          "a topic for an unknown output", str(unknown))
    broker.publish(out + "command", "state")
    results = watch.wait_count(out + "result", 6 + len(bad))
    check(results[-1].get("result") == "done", "still serving after bad input", str(results[-1]))

    # Home Assistant starts again: everything is announced again.
    broker.publish("homeassistant/light/nimbara_flat_1_virtual/led/config", "", retain=True)
    again = Watch(broker, "homeassistant/light/nimbara_flat_1_virtual/led/config")
    broker.publish("homeassistant/status", "online")
    check(again.wait(lambda m: any(p.startswith("{") for t, p, _ in m if t != again.sync)),
          "announced again when Home Assistant says online")
    again.close()

    check(service.stop() == 0, "SIGTERM: exit status 0")
    check("stopping on SIGTERM" in service.logged(), "the stop is logged")
    availability = Watch(broker, "nimbara/flat_1/availability")
    check(availability.wait(lambda m: any(p == "offline" for t, p, _ in m if t != availability.sync)),
          "availability offline after a clean stop")
    availability.close()
    expected = b"".join([tool_wav("puff", "orange", "--time", "300"),
                         tool_wav("flash", "1", "2", "3", "--time", "700"),
                         tool_wav("flash", "0", "128", "255", "--time", "1000"),
                         tool_wav("puff", "0", "128", "255", "--time", "250"),
                         tool_wav("spray", "250"), tool_wav("state"), ])
    check(samples_of(wav) == expected, "the WAV output holds exactly the tool's samples, in order")

    # Restarted, the same unique ids.
    watch.close()
    watch = Watch(broker, "homeassistant/#")
    service = Service(broker, "flat.1", "--device", "virtual", "--device", "wav:" + wav)
    watch.wait(lambda m: sum(1 for t, _, _ in m if t.endswith("/config")) >= 24)
    later = [json.loads(p)["unique_id"] for t, p, _ in watch.messages[-12:] if t.endswith("/config")]
    check(set(later) == unique_ids, "unique ids stable across a restart")
    service.stop()
    watch.close()
    broker.stop()


def test_order_queue_and_absence():
    """A thousand commands in order with none lost; a full queue; no device;
    a start time."""
    broker = Broker()
    wav = os.path.join(WORK, "many.wav")
    watch = Watch(broker, "nimbara/+/+/result")
    # A second output plays at the same time; each keeps to its own commands.
    other = os.path.join(WORK, "other.wav")
    fast = Service(broker, "fast", "--device", "wav:" + wav, "--device", "wav:" + other,
                   "--queue", "1000")
    check(wait_online(broker, "fast"), "the fast service is online")
    lines = [json.dumps({"command": "echo", "number": n, "id": n}) for n in range(1, 1001)]
    started = time.monotonic()
    broker.publish_lines("nimbara/fast/other/command", ["state"] * 200)
    broker.publish_lines("nimbara/fast/many/command", lines)
    results = watch.wait_count("nimbara/fast/many/result", 1000, timeout=600)
    took = time.monotonic() - started
    others = watch.wait_count("nimbara/fast/other/result", 200, timeout=600)
    check(len(results) == 1000, "a thousand results", str(len(results)))
    check([r.get("id") for r in results] == list(range(1, 1001)), "in arrival order")
    check(all(r.get("result") == "done" for r in results + others), "all done")
    print(f"1000 echo commands on the WAV output: {took:.1f} s", flush=True)
    check(fast.stop() == 0, "the fast service stops cleanly")
    one = tool_wav("echo", "1")
    check(len(samples_of(wav)) == 1000 * len(one), "the WAV output holds a thousand transmissions")
    check(samples_of(other) == 200 * tool_wav("state"), "the other output holds only its own")

    # A real-time virtual output with room for two waiting commands: of six at
    # once, the two that wait play, and a third only if the worker took the
    # first before the rest arrived; at least three are full.
    slow = Service(broker, "slow", "--device", "virtual", "--queue", "2")
    absent = Service(broker, "absent", "--device", "virtual", "--route", "Speaker")
    check(wait_online(broker, "slow") and wait_online(broker, "absent"), "both online")
    broker.publish_lines("nimbara/slow/virtual/command", ["puff teal"] * 6)
    results = watch.wait_count("nimbara/slow/virtual/result", 6, timeout=60)
    full = [r for r in results if "queue full" in r.get("message", "")]
    done = [r for r in results if r.get("result") == "done"]
    check(len(full) + len(done) == 6 and len(full) >= 3 and len(done) >= 2,
          "a full queue says so; the others play", str(results))

    broker.publish("nimbara/absent/virtual/command", "flash red")
    result = watch.wait_count("nimbara/absent/virtual/result", 1)
    check(result and result[0]["exit"] == 3 and "No device" in result[0]["message"] and
          "Speaker" in result[0]["message"], "no headphones: the no-device result", str(result))

    # A start time: the result comes no sooner than the time asked for.
    at = int(time.time() * 1000) + 1500
    broker.publish("nimbara/slow/virtual/command", json.dumps({"command": "state", "at": at}))
    watch.wait_count("nimbara/slow/virtual/result", 7)
    arrived = watch.on("nimbara/slow/virtual/result")[-1][1]
    check(time.time() - (time.monotonic() - arrived) >= at / 1000 - 0.05,
          "a command with a start time waits for it")
    slow.stop()
    absent.stop()
    watch.close()
    broker.stop()


def test_broker_loss_and_kill():
    """A broker that comes late, the broker restarted under the service;
    SIGKILL leaves the last will."""
    port = free_port()
    service = Service(None, "hall", "--device", "virtual", port=port)
    deadline = time.monotonic() + 10
    while "cannot reach the broker" not in service.logged() and time.monotonic() < deadline:
        time.sleep(0.05)
    check("trying again" in service.logged(), "no broker yet: said, and tried again")
    broker = Broker(port)
    check(wait_online(broker, "hall"), "online once the broker is up")
    # A command that plays while the broker goes away: its result is held
    # until the service is back.
    seen = Watch(broker, "nimbara/hall/virtual/command")
    broker.publish("nimbara/hall/virtual/command", "puff red --time 1000")
    seen.wait(lambda m: any(t == "nimbara/hall/virtual/command" for t, _, _ in m))
    seen.close()
    broker.stop()
    broker.start()  # the same port, no retained messages left
    watch = Watch(broker, "nimbara/hall/virtual/result", "homeassistant/button/#")
    check(wait_online(broker, "hall", timeout=60), "online again after the broker came back")
    check(watch.wait(lambda m: any(t.endswith("/puff/config") for t, _, _ in m)),
          "discovery announced again after the reconnect")
    result = watch.wait_count("nimbara/hall/virtual/result", 1)
    check(result and result[0].get("result") == "done" and result[0]["command"]["time"] == 1000,
          "the result made while the broker was away comes once it is back", str(result))
    broker.publish("nimbara/hall/virtual/command", "spray 100")
    result = watch.wait_count("nimbara/hall/virtual/result", 2)
    check(len(result) == 2 and result[1].get("result") == "done",
          "commands play after the reconnect")
    check("lost the broker" in service.logged(), "the loss is logged")
    watch.close()

    availability = Watch(broker, "nimbara/hall/availability")
    service.stop(signal.SIGKILL)
    check(availability.wait(lambda m: any(p == "offline" for t, p, _ in m if t != availability.sync)),
          "SIGKILL: the last will says offline")
    availability.close()
    broker.stop()


def test_settings():
    """The config file, a password from the environment, a refused password,
    and usage errors."""
    passwords = os.path.join(WORK, "passwords")
    subprocess.run(["mosquitto_passwd", "-b", "-c", passwords, "nim", "s3cret"], check=True)
    broker = Broker(extra=f"allow_anonymous false\npassword_file {passwords}")
    config = os.path.join(WORK, "serve.conf")
    with open(config, "w") as f:
        f.write(f"# the service\nmqtt = mqtt://nim@127.0.0.1:{broker.port}\nname = attic\n"
                "device = virtual\ndiscovery-prefix = ha\n")
    env = {"NIMBARA_MQTT_PASSWORD": "s3cret"}
    service = subprocess.Popen([TOOL, "serve", "--config", config], env={**os.environ, **env},
                               stderr=subprocess.PIPE, text=True)
    watcher = subprocess.Popen(["mosquitto_sub", "-h", "127.0.0.1", "-p", str(broker.port),
                                "-u", "nim", "-P", "s3cret", "-v", "-C", "1", "-W", "20",
                                "-t", "ha/sensor/nimbara_attic_virtual/route/config"],
                               stdout=subprocess.PIPE, text=True)
    out, _ = watcher.communicate()
    check("\"state_topic\":\"nimbara/attic/virtual/state\"" in out,
          "config file and password from the environment: announced under prefix ha", out)
    service.send_signal(signal.SIGINT)
    _, log = service.communicate(timeout=30)
    check(service.returncode == 0 and "stopping on SIGINT" in log, "SIGINT: a clean stop", log)
    os.chmod(config, 0o644)
    with open(config, "a") as f:
        f.write("password = s3cret\n")
    run = subprocess.run([TOOL, "serve", "--config", config, "--device", "nowhere"],
                         capture_output=True, text=True)
    check("others may read it (chmod 600)" in run.stderr, "a password others may read: a warning",
          run.stderr)

    wrong = subprocess.Popen([TOOL, "serve", "--config", config],
                             env={**os.environ, "NIMBARA_MQTT_PASSWORD": "wrong"},
                             stderr=subprocess.PIPE, text=True)
    deadline = time.monotonic() + 20
    log = ""
    while "refused" not in log and select.select([wrong.stderr], [], [],
                                                 max(0, deadline - time.monotonic()))[0]:
        line = wrong.stderr.readline()
        if not line:
            break
        log += line
    check("refused the connection" in log, "a wrong password is logged as refused", log)
    wrong.terminate()
    wrong.wait()
    broker.stop()

    # mqtts with a CA file: a certificate of its own for 127.0.0.1.
    key, cert = os.path.join(WORK, "broker.key"), os.path.join(WORK, "broker.crt")
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", key,
                    "-out", cert, "-days", "1", "-subj", "/CN=127.0.0.1", "-addext",
                    "subjectAltName=IP:127.0.0.1"], check=True, capture_output=True)
    tls = Broker(extra=f"allow_anonymous true\ncertfile {cert}\nkeyfile {key}")
    secure = subprocess.Popen([TOOL, "serve", "--mqtt", f"mqtts://127.0.0.1:{tls.port}",
                               "--ca-file", cert, "--name", "secure", "--device", "virtual"],
                              stderr=subprocess.DEVNULL)
    online = subprocess.run(["mosquitto_sub", "-h", "127.0.0.1", "-p", str(tls.port), "--cafile",
                             cert, "-C", "1", "-W", "20", "-t", "nimbara/secure/availability"],
                            capture_output=True, text=True)
    check(online.stdout.strip() == "online", "mqtts with --ca-file", online.stderr)
    secure.terminate()
    check(secure.wait() == 0, "mqtts: a clean stop")
    untrusted = subprocess.Popen([TOOL, "serve", "--mqtt", f"mqtts://127.0.0.1:{tls.port}",
                                  "--name", "untrusted", "--device", "virtual"],
                                 stderr=subprocess.PIPE, text=True)
    log = ""
    deadline = time.monotonic() + 20
    while "cannot reach the broker" not in log and select.select(
            [untrusted.stderr], [], [], max(0, deadline - time.monotonic()))[0]:
        line = untrusted.stderr.readline()
        if not line:
            break
        log += line
    check("cannot reach the broker" in log, "mqtts: a certificate not trusted: said, tried again",
          log)
    untrusted.terminate()
    untrusted.wait()
    tls.stop()

    for args, message in [(["--mqtt", "http://x"], "mqtt://"),
                          (["--mqtt", "mqtt://:pw@host"], "no user"),
                          (["--mqtt", "mqtt://h:99999"], "port"),
                          (["--device", "speaker"], "unknown audio output"),
                          (["--device", "virtual", "--device", "virtual"], "share the topic"),
                          (["--config", os.path.join(WORK, "none.conf")], "cannot read"),
                          (["--queue", "0"], "queue")]:
        run = subprocess.run([TOOL, "serve"] + args, capture_output=True, text=True,
                             env={**os.environ, "XDG_CONFIG_HOME": WORK})
        check(run.returncode == 2 and message in run.stderr and run.stderr.count("\n") == 1,
              f"serve {' '.join(args)}: one line naming {message!r}, exit 2", run.stderr)
    with open(config, "a") as f:
        f.write("colour = red\n")
    run = subprocess.run([TOOL, "serve", "--config", config], capture_output=True, text=True)
    check(run.returncode == 2 and "serve.conf:7: unknown key \"colour\"" in run.stderr,
          "an unknown key names its line", run.stderr)


def test_sound_server():
    """On the private sound server: the monitor records each command bit for
    bit; presence follows the default sink."""
    started = None
    if not os.environ.get("PULSE_SERVER"):
        started = subprocess.run(
            ["bash", "-c", f"source {ROOT}/scripts/pulse-server && start_pulse_server >/dev/null 2>&1 && "
                           "echo $PULSE_SERVER $PULSE_PID $PULSE_SCRATCH"],
            capture_output=True, text=True, check=True).stdout.split()
        os.environ["PULSE_SERVER"] = started[0]
    try:
        broker = Broker()
        watch = Watch(broker, "nimbara/desk/+/result", "nimbara/desk/+/state")
        service = Service(broker, "desk", "--device", "pulse")
        check(wait_online(broker, "desk"), "online on the sound server")
        recording = os.path.join(WORK, "monitor.raw")
        with open(recording, "wb") as raw:
            parec = subprocess.Popen(["parec", "-d", "headphones.monitor", "--raw",
                                      "--format=s16le", "--rate=44100", "--channels=2",
                                      "--latency-msec=20"], stdout=raw)
            broker.publish("nimbara/desk/pulse/command", "puff 10 20 30 --time 400")
            result = watch.wait_count("nimbara/desk/pulse/result", 1)
            check(result and result[0].get("result") == "done", "played on the sound server",
                  str(result))
            expected = tool_wav("puff", "10", "20", "30", "--time", "400").rstrip(b"\0")
            deadline = time.monotonic() + 10
            heard = False
            while not heard and time.monotonic() < deadline:
                with open(recording, "rb") as f:
                    heard = expected in f.read()
                if not heard:
                    time.sleep(0.1)
            parec.terminate()
            parec.wait()
        check(heard, "the monitor recorded the command bit for bit")

        changed = time.monotonic()
        subprocess.run(["pactl", "set-default-sink", "speaker"], check=True)
        gone = watch.wait(lambda m: any(t == "nimbara/desk/pulse/state" and
                                        json.loads(p)["present"] is False for t, p, _ in m), 10)
        if check(gone, "unplugged headphones are published"):
            when = next(t for tp, p, t in watch.messages
                        if tp == "nimbara/desk/pulse/state" and json.loads(p)["present"] is False)
            print(f"presence change published after {when - changed:.2f} s", flush=True)
        broker.publish("nimbara/desk/pulse/command", "state")
        result = watch.wait_count("nimbara/desk/pulse/result", 2)
        check(len(result) == 2 and result[1]["exit"] == 3, "then commands get no device",
              str(result))
        subprocess.run(["pactl", "set-default-sink", "headphones"], check=True)
        service.stop()

        # Without --device: the sinks where headphones are.
        chosen = Watch(broker, "nimbara/auto/+/state")
        auto = Service(broker, "auto")
        check(wait_online(broker, "auto"), "online with the outputs it chose")
        check(chosen.wait(lambda m: any(t == "nimbara/auto/headphones/state" for t, _, _ in m)),
              "the sink with headphones is served")
        check(all(t in ("nimbara/auto/headphones/state", chosen.sync) for t, _, _ in chosen.messages),
              "the speaker is not", str(chosen.messages))
        auto.stop()
        chosen.close()
        watch.close()
        broker.stop()
    finally:
        if started:
            subprocess.run(["kill", started[1]])
            subprocess.run(["rm", "-rf", started[2]])
            del os.environ["PULSE_SERVER"]


ROOM_CUES = [("00:00.000 --> 00:00.500", ["puff", "orange", "--time", "300"]),
             ("00:01.000 --> 00:01.200", ["flash", "0", "128", "255"]),
             ("00:02.000 --> 00:02.300", ["spray", "300"])]


def test_room_cue():
    """One track played by every accessory served on a broker; none there."""
    broker = Broker()
    track = os.path.join(WORK, "room.vtt")
    with open(track, "w") as f:
        f.write("WEBVTT\n\n" + "".join(f"{time}\n{' '.join(words)}\n\n"
                                         for time, words in ROOM_CUES))
    url = f"mqtt://127.0.0.1:{broker.port}"
    empty = subprocess.run([TOOL, "play", track, "--mqtt", url], capture_output=True, text=True)
    check(empty.returncode == 1 and empty.stdout == "" and
          len(empty.stderr.splitlines()) == 1 and "no accessory" in empty.stderr,
          "a broker without services: one line, exit 1", repr(empty))

    wavs = {name: os.path.join(WORK, f"room-{name}.wav") for name in ("hall", "kitchen")}
    services = [Service(broker, name, "--device", "wav:" + wav) for name, wav in wavs.items()]
    for service in services:
        check(wait_online(broker, service.name), f"{service.name} online")
    results = Watch(broker, "nimbara/+/+/result")
    played = subprocess.run([TOOL, "--json", "play", track, "--mqtt", url], capture_output=True,
                            text=True, timeout=60)
    check(played.returncode == 0, "the track played in the room", played.stderr)
    lines = [json.loads(line) for line in played.stdout.splitlines()]
    check([line["cue"] for line in lines] == [0, 1, 2] and
          [line["command"] for line in lines] == ["puff", "flash", "spray"] and
          all(sorted(line["to"]) == ["hall/room-hall", "kitchen/room-kitchen"] for line in lines),
          "a line per cue, with its fields and both accessories", played.stdout)
    check(all(line["at"] - lines[0]["at"] == 1000 * line["cue"] for line in lines),
          "each cue's start time is the track's start plus its time")
    expected = b"".join(tool_wav(*words) for _, words in ROOM_CUES)
    for name, wav in wavs.items():
        check(samples_of(wav) == expected, f"{name} played exactly the three cues")
    firsts = [t for topic, payload, t in results.messages
              if topic != results.sync and json_or_text(payload).get("id", "").endswith("-1")]
    if len(firsts) == 2:
        print(f"the first cue's results came {abs(firsts[0] - firsts[1]) * 1000:.2f} ms apart",
              flush=True)

    # Only one of them; and a failure is never a success.
    only = subprocess.run([TOOL, "--json", "play", track, "--mqtt", url, "--only", "hall"],
                          capture_output=True, text=True, timeout=60)
    check(only.returncode == 0 and
          all(json.loads(line)["to"] == ["hall/room-hall"]
              for line in only.stdout.splitlines()), "--only picks one service", only.stdout)
    services[1].proc.send_signal(signal.SIGSTOP)
    stopped = subprocess.run([TOOL, "play", track, "--mqtt", url, "--only", "kitchen"],
                             capture_output=True, text=True, timeout=60)
    services[1].proc.send_signal(signal.SIGCONT)
    check(stopped.returncode == 1 and len(stopped.stderr.splitlines()) == 1 and
          "no result" in stopped.stderr, "a service that does not answer fails the track",
          stopped.stderr)
    # An accessory that fails a cue stops the track: no later cue goes out.
    absent = Service(broker, "absent", "--device", "virtual", "--route", "Speaker")
    check(wait_online(broker, "absent"), "absent online")
    sent = Watch(broker, "nimbara/absent/virtual/command")
    failed = subprocess.run([TOOL, "play", track, "--mqtt", url, "--only", "absent"],
                            capture_output=True, text=True, timeout=60)
    sent.broker.publish(sent.sync, "end")
    sent.wait(lambda m: sum(1 for t, p, _ in m if t == sent.sync and p == "end") > 0)
    commands = [p for t, p, _ in sent.messages if t != sent.sync]
    check(failed.returncode == 1 and len(failed.stderr.splitlines()) == 1 and
          "absent/virtual: the cue at 0.000 s failed" in failed.stderr and
          "No device" in failed.stderr, "a failed cue fails the track, named", failed.stderr)
    check(0 < len(commands) < len(ROOM_CUES), "no cue goes out after a failure", str(commands))
    sent.close()
    absent.stop()
    results.close()
    for service in services:
        service.stop()
    broker.stop()


TESTS = [test_discovery_and_commands, test_order_queue_and_absence, test_broker_loss_and_kill,
         test_settings, test_room_cue] + ([] if options.no_pulse else [test_sound_server])
for test in TESTS:
    if ONLY and ONLY not in test.__name__:
        continue
    print(f"{test.__name__}: {test.__doc__.splitlines()[0]}", flush=True)
    try:
        test()
    except Exception as error:  # a broken step fails the test, and the others still run
        check(False, f"{test.__name__} raised {error!r}")
for process in STARTED:
    if process.poll() is None:
        process.kill()
        process.wait()
subprocess.run(["rm", "-rf", WORK])
print(f"serve: {passes} passed, {len(failures)} failed")
sys.exit(1 if failures else 0)

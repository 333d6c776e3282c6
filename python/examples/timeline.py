#!/usr/bin/env python3
"""Plays a timeline of scents: (seconds, command) pairs, each command sent when
its time comes, as for a film or a game.

    python3 timeline.py                 # on the sound server's default output
    python3 timeline.py --device virtual
    python3 timeline.py --device wav:timeline.wav --speed 0
"""
import argparse
import time

import nimbara

# Seconds from the start, then the command: an Accessory method's name, its
# arguments and, last, an optional dict of keyword arguments.
TIMELINE = [
    (0.0, ("flash", "#ffb000")),                      # sunrise: amber light
    (1.5, ("puff", "#40ff40", {"time": 300})),        # a meadow: a short green puff
    (3.0, ("spray", 200)),                            # a breeze
    (4.5, ("puff", (255, 0, 64), {"time": 800})),     # roses: a long red puff
    (6.0, ("flash", 0, 0, 0, {"time": 100})),         # lights out
]


def play(accessory, timeline, speed=1.0):
    """Sends each command at its time (scaled by speed; 0: no waiting).
    A command that is late (the one before still playing) goes at once."""
    start = time.monotonic()
    for at, (verb, *args) in sorted(timeline, key=lambda entry: entry[0]):
        keywords = args.pop() if args and isinstance(args[-1], dict) else {}
        delay = start + at * speed - time.monotonic()
        if delay > 0:
            time.sleep(delay)
        print(f"{time.monotonic() - start:6.2f} s  {verb} {args} {keywords}")
        getattr(accessory, verb)(*args, **keywords)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--device", default="pulse", help="pulse, pulse:SINK, virtual or wav:PATH")
    parser.add_argument("--speed", type=float, default=1.0, help="time scale (0: no waiting)")
    parser.add_argument("--skip-precheck", action="store_true")
    options = parser.parse_args()
    try:
        with nimbara.Accessory(options.device, skip_precheck=options.skip_precheck) as accessory:
            play(accessory, TIMELINE, options.speed)
            if options.device == "virtual":
                for t in accessory.heard():
                    print("accessory heard:", t.fields)
    except nimbara.NoDevice as e:
        raise SystemExit(f"timeline: {e}")
    except nimbara.AudioError as e:
        raise SystemExit(f"timeline: {e}")


if __name__ == "__main__":
    main()

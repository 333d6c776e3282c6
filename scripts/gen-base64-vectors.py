#!/usr/bin/env python3
"""Writes tests/data/base64_vectors.txt: Base64 of byte strings of length 0 to
200, computed with Python's standard library, as an independent reference.

Each line: length, the input bytes in hex, the Base64 text in one line. Byte i
of the string of length n is (i * 37 + n * 11 + 5) % 256."""
import base64
import pathlib

out = pathlib.Path(__file__).resolve().parent.parent / "tests" / "data" / "base64_vectors.txt"
with out.open("w") as f:
    for n in range(201):
        data = bytes((i * 37 + n * 11 + 5) % 256 for i in range(n))
        f.write(f"{n} {data.hex() or '-'} {base64.b64encode(data).decode() or '-'}\n")

#!/usr/bin/env python3
"""Reads every vector with the decoder that is generated from the dictionary alone.

usage: check.py USAGE_STAT    the program that prints the dictionary
"""
import json
import pathlib
import subprocess
import sys

HERE = pathlib.Path(__file__).parent
sys.path.insert(0, str(HERE.parent.parent / "examples"))
sys.dont_write_bytecode = True

import decoder as module  # noqa: E402


def main():
    types = subprocess.run([sys.argv[1], "types", "-o", "json"], check=True, capture_output=True)
    decoder = module.Decoder(json.loads(types.stdout))
    read = refused = 0
    for path in sorted([*HERE.glob("*.json"), *HERE.glob("odd/*"), *HERE.glob("refused/*")]):
        vector = json.loads(path.read_text())
        try:
            record = decoder.decode(bytes.fromhex(vector["hex"]))
        except module.Invalid as reason:
            assert "record" not in vector, f"{path.name} was refused: {reason}"
            refused += 1
            continue
        assert record == vector.get("record"), f"{path.name} reads as {record}"
        read += 1
    assert read >= 41 and refused >= 10, (read, refused)
    print(f"{read} read, {refused} refused")


main()

#!/usr/bin/env python3
"""Writes the batch vectors: messages beside what they say.

A writer of its own, from docs/batch.md alone: it shares no code with the library, so that the two
check each other. Its frames hold their content uncompressed. Usage: make.py [--check]
"""
import json
import pathlib
import struct
import sys

BATCH, STORE, POLICY = (bytes(range(first, first + 16)) for first in (0x10, 0x40, 0x80))


def number(value):
    data = bytearray()
    while value >= 0x80:
        data.append(value & 0x7F | 0x80)
        value >>= 7
    return bytes(data + bytes([value]))


def signed(value):
    return number(value * 2 if value >= 0 else -value * 2 - 1)


def frame(content):
    """A Zstandard frame of one segment: an 8-byte content size and one raw block."""
    assert len(content) < 128 * 1024
    block = struct.pack("<I", len(content) << 3 | 1)[:3]
    return bytes.fromhex("28b52ffd") + b"\xe0" + struct.pack("<Q", len(content)) + block + content


def column(coding, width, values):
    """A column of numbers from 0 to 2^(8 width) - 1."""
    if not values:
        return b""
    if coding == 0:
        return b"\0" + values[0].to_bytes(width, "little")
    if coding == 2:
        half, whole = 1 << (8 * width - 1), 1 << (8 * width)
        steps, before = [], 0
        for value in values:
            step = (value - before + half) % whole - half
            steps.append(step * 2 if step >= 0 else -step * 2 - 1)
            before = value
        values = steps
    planes = (bytes(v >> 8 * plane & 0xFF for v in values) for plane in range(width))
    return bytes([coding]) + b"".join(planes)


def bare(texts):
    return b"".join(number(len(t)) for t in texts) + b"".join(texts)


def lists(rows):
    texts = [t for row in rows for t in row]
    return b"".join(number(len(row)) for row in rows) + bare(texts)


def content(head, runs=(), steps=(), shapes=(), records=(), columns=()):
    """`columns` are the payloads' own; `records` are pairs of shape and time."""
    data = BATCH + STORE + b"".join(number(head[key]) for key in ("first", "after"))
    data += number(head["through"] - head["after"]) + bytes([head["level"]]) + POLICY
    data += signed(head["sent_ms"]) + number(len(runs))
    before = head["after"]
    for first, last, reason in runs:
        data += number(first - before - 1) + number(last - first) + bytes([reason])
        before = last
    data += number(len(steps))
    before = head["after"]
    for record, step_ms in steps:
        data += number(record - before) + signed(step_ms)
        before = record
    data += number(len(shapes))
    for kind, layout, actions in shapes:
        data += signed(kind) + number(len(layout)) + layout.encode()
        data += number(len(actions)) + bytes(actions)
    data += number(len(records)) + column(1, 1, [shape for shape, _ in records])
    data += column(2, 8, [time % (1 << 64) for _, time in records])
    return data + b"".join(columns)


def text(value):
    return struct.pack("<I", len(value)) + value


def vectors():
    head = {"first": 1, "after": 700, "through": 700, "level": 1, "sent_ms": 1790000000000}
    yield "question", head, (), (), (), (), (), ()

    head = {"first": 301, "after": 310, "through": 1000000000310, "level": 2, "sent_ms": -5}
    runs = [(312, 1000000000307, 1), (1000000000310, 1000000000310, 4)]
    steps = [(311, 259200000), (1000000000308, -61001)]
    shapes = [(2021, "4212", [0, 1]), (-7, "8Asvr", [3, 0, 2])]
    twenty = bytes(range(20))
    second = struct.pack("<q", -2) + twenty + text(b"\xff\0") + struct.pack("<I", 2) + text(b"")
    payloads = [
        struct.pack("<ihBh", -1, -32768, 255, 7),
        second + text(b"two") + b"the rest",
        struct.pack("<ihBh", 2147483647, 32767, 0, 7),
    ]
    records = [(0, 1790000000123), (1, -(1 << 63)), (0, (1 << 63) - 1)]
    columns = [
        column(2, 4, [0xFFFFFFFF, 0x7FFFFFFF]), column(1, 2, [0x8000, 0x7FFF]),
        column(2, 1, [255, 0]), column(0, 2, [7, 7]),
        column(1, 8, [(1 << 64) - 2]), twenty, bare([b"\xff\0"]), lists([[b"", b"two"]]),
        bare([b"the rest"]),
    ]
    yield "records", head, runs, steps, shapes, records, columns, payloads


def files():
    for name, head, runs, steps, shapes, records, columns, payloads in vectors():
        message = b"USB\1" + frame(content(head, runs, steps, shapes, records, columns))
        numbers = iter(n for n in (311, 1000000000308, 1000000000309))
        yield name, {
            "hex": message.hex(),
            "batch": {
                "id": BATCH.hex(), "store": STORE.hex(), "policy": POLICY.hex(), **head,
                "runs": [list(run) for run in runs],
                "clock_steps": [list(step) for step in steps],
                "shapes": [[kind, layout, bytes(actions).hex()] for kind, layout, actions in shapes],
                "records": [[next(numbers), shape, time, payload.hex()]
                            for (shape, time), payload in zip(records, payloads)],
            },
        }


def main():
    here = pathlib.Path(__file__).parent
    for name, vector in files():
        path, written = here / f"{name}.json", json.dumps(vector, indent=2) + "\n"
        if "--check" in sys.argv:
            assert path.read_text() == written, f"{path} is not as written"
        else:
            path.write_text(written)


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""The fleet's side and the devices', with real brokers and databases.

Usage: fleet_test.py BUILD_FOLDER [CASE...]      all cases unless some are named
"""
import struct
import sys

import rig as rigs
from make import column, frame, number, signed

NAME, OTHER = "0123456789abcdef" * 2, "fedcba9876543210" * 2
STORED, CURSOR, FORKED, REFUSED, LATER, FORGOTTEN = range(6)
RETENTION, WITHHELD = 1, 4


def identity(value):
    return bytes([value]) * 16


def batch(id, after, through, store=1, first=1, runs=(), time=1790000000000, steps=(),
          kind=2008, payload=None, version=1, level=2, actions=()):
    """A batch of records of one type; numbers in `runs`, with their reasons, are none."""
    gone = sum(last - begin + 1 for begin, last, _ in runs)
    count = through - after - gone
    data = identity(id) + identity(store) + number(first) + number(after) + number(through - after)
    data += bytes([level]) + identity(9) + signed(time) + number(len(runs))
    before = after
    for begin, last, reason in runs:
        data += number(begin - before - 1) + number(last - begin) + bytes([reason])
        before = last
    data += number(len(steps))
    before = after
    for record, step in steps:
        data += number(record - before) + signed(step)
        before = record
    layout = b"r" if payload is not None else b"2"
    data += number(1) + signed(kind) + number(len(layout)) + layout
    data += number(len(actions)) + bytes(actions) + number(count)
    data += column(0, 1, [0] * count) + column(0, 8, [time] * count)
    if payload is None:
        data += column(0, 2, [90] * count)
    else:
        data += number(len(payload)) * count + payload * count
    return b"USB" + bytes([version]) + frame(data)


def question(id, after, **more):
    return batch(id, after, after, **more)


def balance(rig):
    """(announced, stored, quarantined, missing) in all; everything must add up."""
    rig.fleet("status", "--each")
    doctor = rig.fleet("doctor")
    assert "WRONG" not in doctor.stdout, doctor.stdout
    row = rig.sql("SELECT sum(announced), sum(stored), sum(quarantined), sum(missing) FROM balance")
    return tuple(int(value) for value in row.split("|"))


def cursor_rules(rig):
    """One row of the ledger's rules after the other, each with the receipt it must get."""
    rig.ingester()
    wire = rigs.Wire(rig)
    old = batch(1, 0, 10)
    for what, message, answer, cursor, stored in [
        ("a question about a new store", question(0, 0), CURSOR, 0, 0),
        ("the first batch", old, STORED, 10, 10),
        ("the same again", old, STORED, 10, 10),
        ("a question after a lost receipt", question(1, 0), STORED, 10, 10),
        ("a question otherwise", question(7, 10), CURSOR, 10, 10),
        ("the next, with runs", batch(2, 10, 20, runs=[(11, 13, RETENTION), (20, 20, WITHHELD)]),
         STORED, 20, 16),
        ("one that begins too late", batch(3, 21, 22), CURSOR, 20, 16),
        ("an old one that comes late", old, FORKED, 20, 16),
        ("another one for old numbers", batch(4, 10, 30), FORKED, 20, 16),
        ("a question of a copy", question(5, 10), FORKED, 20, 16),
        ("a store that begins later", batch(1, 30, 31, store=2, first=31), STORED, 31, 17),
        ("the same id in another store", batch(1, 99, 101, store=3, first=100), STORED, 101, 19),
        ("nothing but what is missing", batch(6, 20, 5000, runs=[(21, 5000, RETENTION)], level=0),
         STORED, 5000, 19),
    ]:
        receipt = wire.ask(NAME, message)
        assert receipt[0] == NAME and receipt[2] == answer and receipt[4] == cursor, (what, receipt)
        assert rig.sql("SELECT count(*) FROM records") == str(stored), what
    assert balance(rig) == (5003, 19, 0, 4984)
    assert rig.sql("SELECT forks FROM stores WHERE first = 1") == "3"
    wire.ask(OTHER, old)
    assert rig.sql("SELECT count(DISTINCT device) FROM records") == "2", "names keep apart"
    wire.close()


def hostile_batches(rig):
    """What is malformed is counted, kept up to a quota, and answered; the rest goes on."""
    rig.ingester()
    wire = rigs.Wire(rig)
    good = batch(1, 0, 10)
    bomb = b"USB\1" + bytes.fromhex("28b52ffde0") + struct.pack("<Q", 1 << 62) + b"\1\0\0"
    for message in [b"", b"x", b"USR\1", good[:-1], good + b"x", bomb, b"USB\1" + b"\xff" * 200_000,
                    batch(1, 0, (1 << 63) + 5, runs=[(1, (1 << 63) + 5, 1)]),
                    batch(1, 0, 2, runs=[(1, 1, 1)], level=0)]:
        assert wire.ask(NAME, message)[2] == REFUSED, message[:40]
    for _ in range(5):
        wire.send(NAME, b"nonsense")
    wire.send("short", good)
    wire.send("ABCDEF6789abcdef0123456789abcdef", good)
    for _ in range(5):
        assert wire.receipt()[2] == REFUSED
    assert wire.ask(NAME, b"USB\2whatever")[2] == LATER
    assert wire.ask(NAME, good)[2] == STORED
    assert rig.sql("SELECT refused FROM devices") == "14"
    assert rig.sql("SELECT count(*) FROM rejected") == "10"
    assert balance(rig) == (10, 10, 0, 0)
    assert "malformed" in rig.fleet("doctor").stdout
    wire.close()


def quarantine(rig):
    """Types that an ingester does not know wait for one that does."""
    ingester = rig.ingester()
    wire = rigs.Wire(rig)
    for id, after, message in [(1, 0, {"kind": 999, "payload": b"new"}),
                               (2, 3, {"kind": 2008, "payload": b"Z\0"}),
                               (3, 6, {"kind": 2008, "payload": b"too long"})]:
        assert wire.ask(NAME, batch(id, after, after + 3, **message))[2] == STORED
    assert balance(rig) == (9, 3, 6, 0)
    # As if the next version knew the type and its predecessor had not.
    rig.sql("UPDATE quarantine SET type = 2008, payload = '\\x5a00' WHERE type = 999")
    ingester.stop()
    rig.ingester(1)
    assert balance(rig) == (9, 6, 3, 0)
    assert rig.sql("SELECT DISTINCT fields::text, level FROM records") == "[90]|2"
    wire.close()


def clocks(rig):
    """A clock that was three days ahead until record 6, and one that is in another century."""
    rig.ingester()
    wire = rigs.Wire(rig)
    now_ms, day_ms = int(rig.sql("SELECT extract(epoch FROM now())::bigint")) * 1000, 86_400_000
    wire.ask(NAME, batch(1, 0, 5, time=now_ms + 3 * day_ms))
    wire.ask(NAME, batch(2, 5, 10, time=now_ms, steps=[(6, -3 * day_ms)]))
    wire.ask(NAME, batch(3, 10, 11, time=1))
    assert rig.sql("SELECT number, time_ms, corrected_ms FROM timed_records ORDER BY number "
                   "LIMIT 6") == "\n".join(
        [f"{n}|{now_ms + 3 * day_ms}|{now_ms}" for n in range(1, 6)] + [f"6|{now_ms}|{now_ms}"])
    assert rig.sql("SELECT count(*) FROM timed_records WHERE corrected_ms IS NULL") == "1"
    assert rig.sql("SELECT count(DISTINCT day) FROM records") == "1", "event times make no days"
    wire.close()


def masks(rig):
    """What a policy dropped is null, not 0."""
    rig.ingester()
    wire = rigs.Wire(rig)
    wire.ask(NAME, batch(1, 0, 1, kind=2035, payload=struct.pack("<hI", 0, 0), actions=[1, 0]))
    wire.ask(NAME, batch(2, 1, 2, kind=2035, payload=struct.pack("<hI", 5, 2) + b"\0\xff"))
    assert rig.sql("SELECT fields->>0 IS NULL, fields->>1 FROM records WHERE number = 1") == "t|"
    assert rig.sql("SELECT fields->>1 FROM records WHERE number = 2") == "\ufffd\ufffd"
    wire.close()


def forgetting(rig):
    """A forgotten device is in no table, and stays away whatever comes back."""
    ingester = rig.ingester()
    wire = rigs.Wire(rig)
    old = batch(1, 0, 10, kind=999, payload=b"?")
    for name in (NAME, OTHER):
        wire.ask(name, old)
        wire.ask(name, batch(2, 10, 20, runs=[(11, 12, 1)], steps=[(15, 99)]))
        wire.ask(name, b"nonsense")
    rig.postgres.dump("fleet", rig.folder / "dump")

    def traces():
        return [rig.sql(f"SELECT count(*) FROM {table} WHERE device NOT IN (SELECT id FROM devices "
                        f"WHERE name = '{OTHER}')")
                for table in ("records", "quarantine", "missing", "clock_steps", "stores", "rejected")]

    request = identity(77)
    assert wire.ask(NAME, b"USF\1" + request)[:3] == (NAME, request, FORGOTTEN)
    assert traces() == ["0"] * 6 and rig.sql("SELECT name FROM devices") == OTHER
    assert wire.ask(NAME, old)[2] == FORGOTTEN
    assert wire.ask(NAME, b"USF\1" + request)[2] == FORGOTTEN, "asked again: forgotten again"
    assert traces() == ["0"] * 6 and rig.sql("SELECT name FROM devices") == OTHER
    ingester.stop()
    rig.postgres.restore("fleet", rig.folder / "dump")
    assert rig.sql("SELECT count(*) FROM devices") == "2"
    rig.ingester(1)
    assert traces() == ["0"] * 6 and rig.sql("SELECT name FROM devices") == OTHER
    assert wire.ask(NAME, old)[2] == FORGOTTEN
    assert balance(rig)[0] == 20
    rig.fleet("forget", OTHER, "--tombstones", rig.tombstones)
    assert rig.sql("SELECT count(*) FROM devices") == "0"
    assert rig.fleet("forget", "nobody", check=False).returncode == 2
    wire.close()


def retirement(rig):
    """A day goes when it is old and exported, and the balance still holds."""
    ingester = rig.ingester()
    wire = rigs.Wire(rig)
    wire.ask(NAME, batch(1, 0, 10))
    ingester.stop()
    for day, exported in (("2020-01-01", True), ("2020-01-02", False)):
        table = "records_" + day.replace("-", "")
        rig.sql(f"CREATE TABLE {table} PARTITION OF records FOR VALUES FROM ('{day}') TO "
                f"('{day}'::date + 1)")
        if exported:
            rig.sql(f"INSERT INTO exports VALUES('{day}', 0, 'manifest')")
    rig.ingester(1)
    wire.ask(NAME, batch(2, 10, 20))
    assert rig.sql("SELECT count(*) FROM pg_inherits WHERE inhparent = 'records'::regclass") == "2"
    assert "days of records older than 30: 1" in rig.fleet("doctor").stdout
    assert balance(rig) == (20, 20, 0, 0)
    wire.close()


CASES = [cursor_rules, hostile_batches, quarantine, clocks, masks, forgetting, retirement]


def main():
    build, wanted = sys.argv[1], sys.argv[2:]
    for case in CASES:
        if wanted and case.__name__ not in wanted:
            continue
        with rigs.Rig(build) as rig:
            case(rig)
        print(f"{case.__name__}: {case.__doc__}", flush=True)


main()

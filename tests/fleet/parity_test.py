#!/usr/bin/env python3
"""One record, three readings: what the device's preview shows, what the database's typed views
show, and what the lake's files hold are the same values, for every vector and many random records.

Usage: parity_test.py BUILD_FOLDER [RECORDS [SEED]]    2000 records unless given
"""
import collections
import contextlib
import json
import pathlib
import random
import re
import sqlite3
import subprocess
import sys

import rig as rigs
from lake_test import DuckDb

LEVELS = {"basic": 1, "full": 2}


def loud_policy(rig, folder):
    """A policy that lets everything through, and says so."""
    shown = subprocess.run([rig.build / "fleet/uplink/usage-stat-uplink", "policy",
                            rigs.Device.POLICY, "-o", "markdown"], check=True, capture_output=True,
                           text=True).stdout
    loud, event = [], ""
    for line in shown.splitlines():
        if line.startswith("### "):
            event = line.split()[-1]
        cells = [cell.strip() for cell in line.split("|")]
        if len(cells) > 4 and cells[3] in ("content", "identifying"):
            loud.append(f"{event}.{cells[1]}")
    level = {"time": "keep", "sensitivity": dict.fromkeys(
        ("technical", "interaction", "content", "identifying"), "keep"), "lets_through": loud}
    path = folder / "loud.json"
    path.write_text(json.dumps({"version": 1, "levels": {"basic": level, "full": level}}))
    return path


def random_records(rig, count, seed):
    """A database that Device.feed() reads."""
    path = rig.folder / "random.db"
    lines = subprocess.run([rig.build / "tests/fleet/random_records", rigs.SOURCE / "tests/vectors",
                            str(count), str(seed)], check=True, capture_output=True, text=True)
    with contextlib.closing(sqlite3.connect(path)) as database:
        database.execute("CREATE TABLE records(raw BLOB)")
        database.executemany("INSERT INTO records VALUES(?)",
                             ([bytes.fromhex(line)] for line in lines.stdout.split()))
        database.commit()
    return path


def previewed(device, wire):
    """All that the device sends, as its preview shows it: batch by batch, each sent as the very
    bytes that were shown; and the last of these."""
    rows, message = {}, b""
    while True:
        shown = device.uplink("preview", "-o", "json").stdout
        if not shown:
            return rows, message
        batch = json.loads(shown)
        assert not [run for run in batch["missing"] if run["reason"] != "withheld"], batch["missing"]
        for record in batch["records"]:
            # What stands in the rows of a list is named "books[].title".
            columns, lists = {}, collections.defaultdict(lambda: collections.defaultdict(list))
            for field in record["fields"]:
                name, _, column = field["field"].partition("[].")
                if column:
                    lists[name][column].append(field["leaves"])
                else:
                    columns[name] = field["leaves"]
            for name, by_column in lists.items():
                columns[name] = [list(row) for row in zip(*by_column.values())]
            rows[record["number"]] = (record["event"], LEVELS[batch["level"]], record["timestamp"],
                                      columns)
        message = bytes.fromhex(batch["bytes"])
        answer = wire.ask(device.name, message)
        assert answer[2] == 0, answer
        # When all of a day's bytes are sent this fetches the receipt, and sends nothing more.
        device.note("INSERT OR REPLACE INTO visits VALUES(1, 0, 0, 0, 0, "
                    "unixepoch() / 86400, 300000, '')")
        device.send()


def table_name(rig, event):
    return re.sub(r"(?<![A-Z_])(?=[A-Z])", "_", event.replace("Event", "", 1)).lower().strip("_")


def held(rows, device):
    """The same of a view or of files: {number: (level, timestamp, {column: value})}."""
    found = {}
    for row in rows:
        if row.pop("device") != device:
            continue
        time_ms, device_ms = row.pop("time_ms"), row.pop("device_ms")
        for name in ("store", "time", "day"):
            row.pop(name, None)
        number = row.pop("number")
        assert number not in found
        found[number] = (row.pop("level"), time_ms if device_ms is None else device_ms, row)
    return found


def same(shown, value):
    """Whether a value of the preview and one of the fleet are the same; a text that the fleet's
    database can't hold was mended."""
    if isinstance(shown, str) and isinstance(value, str):
        return shown.replace("\0", "\ufffd") == value
    if isinstance(shown, list) and isinstance(value, list):
        return len(shown) == len(value) and all(map(same, shown, value))
    return shown == value and (shown is None) == (value is None)


def compare(what, shown, found):
    event, level, timestamp, columns = shown
    assert found is not None, (what, shown)
    assert (level, timestamp) == found[:2], (what, shown, found)
    for name, value in found[2].items():
        # What frames a list always leaves, and is not shown.
        frame = {"list_count": 3, "count": len(columns.get("books", []))}.get(name)
        if frame is not None and name not in columns:
            assert value == frame or frame == 0, (what, event, name, value)  # too many have none
            continue
        if isinstance(value, str) and isinstance(columns.get(name, []), list):
            value = json.loads(value)  # a list in the lake
        # A list without rows has no fields.
        expected = columns.get(name, [] if value == [] else "no such field")
        assert same(expected, value), (what, event, name, expected, value)
    assert set(columns) <= set(found[2]), (what, shown, found)


def forgotten_stays_away(rig, duckdb, messages, key):
    """A batch from before, replayed: in no table, no file, and so on no page."""
    name, old = messages
    rig.fleet("forget", name, "--tombstones", rig.tombstones)
    wire = rigs.Wire(rig)
    try:
        assert wire.ask(name, old)[2] == 5
    finally:
        wire.close()
    assert "rewritten" in rig.fleet("export", "--to", rig.folder / "lake").stdout
    assert rig.sql("SELECT count(*) FROM devices WHERE name = '" + name + "'") == "0"
    assert rig.sql("SELECT count(*) FROM records r WHERE NOT EXISTS (SELECT FROM devices d WHERE d.id "
                   "= r.device)") == "0"
    assert duckdb.ask(f"SELECT count(*) FROM read_parquet('{rig.folder}/lake/day=*/event=*/*.parquet',"
                      f" union_by_name = true) WHERE device = {key}") == "0"


def main():
    build = pathlib.Path(sys.argv[1])
    count = int(sys.argv[2]) if len(sys.argv) > 2 else 2000
    seed = int(sys.argv[3]) if len(sys.argv) > 3 else random.randrange(1 << 32)
    print(f"{count} random records, seed {seed}")
    with rigs.Rig(build) as rig:
        # What this one does not know waits for the next, and arrives on the day of that.
        older = rig.ingester(program=build / "fleet/ingest/usage-stat-fleet-older")
        source = random_records(rig, count, seed)
        shipped = rigs.Device.POLICY
        people = [("basic", shipped), ("full", shipped), ("full", loud_policy(rig, rig.folder))]
        shown = {}
        wire = rigs.Wire(rig)
        try:
            for number, (level, policy) in enumerate(people):
                device = rigs.Device(rig, number, level=None, daily_bytes=300_000)
                device.POLICY = policy
                device.uplink("consent", level)
                device.feed(source)
                # As the views call it.
                key = int.from_bytes(bytes.fromhex(device.name[:16]), "big", signed=True)
                shown[key], last = previewed(device, wire)
                replayed = device.name, last
                assert len(shown[key]) > count * 9 // 10
                device.collector.stop()
                if number == 0:
                    older.stop()
                    assert rig.sql("UPDATE quarantine SET day = '2026-01-01' RETURNING 1")
                    rig.ingester(1)
                    assert rig.sql("SELECT count(*) FROM records WHERE day = '2026-01-01'") == "0"
        finally:
            wire.close()
        assert rig.sql("SELECT count(*) FROM quarantine") == "0"
        # As if all had come yesterday, since a day must be over.
        day = rig.sql("SELECT ((now() AT TIME ZONE 'UTC')::date - 1)")
        rig.sql(f"CREATE TABLE records_{day.replace('-', '')} PARTITION OF records FOR VALUES FROM "
                f"('{day}') TO (date '{day}' + 1); UPDATE records SET day = '{day}'; UPDATE missing "
                f"SET day = '{day}'; UPDATE ingestion SET day = '{day}'")
        rig.sql(subprocess.run([build / "fleet/ingest/usage-stat-fleet", "sql"], check=True,
                               capture_output=True, text=True).stdout)
        rig.fleet("export", "--to", rig.folder / "lake")
        duckdb = DuckDb()
        events = {row[0] for rows in shown.values() for row in rows.values()}
        assert len(events) >= 40, events
        compared = 0
        for event in sorted(events):
            table = table_name(rig, event)
            view = [json.loads(line) for line in rig.sql(
                "SELECT row_to_json(r) FROM (SELECT *, (extract(epoch FROM time) * 1000)::bigint AS "
                f"time_ms FROM analysis.{table}) AS r").splitlines()]
            files = [json.loads(line) for line in duckdb.ask(
                "SELECT string_agg(to_json(r)::VARCHAR, chr(10)) FROM (SELECT *, epoch_ms(time) AS "
                f"time_ms FROM read_parquet('{rig.folder}/lake/day=*/event={table}/*.parquet', "
                "hive_partitioning = false)) AS r").splitlines()]
            for device, rows in shown.items():
                of_event = {number: row for number, row in rows.items() if row[0] == event}
                for what, found in (("view", held(list(map(dict, view)), device)),
                                    ("lake", held(list(map(dict, files)), device))):
                    assert found.keys() == of_event.keys(), (what, event)
                    for number, row in of_event.items():
                        compare(what, row, found[number])
                        compared += 1
        forgotten_stays_away(rig, duckdb, replayed, key)
        print(f"{compared} comparisons of {sum(map(len, shown.values()))} records, "
              f"{len(events)} classes")


if __name__ == "__main__":
    main()

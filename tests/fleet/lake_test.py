#!/usr/bin/env python3
"""A fleet's database, its lake and its pages, with a real database and real Parquet files.

Usage: lake_test.py BUILD_FOLDER
"""
import ctypes
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile

import rig as rigs

BUILD = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else ".").resolve()
FLEET = BUILD / "fleet/ingest/usage-stat-fleet"
DUCKDB = os.environ.get("USAGE_STAT_DUCKDB", "/usr/local/lib/usage-stat/libduckdb.so")
DAYS = 16


class DuckDb:
    """Any engine that reads Parquet; this one through its C interface."""

    def __init__(self):
        self.lib = ctypes.CDLL(DUCKDB)
        self.lib.duckdb_value_varchar.restype = ctypes.c_void_p
        self.lib.duckdb_value_varchar.argtypes = [ctypes.c_void_p, ctypes.c_uint64, ctypes.c_uint64]
        self.lib.duckdb_result_error.restype = ctypes.c_char_p
        self.database, self.connection = ctypes.c_void_p(), ctypes.c_void_p()
        self.lib.duckdb_open(None, ctypes.byref(self.database))
        self.lib.duckdb_connect(self.database, ctypes.byref(self.connection))

    def ask(self, sql):
        """The one value that a query gives, as text."""
        result = (ctypes.c_uint64 * 6)()
        failed = self.lib.duckdb_query(self.connection, sql.encode(), result)
        assert not failed, self.lib.duckdb_result_error(result)
        value = self.lib.duckdb_value_varchar(result, 0, 0)
        return ctypes.string_at(value).decode() if value else None


class Fleet:
    def __init__(self, folder, devices):
        self.folder = pathlib.Path(folder)
        self.lake = self.folder / "lake"
        self.postgres = rigs.Postgres(folder)
        self.postgres.create("fleet")
        self.conninfo = self.postgres.conninfo("fleet")
        subprocess.run([BUILD / "tests/fleet/fill_fleet", self.conninfo, str(devices), str(DAYS)],
                       check=True)
        # One day on which every device was in use.
        self.sql("INSERT INTO records(number, time_ms, device, store, day, event, level, fields, "
                 "payload) SELECT 1000000, extract(epoch FROM last.day)::bigint * 1000 + 3600000, "
                 "d.id, s.id, last.day, e.id, 2, '[]', '' FROM devices d JOIN stores s ON s.device = "
                 "d.id, events e, (SELECT max(day) AS day FROM ingestion) AS last WHERE e.name = "
                 "'TurnOnEvent'")
        views = self.folder / "views.sql"
        views.write_text(self.run("sql").stdout)
        for _ in range(2):  # it may be run again
            subprocess.run(["/usr/lib/postgresql/15/bin/psql", "-XAtq", "-v", "ON_ERROR_STOP=1", "-d",
                            self.conninfo, "-f", views], check=True)

    def run(self, *arguments, check=True):
        done = subprocess.run([FLEET, *arguments], capture_output=True, text=True)
        assert not check or done.returncode == 0, done.stdout + done.stderr
        return done

    def export(self, *arguments, **more):
        return self.run("export", "--database", self.conninfo, "--to", self.lake, *arguments, **more)

    def report(self, *source):
        return self.run("report", *source).stdout

    def files(self):
        return {str(path.relative_to(self.lake)): path.read_bytes()
                for path in self.lake.glob("day=*/**/*") if path.is_file()}

    def sql(self, text):
        return self.postgres.psql(text)


def same_values_everywhere(fleet, duckdb):
    """Every typed view has the columns and the values of its Parquet files."""
    views = fleet.sql("SELECT table_name FROM information_schema.views WHERE table_schema = "
                      "'analysis' ORDER BY 1").split()
    assert len(views) > 35, views
    compared = 0
    for view in views:
        if not list(fleet.lake.glob(f"day=*/event={view}")):
            continue
        columns = fleet.sql("SELECT string_agg(column_name || ' ' || data_type, ',' ORDER BY "
                            "ordinal_position) FROM information_schema.columns WHERE table_schema = "
                            f"'analysis' AND table_name = '{view}'").split(",")
        digests = []
        for column in columns:
            name, kind = column.split(" ", 1)
            name = f'"{name}"'
            if kind.startswith("timestamp"):
                ours, theirs = f"extract(epoch FROM {name}) * 1000", f"epoch_ms({name})"
                ours = f"({ours})::bigint"
            elif kind == "ARRAY":
                ours, theirs = f"array_to_string({name}, '|')", f"array_to_string({name}, '|')"
            elif kind == "boolean":
                ours, theirs = f"{name}::int", f"{name}::INT"
            else:
                ours, theirs = name, name
            digests.append((f"coalesce({ours}::text, '-')", f"coalesce({theirs}::VARCHAR, '-')"))
        order = "ORDER BY day, device, store, number"
        rows = " || ',' || "
        here = fleet.sql(f"SELECT md5(string_agg({rows.join(a for a, _ in digests)}, ';' {order})) "
                         f"FROM analysis.{view}")
        there = duckdb.ask(f"SELECT md5(string_agg({rows.join(b for _, b in digests)}, ';' {order}))"
                           f" FROM read_parquet('{fleet.lake}/day=*/event={view}/*.parquet')")
        assert here == there, view
        compared += 1
    assert compared >= 15, compared


def days_are_whole_and_the_same_again(fleet, duckdb):
    fleet.export()
    first = fleet.files()
    for day, records, manifest in (line.split("|", 2) for line in fleet.sql(
            "SELECT day, records, replace(manifest, E'\\n', '') FROM exports").splitlines()):
        assert json.loads(manifest) == json.loads(first[f"day={day}/_manifest.json"])
        assert int(records) == json.loads(manifest)["records"] == int(fleet.sql(
            f"SELECT count(*) FROM records WHERE day = '{day}'")), day
    assert int(duckdb.ask(f"SELECT count(*) FROM read_parquet('{fleet.lake}/day=*/event=*/*.parquet',"
                          " union_by_name = true) WHERE event NOT IN ('missing', 'ingestion')")) == \
        int(fleet.sql("SELECT count(*) FROM records"))
    fleet.export()  # nothing is left to do
    assert fleet.files() == first
    fleet.export("--since", "2020-01-01")
    assert fleet.files() == first
    today = fleet.sql("SELECT (now() AT TIME ZONE 'UTC')::date")
    assert "is not over" in fleet.export("--day", today, check=False).stderr
    day = min(name[4:14] for name in first)
    fleet.sql(f"ALTER TABLE records DETACH PARTITION records_{day.replace('-', '')}; "
              f"ALTER TABLE records_{day.replace('-', '')} RENAME TO parked")
    assert "no longer holds" in fleet.export("--day", day, check=False).stderr
    assert fleet.files() == first
    fleet.sql(f"ALTER TABLE parked RENAME TO records_{day.replace('-', '')}; ALTER TABLE records "
              f"ATTACH PARTITION records_{day.replace('-', '')} FOR VALUES FROM ('{day}') TO "
              f"(date '{day}' + 1)")


def both_sources_make_one_page(fleet):
    lake = fleet.report("--from", fleet.lake)
    database = fleet.report("--database", fleet.conninfo)
    made = re.compile("Made on [^.]*")
    assert made.sub("", lake) == made.sub("", database)
    assert "<canvas" in lake


def nothing_about_few(fleet):
    """As many devices as may be told about show; one fewer shows nothing."""
    figures = ["active_devices_by_day", "devices_by_model", "devices_by_version"]
    def reader(sql):
        return fleet.sql("SET ROLE reader; " + sql)
    assert all(int(reader(f"SELECT count(*) FROM figures.{name}")) > 0 for name in figures)
    assert all(int(n) >= 20 for n in reader(
        "SELECT devices FROM figures.devices_by_model UNION ALL SELECT devices FROM "
        "figures.devices_by_version").split())
    assert int(fleet.postgres.psql("SET ROLE analyst; SELECT count(*) FROM analysis.change_page")) > 0


def readers_reach_no_row(fleet):
    """Nothing but the figures, neither by name nor by what the server tells of its own work."""
    relations = fleet.sql("SELECT oid::regclass FROM pg_class WHERE relkind IN ('r', 'p', 'v', 'm') AND "
                          "relnamespace IN ('public'::regnamespace, 'analysis'::regnamespace)").split()
    assert len(relations) > 60, relations
    for relation in relations:
        for role, may in (("reader", False), ("analyst", relation.startswith("analysis."))):
            done = fleet.sql(f"SELECT has_table_privilege('{role}', '{relation}', 'SELECT') OR "
                             f"has_any_column_privilege('{role}', '{relation}', 'SELECT')")
            assert (done == "t") == may, (role, relation)
    for forbidden in ("records", "devices", "timed_records", "analysis.change_page"):
        done = subprocess.run(["/usr/lib/postgresql/15/bin/psql", "-XAtq", "-d", fleet.conninfo, "-c",
                               f"SET ROLE reader; SELECT count(*) FROM {forbidden}"],
                              capture_output=True, text=True)
        assert "permission denied" in done.stderr, (forbidden, done)
    # No function lends its owner's rights, and no statistics of columns are shown.
    assert fleet.sql("SELECT count(*) FROM pg_proc WHERE prosecdef") == "0"
    fleet.sql("ANALYZE")
    assert fleet.sql("SET ROLE reader; SELECT DISTINCT schemaname FROM pg_stats WHERE schemaname NOT "
                     "IN ('pg_catalog', 'information_schema')") in ("", "figures")
    # A function of the reader's own sees what it is told, and neither it nor a plan anything below.
    seen = subprocess.run(
        ["/usr/lib/postgresql/15/bin/psql", "-XAtq", "-d", fleet.conninfo, "-c",
         "SET ROLE reader; CREATE FUNCTION pg_temp.look(name text) RETURNS boolean COST 0.0001 "
         "LANGUAGE plpgsql AS $$ BEGIN RAISE NOTICE 'saw %', name; RETURN true; END $$; "
         "SELECT count(*) FROM figures.devices_by_model WHERE pg_temp.look(name); "
         "EXPLAIN SELECT * FROM figures.devices_by_model WHERE pg_temp.look(name)"],
        capture_output=True, text=True)
    told = fleet.sql("SELECT name FROM figures.devices_by_model").splitlines()
    saw = re.findall("saw (.*)", seen.stderr)
    assert sorted(saw) == sorted(told), (saw, told)
    assert "Scan on devices_by_model" in seen.stdout and "records" not in seen.stdout, seen.stdout


def forgotten_is_gone(fleet, duckdb):
    """One device goes, the page falls silent about those that are left, and nothing comes back."""
    everything = f"read_parquet('{fleet.lake}/day=*/event=*/*.parquet', union_by_name = true)"
    name, number = fleet.sql("SELECT name, ('x' || left(name, 16))::bit(64)::bigint FROM devices "
                             "ORDER BY id LIMIT 1").split("|")
    assert int(duckdb.ask(f"SELECT count(*) FROM {everything} WHERE device = {number}")) > 0
    fleet.run("forget", name, "--database", fleet.conninfo, "--tombstones", fleet.folder / "gone")
    assert "rewritten" in fleet.export("--keep-figures").stdout
    assert fleet.sql("SELECT count(*) FROM figures.active_devices_by_day") != "0"
    assert int(duckdb.ask(f"SELECT count(*) FROM {everything} WHERE device = {number}")) == 0
    for path in fleet.lake.glob("day=*/_manifest.json"):
        manifest = json.loads(path.read_text())
        assert manifest["records"] == int(fleet.sql(
            f"SELECT count(*) FROM records WHERE day = '{manifest['day']}'")), path
    before = fleet.files()
    assert "rewritten" not in fleet.export().stdout
    assert fleet.files() == before
    for source in (("--from", fleet.lake), ("--database", fleet.conninfo)):
        page = fleet.report(*source)
        assert "Fewer than 20 devices" in page and "<canvas" not in page
    assert fleet.sql("SELECT count(*) FROM figures.active_devices_by_day") == "0"
    assert fleet.sql("SELECT count(*) FROM figures.devices_by_model") == "0"


def old_days_go(fleet):
    old = fleet.lake / "day=2001-01-01/event=missing"
    old.mkdir(parents=True)
    fleet.export()
    assert not old.parent.exists()


def main():
    with tempfile.TemporaryDirectory(prefix="usage_stat_lake.") as folder:
        fleet = Fleet(folder, 20)
        try:
            duckdb = DuckDb()
            days_are_whole_and_the_same_again(fleet, duckdb)
            same_values_everywhere(fleet, duckdb)
            both_sources_make_one_page(fleet)
            nothing_about_few(fleet)
            readers_reach_no_row(fleet)
            old_days_go(fleet)
            forgotten_is_gone(fleet, duckdb)
        finally:
            fleet.postgres.stop()


if __name__ == "__main__":
    main()

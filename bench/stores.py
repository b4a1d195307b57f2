"""Databases larger than any one person fills."""
import contextlib
import sqlite3
import struct
import subprocess

DAYS = 3660  # the most that usage-stat-sample makes
DAY_MS = 86_400_000


def fill(build, database, days, lives):
    """Puts one person's days into a database, over and over, each life behind the other."""
    subprocess.run([build / "tools/sample/usage-stat-sample", database, "--days", str(days)],
                   check=True)

    def later(datagram, ms):
        (at,) = struct.unpack_from("<q", datagram, 2)
        return datagram[:2] + struct.pack("<q", at + ms) + datagram[10:]

    with contextlib.closing(sqlite3.connect(database)) as connection:
        connection.create_function("later", 2, later, deterministic=True)
        last = connection.execute("SELECT max(id) FROM records").fetchone()[0]
        for life in range(1, lives):
            ms = life * days * DAY_MS
            connection.execute(
                "INSERT INTO records SELECT id + ?, received_ms, pid, uid, event, "
                "timestamp_ms + ?, fields, later(raw, ?) FROM records WHERE id <= ?",
                [life * last, ms, ms, last])
        # As if a collector had taken them in, and counted them.
        connection.execute("UPDATE tally SET count = count + ? WHERE outcome = 'stored'",
                           [(lives - 1) * last])
        connection.execute("UPDATE runs SET counted_record = ?", [lives * last])
        connection.commit()
        connection.execute("PRAGMA wal_checkpoint(TRUNCATE)")

#!/usr/bin/env python3
"""The fleet's side and the devices', with real brokers and databases.

Usage: fleet_test.py BUILD_FOLDER [CASE...]     all cases unless some are named
       fleet_test.py --names
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
        ("an old one that an ingester comes to late", old, STORED, 20, 16),
        ("an old question likewise", question(7, 10), CURSOR, 20, 16),
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
    assert rig.sql("SELECT forks FROM stores WHERE first = 1") == "2"
    assert rig.sql("SELECT level FROM devices") == "0", "of the last batch, not of a question"
    wire.ask(OTHER, old)
    assert rig.sql("SELECT count(DISTINCT device) FROM records") == "2", "names keep apart"
    wire.close()


def lazy_database(rig):
    """A database that would answer before its log is on the disk is asked to wait for that."""
    rig.sql("ALTER DATABASE fleet SET synchronous_commit = off")
    rig.ingester()
    rig.sql("CREATE TABLE waits(setting text);"
            "CREATE FUNCTION note() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN INSERT INTO waits "
            "VALUES(current_setting('synchronous_commit')); RETURN NULL; END $$;"
            "CREATE TRIGGER note AFTER INSERT ON stores EXECUTE FUNCTION note()")
    assert rigs.Wire(rig).ask(NAME, batch(1, 0, 3))[2] == STORED
    assert rig.sql("SELECT DISTINCT setting FROM waits") == "on"


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


def metrics(rig):
    """What Prometheus reads says what the balance says, and its file is replaced as a whole."""
    sys.path.append("/usr/lib/python3/dist-packages")  # of Debian, for a Python of another make
    from prometheus_client.parser import text_string_to_metric_families
    rig.ingester()
    wire = rigs.Wire(rig)
    wire.ask(NAME, batch(1, 0, 10, runs=[(3, 5, RETENTION)]))
    wire.ask(NAME, batch(2, 10, 20, kind=999, payload=b"new"))
    wire.ask(OTHER, b"nonsense")
    file = rig.folder / "fleet.prom"
    file.write_text("old")
    reader = open(file, encoding="utf-8")
    rig.fleet("metrics", "--output", file)
    assert reader.read() == "old" and file.stat().st_mode & 0o777 == 0o644
    samples = {}
    for family in text_string_to_metric_families(file.read_text()):
        for sample in family.samples:
            samples[sample.name, *sample.labels.values()] = sample.value
    for key, value in {("devices",): 2, ("numbers", "announced"): 20, ("numbers", "stored"): 7,
                       ("numbers", "quarantined"): 10, ("numbers", "missing: retention"): 3,
                       ("batches_total", "malformed"): 1, ("batches_total", "stored"): 2,
                       ("records_total",): 17, ("stores_unbalanced",): 0, ("hot_days",): 1,
                       ("hot_days_not_exported",): 0}.items():
        assert samples["usage_stat_fleet_" + key[0], *key[1:]] == value, (key, samples)
    assert rig.fleet("metrics").stdout.count("# TYPE") == len({name for name, *_ in samples})
    assert rig.fleet("metrics", "--output", "/nowhere/file", check=False).returncode == 1
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


def older_ingester(rig):
    """What an earlier version does not know waits in the quarantine for the next."""
    older = rig.ingester(program=rig.build / "fleet/ingest/usage-stat-fleet-older")
    one = device(rig)
    one.send()
    announced, stored, waiting, _ = balance(rig)
    assert stored > 0 and waiting > 0 and announced == 2001, (stored, waiting)
    assert "upgrade the ingester" in rig.fleet("doctor").stdout
    older.stop()
    rig.ingester(1)
    assert balance(rig)[1:3] == (stored + waiting, 0)
    holds_all([one])


def upgrade(rig):
    """Tables of the first version become those of today; those of a later one are left alone."""
    ingester = rig.ingester()
    wire = rigs.Wire(rig)
    wire.ask(NAME, batch(1, 0, 10))
    ingester.stop()
    rig.sql("ALTER TABLE stores DROP COLUMN recent; UPDATE fleet_schema SET version = 1")
    ingester = rig.ingester(1)
    assert wire.ask(NAME, batch(2, 10, 20))[2] == STORED
    assert balance(rig) == (20, 20, 0, 0)
    ingester.stop()
    rig.sql("UPDATE fleet_schema SET version = version + 1")
    refused = rig.fleet("forget", NAME, check=False)
    assert refused.returncode == 1 and "this program knows version" in refused.stderr
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
    refused = rig.fleet("forget", "\x1b[2J", check=False)
    assert refused.returncode == 2 and "\x1b" not in refused.stderr, "a terminal obeys it"
    wire.close()


def tombstones(rig):
    """The file of tombstones survives a full disk, is needed, and learns what the database knows."""
    rig.tombstones.write_text(NAME[:20])  # as a full disk leaves it
    rig.fleet("forget", NAME, "--tombstones", rig.tombstones)
    rig.fleet("forget", OTHER)
    ingester = rig.ingester()
    assert rig.tombstones.read_text().split() == [NAME[:20], NAME, OTHER]
    ingester.stop()
    rig.tombstones.unlink()
    rig.tombstones.mkdir()
    refused = rig.fleet("forget", NAME, "--tombstones", rig.tombstones, check=False)
    assert refused.returncode == 1 and "tombstones" in refused.stderr


def retirement(rig):
    """A day goes when it is old and exported as it is, and the balance still holds."""
    ingester = rig.ingester()
    wire = rigs.Wire(rig)
    wire.ask(NAME, batch(1, 0, 10))
    ingester.stop()
    for day, exported, more in (("2020-01-01", True, False), ("2020-01-02", False, False),
                                ("2020-01-03", True, True)):
        table = "records_" + day.replace("-", "")
        rig.sql(f"CREATE TABLE {table} PARTITION OF records FOR VALUES FROM ('{day}') TO "
                f"('{day}'::date + 1)")
        if exported:
            rig.sql(f"INSERT INTO exports VALUES('{day}', 0, 'manifest')")
        if more:
            rig.sql("UPDATE records SET day = '2020-01-03' WHERE number <= 5")
    rig.ingester(1)
    wire.ask(NAME, batch(2, 10, 20))
    assert rig.sql("SELECT count(*) FROM pg_inherits WHERE inhparent = 'records'::regclass") == "3"
    assert "days of records older than 30: 2" in rig.fleet("doctor").stdout
    assert balance(rig) == (20, 20, 0, 0)
    wire.close()


# ---- With devices ----


def device(rig, number=0, records=2000, **options):
    """A device with consent and some records."""
    made = rigs.Device(rig, number, **options)
    made.feed(rig.sample(), records)
    return made


def holds_all(devices):
    """Whether the fleet holds exactly what each of the devices may send."""
    for each in devices:
        expected, held = each.expected(), each.held()
        assert expected and expected == held, (len(expected), len(held),
                                               len(set(expected) ^ set(held)))


def visits(rig):
    """Both levels, what a preview shows, what a second visit finds, and when one is due."""
    rig.ingester()
    full, basic = device(rig), device(rig, 1, level="basic")
    preview = full.uplink("preview", "-o", "raw").stdout
    with rigs.Capture(rig, full.name) as capture:
        full.send()
        messages = capture.until(lambda all: len(all) > 1)
    assert preview in messages, "the preview shows the very bytes"
    basic.send()
    holds_all([full, basic])
    sent = rig.sql("SELECT sum(batches) FROM ingestion")
    full.send()
    assert rig.sql("SELECT sum(batches) FROM ingestion") == sent, "nothing waits, nobody calls"
    assert rig.sql("SELECT count(*) FROM records r JOIN devices d ON d.id = r.device WHERE "
                   f"d.name = '{basic.name}' AND time_ms % 3600000 <> 0") == "0"
    # Ten more are too few for a visit, until the last one is long ago.
    full.feed(rig.sample(), 10)
    full.uplink("send", "--config", full.config)
    assert len(full.held()) < len(full.expected())
    full.note("UPDATE visits SET last_success_ms = 1")
    full.note("UPDATE standing SET since_ms = 1")
    full.uplink("send", "--config", full.config)
    holds_all([full])
    assert balance(rig)[0] == 4012
    never = rigs.Device(rig, 2, level=None)
    before = sorted(never.state.rglob("*"))
    never.send()
    assert sorted(never.state.rglob("*")) == before, "without consent nothing is written"


def offline(rig):
    """Nothing listens: one connect a try, and a pause that grows, by chance and to a day at most."""
    one = device(rig)
    calls = []
    with rigs.socket.create_server(("127.0.0.1", 0)) as server:
        one.configure(port=server.getsockname()[1])

        def hang_up():
            while True:
                try:
                    calls.append(server.accept()[0].close())
                except OSError:
                    return

        rigs.threading.Thread(target=hang_up, daemon=True).start()
        pauses = []
        for tries in range(1, 15):
            assert one.uplink("send", "--config", one.config, check=False).returncode == 1
            assert one.uplink("send", "--config", one.config).returncode == 0, "the pause"
            assert len(calls) == tries, "one connect a try"
            pauses.append(one.note("SELECT next_ms - last_ms FROM visits"))
            one.note("UPDATE visits SET next_ms = 1")
        for tries, pause in enumerate(pauses):
            most = min(60_000 << min(tries, 11), 86_400_000)
            assert most // 2 <= pause <= most, (tries, pauses)
        assert len({pause * 60_000 // (60_000 << i) for i, pause in enumerate(pauses[:8])}) > 1, pauses
        server.shutdown(rigs.socket.SHUT_RDWR)
    assert one.note("SELECT count(*) FROM pending") == 0, "nothing is queued a second time"


def daily_bytes(rig):
    """What is sent on a day stays within its limit, also when the device is killed over and over."""
    rig.ingester()
    one = device(rig, batch_records=500)
    one.configure(daily_bytes=300_000)
    one.send()
    spent = one.note("SELECT sent_bytes FROM visits")
    one.feed(rig.sample(), 300)
    one.note("UPDATE visits SET sent_bytes = 299000")
    one.send()
    assert 0 < spent < 30_000 and one.note("SELECT sent_bytes FROM visits") <= 300_000
    assert len(one.held()) < len(one.expected())
    assert b"today's bytes are spent" in one.uplink("doctor", "--config", one.config).stdout
    one.note("UPDATE visits SET day = day - 1, next_ms = 1")
    one.uplink("send", "--config", one.config)
    holds_all([one])


def broker_loses_all(rig, program="usage-stat-uplink"):
    """A broker that acknowledged everything is killed and loses it: the fleet does not."""
    one = device(rig)
    one.uplink("send", "--now", "--config", one.config, check=False, program=program)
    rig.broker.server.kill()
    rig.broker.forget_everything()
    rig.broker.start()
    rig.ingester()
    one.uplink("send", "--now", "--config", one.config, check=False, program=program)
    holds_all([one])


def trusting_the_broker_loses(rig):
    """The same with an uplink that takes the broker's word, which must be seen to lose."""
    one = None
    try:
        broker_loses_all(rig, "usage-stat-uplink-trusting")
    except AssertionError as failure:
        expected, held, _ = failure.args[0]
        assert expected > 1900 and held == 0, failure
        return
    raise AssertionError("this rig would not see a loss")


def slow_ingester(rig):
    """An ingester that takes longer than the device waits: the same batch again, once there."""
    ingester = rig.ingester()
    one = device(rig, receipt_wait_s=1)
    ingester.process.send_signal(rigs.signal.SIGSTOP)
    for _ in range(3):
        assert one.send(check=False).returncode == 1
    assert b"no receipt" in one.uplink("doctor", "--config", one.config, check=False).stderr
    ingester.process.send_signal(rigs.signal.SIGCONT)
    rigs.wait_until(lambda: one.send(check=False).returncode == 0, "a good visit")
    holds_all([one])
    balance(rig)


def lowered_consent(rig):
    """What was drawn at full and not received leaves at basic, once consent is lowered."""
    one = device(rig, receipt_wait_s=1)
    one.uplink("preview", "-o", "raw")
    assert one.send(check=False).returncode == 1
    pending = one.note("SELECT hex(id) FROM pending")
    one.uplink("consent", "basic")
    rig.ingester()
    one.send()
    holds_all([one])
    assert rig.sql("SELECT DISTINCT level FROM records") == "1"
    one.feed(rig.sample(), 10)
    one.uplink("consent", "none")
    one.send()
    assert pending and rig.sql("SELECT count(*) FROM stores") == "1"
    assert one.uplink("forget") and one.send()
    assert rig.sql("SELECT count(*) FROM devices") == "0"
    assert not (one.state / "uplink.db").exists() or one.note(
        "SELECT count(*) FROM identity") == 0


def fleet_falls_back(rig):
    """The database is restored from an older dump: every device goes back to what it holds."""
    ingester = rig.ingester()
    one = device(rig)
    one.send()
    rig.postgres.dump("fleet", rig.folder / "dump")
    one.feed(rig.sample(), 2000)
    one.send()
    holds_all([one])
    ingester.stop()
    rig.postgres.restore("fleet", rig.folder / "dump")
    assert len(one.held()) < len(one.expected())
    one.feed(rig.sample(), 10)
    rig.ingester(1)
    one.send()
    holds_all([one])
    assert balance(rig)[0] == 4011


def copies(rig):
    """A restored backup and a cloned image: both are flagged, and nothing is lost."""
    rig.ingester()
    one = device(rig)
    one.send()
    one.collector.stop()
    backup = rig.folder / "backup"
    rigs.shutil.copytree(one.folder, backup)
    one.collect()
    one.feed(rig.sample(), 500)
    one.send()
    before = set(one.held())
    # The backup comes back and goes on with numbers that were used since.
    one.collector.stop()
    rigs.shutil.rmtree(one.folder)
    rigs.shutil.copytree(backup, one.folder)
    one.collect()
    one.feed(rig.sample(2, seed=7))
    one.send()
    held = one.held()
    payloads = lambda rows: sorted(row.split(" ")[2] for row in rows)
    assert before <= set(held) and len(held) == len(set(held))
    new = set(held) - before
    assert payloads(new) == payloads(row for row in one.expected() if int(row.split()[1]) > 2001)
    assert rig.sql("SELECT count(*) FROM stores WHERE forks > 0") == "1"
    assert "copies are about: 1" in rig.fleet("doctor").stdout
    # An image of another device is put on two, and both go on.
    first = device(rig, 1)
    first.send()
    first.collector.stop()
    common = first.count()
    second = rigs.Device(rig, 2, level=None)
    second.collector.stop()
    for file in (rigs.pathlib.Path("records.db"), rigs.pathlib.Path("state/uplink.db")):
        rigs.shutil.copy(first.folder / file, second.folder / file)
    for seed, clone in enumerate((first, second), 7):
        clone.collect()
        clone.feed(rig.sample(2, seed=seed))
    first.send()
    second.send()
    held = first.held()
    assert len(held) == len(set(held))
    own = [row for row in second.expected() if int(row.split(" ")[1]) > common]
    assert own and payloads(held) == payloads(first.expected() + own), "nothing lost"
    assert "copies are about: 2" in rig.fleet("doctor").stdout
    balance(rig)


def numbers_given_again(rig):
    """A power cut takes numbers that were uploaded: they come again as another store's."""
    rig.ingester()
    one = device(rig)
    one.send()
    before = set(one.held())
    one.collector.kill()
    one.query("DELETE FROM records WHERE id > 1900")
    one.collect()
    one.feed(rig.sample(2, seed=7))
    one.send()
    expected, held = set(one.expected()), set(one.held())
    assert before <= held and expected <= held and held - expected <= before
    assert len(one.held()) == len(held)
    assert int(rig.sql("SELECT count(*) FROM stores")) > 1
    balance(rig)


def power_cut_in_flight(rig):
    """A power cut takes the newest numbers while they are on their way, and they are given again."""
    one = device(rig)
    one.uplink("preview", "-o", "raw")
    assert one.note("SELECT through FROM pending") == 2001
    one.collector.kill()
    one.query("DELETE FROM records WHERE id > 1900")
    one.collect()
    one.feed(rig.sample(2, seed=7))
    rig.ingester()
    one.send()
    holds_all([one])
    assert rig.sql("SELECT first, last FROM missing WHERE reason = 'unreadable'").endswith("|2001")
    assert rig.sql("SELECT count(*) FROM stores") == "2"
    balance(rig)


def what_is_gone(rig):
    """Retention takes unsent records, and an archive can't be read: both are declared."""
    rig.ingester()
    one = device(rig)
    one.collector.stop()
    one.query("DELETE FROM records WHERE id <= 1001")
    one.query("INSERT INTO missing VALUES(1, 1001, 'retention')")
    one.query("DELETE FROM records WHERE id BETWEEN 1501 AND 1600")
    one.query("INSERT INTO archives(path, state, schema, created_ms, first_record, last_record, "
              "records, first_timestamp_ms, last_timestamp_ms, bytes) VALUES("
              "'/nowhere/gone.zst', 'complete', 2, 1, 1501, 1600, 100, 0, 9000000000000, 1)")
    one.collect()
    one.send()
    holds_all([one])
    gone = rig.sql("SELECT reason, sum(last - first + 1) FROM missing WHERE reason <> 'withheld' "
                   "GROUP BY reason ORDER BY reason")
    assert gone == "retention|1000\nunreadable|100", gone
    balance(rig)


def retention_meanwhile(rig):
    """Retention deletes, sent or not, while visits go on: what was missed is declared."""
    rig.ingester()
    one = rigs.Device(rig, 0, batch_records=300)
    one.collector.stop()
    one.collector.command += ["--max-size", "1M"]
    one.collect()
    for round in range(10):
        one.feed(rig.sample(90))
        if round % 3 == 1:
            one.send()
    rigs.wait_until(lambda: one.query("SELECT count(*) FROM missing"), "the retention")
    one.send()
    held = one.held()
    assert set(one.expected()) <= set(held) and len(held) == len(set(held))
    gone = int(rig.sql("SELECT coalesce(sum(last - first + 1), 0) FROM missing "
                       "WHERE reason = 'retention'"))
    announced, stored, _, missing = balance(rig)
    assert gone > 1000 and missing >= gone and announced == one.count() == stored + missing, gone


def only_reading(rig):
    """A user who may read database and archives and nothing else brings all of them to the fleet."""
    if rigs.os.geteuid() != 0:
        return
    rig.ingester()
    one = device(rig)
    rigs.subprocess.run([rig.build / "tools/inspector/usage-stat", "archive", "--database",
                         one.database], check=True, capture_output=True)
    one.feed(rig.sample(), 500)
    for path in (one.folder, *one.folder.rglob("*")):
        path.chmod(0o755 if path.is_dir() else 0o644)
    for path in (one.state, one.state / "uplink.db"):
        rigs.shutil.chown(path, "daemon", "daemon")
    def shape():
        return sorted((path, path.stat().st_mtime_ns, path.stat().st_size)
                      for path in one.folder.rglob("*") if one.state not in (path, *path.parents)
                      and not path.name.endswith(".log") and not path.name.endswith("-shm"))
    before = shape()
    assert any(path.suffix == ".zst" for path, *_ in before)
    one.send()
    holds_all([one])
    assert shape() == before
    one.collector.stop()
    one.note("UPDATE cursors SET cursor = 0")
    before = shape()
    assert one.send(check=False).returncode == 0
    assert shape() == before


def old_receipts(rig):
    """Receipts that a broker kept, or that answer something else, move nothing."""
    one = device(rig, receipt_wait_s=2)
    one.uplink("preview", "-o", "raw")
    pending, store = (bytes.fromhex(one.note(f"SELECT hex({column}) FROM pending"))
                      for column in ("id", "store"))
    wire = rigs.Wire(rig)
    for id in (identity(1), pending):
        receipt = b"USR\1" + id + bytes([STORED]) + store + number(1900)
        wire.send(one.name, receipt, retain=True, topic="down")
    assert one.send(check=False).returncode == 1
    assert one.note("SELECT count(*) FROM pending") == 1
    rig.ingester()
    one.send()
    holds_all([one])
    wire.close()


def refusals(rig):
    """A batch that is refused three times is tried once a day, and one that comes too early later."""
    one = device(rig)
    for answer, after in ((LATER, 0), (REFUSED, 1), (REFUSED, 2), (REFUSED, 3)):
        with rigs.Answers(rig, one.name, answer, first=CURSOR):
            assert one.send(check=False).returncode == 1
        assert one.note("SELECT refusals FROM pending") == after
    wait_ms = one.note("SELECT next_ms - last_ms FROM visits")
    assert wait_ms == 86_400_000, wait_ms
    assert b"refuses" in one.uplink("doctor", "--config", one.config, check=False).stderr
    rig.ingester()
    one.send()
    holds_all([one])


def denied(rig):
    """A broker whose rules deny the topic: no receipt, the cursor stays, the doctor says so."""
    rig.broker.server.kill()
    (rig.folder / "acl").write_text("topic read usage/1/+/down\n")
    with open(rig.folder / "mosquitto.conf", "a") as config:
        config.write(f"acl_file {rig.folder}/acl\n")
    rig.broker.start()
    one = device(rig, receipt_wait_s=1)
    assert one.send(check=False).returncode == 1
    assert one.note("SELECT count(*) FROM cursors") == 0
    assert b"does not let our batches through" in one.uplink("doctor", "--config", one.config,
                                                             check=False).stderr


def many(rig):
    """200 devices and two ingesters: everything adds up, and nobody starves."""
    for number_of in range(2):
        rig.ingester(number_of)
    done = rigs.subprocess.run([rig.build / "fleet/fleet_load", str(rig.broker.port), "200",
                                "3", "50"], capture_output=True, text=True)
    assert done.returncode == 0, done.stderr
    assert balance(rig) == (30_000, 30_000, 0, 0)
    assert rig.sql("SELECT count(*) FROM devices d JOIN stores s ON s.device = d.id "
                   "WHERE s.stored = 150") == "200"
    assert rig.sql("SELECT sum(forks) FROM stores") == "0", "who comes late takes nobody for a copy"


# ---- With certificates, on a broker as it is shipped ----


def secure_device(rig, records=2000, **options):
    """A device with a certificate that it asked for itself."""
    one = device(rig, records=records, ca=rig.broker.authority.certificate, **options)
    assert one.certify(rig.broker.authority).returncode == 0
    return one


def certificates(rig):
    """A device asks for its certificate, checks what it gets, and renews it before it expires."""
    rig.ingester()
    one = device(rig, ca=rig.broker.authority.certificate)
    config = ("--config", one.config)
    authority, key = rig.broker.authority, one.state / "device.key"

    def refuses(text, *words):
        done = one.uplink(*(words or ("send", "--now")), *config, check=False)
        assert done.returncode == 1 and text in done.stderr, (text, done.stderr)

    refuses(b"there is no certificate")
    assert one.certify(authority).returncode == 0
    assert key.stat().st_mode & 0o777 == 0o600
    own_key = key.read_bytes()
    refuses(b"need not be renewed", "csr", "--if-due")
    one.send()
    holds_all([one])
    assert b"certificate   of " + one.name.encode() in one.uplink("doctor", *config).stdout
    # What is not ours stays outside, and what is in place stays there.
    for words in (authority.sign(OTHER)[0], rig.folder / "ca.key", "/dev/null"):
        assert one.uplink("certificate", words, *config, check=False).returncode == 1
    one.send()
    assert b"has expired" in one.certify(authority, days=-1).stderr
    # Ten days are few: the device says so, and goes on.
    assert one.certify(authority, days=10).returncode == 0
    refuses(b"expires at", "doctor")
    assert b"renew it" in one.send().stderr
    assert one.uplink("csr", "--if-due", *config).stdout.startswith(b"-----BEGIN CERTIFICATE REQ")
    assert one.certify(authority, days=300).returncode == 0 and key.read_bytes() == own_key
    one.feed(rig.sample(), 500)
    # A certificate of another, an expired one, and one that begins later than the clock shows.
    mine = one.state / "device.pem"
    for given, text in ((authority.sign(OTHER)[0], b"the certificate is that of"),
                        (authority.certify(one.folder / "device.csr", rig.folder / "old.pem", -1),
                         b"has expired")):
        rigs.shutil.copy(given, mine)
        refuses(text)
        refuses(text, "doctor")
    assert one.certify(authority).returncode == 0
    program = rigs.pathlib.Path(one.command()[0])
    # What tells another time is loaded before the sanitizer, and both wait for each other.
    is_sanitized = b"__asan_init" in program.read_bytes()
    for when, text in (("1970-01-02", b"was not set"), ("2021-01-01", b"holds from")):
        if is_sanitized:
            continue
        done = rigs.subprocess.run(["faketime", when, *one.command("send", "--now", *config)],
                                   capture_output=True, timeout=60)
        assert done.returncode == 1 and text in done.stderr and b"waiting" in done.stderr, done.stderr
    one.send()
    holds_all([one])


def small_authority(rig):
    """The authority that is shipped: a name belongs to one key, and a revoked one is on the list."""
    folder = rig.folder / "authority"

    def run(*words, stdin=b""):
        return rigs.subprocess.run([rigs.SOURCE / "packaging/mosquitto/usage-stat-authority", folder,
                                    *words], input=stdin, capture_output=True)

    def request(name):
        return rigs.subprocess.run(
            ["openssl", "req", "-new", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
             "-nodes", "-keyout", "/dev/null", "-subj", f"/CN={name}"],
            capture_output=True, check=True).stdout

    for words in ((), ("broker",), ("begin",)):
        done = run(*words)
        assert done.returncode == 2 and b"FOLDER init" in done.stderr, done
    for words in (("init",), ("broker", "127.0.0.1"), ("ingester",)):
        assert run(*words).returncode == 0, words
    one = device(rig, records=10, ca=folder / "ca.pem")
    own = one.uplink("csr", "--config", one.config).stdout
    for _ in range(2):
        given = rig.folder / "given.pem"
        given.write_bytes(run("device", stdin=own).stdout)
        one.uplink("certificate", given, "--config", one.config)
    for stdin, text in ((request(one.name), b"was given to another key"), (b"x", b"no request"),
                        (request("usage-stat-fleet"), b"no device's name")):
        done = run("device", stdin=stdin)
        assert done.returncode == 1 and not done.stdout and text in done.stderr, done
    # The broker's side, with all of it.
    rig.broker.server.stop()
    config = rig.folder / "mosquitto.conf"
    text = config.read_text()
    for line in text.splitlines():
        key = line.split(" ")[0]
        file = {"cafile": "ca.pem", "certfile": "broker.pem", "keyfile": "broker.key",
                "crlfile": "revoked.pem"}.get(key)
        if file:
            text = text.replace(line, f"{key} {folder / file}")
    config.write_text(text)
    rig.broker.start()
    rig.broker.credentials = lambda name: {"ca": folder / "ca.pem", "key": folder / "ingester.key",
                                           "certificate": folder / "ingester.pem"}
    rig.ingester()
    one.send()
    holds_all([one])
    one.feed(rig.sample(), 10)
    short = ["openssl", "ca", "-config", folder / "ca.conf", "-gencrl", "-crlsec", "1", "-out",
             folder / "revoked.pem"]
    # Revoked; nobody revoked, but the list expires; nobody revoked.
    for make, code in ((lambda: run("revoke", one.name), 1),
                       (lambda: rigs.subprocess.run(short, capture_output=True), 1),
                       (lambda: run("list"), 0)):
        assert make().returncode == 0
        (folder / "index.txt").write_text("")
        reloads = rig.broker.server.log.read_text().count("Reloading config")
        rig.broker.server.process.send_signal(rigs.signal.SIGHUP)
        rigs.wait_until(lambda: rig.broker.server.log.read_text().count("Reloading config") > reloads,
                        "the broker")
        rigs.time.sleep(2)  # the short list has expired by then
        assert one.send(check=False).returncode == code
    holds_all([one])


def strangers(rig):
    """Who is not who it says gets nothing through, and is told so on both sides."""
    rig.ingester()
    one = secure_device(rig, receipt_wait_s=1)
    authority = rig.broker.authority
    foreign = rigs.Authority(rig.folder, "foreign")
    own, other = rig.broker.credentials(one.name), rig.broker.credentials(OTHER)
    expired = rig.broker.credentials(one.name, days=-1)
    revoked = rig.broker.credentials(one.name, days=20)
    stranger = dict(zip(("certificate", "key"), foreign.sign(one.name)))

    def publish(with_, *words, name=one.name):
        command = ["mosquitto_pub", "-h", "127.0.0.1", "-p", str(rig.broker.port), "-q", "1", "-t",
                   f"usage/1/{name}/up", *(words or ("-m", "x"))]
        for option, key in (("--cafile", "ca"), ("--cert", "certificate"), ("--key", "key")):
            if key in with_:
                command += [option, with_[key]]
        return rigs.subprocess.run(command, capture_output=True, text=True, timeout=20)

    def log():
        return rig.broker.server.log.read_text(errors="replace")

    elsewhere = {"name": OTHER}  # denied, but the broker doesn't say so to whom it has let in
    assert publish(revoked, **elsewhere).returncode == 0
    authority.revoke(revoked["certificate"])
    rig.broker.server.process.send_signal(rigs.signal.SIGHUP)
    rigs.wait_until(lambda: "Reloading config" in log(), "the broker")
    assert publish(own, **elsewhere).returncode == 0
    assert publish(revoked, **elsewhere).returncode != 0, "a hangup is enough for a new list"
    big = rig.folder / "big"
    big.write_bytes(bytes(400_000))
    rig.broker.server.stop()
    rig.broker.start()
    rigs.wait_until(lambda: rig.fleet("status").returncode == 0, "the ingester")
    for what, done, said in [
        ("no TLS", publish({}), "wrong version number"),
        ("no certificate", publish({"ca": own["ca"]}), "peer did not return a certificate"),
        ("a foreign authority's", publish(own | stranger), "certificate verify failed"),
        ("an expired one", publish(expired), "certificate verify failed"),
        ("a revoked one", publish(revoked), "certificate verify failed"),
        ("too large a packet", publish(own, "-f", big), "oversize"),
    ]:
        assert done.returncode != 0 and done.stderr, (what, done)
        assert said in log(), (what, log()[-2000:])
    # The broker takes a client for what its certificate says, whatever id it claims.
    publish(other, "-i", one.name, "-m", "x")
    assert f"as {OTHER}" in log() and f"as {one.name}" not in log().split(f"as {OTHER}")[1]
    publish(other, name=one.name)
    assert rig.sql("SELECT count(*) FROM devices") == "0", "another device's topic"
    # The device's own words.
    for files, text in ((stranger, "unknown ca"), (revoked, "certificate revoked"), (own, "")):
        for file, key in (("device.pem", "certificate"), ("device.key", "key")):
            rigs.shutil.copy(files[key], one.state / file)
        for words in (("send", "--now"), ("doctor",)):
            done = one.uplink(*words, "--config", one.config, check=False)
            said = done.stderr.decode()
            assert done.returncode == (1 if text else 0), (text, said)
            assert text in said or "may not take our certificate" in said, (text, said)
    holds_all([one])


def forgotten_device(rig):
    """A request to be forgotten outlives a certificate, and takes name, key and certificate along."""
    rig.ingester()
    one = secure_device(rig)
    one.send()
    name = one.name
    rigs.shutil.copy(rig.broker.authority.certify(one.folder / "device.csr", rig.folder / "old.pem",
                                                  -1), one.state / "device.pem")
    one.uplink("forget")
    for words in (("send", "--now"), ("doctor",)):
        done = one.uplink(*words, "--config", one.config, check=False)
        assert done.returncode == 1 and b"request to be forgotten waits" in done.stderr, done
    assert name.encode() in done.stderr, "what operators need"
    assert rig.sql("SELECT count(*) FROM devices") == "1"
    assert one.certify(rig.broker.authority).returncode == 0
    # Killed after the answer, before everything was destroyed.
    one.note("CREATE TABLE forgotten(one INTEGER PRIMARY KEY)")
    (one.state / "device.key").unlink()
    one.send()
    assert list(one.state.iterdir()) == []
    rig.fleet("forget", name, "--tombstones", rig.tombstones)
    assert rig.sql("SELECT count(*) FROM devices") == "0"
    # Once more, without accidents; the device may begin anew, under another name.
    one.uplink("consent", "full")
    one.feed(rig.sample(), 100)
    assert one.name != name and one.certify(rig.broker.authority).returncode == 0
    one.send()
    assert rig.sql("SELECT name FROM devices") == one.name
    one.uplink("forget")
    one.send()
    assert list(one.state.iterdir()) == [] and rig.sql("SELECT count(*) FROM devices") == "0"
    assert b"no consent" in one.uplink("doctor", "--config", one.config).stdout


def weight(rig):
    """A visit of 520 records with mutual TLS takes 6 kB at most, both ways together."""
    rig.ingester()
    one = secure_device(rig, records=520)
    meter = rigs.Meter(rig.broker.port)
    one.configure(port=meter.port)
    one.send()
    holds_all([one])
    sent = rig.sql("SELECT count(*) FROM records")
    print(f"a visit of {sent} records: {meter.bytes} bytes", flush=True)
    assert 0 < meter.bytes <= 6000


SECURE = [certificates, small_authority, strangers, forgotten_device, weight]
CASES = [cursor_rules, lazy_database, hostile_batches, metrics, quarantine, older_ingester, clocks,
         masks, forgetting, tombstones, retirement, upgrade, visits, offline, daily_bytes,
         broker_loses_all, trusting_the_broker_loses, slow_ingester, lowered_consent,
         fleet_falls_back, copies, numbers_given_again, power_cut_in_flight, what_is_gone,
         retention_meanwhile, only_reading, old_receipts, refusals, denied, many] + SECURE


def main():
    if sys.argv[1] == "--names":
        print(";".join(case.__name__ for case in CASES))
        return
    build, wanted = sys.argv[1], sys.argv[2:]
    for case in CASES:
        if wanted and case.__name__ not in wanted:
            continue
        broker = rigs.SecureMosquitto if case in SECURE else rigs.Mosquitto
        with rigs.Rig(build, broker) as rig:
            case(rig)
        print(f"{case.__name__}: {case.__doc__}", flush=True)


main()

"""Real brokers, databases, ingesters and devices for one test, private and on the loopback."""
import contextlib
import os
import pathlib
import pwd
import queue
import shutil
import signal
import socket
import sqlite3
import subprocess
import sys
import tempfile
import threading
import time

SOURCE = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(SOURCE / "tests/vectors/batch"))
PATIENCE = 30  # seconds for what must happen; nothing is said about how soon


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_until(condition, what, seconds=PATIENCE):
    end = time.monotonic() + seconds
    while not (result := condition()):
        assert time.monotonic() < end, f"waited in vain for {what}"
        time.sleep(0.02)
    return result


# Whoever ends a test ends what it started, too.
signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))


class Process:
    """A program that is started, killed and started again; what it prints goes to a file."""

    def __init__(self, folder, name, command, **options):
        self.command, self.options = [str(part) for part in command], options
        self.log = pathlib.Path(folder) / f"{name}.log"
        self.process = None

    def start(self):
        assert not self.is_running()
        with open(self.log, "ab") as log:
            self.process = subprocess.Popen(self.command, stdout=log, stderr=log,
                                            stdin=subprocess.DEVNULL, **self.options)
        return self

    def is_running(self):
        return self.process is not None and self.process.poll() is None

    def stop(self, sig=signal.SIGTERM):
        if self.is_running():
            self.process.send_signal(sig)
            self.process.wait()

    def kill(self):
        self.stop(signal.SIGKILL)

    def says(self, text):
        return self.log.exists() and text in self.log.read_text(errors="replace")


class Postgres:
    """A cluster of its own. It refuses to run as root, so root becomes the user postgres."""

    BIN = pathlib.Path("/usr/lib/postgresql/15/bin")

    def __init__(self, folder, durable=False):
        self.folder = pathlib.Path(folder) / "postgres"
        self.folder.mkdir()
        self.user = "postgres" if os.geteuid() == 0 else pwd.getpwuid(os.geteuid()).pw_name
        self.prefix = []
        if os.geteuid() == 0:
            shutil.chown(self.folder, self.user)
            for parent in (self.folder.parent, *self.folder.parent.parents):
                if parent == pathlib.Path(tempfile.gettempdir()):
                    break
                parent.chmod(0o755)
            self.prefix = ["runuser", "-u", self.user, "--"]
        subprocess.run(self.prefix + [self.BIN / "initdb", "-D", self.folder / "data", "-A", "trust",
                                      "--no-sync", "-E", "UTF8", "--locale=C.UTF-8"],
                       check=True, stdout=subprocess.DEVNULL, cwd="/")
        settings = [f"unix_socket_directories={self.folder}", "listen_addresses=",
                    f"fsync={'on' if durable else 'off'}", "max_connections=50"]
        command = self.prefix + [self.BIN / "postgres", "-D", self.folder / "data"]
        for setting in settings:
            command += ["-c", setting]
        self.server = Process(folder, "postgres", command, cwd="/")
        self.start()

    def start(self):
        self.server.start()
        wait_until(lambda: self.psql("SELECT 1", database="postgres", check=False) == "1", "PostgreSQL")

    def stop(self, mode="immediate"):
        subprocess.run(self.prefix + [self.BIN / "pg_ctl", "-D", self.folder / "data", "-m", mode,
                                      "stop"], check=True, stdout=subprocess.DEVNULL, cwd="/")
        self.server.process.wait()

    def conninfo(self, database):
        return f"host={self.folder} user={self.user} dbname={database}"

    def psql(self, sql, database="fleet", check=True):
        done = subprocess.run(["/usr/lib/postgresql/15/bin/psql", "-XAtq", "-v", "ON_ERROR_STOP=1",
                               "-d", self.conninfo(database), "-c", sql],
                              capture_output=True, text=True)
        assert not check or done.returncode == 0, done.stderr
        return done.stdout.rstrip("\n")

    def create(self, database):
        self.psql(f"CREATE DATABASE {database}", database="postgres")

    def dump(self, database, path):
        subprocess.run([self.BIN / "pg_dump", "-Fc", "-d", self.conninfo(database), "-f", path],
                       check=True)

    def restore(self, database, path):
        self.psql(f"DROP DATABASE {database} WITH (FORCE)", database="postgres")
        self.create(database)
        subprocess.run([self.BIN / "pg_restore", "-d", self.conninfo(database), path], check=True)


class Mosquitto:
    shares_subscriptions = True

    def __init__(self, folder, extra=""):
        self.port = free_port()
        self.state = pathlib.Path(folder) / "mosquitto"
        self.state.mkdir(exist_ok=True)
        user = "user root\n" if os.geteuid() == 0 else ""
        config = pathlib.Path(folder) / "mosquitto.conf"
        config.write_text(f"{user}listener {self.port} 127.0.0.1\nallow_anonymous true\n"
                          f"persistence true\npersistence_location {self.state}/\n"
                          f"max_packet_size 300000\nset_tcp_nodelay true\n{extra}")
        self.server = Process(folder, "mosquitto", ["mosquitto", "-c", config])
        self.start()

    def start(self):
        self.server.start()
        wait_until(lambda: listens(self.port), "the broker")

    def forget_everything(self):
        for file in self.state.iterdir():
            file.unlink()


class Authority:
    """Who signs certificates."""

    def __init__(self, folder, name="ca"):
        self.folder, self.name = pathlib.Path(folder), name
        self.openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                     "-keyout", self.folder / f"{name}.key", "-out", self.certificate, "-subj",
                     f"/CN={name}", "-days", "30")

    @property
    def certificate(self):
        return self.folder / f"{self.name}.pem"

    @staticmethod
    def openssl(*words):
        subprocess.run(["openssl", *words], check=True, capture_output=True)

    def certify(self, request, certificate, days=90):
        """A certificate for whatever the request asks; one that has expired for negative days."""
        extensions = self.folder / "extensions"
        extensions.write_text("subjectAltName=IP:127.0.0.1\n")
        self.openssl("x509", "-req", "-in", request, "-CA", self.certificate, "-CAkey",
                     self.folder / f"{self.name}.key", "-CAcreateserial", "-out", certificate,
                     "-days", str(days), "-extfile", extensions)
        return certificate

    def sign(self, common_name, days=90):
        """Certificate and key of a name."""
        path = self.folder / f"{self.name}.{common_name}.{days}"
        key, request, certificate = (path.with_name(path.name + end)
                                     for end in (".key", ".csr", ".pem"))
        self.openssl("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                     "-keyout", key, "-out", request, "-subj", f"/CN={common_name}")
        return self.certify(request, certificate, days), key

    def revoke(self, *certificates):
        """Writes the list of those that are revoked."""
        config, index = self.folder / "ca.conf", self.folder / "index.txt"
        config.write_text(f"[ca]\ndefault_ca=ours\n[ours]\ndatabase={index}\n"
                          "default_md=sha256\ndefault_crl_days=30\n")
        index.touch()
        words = ["ca", "-config", config, "-cert", self.certificate, "-keyfile",
                 self.folder / f"{self.name}.key"]
        for certificate in certificates:
            self.openssl(*words, "-revoke", certificate)
        self.openssl(*words, "-gencrl", "-out", self.folder / "revoked.pem")
        return self.folder / "revoked.pem"


class SecureMosquitto(Mosquitto):
    """As operators run it, with the very files that are shipped."""

    def __init__(self, folder):
        self.port = free_port()
        self.authority = Authority(folder)
        certificate, key = self.authority.sign("broker")
        shipped = SOURCE / "packaging/mosquitto"
        text = (shipped / "usage-stat.conf").read_text()
        for ours, theirs in (("8883", f"{self.port} 127.0.0.1"),
                             ("crlfile /etc/mosquitto/usage-stat/revoked.pem",
                              f"crlfile {self.authority.revoke()}"),
                             ("/etc/mosquitto/usage-stat/ca.pem", self.authority.certificate),
                             ("/etc/mosquitto/usage-stat/broker.pem", certificate),
                             ("/etc/mosquitto/usage-stat/broker.key", key),
                             ("/etc/mosquitto/usage-stat", shipped)):
            text = text.replace(ours, str(theirs))
        config = pathlib.Path(folder) / "mosquitto.conf"
        config.write_text(("user root\n" if os.geteuid() == 0 else "") + text)
        self.server = Process(folder, "mosquitto", ["mosquitto", "-c", config],
                              env=os.environ | {"OPENSSL_CONF": shipped / "usage-stat-openssl.cnf"})
        self.start()

    def credentials(self, name, days=90):
        certificate, key = self.authority.sign(name, days)
        return {"ca": self.authority.certificate, "certificate": certificate, "key": key}


class Nats:
    shares_subscriptions = False

    def __init__(self, folder):
        self.port = free_port()
        self.state = pathlib.Path(folder) / "nats"
        config = pathlib.Path(folder) / "nats.conf"
        config.write_text(f'server_name: one\nhost: 127.0.0.1\nport: {free_port()}\n'
                          f'jetstream {{ store_dir: "{self.state}" }}\n'
                          f'mqtt {{ host: 127.0.0.1, port: {self.port} }}\n')
        self.server = Process(folder, "nats", ["nats-server", "-c", config])
        self.start()

    def start(self):
        self.server.start()
        wait_until(lambda: listens(self.port), "the broker")

    def forget_everything(self):
        shutil.rmtree(self.state, ignore_errors=True)


class Meter:
    """Stands between a device and the broker and counts what passes, both ways."""

    def __init__(self, port):
        self.bytes = 0
        self.server = socket.create_server(("127.0.0.1", 0))
        self.port = self.server.getsockname()[1]
        self.to = port
        threading.Thread(target=self.run, daemon=True).start()

    def run(self):
        while True:
            here, there = self.server.accept()[0], socket.create_connection(("127.0.0.1", self.to))
            for pair in ((here, there), (there, here)):
                threading.Thread(target=self.pass_on, args=pair, daemon=True).start()

    def pass_on(self, source, sink):
        with contextlib.suppress(OSError):
            while data := source.recv(65536):
                self.bytes += len(data)
                sink.sendall(data)
            sink.shutdown(socket.SHUT_WR)


def listens(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


class Wire:
    """A bare client of the broker, for messages that no device of ours would send."""

    def __init__(self, rig):
        self.rig = rig
        self.listener = subprocess.Popen(
            ["stdbuf", "-oL", "mosquitto_sub", "-p", str(rig.broker.port), "-q", "1", "-t", "usage/1/+/down", "-F",
             "%t %x", "-d"], stdout=subprocess.PIPE, text=True)
        rig.cleanup.callback(self.close)
        self.lines = queue.Queue()
        threading.Thread(target=self.listen, daemon=True).start()
        while "received SUBACK" not in self.lines.get(timeout=PATIENCE):
            pass

    def listen(self):
        for line in self.listener.stdout:
            self.lines.put(line)

    def send(self, name, message, retain=False, topic="up"):
        with tempfile.NamedTemporaryFile() as file:
            file.write(message)
            file.flush()
            subprocess.run(["mosquitto_pub", "-p", str(self.rig.broker.port), "-q", "1", "-t",
                            f"usage/1/{name}/{topic}", "-f", file.name] + ["-r"] * retain, check=True)

    def receipt(self):
        """The next receipt: name, batch, answer, store, cursor."""
        while True:
            line = self.lines.get(timeout=PATIENCE)
            if line.startswith("usage/1/"):
                break
        topic, payload = line.split()
        data = bytes.fromhex(payload)
        assert data[:4] == b"USR\1", data
        cursor = sum((byte & 0x7F) << 7 * i for i, byte in enumerate(data[37:]))
        return topic.split("/")[2], data[4:20], data[20], data[21:37], cursor

    def ask(self, name, message):
        self.send(name, message)
        return self.receipt()

    def close(self):
        self.listener.kill()
        self.listener.wait()


class Capture:
    """What one device sends, as the broker gives it to whoever asks."""

    def __init__(self, rig, name, topic="up"):
        self.messages = []
        self.process = subprocess.Popen(
            ["stdbuf", "-oL", "mosquitto_sub", "-p", str(rig.broker.port), "-q", "1", "-d", "-t",
             f"usage/1/{name}/{topic}", "-F", "=%x"], stdout=subprocess.PIPE, text=True)
        self.ready = threading.Event()
        threading.Thread(target=self.listen, daemon=True).start()
        assert self.ready.wait(PATIENCE)

    def listen(self):
        for line in self.process.stdout:
            if "received SUBACK" in line:
                self.ready.set()
            if line.startswith("="):
                self.take(bytes.fromhex(line[1:]))

    def take(self, message):
        self.messages.append(message)

    def until(self, condition):
        wait_until(lambda: condition(self.messages), "messages")
        return self.messages

    def __enter__(self):
        return self

    def __exit__(self, *error):
        self.process.kill()
        self.process.wait()


class Answers(Capture):
    """A fleet that answers questions with `first` and all else with `answer`."""

    def __init__(self, rig, name, answer, first):
        self.rig, self.name, self.answers = rig, name, [first, answer]
        super().__init__(rig, name)

    def take(self, message):
        super().take(message)
        answer = self.answers[min(len(self.messages), len(self.answers)) - 1]
        # Who can't read a batch answers without its ids; the question's own are in the notes.
        batch, store = bytes(16), bytes(16)
        if answer == 1:
            content = subprocess.run(["zstd", "-dc"], input=message[4:], capture_output=True).stdout
            batch, store = content[:16], content[16:32]
        receipt = b"USR\1" + batch + bytes([answer]) + store + b"\0"
        with tempfile.NamedTemporaryFile() as file:
            file.write(receipt)
            file.flush()
            subprocess.run(["mosquitto_pub", "-p", str(self.rig.broker.port), "-q", "1", "-t",
                            f"usage/1/{self.name}/down", "-f", file.name], check=True)


class Rig:
    """Everything for one test, in one folder that goes with it."""

    def __init__(self, build, broker=Mosquitto, durable=False):
        self.build = pathlib.Path(build).resolve()
        self.cleanup = contextlib.ExitStack()
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="usage_stat_fleet."))
        self.cleanup.callback(shutil.rmtree, self.folder, ignore_errors=True)
        self.processes = []
        try:
            self.postgres = Postgres(self.folder, durable)
            self.postgres.create("fleet")
            self.broker = broker(self.folder)
        except BaseException:
            self.close()
            raise
        self.tombstones = self.folder / "forgotten"

    def __enter__(self):
        return self

    def __exit__(self, *error):
        if error[0]:
            for log in sorted(self.folder.glob("*.log")):
                print(f"==== {log.name}\n{log.read_text(errors='replace')[-3000:]}", file=sys.stderr)
        self.close()

    def close(self):
        for process in reversed(self.processes):
            process.kill()
        if hasattr(self, "broker"):
            self.broker.server.kill()
        if hasattr(self, "postgres") and self.postgres.server.is_running():
            self.postgres.stop()
        self.cleanup.close()

    def fleet(self, *arguments, check=True):
        done = subprocess.run([self.build / "fleet/ingest/usage-stat-fleet", *arguments, "--database",
                               self.postgres.conninfo("fleet")], capture_output=True, text=True)
        assert not check or done.returncode == 0, done.stdout + done.stderr
        return done

    def ingester(self, number=0, group=None, program=None):
        command = [program or self.build / "fleet/ingest/usage-stat-fleet", "ingest", "--database",
                   self.postgres.conninfo("fleet"), "--host", "127.0.0.1", "--port",
                   self.broker.port, "--tombstones", self.tombstones, "--client-id",
                   f"ingester{number}"]
        if isinstance(self.broker, SecureMosquitto):
            for key, file in self.broker.credentials("usage-stat-fleet").items():
                command += [f"--{key}", file]
        process = Process(self.folder, f"ingester{number}",
                          command + (["--group", group] if group else []))
        self.processes.append(process)
        process.start()
        wait_until(lambda: process.says("ready"), "the ingester")
        return process

    def sql(self, text):
        return self.postgres.psql(text)

    def sample(self, days=30, seed=1):
        """A database of a reader who does not exist."""
        file = self.folder / f"sample{seed}-{days}.db"
        if not file.exists():
            subprocess.run([self.build / "tools/sample/usage-stat-sample", file, "--days", str(days),
                            "--seed", str(seed)], check=True)
        return file


class Device:
    """A collector, an uplink and their files."""

    POLICY = SOURCE / "fleet/consent/policy.json"

    def __init__(self, rig, number, level="full", **settings):
        self.rig, self.number = rig, number
        self.folder = rig.folder / f"device{number}"
        self.state = self.folder / "state"
        self.state.mkdir(parents=True)
        self.database = self.folder / "records.db"
        self.endpoint = f"fleet.{os.getpid()}.{number}"
        # No answer is worth waiting for longer than a killed ingester takes to come back.
        settings = {"host": "127.0.0.1", "port": rig.broker.port, "receipt_wait_s": 5, **settings}
        self.config = self.folder / "uplink.conf"
        self.settings = settings
        self.configure()
        self.collector = Process(self.folder, "collector", [
            rig.build / "tools/collector/usage-stat-collector", "--endpoint", self.endpoint,
            "--database", self.database, "--allow-any"])
        rig.processes.append(self.collector)
        self.collect()
        if level:
            self.uplink("consent", level)

    def configure(self, **settings):
        self.settings.update(settings)
        self.config.write_text("".join(f"{key} = {value}\n" for key, value in self.settings.items()))

    def collect(self):
        """Starts the collector. The record that it makes of its start is stored when this returns."""
        runs = self.runs()
        self.collector.start()
        wait_until(lambda: self.runs() > runs, "the collector")

    def runs(self):
        """How often the collector has begun."""
        with contextlib.suppress(sqlite3.Error):
            if self.database.exists():
                return self.query("SELECT coalesce(max(id), 0) FROM runs")
        return 0

    def command(self, *words, program=None):
        command = [program or self.rig.build / "fleet/uplink/usage-stat-uplink", *words, "--state",
                   self.state, "--database", self.database, "--policy", self.POLICY]
        return [str(word) for word in command]

    def uplink(self, *words, check=True, program="usage-stat-uplink"):
        done = subprocess.run(self.command(*words, program=self.rig.build / "fleet/uplink" / program),
                              capture_output=True)
        assert not check or done.returncode == 0, (words, done.stdout + done.stderr)
        return done

    def certify(self, authority, days=90):
        """Has the device ask for a certificate, an authority give it, and the device take it."""
        request = self.folder / "device.csr"
        request.write_bytes(self.uplink("csr", "--config", self.config).stdout)
        certificate = authority.certify(request, self.folder / "given.pem", days)
        return self.uplink("certificate", certificate, "--config", self.config, check=False)

    def send(self, *words, check=True):
        return self.uplink("send", "--now", "--config", self.config, *words, check=check)

    @property
    def name(self):
        return self.note("SELECT lower(hex(name)) FROM identity")

    def feed(self, source, limit=-1):
        """Has the device's applications send what `source` holds, and waits until it is stored."""
        wanted = self.count() + self.send_datagrams(source, limit)
        wait_until(lambda: self.count() >= wanted, "the collector")

    def send_datagrams(self, source, limit=-1):
        """The same without waiting. Returns how many were taken."""
        sent = 0
        with contextlib.closing(sqlite3.connect(source)) as connection, socket.socket(
                socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            for raw, in connection.execute("SELECT raw FROM records LIMIT ?", [limit]):
                try:
                    sender.sendto(raw, b"\0" + self.endpoint.encode() + b"\0")
                    sent += 1
                except OSError:  # nobody listens just now
                    time.sleep(0.01)
        return sent

    def count(self):
        return int(self.query("SELECT coalesce(max(id), 0) FROM records"))

    def query(self, sql, file=None):
        with contextlib.closing(sqlite3.connect(file or self.database, timeout=10)) as connection:
            rows = connection.execute(sql).fetchall()
            connection.commit()
        return rows[0][0] if rows else None

    def note(self, sql):
        return self.query(sql, self.state / "uplink.db")

    def expected(self):
        """What the fleet must hold of this device: (store, number, payload), without the uplink."""
        done = subprocess.run(self.command(program=self.rig.build / "tests/fleet/fleet_expected"),
                              check=True, capture_output=True, text=True)
        return sorted(done.stdout.split("\n"))[1:]

    def held(self):
        """What it does hold."""
        rows = self.rig.sql(
            "SELECT encode(store_id, 'hex') || ' ' || number || ' ' || encode(payload, 'hex') "
            "FROM records r JOIN stores s ON s.id = r.store JOIN devices d ON d.id = r.device "
            f"WHERE d.name = '{self.name}'")
        return sorted(rows.split("\n")) if rows else []

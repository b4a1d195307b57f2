#!/usr/bin/env python3
"""Kills everything at random for a while; in the end the fleet holds each record exactly once.

Usage: faults.py BUILD_FOLDER [--seconds N] [--seed N] [--broker mosquitto|nats] [--shared]
                 [--level full|basic] [--devices N]
"""
import argparse
import random
import signal
import threading
import time

import rig as rigs


class Fed:
    """Applications of one device, which go on whatever is killed."""

    def __init__(self, device, source):
        self.device, self.source = device, source
        self.ended = threading.Event()
        self.thread = threading.Thread(target=self.run, daemon=True)
        self.thread.start()

    def run(self):
        while not self.ended.is_set():
            # What a killed collector misses is not the fleet's affair.
            self.device.send_datagrams(self.source, 300)
            self.ended.wait(0.5)

    def end(self):
        self.ended.set()
        self.thread.join()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build")
    parser.add_argument("--seconds", type=int, default=60)
    parser.add_argument("--seed", type=int, default=None)
    parser.add_argument("--broker", choices=["mosquitto", "nats"], default="mosquitto")
    parser.add_argument("--shared", action="store_true")
    parser.add_argument("--level", choices=["full", "basic"], default="full")
    parser.add_argument("--devices", type=int, default=3)
    options = parser.parse_args()
    seed = options.seed if options.seed is not None else random.SystemRandom().randrange(1 << 32)
    print(f"seed {seed}: {options.broker}, {'shared' if options.shared else 'plain'}, "
          f"{options.level}, {options.seconds} s", flush=True)
    dice = random.Random(seed)

    broker = {"mosquitto": rigs.Mosquitto, "nats": rigs.Nats}[options.broker]
    with rigs.Rig(options.build, broker, durable=True) as rig:
        ingesters = [rig.ingester(n, "ingesters" if options.shared else None) for n in range(2)]
        source = rig.sample()
        devices = [rigs.Device(rig, n, options.level, receipt_wait_s=2, batch_records=100)
                   for n in range(options.devices)]
        fed = [Fed(device, source) for device in devices]
        uplinks = []
        for device in devices:
            uplink = rigs.Process(device.folder, "uplink", device.command(
                "send", "--now", "--loop", "1", "--config", device.config))
            rig.processes.append(uplink)
            uplinks.append(uplink.start())

        kills = {"uplink": 0, "collector": 0, "broker": 0, "ingester": 0, "PostgreSQL": 0}
        end = time.monotonic() + options.seconds
        while time.monotonic() < end:
            time.sleep(dice.uniform(0.05, 1.0))
            what = dice.choices(list(kills), [6, 3, 2, 3, 1])[0]
            kills[what] += 1
            if what == "uplink":
                victim = dice.choice(uplinks)
                victim.kill()
                victim.start()
            elif what == "collector":
                device = dice.choice(devices)
                device.collector.kill()
                device.collect()
            elif what == "broker":
                rig.broker.server.kill()
                if dice.random() < 0.5:
                    rig.broker.forget_everything()
                rig.broker.start()
            elif what == "ingester":
                victim = dice.choice(ingesters)
                victim.kill()
                victim.start()
            else:
                rig.postgres.stop("immediate")
                rig.postgres.start()
        for one in fed:
            one.end()
        print("killed: " + ", ".join(f"{what} {count}" for what, count in kills.items()))
        for process in uplinks:
            process.kill()
        for device in devices:
            device.collector.stop(signal.SIGTERM)
        for ingester in ingesters:
            rigs.wait_until(lambda: ingester.is_running(), "the ingester")
        for device in devices:
            def good_visit():
                visit = device.send(check=False)
                if visit.returncode != 0:
                    print(visit.stderr.decode().strip(), flush=True)
                return visit.returncode == 0

            rigs.wait_until(good_visit, "a good visit", 60)
            expected, held = device.expected(), device.held()
            lost, extra = set(expected) - set(held), set(held) - set(expected)
            print(f"device {device.number}: {len(expected)} to be held, {len(held)} held, "
                  f"{len(lost)} lost, {len(extra)} too many, "
                  f"{len(held) - len(set(held))} twice", flush=True)
            for what, which in (("lost", lost), ("too many", extra)):
                for record in sorted(which)[:3]:
                    print(f"  {what}: {record}", flush=True)
            assert expected == held
            assert held, "nothing was tried"
        rig.fleet("status", "--each")
        doctor = rig.fleet("doctor").stdout
        assert "WRONG" not in doctor, doctor


main()

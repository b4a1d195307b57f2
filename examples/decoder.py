#!/usr/bin/env python3
"""Decodes records, generated from the dictionary alone: it knows no record by itself.

usage: decoder.py TYPES.json [HEX...]    TYPES.json is what `usage-stat types -o json` prints;
                                         without HEX, a datagram on each line of standard input

Prints each record as one line of JSON, as `usage-stat list -o json` has its fields. Exit code 1
when a datagram is no valid record; the reason is on standard error.
"""
import json
import sys


class Invalid(Exception):
    pass


class Bytes:
    """A datagram, read from its front."""

    def __init__(self, data):
        self.data, self.at = data, 0

    def take(self, size):
        if len(self.data) - self.at < size:
            raise Invalid(f"{size} bytes wanted at offset {self.at}")
        self.at += size
        return self.data[self.at - size:self.at]


class Decoder:
    def __init__(self, dictionary):
        encoding = dictionary["encoding"]
        self.order = encoding["byte_order"].removesuffix("-endian")
        self.primitives = encoding["primitives"]
        self.envelope = encoding["envelope"]
        self.names = {kind: {row["value"]: row["name"] for row in facts.get("values", [])}
                      for kind, facts in dictionary["kinds"].items()}
        self.types = {}
        for record in sorted(dictionary["records"], key=lambda r: not r["shorter"]):
            self.types.setdefault(record["code"], []).append(record)

    def number(self, data, signed):
        return int.from_bytes(data, self.order, signed=signed)

    def primitive(self, name, source):
        facts = self.primitives[name]
        if "length_bytes" in facts:
            return source.take(self.number(source.take(facts["length_bytes"]), False))
        if "count_bytes" in facts:
            count = self.number(source.take(facts["count_bytes"]), False)
            return [self.primitive(facts["of"], source) for _ in range(count)]
        data = source.take(facts["bytes"])
        if "signed" in facts:
            return self.number(data, facts["signed"])
        return data.split(b"\0")[0] if facts.get("ends_at_nul") else data

    def value(self, field, source, before):
        raw = self.primitive(field["primitive"], source)
        form = field["form"]
        if form == "constant":
            return field["value"]
        if form == "flag":
            return raw != 0
        if form == "flag_if_one":
            return raw == 1
        if form == "borrowing":
            return ((raw - (before < 0) + 128) & 255) - 128
        if form == "text":
            return raw.decode(errors="replace")
        if form == "texts":
            return [text.decode(errors="replace") for text in raw]
        return raw.hex() if form == "hexadecimal" else raw

    def put(self, field, source, values, before=None):
        value = self.value(field, source, before)
        values[field["name"]] = value
        if "name_key" in field:
            name = self.named(field["kind"], value)
            if name is not None:
                values[field["name_key"]] = name
        return value

    def named(self, kind, value):
        if kind == "packed_margins":
            return " ".join(str(int.from_bytes(bytes([byte]), "big", signed=True))
                            for byte in value.to_bytes(4, "big", signed=True))
        return self.names[kind].get(value)

    def rows(self, entry, source, values):
        frame = dict(values)
        for part in entry.get("header", []):
            frame[part["name"]] = self.primitive(part["primitive"], source)
        if "list_number" in entry and frame["type"] != entry["list_number"]:
            raise Invalid(f"list {entry['name']} has the number {frame['type']}")
        count = frame[entry["count"]["field"]]
        if not entry["count"]["least"] <= count <= entry["count"]["most"]:
            count = 0
        rows = []
        for _ in range(count):
            rows.append({})
            before = None
            for field in entry["rows"]:
                before = self.put(field, source, rows[-1], before)
        return rows

    def payload(self, record, source):
        values = {}
        for entry in record["fields"]:
            if "rows" in entry:
                values[entry["name"]] = self.rows(entry, source, values)
            else:
                self.put(entry, source, values)
        if source.at != len(source.data):
            raise Invalid(f"{len(source.data) - source.at} bytes left over")
        return values

    def decode(self, datagram):
        source = Bytes(datagram)
        head = {part["name"]: self.primitive(part["primitive"], source) for part in self.envelope}
        candidates = self.types.get(head["type"], [])
        reason = Invalid(f"unknown type {head['type']}")
        for record in candidates:
            rest = Bytes(datagram)
            rest.at = source.at
            try:
                return {"event": record["name"], **head, "fields": self.payload(record, rest)}
            except Invalid as error:
                reason = error
        raise reason


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        decoder = Decoder(json.load(file))
    failed = False
    for line in sys.argv[2:] or sys.stdin:
        try:
            print(json.dumps(decoder.decode(bytes.fromhex(line)), ensure_ascii=False))
        except (Invalid, ValueError) as error:
            print(f"decoder.py: {line.strip()[:40]}: {error}", file=sys.stderr)
            failed = True
    sys.exit(failed)


if __name__ == "__main__":
    main()

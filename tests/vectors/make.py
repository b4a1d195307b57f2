#!/usr/bin/env python3
"""Writes the vectors: one record of every type as bytes, beside what it says.

An encoder of its own, from docs/records.md alone: it shares no code with the library, so that the
two check each other. Usage: make.py [--check]
"""
import json
import pathlib
import struct
import sys

TIMESTAMP = 1_790_000_000_123


def texts(values):
    return struct.pack("<I", len(values)) + b"".join(ENCODE["String"](v) for v in values)


def text(value):
    return struct.pack("<I", len(value.encode())) + value.encode()


def number(code):
    return lambda value: struct.pack("<" + code, value)


ENCODE = {
    "Int16": number("h"),
    "UInt16": number("H"),
    "Int32": number("i"),
    "Char": number("B"),
    "UChar": number("B"),
    "Timestamp": number("q"),
    "String": text,
    "StringVec": texts,
    "Language": lambda value: value.encode().ljust(2, b"\0"),
    "Chars": lambda value: value.encode(),
    "HexChars": bytes.fromhex,
}

BOOK = ("book_id Int32, language Language, authors StringVec, file_type String, "
        "other_people StringVec, year Int32, series_number Int16, file_name String, title String, "
        "series String, isbn String, publisher String")


def encode(layout, fields):
    """The bytes of `fields`, laid out as "name Primitive, name Primitive"."""
    names = [entry.split() for entry in layout.split(", ") if entry]
    assert [name for name, _ in names] == list(fields), (layout, fields)
    return b"".join(ENCODE[primitive](fields[name]) for name, primitive in names)


def keys(fields):
    data = struct.pack("<h", fields["list_count"])
    for number_of_list in range(3):
        mappings = fields[f"mappings_{number_of_list}"]
        data += struct.pack("<hh", number_of_list, len(mappings))
        for mapping in mappings:
            data += struct.pack("<BBh", mapping["key"], mapping["kind"], mapping["action"])
    return data


def batch(fields):
    return (struct.pack("<i", fields["count"]) + b"".join(encode(BOOK, b) for b in fields["books"])
            + struct.pack("<h", fields["application"]))


def measured(layout):
    """A snapshot: a reserved number before the payload of another record."""
    payload = layout if callable(layout) else lambda fields: encode(layout, fields)

    def snapshot(fields):
        rest = {k: v for k, v in fields.items() if k != "reserved"}
        return struct.pack("<h", fields["reserved"]) + payload(rest)
    return snapshot


LIBRARY_VIEW = "a Int16, b Char, library_view Char, library_show_memory Char"
KEYS = {
    "list_count": 3,
    "mappings_0": [{"key": 0, "kind": 0, "action": 41, "action_name": "KA_pgdn"},
                   {"key": 1, "kind": 0, "action": 42, "action_name": "KA_pgup"}],
    "mappings_1": [],
    "mappings_2": [{"key": 31, "kind": 1, "action": -1}],
}
PAGE = "book_id Int32, b Int16, from_page Int32, to_page Int32, pages Int32"
FULL_BOOK = {"book_id": -5, "language": "en", "authors": ["A. Writer"], "file_type": ".epub",
             "other_people": ["A Friend", ""], "year": 70000, "series_number": -32768,
             "file_name": "a.epub", "title": "A Book", "series": "Books", "isbn": "978",
             "publisher": "Ünïcode ✓"}
BARE_BOOK = {"book_id": 0, "language": "", "authors": [], "file_type": "", "other_people": [],
             "year": 0, "series_number": 0, "file_name": "", "title": "", "series": "", "isbn": "",
             "publisher": ""}

# Code, name, layout (or function that encodes), fields.
RECORDS = [
    (1, "OrientationMeasurement", measured("orientation Int16"),
     {"reserved": 0, "orientation": 3}),
    (3, "KeyboradMappingMeasurement", measured(keys), {"reserved": -1, **KEYS}),
    (4, "LanguageMeasurement", measured("language Chars"),
     {"reserved": 0, "language": "de"}),
    (5, "DeviceInfoMeasurement",
     measured("device_id HexChars, model_code Int16, partner_name String, encrypted_serial String"),
     {"reserved": 0, "device_id": "000102030405060708090a0b0c0d0e0f80ff0000",
      "model_code": 21, "model_name": "Velmora Yew", "partner_name": "varsk",
      "encrypted_serial": "00ff"}),
    (6, "VersionMeasurement", measured("version String"),
     {"reserved": 0, "version": "6.8.2441"}),
    (2001, "TurnOnEvent", "", {}),
    (2002, "TurnOffEvent", "", {}),
    (2004, "StartApplicationEvent",
     "process_id Int16, application Int16, c Int16, arguments String",
     {"process_id": 1234, "application": -1, "c": 7, "arguments": " -v /mnt"}),
    (2008, "OrientationEvent", "orientation Int16", {"orientation": -2}),
    (2009, "StartOpenBookEvent", "book_id Int32, application UInt16, a UChar, b String",
     {"book_id": -645120848, "application": 65535, "a": 255, "b": "b"}),
    (2010, "OpenBookEvent",
     "book_id Int32, language Language, authors StringVec, file_type String, genres StringVec, "
     "d Int16, e Int16, pages Int32, g Int16, h Int32, file_name String, i String, j String, k String, "
     "l String",
     {"book_id": 943781977, "language": "en", "authors": ["x"], "file_type": ".c",
      "genres": ["p", ""], "d": True, "e": 4464, "pages": 100000, "g": -1, "h": -2147483648,
      "file_name": "a.epub", "i": "i", "j": "", "k": "k", "l": "l"}),
    (2012, "NewJournalFileEvent", "", {}),
    (2013, "OpenJournalFileEvent", "", {}),
    (2014, "SendArchiveEvent", "archive String", {"archive": "journal-1"}),
    (2015, "DeleteArchiveEvent", "archive String", {"archive": ""}),
    (2016, "KeyboardSettingsEvent", keys, KEYS),
    (2017, "LanguageChangeEvent", "language Chars", {"language": "??"}),
    (2018, "LibrarySettingsEvent",
     "a Int16, b Char, library_mode Char, library_filter Char, library_group_by Char, "
     "library_sort_by Char, library_view Char, library_show_memory Char",
     {"a": -1, "b": 128, "library_mode": 2, "library_mode_name": "genres", "library_filter": 255,
      "library_group_by": 0, "library_group_by_name": "nothing", "library_sort_by": 2,
      "library_sort_by_name": "date added", "library_view": 127, "library_show_memory": 1,
      "library_show_memory_name": "yes"}),
    (2019, "MediaExplorerSettingsEvent", LIBRARY_VIEW,
     {"a": 9, "b": 98, "library_view": 1, "library_view_name": "details",
      "library_show_memory": 2}),
    (2020, "ApplicationExplorerSettingsEvent", LIBRARY_VIEW,
     {"a": 10, "b": 99, "library_view": 2, "library_view_name": "covers",
      "library_show_memory": 0, "library_show_memory_name": "no"}),
    (2021, "GoToPageEvent", "a Int16, b Char, to_page Int16, pages Int16",
     {"a": 5, "b": True, "to_page": 7, "pages": -9}),
    (2022, "StartTtsEvent", "a Int16, book_id Int32, language String, voice String, e Int16, f Int16",
     {"a": -1, "book_id": -2, "language": "en", "voice": "", "e": 3, "f": -4}),
    (2023, "StopTtsEvent", "a Int16", {"a": -300}),
    (2024, "AddNoteEvent", "book_id Int32, page Int16", {"book_id": -100000, "page": 32767}),
    (2025, "UseDictionaryEvent", "book_id Int32, word String", {"book_id": 7, "word": "déjà vu"}),
    (2026, "SetReadingModeEvent",
     "book_id Int32, b Int16, reading_mode Char, scale_type Char, e Int16, crop_type Char, g Char, "
     "h Char",
     {"book_id": -1, "b": 2, "reading_mode": 3, "reading_mode_name": "reflow", "scale_type": 44, "e": -5, "crop_type": 6, "g": 7,
      "h": 128}),
    (2027, "SetFontParamsEvent",
     "book_id Int32, b Int16, font String, d Char, f Int16, packed_margins Int32, g Char, "
     "line_break Char, update_mode Char",
     {"book_id": 1, "b": -2, "font": "Serif", "d": 100, "f": 6, "packed_margins": -256,
      "margins": "-1 -1 -1 0", "g": 103, "line_break": 1, "line_break_name": "hyphens",
      "update_mode": 255}),
    (2028, "NewBooksEvent", "count Int32", {"count": 5}),
    (2028, "NewBooksEventEx", batch,
     {"count": 2, "books": [FULL_BOOK, BARE_BOOK], "application": -1}),
    (2029, "UsingTextToolsEvent", "book_id Int32, b Int16", {"book_id": 1, "b": 4464}),
    (2030, "NotesAndBookmarksEvent", "book_id Int32, b Int16, c Int16, d Int16, e Int16, f Int16",
     {"book_id": -1, "b": 2, "c": 3, "d": 4, "e": 5, "f": -6}),
    (2031, "GoToPageEventNew", "b Int16, f Char, from_page Int32, to_page Int32, pages Int32, book_id Int32",
     {"b": 2, "f": False, "from_page": 3, "to_page": 4, "pages": 5, "book_id": 100}),
    (2032, "ChangePageEvent", PAGE, {"book_id": 70000, "b": -1, "from_page": 2,
                                        "to_page": -2147483648, "pages": -4}),
    (2032, "ChangePageEventEx", PAGE + ", f Char, g Char, h Int16, i Int32",
     {"book_id": 1, "b": -2, "from_page": 3, "to_page": 4, "pages": 5, "f": 102, "g": 128, "h": 8,
      "i": -9}),
    (2033, "Explorer3SettingsEvent",
     "a Int16, b Char, explorer3_mode Char, explorer3_group_by Char, explorer3_sort_by Char, "
     "explorer3_direction Char, explorer3_view Char",
     {"a": 9, "b": 98, "explorer3_mode": 1, "explorer3_mode_name": "books", "explorer3_group_by": 2,
      "explorer3_group_by_name": "type", "explorer3_sort_by": 3, "explorer3_sort_by_name": "type",
      "explorer3_direction": 1, "explorer3_direction_name": "descending", "explorer3_view": 200}),
    (2034, "MediaExplorer3SettingsEvent", "a Int16, b Char, explorer3_view Char",
     {"a": 9, "b": 98, "explorer3_view": 1, "explorer3_view_name": "details"}),
    (2035, "GoToURLEvent", "a Int16, url String", {"a": 3, "url": "https://example.org/ä"}),
    (2037, "SetFontParamsEventEx",
     "book_id Int32, b Int16, font String, d Char, f Char, g Int16, h String, i Char, "
     + ", ".join(f"margin_{i} String" for i in range(1, 9)) + ", j Char, k Char, l Char, m Char",
     {"book_id": -1, "b": 2, "font": "Sans", "d": 100, "f": 102, "g": -7, "h": "h", "i": 105,
      "margin_1": "m1", "margin_2": "m2", "margin_3": "", "margin_4": "m4", "margin_5": "m5",
      "margin_6": "m6", "margin_7": "m7", "margin_8": "a margin of thirty-one bytes ..", "j": 1,
      "k": 2, "l": 3, "m": 128}),
    (2038, "StartOutsideApplicationEvent", "path String, arguments String",
     {"path": "/opt/apps/own.app", "arguments": " -a b"}),
    (4001, "ForceRotationEvent", "", {}),
    (4002, "StatisticsSettingsChangedEvent", "", {}),
]


# The odd ones: bytes that no writer of ours sends, and what they say. Name, hex of the payload.
ODD = [
    ("a flag of another value than 1", 2021, "GoToPageEvent", "0500" "80" "0700" "f7ff",
     {"a": 5, "b": True, "to_page": 7, "pages": -9}),
    ("a count of lists that is not 3, and lists with a count below 1", 2016, "KeyboardSettingsEvent",
     "ffff" "0000" "0000" "0100" "ffff" "0200" "0080",
     {"list_count": 3, "mappings_0": [], "mappings_1": [], "mappings_2": []}),
    ("keys below 0, which take 1 away from their kind", 2016, "KeyboardSettingsEvent",
     "0300" "0000" "0200" "80012900" "ff00e703" "0100" "0000" "0200" "0000",
     {"list_count": 3, "mappings_0": [
         {"key": -128, "kind": 0, "action": 41, "action_name": "KA_pgdn"},
         {"key": -1, "kind": -1, "action": 999}], "mappings_1": [], "mappings_2": []}),
    ("a count of books out of range, after which none follow", 2028, "NewBooksEventEx",
     "65000000" "0700", {"count": 101, "books": [], "application": 7, "application_name":
                         "Dictionary.app"}),
    ("a negative count of books", 2028, "NewBooksEventEx",
     "ffffffff" "0100", {"count": -1, "books": [], "application": 1, "application_name":
                         "explorer.app"}),
    ("bytes that are not UTF-8, and a NUL", 2035, "GoToURLEvent", "0300" "03000000" "41ff00",
     {"a": 3, "url": "A\ufffd\0"}),
    ("a language of two Chars that are NULs", 2017, "LanguageChangeEvent", "0000",
     {"language": "\0\0"}),
    ("a language that ends at a NUL, though a letter follows", 2010, "OpenBookEvent",
     "00000000" "0065" + "00000000" * 3 + "0200" + "0000" + "00000000" + "0000" + "00000000"
     + "00000000" * 5,
     {"book_id": 0, "language": "", "authors": [], "file_type": "", "genres": [], "d": False,
      "e": 0, "pages": 0, "g": 0, "h": 0, "file_name": "", "i": "", "j": "", "k": "", "l": ""}),
]

HEAD = struct.pack("<q", TIMESTAMP).hex()

# What must be refused, and why. Name, the datagram as hex.
REFUSED = [
    ("nothing at all", ""),
    ("half a type code", "e5"),
    ("an envelope that is cut", "e507" + HEAD[:6]),
    ("a type code that is not in use", "f407" + HEAD),
    ("a negative type code", "ffff" + HEAD),
    ("a number that is cut", "e507" + HEAD + "0500" "01" "07"),
    ("a byte left over", "d807" + HEAD + "0000" "00"),
    ("bytes after a record without fields", "d107" + HEAD + "00"),
    ("a text that is shorter than its length", "f307" + HEAD + "0300" "05000000" "616263"),
    ("a text whose length is the largest", "f307" + HEAD + "0300" "ffffffff" "61"),
    ("a list that claims more texts than there are", "da07" + HEAD + "00000000" "656e" "02000000"
     "01000000" "61"),
    ("a list with the number of another", "e007" + HEAD + "0300" "0100" "0000" "0100" "0000" "0200"
     "0000"),
    ("a list that claims more keys than there are", "e007" + HEAD + "0300" "0000" "0200" "00002900"),
    ("a batch with fewer books than its count", "ec07" + HEAD + "01000000" "0100"),
    ("a page turn between the short form and the long one", "f007" + HEAD + "00000000" "0000"
     "00000000" "00000000" "00000000" "00"),
]


def without_names(fields):
    """Leaves out what decoders add for people: the names of codes."""
    if isinstance(fields, list):
        return [without_names(v) for v in fields]
    if not isinstance(fields, dict):
        return fields
    names = {column.removesuffix("_code") + "_name" for column in fields} | {"margins"}
    return {k: without_names(v) for k, v in fields.items() if k not in names}


def vector(code, name, payload, fields):
    data = struct.pack("<hq", code, TIMESTAMP) + payload
    record = {"event": name, "type": code, "timestamp": TIMESTAMP, "fields": fields}
    return {"hex": data.hex(), "record": record}


def main():
    folder = pathlib.Path(__file__).parent
    files = {}
    for code, name, layout, fields in RECORDS:
        plain = without_names(fields)
        payload = layout(plain) if callable(layout) else encode(layout, plain)
        files[f"{code:04}-{name}.json"] = vector(code, name, payload, fields)
    for number, (about, code, name, payload, fields) in enumerate(ODD, 1):
        files[f"odd/{number:02}.json"] = {"about": about,
                                          **vector(code, name, bytes.fromhex(payload), fields)}
    for number, (about, data) in enumerate(REFUSED, 1):
        files[f"refused/{number:02}.json"] = {"about": about, "hex": data}
    wrong = []
    for name, content in files.items():
        path = folder / name
        text = json.dumps(content, indent=2, ensure_ascii=False) + "\n"
        if "--check" not in sys.argv:
            path.parent.mkdir(exist_ok=True)
            path.write_text(text)
        elif not path.exists() or path.read_text() != text:
            wrong.append(name)
    if wrong:
        sys.exit("not as make.py writes them: " + ", ".join(wrong))


main()

#!/usr/bin/env python3
"""Writes the seed corpus of the flat-form fuzz target to fuzz/corpus/flat/.

Each seed is: one mode byte (0 normal, 1 pass-through, 2 headerless; the
fuzzer takes it mod 3), then the bytes given to message::unflatten.

The flat form: magic 0x4D 0x32, then fields back to back. A field is a
4-byte little-endian tag (kind = tag & 0xF8000000, field number in the low
24 bits) and its payload:
  bool    0x00000000  no payload; bit 24 is the value
  u32     0x08000000  4 bytes LE, or with bit 24 one byte
  u64     0x10000000  8 bytes LE
  addr6   0x18000000  16 bytes
  string  0x20000000  u16 LE length + bytes, or with bit 24 a 1-byte length
  message 0x28000000  the same, holding a nested flat form
  raw     0x30000000  the same
  arrays  kind | 0x80000000: u16 LE count, then the elements (bool 1 byte,
          u32 4 LE, u64 8 LE, addr6 16; string/message/raw: u16 LE length
          + bytes each)
Bit 25 marks a field that a pass-through parse keeps as flat bytes.

Run: python3 fuzz/make_seeds.py   (rewrites the directory's seed files)
"""
import os
import struct
import sys

MAGIC = b"\x4d\x32"
FLAT = 0x01000000
PASS = 0x02000000
BOOL, U32, U64, ADDR6 = 0x00000000, 0x08000000, 0x10000000, 0x18000000
STRING, MESSAGE, RAW = 0x20000000, 0x28000000, 0x30000000
ARRAY = 0x80000000
SYS_TO, SYS_FROM = 0x88FF0001, 0x88FF0002
NORMAL, PASSTHROUGH, HEADERLESS = 0, 1, 2


def tag(t):
    return struct.pack("<I", t)


def boolean(n, v, extra=0):
    return tag(BOOL | n | extra | (FLAT if v else 0))


def u32(n, v, extra=0):
    if v <= 255:
        return tag(U32 | n | extra | FLAT) + bytes([v])
    return tag(U32 | n | extra) + struct.pack("<I", v)


def u32_long(n, v, extra=0):
    """The 4-byte form even for a small value."""
    return tag(U32 | n | extra) + struct.pack("<I", v)


def u64(n, v):
    return tag(U64 | n) + struct.pack("<Q", v)


def addr6(n, b):
    assert len(b) == 16
    return tag(ADDR6 | n) + b


def blob(kind, n, data, extra=0, long_form=None):
    if long_form is None:
        long_form = len(data) > 255
    if long_form:
        return tag(kind | n | extra) + struct.pack("<H", len(data)) + data
    return tag(kind | n | extra | FLAT) + bytes([len(data)]) + data


def string(n, s, extra=0, long_form=None):
    return blob(STRING, n, s.encode() if isinstance(s, str) else s, extra, long_form)


def nested(n, flat, long_form=None):
    return blob(MESSAGE, n, flat, 0, long_form)


def raw(n, data, long_form=None):
    return blob(RAW, n, data, 0, long_form)


def array(kind, n, elems):
    out = tag(ARRAY | kind | n) + struct.pack("<H", len(elems))
    for e in elems:
        if kind == BOOL:
            out += bytes([1 if e else 0])
        elif kind == U32:
            out += struct.pack("<I", e)
        elif kind == U64:
            out += struct.pack("<Q", e)
        elif kind == ADDR6:
            assert len(e) == 16
            out += e
        else:
            e = e.encode() if isinstance(e, str) else e
            out += struct.pack("<H", len(e)) + e
    return out


def msg(*fields):
    return MAGIC + b"".join(fields)


V6 = bytes.fromhex("20010db8000000000000000000000001")
V4MAPPED = bytes.fromhex("00000000000000000000ffffc0a80101")
LONG = "L" * 300
INNER = msg(u32(1, 7), string(2, "inner"), boolean(3, True))

SEEDS = {
    # Degenerate inputs.
    "empty": b"",
    "empty_normal": bytes([NORMAL]),
    "empty_passthrough": bytes([PASSTHROUGH]),
    "empty_headerless": bytes([HEADERLESS]),
    "magic_only": bytes([NORMAL]) + MAGIC,
    "magic_only_passthrough": bytes([PASSTHROUGH]) + MAGIC,
    # One field of each kind.
    "bool_true": bytes([NORMAL]) + msg(boolean(1, True)),
    "bool_false": bytes([NORMAL]) + msg(boolean(1, False)),
    "bools_many": bytes([NORMAL]) + msg(*(boolean(i, i % 2 == 0) for i in range(1, 9))),
    "u32_short": bytes([NORMAL]) + msg(u32(1, 200)),
    "u32_long": bytes([NORMAL]) + msg(u32(1, 0xDEADBEEF)),
    "u32_long_form_small_value": bytes([NORMAL]) + msg(u32_long(1, 5)),
    "u32_many": bytes([NORMAL]) + msg(*(u32(i * 11, i * 1000) for i in range(1, 21))),
    "u64": bytes([NORMAL]) + msg(u64(1, 0x0123456789ABCDEF)),
    "addr6": bytes([NORMAL]) + msg(addr6(1, V6)),
    "string_short": bytes([NORMAL]) + msg(string(1, "eth0")),
    "string_empty": bytes([NORMAL]) + msg(string(1, "")),
    "string_long": bytes([NORMAL]) + msg(string(1, LONG)),
    "string_long_form_short_value": bytes([NORMAL]) + msg(string(1, "abc", long_form=True)),
    "message_nested": bytes([NORMAL]) + msg(nested(1, INNER)),
    "message_nested_twice": bytes([NORMAL]) + msg(nested(1, msg(nested(2, INNER), u32(3, 3)))),
    "message_nested_long": bytes([NORMAL]) + msg(nested(1, msg(string(1, LONG)))),
    "message_nested_garbage": bytes([NORMAL]) + msg(nested(1, b"\x01\x02\x03")),
    "raw_short": bytes([NORMAL]) + msg(raw(1, b"\x00\xff\x10")),
    "raw_long": bytes([NORMAL]) + msg(raw(1, bytes(range(256)) * 2)),
    # Arrays.
    "array_bool": bytes([NORMAL]) + msg(array(BOOL, 1, [True, False, True])),
    "array_u32": bytes([NORMAL]) + msg(array(U32, 1, [1, 0x10000, 0xFFFFFFFF])),
    "array_u64": bytes([NORMAL]) + msg(array(U64, 1, [1, 1 << 40])),
    "array_addr6": bytes([NORMAL]) + msg(array(ADDR6, 1, [V6, V4MAPPED])),
    "array_string": bytes([NORMAL]) + msg(array(STRING, 1, ["a", "", LONG])),
    "array_message": bytes([NORMAL]) + msg(array(MESSAGE, 1, [INNER, MAGIC, msg(u64(9, 9))])),
    "array_raw": bytes([NORMAL]) + msg(array(RAW, 1, [b"\x00", b"", b"\x01\x02"])),
    "array_empty": bytes([NORMAL]) + msg(array(U32, 1, [])),
    # Routing fields, placed last so that flatten has to move them first.
    "sys_to": bytes([NORMAL]) + msg(u32(1, 5), array(U32, 0xFF0001, [14])),
    "sys_to_from": bytes([NORMAL])
    + msg(string(2, "x"), array(U32, 0xFF0002, [3, 4]), array(U64, 5, [1]), array(U32, 0xFF0001, [14, 2])),
    "sys_from_only": bytes([NORMAL]) + msg(array(U32, 7, [7]), array(U32, 0xFF0002, [1])),
    # Everything at once, and duplicates (the last value wins).
    "all_kinds": bytes([NORMAL])
    + msg(
        array(U32, 0xFF0001, [1, 2]),
        array(U32, 0xFF0002, [3]),
        boolean(1, True),
        boolean(2, False),
        u32(3, 9),
        u32(4, 70000),
        u64(5, 1 << 63),
        addr6(6, V6),
        string(7, "hello"),
        string(8, LONG),
        nested(9, INNER),
        raw(10, b"\x01\x02\x03"),
        array(BOOL, 11, [True]),
        array(U32, 12, [5, 6]),
        array(U64, 13, [7]),
        array(ADDR6, 14, [V6]),
        array(STRING, 15, ["s", "t"]),
        array(MESSAGE, 16, [INNER]),
        array(RAW, 17, [b"r"]),
    ),
    "duplicates": bytes([NORMAL])
    + msg(u32(1, 1), u32(1, 300), string(2, "a"), string(2, "bb"), boolean(3, True), boolean(3, False),
          array(U32, 4, [1, 2, 3]), array(U32, 4, [9])),
    "flag_bit26": bytes([NORMAL]) + msg(u32(1, 1, 0x04000000), string(2, "f", 0x04000000)),
    # Bit 25: pass-through keeps these as flat bytes; the normal parse keeps
    # bit 25 in the id.
    "pass_u32_string_bool": bytes([PASSTHROUGH])
    + msg(u32(1, 5, PASS), u32(2, 0x12345678, PASS), string(3, "kept flat", PASS), boolean(4, True, PASS),
          u32(5, 6), string(6, "parsed")),
    "pass_long_string": bytes([PASSTHROUGH]) + msg(string(1, LONG, PASS), u32(2, 2)),
    "pass_arrays": bytes([PASSTHROUGH])
    + msg(tag(ARRAY | U32 | PASS | 1) + struct.pack("<HII", 2, 1, 2),
          tag(ARRAY | STRING | PASS | 2) + struct.pack("<H", 1) + struct.pack("<H", 2) + b"ab", u32(3, 3)),
    "pass_bit_in_normal_mode": bytes([NORMAL]) + msg(u32(1, 5, PASS), string(3, "x", PASS), boolean(4, True, PASS)),
    "pass_bit_in_headerless_mode": bytes([HEADERLESS]) + u32(1, 5, PASS) + boolean(4, False, PASS),
    "pass_u64_quirk": bytes([PASSTHROUGH]) + msg(tag(U64 | PASS | 1), u32(2, 2)),
    # Headerless: fields from offset 0.
    "headerless_fields": bytes([HEADERLESS]) + u32(1, 5) + string(2, "eth0") + array(U32, 0xFF0001, [1]),
    "headerless_all": bytes([HEADERLESS]) + msg(u32(1, 1))[2:] + u64(2, 2) + raw(3, b"\x00") + nested(4, INNER),
    "headerless_with_magic": bytes([HEADERLESS]) + msg(u32(1, 1)),
    # Malformed: truncated payloads, short tags, bad magic, unknown kinds.
    "bad_magic": bytes([NORMAL]) + b"\x4d\x33" + u32(1, 1),
    "magic_half": bytes([NORMAL]) + b"\x4d",
    "tag_truncated": bytes([NORMAL]) + MAGIC + tag(U32 | 1)[:3],
    "trailing_bytes": bytes([NORMAL]) + msg(u32(1, 1)) + b"\x00\x00",
    "u32_truncated": bytes([NORMAL]) + msg(u32(1, 0x12345678))[:-1],
    "u32_short_truncated": bytes([NORMAL]) + MAGIC + tag(U32 | FLAT | 1),
    "u64_truncated": bytes([NORMAL]) + msg(u64(1, 1))[:-3],
    "addr6_truncated": bytes([NORMAL]) + msg(addr6(1, V6))[:-1],
    "string_truncated": bytes([NORMAL]) + msg(string(1, "hello"))[:-1],
    "string_long_truncated": bytes([NORMAL]) + msg(string(1, LONG))[:-10],
    "string_length_truncated": bytes([NORMAL]) + MAGIC + tag(STRING | 1) + b"\x05",
    "message_truncated": bytes([NORMAL]) + msg(nested(1, INNER))[:-2],
    "array_count_truncated": bytes([NORMAL]) + MAGIC + tag(ARRAY | U32 | 1) + b"\x02",
    "array_u32_truncated": bytes([NORMAL]) + msg(array(U32, 1, [1, 2]))[:-1],
    "array_string_truncated": bytes([NORMAL]) + msg(array(STRING, 1, ["abc", "de"]))[:-1],
    "array_addr6_truncated": bytes([NORMAL]) + msg(array(ADDR6, 1, [V6]))[:-4],
    "unknown_kind": bytes([NORMAL]) + msg(u32(1, 1)) + tag(0x38000001),
    "unknown_array_kind": bytes([NORMAL]) + MAGIC + tag(0xB8000001) + b"\x00\x00",
    "good_then_truncated": bytes([NORMAL]) + msg(u32(1, 1), string(2, "ok")) + tag(U64 | 3) + b"\x01",
    "headerless_truncated": bytes([HEADERLESS]) + u32(1, 0x12345678)[:-2],
    "pass_truncated": bytes([PASSTHROUGH]) + msg(string(1, "abcdef", PASS))[:-1],
}


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    out = os.path.join(here, "corpus", "flat")
    os.makedirs(out, exist_ok=True)
    for name, data in sorted(SEEDS.items()):
        with open(os.path.join(out, name), "wb") as f:
            f.write(data)
    print(f"{len(SEEDS)} seeds in {out}", file=sys.stderr)


if __name__ == "__main__":
    main()

"""Another reader and writer of keyed archives, for CompressedArchiveTest.

  KeyedArchives.py check KEYED XML   unpacks both blobs, and requires the keyed archive to have the
                                     format's layout and to stand for the XML document's value
  KeyedArchives.py make FOLDER       writes NAME.blob for each case below, and NAME.xml with its
                                     value for those that are to be accepted
"""
import datetime
import hashlib
import math
import pathlib
import plistlib
import struct
import sys
import zlib
from plistlib import UID

EPOCH = datetime.datetime(2001, 1, 1)


def unpack(path):
    blob = pathlib.Path(path).read_bytes()
    assert hashlib.md5(blob[20:]).digest() == blob[4:20], "digest"
    data = zlib.decompress(blob[20:])
    assert struct.unpack("<I", blob[:4])[0] == len(data), "length"
    return data


def pack(data):
    compressed = zlib.compress(data)
    return struct.pack("<I", len(data)) + hashlib.md5(compressed).digest() + compressed


# ---- Reading ----


def resolve(objects, uid):
    assert type(uid) is UID and 0 < uid.data < len(objects), uid
    thing = objects[uid.data]
    if type(thing) is not dict:
        return thing
    about = objects[thing["$class"].data]
    assert about["$classes"] == [about["$classname"], "NSObject"], about
    each = [[resolve(objects, u) for u in thing[k]] for k in ("NS.keys", "NS.objects") if k in thing]
    keys = set(thing) - {"$class"}
    if about["$classname"] == "NSDictionary" and keys == {"NS.keys", "NS.objects"}:
        return dict(zip(*each, strict=True))
    if about["$classname"] == "NSArray" and keys == {"NS.objects"}:
        return each[0]
    assert about["$classname"] == "NSDate" and keys == {"NS.time"}, thing
    return (EPOCH + datetime.timedelta(seconds=thing["NS.time"])).replace(microsecond=0)


def same(a, b):
    if type(a) is not type(b):
        return False
    if type(a) is dict:
        return a.keys() == b.keys() and all(same(a[k], b[k]) for k in a)
    if type(a) is list:
        return len(a) == len(b) and all(map(same, a, b))
    return a == b or (type(a) is float and math.isnan(a) and math.isnan(b))


def check(keyed, xml):
    archive = plistlib.loads(unpack(keyed), fmt=plistlib.FMT_BINARY)
    assert set(archive) == {"$version", "$archiver", "$top", "$objects"}, archive.keys()
    assert archive["$version"] == 100000 and archive["$archiver"] == "NSKeyedArchiver"
    assert set(archive["$top"]) == {"root"}
    objects = archive["$objects"]
    assert objects[0] == "$null"
    plain = [(type(o), repr(o)) for o in objects[1:] if type(o) in (str, int, float, bool)]
    assert len(plain) == len(set(plain)), "equal strings and numbers are one object"
    value = resolve(objects, archive["$top"]["root"])
    expected = plistlib.loads(unpack(xml), fmt=plistlib.FMT_XML)
    assert same(value, expected), f"{value!r}\nis not\n{expected!r}"


# ---- Writing ----


def classes(name, *more):
    return {"$classname": name, "$classes": [name, *more, "NSObject"]}


ARRAY = classes("NSArray")
MAP = classes("NSDictionary")


def archive(*objects, **changes):
    whole = {"$version": 100000, "$archiver": "NSKeyedArchiver", "$top": {"root": UID(1)},
             "$objects": ["$null", *objects]}
    whole.update({"$" + key: value for key, value in changes.items()})
    return plistlib.dumps({k: v for k, v in whole.items() if v is not None},
                          fmt=plistlib.FMT_BINARY, sort_keys=False)


def array(*members, of=2):
    return {"NS.objects": [UID(m) for m in members], "$class": UID(of)}


def mapping(keys, members, of=2):
    return {"NS.keys": [UID(k) for k in keys], **array(*members, of=of)}


def tree(levels, leaf="leaf"):
    """Each level is an array that names the next one twice."""
    return archive(array(3, 3), ARRAY, *(array(n, n) for n in range(4, 3 + levels)), leaf)


def chain(levels):
    return archive(array(3), ARRAY, *(array(n) for n in range(4, 2 + levels)), array())


def patched(data, place, value):
    place %= len(data)
    return data[:place] + value + data[place + len(value):]


def wide(number):
    return struct.pack(">Q", number)


GOOD = archive("text")
TABLE = struct.unpack(">Q", GOOD[-8:])[0]
KINDS = archive(
    mapping([3, 4, 5, 6, 7, 8], [9, 11, 13, 15, 17, 18]), MAP,
    "mutable array", "mutable text", "mutable data", "date", "plain date", "shared",
    array(4, 19, 20, 21, 22, of=10), classes("NSMutableArray", "NSArray"),
    {"NS.string": "Zo\u00eb \U0001F431", "$class": UID(12)}, classes("NSMutableString", "NSString"),
    {"NS.data": b"\0\xff", "$class": UID(14)},
    {**classes("NSMutableData", "NSData"), "$classhints": []},
    {"NS.time": -0.0, "$class": UID(16)}, classes("NSDate"),
    datetime.datetime(2024, 2, 29, 23, 59, 59), array(9, 9, of=10),
    2**64 - 1, -2**63, 1.5, False)
KINDS_VALUE = ["mutable text", 2**64 - 1, -2**63, 1.5, False]

MANY = 200000
HEAP = b"bplist00\xaf\x12" + struct.pack(">I", MANY) + bytes(3 * MANY)
ONE_PLACE = (HEAP + b"\0\0\x08" * MANY + bytes(6) + b"\3\3" +
             wide(MANY) + wide(0) + wide(len(HEAP)))

ACCEPTED = {
    "text": (GOOD, "text"),
    "every kind": (KINDS, {
        "mutable array": KINDS_VALUE, "mutable text": "Zo\u00eb \U0001F431",
        "mutable data": b"\0\xff", "date": EPOCH,
        "plain date": datetime.datetime(2024, 2, 29, 23, 59, 59),
        "shared": [KINDS_VALUE, KINDS_VALUE]}),
    "text that reads $null": (archive("$null"), "$null"),
    "a shared tree": (tree(3), [[["leaf"] * 2] * 2] * 2),
    "the deepest": (chain(64), eval("[" * 64 + "]" * 64)),
}
REFUSED = {
    "more than four million values in a tree": tree(22),
    "more than 128 MiB of text in a tree": tree(12, "x" * 20000),
    "an array in itself": archive(array(1), ARRAY),
    "a circle of three": archive(array(3), ARRAY, array(4), array(1)),
    "a dictionary in itself": archive(mapping([3], [1]), MAP, "a"),
    "too deep": chain(65),
    "too deep where it is met again": archive(
        array(3, 67), ARRAY, *(array(n) for n in range(4, 66)), array(), "x",
        array(68), array(3)),
    "a reference beyond the objects": archive(array(3), ARRAY),
    "a reference to $null": archive(array(0), ARRAY),
    "a root that is $null": archive(top={"root": UID(0)}),
    "an unknown class": archive(array(), classes("NSSet")),
    "a class that is none": archive(array(), "NSArray"),
    "a class of another line": archive(array(), {"$classname": "NSArray", "$classes": ["NSSet"]}),
    "a class without a line": archive(array(), {"$classname": "NSArray"}),
    "no members": archive({"$class": UID(2)}, ARRAY),
    "members that are none": archive({"NS.objects": "x", "$class": UID(2)}, ARRAY),
    "members that are no references": archive({"NS.objects": ["x"], "$class": UID(2)}, ARRAY),
    "a member too many": archive({**array(), "NS.more": 1}, ARRAY),
    "fewer keys than members": archive(mapping([], [3]), MAP, "a"),
    "a key that is a number": archive(mapping([3], [3]), MAP, 5),
    "a key that comes twice": archive(mapping([3, 3], [3, 3]), MAP, "a"),
    "a date that is text": archive({"NS.time": "0", "$class": UID(2)}, classes("NSDate")),
    "a date far away": archive({"NS.time": 1e300, "$class": UID(2)}, classes("NSDate")),
    "a date that is no number": archive({"NS.time": math.nan, "$class": UID(2)}, classes("NSDate")),
    "a plain array": archive([]),
    "another version": archive("x", version=100001),
    "another archiver": archive("x", archiver="NSArchiver"),
    "no top": archive("x", top=None),
    "a further part": archive("x", more=1),
    "no $null": archive("x", objects=["x", "x"]),
    "nothing": b"",
    "an offset table that is too long": patched(GOOD, -24, wide(50)),
    "no objects": patched(GOOD, -24, wide(0)),
    "a root beyond the objects": patched(GOOD, -16, wide(200)),
    "an offset table beyond the file": patched(GOOD, -8, wide(2**63)),
    "offsets of no width": patched(GOOD, -26, b"\0"),
    "references of nine bytes": patched(GOOD, -25, b"\x09"),
    "an offset before the objects": patched(GOOD, -33, b"\0"),
    "an offset into the offsets": patched(GOOD, -33, bytes([len(GOOD) - 34])),
    "two objects at one place": patched(GOOD, -33, GOOD[-34:-33]),
    "200,000 objects at one place, each as long as all": ONE_PLACE,
    "a gap after the objects": patched(GOOD[:TABLE] + b"\0" + GOOD[TABLE:], -8, wide(TABLE + 1)),
    "a member beyond the table": patched(GOOD, GOOD.index(b"\xa2") + 2, b"\xff"),
    "a byte at the end": GOOD + b"\0",
    "an object of no kind": patched(GOOD, 8, b"\x00"),
    "a set": patched(GOOD, 8, b"\xc4"),
    "text that is not ASCII": GOOD.replace(b"text", b"te\xfft"),
    "half a surrogate pair": archive("\u00eb").replace(b"\x61\0\xeb", b"\x61\xd8\0"),
    "a count of eighteen trillion": archive("x" * 16).replace(b"\x5f\x10\x10", b"\x5f\x13\xff"),
    "a count that is 0 when doubled": archive(b"123456789").replace(
        b"\x49123456789", b"\x6f\x13" + wide(2**63)),
    "a number of 128 bits": archive(2**64 - 1).replace(b"\x14" + bytes(8), b"\x14\1" + bytes(7)),
}


def make(folder):
    for name, (data, value) in ACCEPTED.items():
        (folder / f"{name}.xml").write_bytes(plistlib.dumps(value))
        (folder / f"{name}.blob").write_bytes(pack(data))
    for name, data in REFUSED.items():
        (folder / f"{name}.blob").write_bytes(pack(data))


if sys.argv[1] == "check":
    check(*sys.argv[2:])
else:
    make(pathlib.Path(sys.argv[2]))
